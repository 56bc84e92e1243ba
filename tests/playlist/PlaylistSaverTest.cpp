#include "playlist/PlaylistSaver.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "platform/common/DatabaseMgr.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/log/LogCapture.h"
#include "playlist/MSDPlaylistMiner.h"
#include "tests/playlist/StageHarness.h"
#include "tests/support/TempDir.h"

using namespace kestrow;
typedef std::vector<std::string> Row;  // "<null>" for NULL
typedef boost::shared_ptr<Block<Playlist*>> Playlists;

namespace {

class PlaylistSaverTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.path() + "/db");
        DatabaseMgr::instance().createDb("dev-1", mount, true);
    }

    static Playlist* playlist(const std::string& path, const std::string& partition, int modified,
                              const Row& tracks, int isMtp = 0) {
        Playlist* p = new Playlist(path, partition, modified);
        for (const std::string& t : tracks)
            p->entries.push_back(new PlaylistEntry(t, isMtp));
        return p;
    }
    Playlists block(int op, const std::vector<Playlist*>& items) {
        Playlists b(new Block<Playlist*>());
        b->operation = Operation(op, 0, "dev-1", mount, true);
        b->items = items;
        return b;
    }

    // Runs the blocks through a saver; the blocks that come out of it.
    std::vector<boost::shared_ptr<Block<void>>> save(const std::vector<Playlists>& inputs) {
        PlaylistSaver saver("PlaylistSaver");
        olvane::test::Collector<Block<void>> out;
        saver.next = &out;
        EXPECT_TRUE(olvane::test::runChain({&saver, &out}, saver, inputs, out));
        return out.blocks;
    }

    // Runs `sql` on the device database; the rows of its last statement.
    static std::vector<Row> query(const std::string& sql) {
        sqlite3* db = nullptr;
        sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId("dev-1").c_str(), &db);
        std::vector<Row> rows;
        for (const char* rest = sql.c_str(); rest && *rest;) {
            sqlite3_stmt* stmt = nullptr;
            EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, rest, -1, &stmt, &rest)) << sql;
            for (rows.clear(); stmt && sqlite3_step(stmt) == SQLITE_ROW;) {
                rows.emplace_back();
                for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                    const unsigned char* text = sqlite3_column_text(stmt, c);
                    rows.back().push_back(text ? (const char*)text : "<null>");
                }
            }
            sqlite3_finalize(stmt);
        }
        sqlite3_close(db);
        return rows;
    }
    static std::vector<Row> rows() {
        return query(
            "SELECT PARTITION_ID, PLAYPATH, PLAYID, PLAYNAME, TRACKPATH, TRACKID, AUDIOTYPE, "
            "LASTMODIFIED FROM PLAYLISTS ORDER BY ID;");
    }
    static Row row(const Playlist* p, const std::string& track, const std::string& trackId) {
        return {p->partitionId.toString(),  p->path, p->id.toString(), p->name, track, trackId, "1",
                std::to_string(p->modified)};
    }
    static Row row(const Playlist* p, const std::string& track) {
        return row(p, track, Md5(Md5::SONG, track).toString());
    }

    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    std::string mount = tmp.mkdir("usb");
};

// One row per entry, then the statement once more per playlist: the last
// entry twice, and for an empty playlist the bindings left before it.
TEST_F(PlaylistSaverTest, WritesEntriesAndRepeatsTheLastBindings) {
    Playlist* three = playlist(mount + "/Music/three.m3u", mount, 1700000000,
                               {"/usb/Music/a.mp3", "usb/Music/b c.mp3", "C:/Music/d.mp3"});
    Playlist* mtp = playlist("mtp-playlist://12/Road", "mtp-folder://dev-1", 0, {"4711"}, 1);
    Playlist* later = playlist(mount + "/later.m3u", mount, 9, {"usb/x.mp3"});
    Playlists first = block(3, {playlist(mount + "/first.m3u", mount, 5, {}), three,
                                playlist(mount + "/none.pls", mount, 6, {}), mtp});
    first->operation.deviceGone = true;
    Playlists second = block(4, {later});

    std::vector<boost::shared_ptr<Block<void>>> out = save({first, second});
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(3, out[0]->operation.id);
    EXPECT_TRUE(out[0]->operation.lastBlock);
    EXPECT_TRUE(out[0]->operation.deviceGone);
    EXPECT_EQ(4, out[1]->operation.id);
    EXPECT_FALSE(out[1]->operation.deviceGone);

    Row d = row(three, "C:/Music/d.mp3"), road = row(mtp, "4711", "4711");
    EXPECT_EQ(std::vector<Row>({Row(8, "<null>"), row(three, "/usb/Music/a.mp3"),
                                row(three, "usb/Music/b c.mp3"), d, d, d, road, road,
                                row(later, "usb/x.mp3"), row(later, "usb/x.mp3")}),
              rows());
    EXPECT_EQ(1, log.count("PlaylistSaver for: 4 (op: 3)"));
    EXPECT_EQ(2, log.countContaining("PlaylistSaver timer: "));
    EXPECT_FALSE(log.contains("failed"));
}

// A failing row ends the block's writing; the rows before it are kept, the
// operation goes on, and the next block is written again.
TEST_F(PlaylistSaverTest, FailingRowEndsTheBlockNotTheStage) {
    query("CREATE UNIQUE INDEX ONE_TRACK ON PLAYLISTS(PLAYID, TRACKPATH);");
    Playlist* two = playlist(mount + "/two.m3u", mount, 1, {"usb/a.mp3", "usb/b.mp3"});
    Playlist* next = playlist(mount + "/next.m3u", mount, 3, {"usb/d.mp3"});
    Playlists first = block(5, {two, playlist(mount + "/after.m3u", mount, 2, {"usb/c.mp3"})});
    Playlists second = block(6, {next});

    std::vector<boost::shared_ptr<Block<void>>> out = save({first, second});
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(5, out[0]->operation.id);
    EXPECT_EQ(
        std::vector<Row>({row(two, "usb/a.mp3"), row(two, "usb/b.mp3"), row(next, "usb/d.mp3")}),
        rows());
    EXPECT_EQ(2, log.countContaining("exec failed: 19 "));
    EXPECT_EQ(2, log.count("step failed"));  // after.m3u's entry and its repeat
}

// A relative entry of a mined playlist names its song by the song's own
// OBJECTID, so the clean-up of entries without a song keeps it.
TEST_F(PlaylistSaverTest, MinedEntriesJoinTheirSongs) {
    std::string song = tmp.write("usb/Music/song.mp3", std::string(128, '\xff'));
    std::string list = tmp.write("usb/Music/list.m3u", "song.mp3\nmissing.mp3\n");
    std::string top = tmp.write("usb/top.m3u", "Music\\song.mp3\n");
    boost::shared_ptr<Block<FileInfo*>> files(new Block<FileInfo*>());
    files->operation = Operation(8, 0, "dev-1", mount, true);
    files->items = {new FileInfo(list, 0, 11), new FileInfo(top, 0, 12)};

    MSDPlaylistMiner miner("MSDPlaylistMiner");
    PlaylistSaver saver("PlaylistSaver");
    olvane::test::Collector<Block<void>> out;
    miner.next = &saver;
    saver.next = &out;
    ASSERT_TRUE(olvane::test::runChain({&miner, &saver, &out}, miner, {files}, out));
    EXPECT_EQ(8, out.blocks[0]->operation.id);

    std::string id = MetaDataInfo(song, mount, "", "", "", "", "", 0, 0, 0).objectId;
    std::string missing = mount + "/Music/missing.mp3";
    Row gone = {missing, Md5(Md5::SONG, missing).toString(), list};
    EXPECT_EQ(std::vector<Row>({{song, id, list}, gone, gone, {song, id, top}, {song, id, top}}),
              query("SELECT TRACKPATH, TRACKID, PLAYPATH FROM PLAYLISTS ORDER BY ID;"));
    EXPECT_EQ(std::vector<Row>({{list}, {top}, {top}}),
              query("INSERT INTO SONGS(PATH, OBJECTID) VALUES ('" + song + "', '" + id +
                    "'); BEGIN TRANSACTION; DELETE FROM PLAYLISTS WHERE TRACKID NOT IN (SELECT "
                    "OBJECTID from SONGS);COMMIT; SELECT PLAYPATH FROM PLAYLISTS ORDER BY ID;"));
}

}  // namespace
