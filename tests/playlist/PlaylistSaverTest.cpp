#include "playlist/PlaylistSaver.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "platform/common/DatabaseMgr.h"
#include "platform/common/Md5.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/log/LogCapture.h"
#include "playlist/MSDPlaylistMiner.h"
#include "tests/playlist/StageHarness.h"
#include "tests/support/TempDir.h"

using kestrow::Block;
using kestrow::FileInfo;
using kestrow::Operation;
using kestrow::Playlist;
using kestrow::PlaylistEntry;
using kestrow::PlaylistSaver;
using olvane::test::Collector;

namespace {

typedef Block<Playlist*> Playlists;
typedef std::vector<std::string> Row;  // "<null>" for a NULL column

const char* const kDevice = "dev-1";

class PlaylistSaverTest : public ::testing::Test {
protected:
    void SetUp() override {
        mount = tmp.mkdir("usb");
        DatabaseMgr::instance().setDatabaseDirectory(tmp.path() + "/db");
        DatabaseMgr::instance().createDb(kDevice, mount, true);
    }

    static Playlist* playlist(const std::string& path, const std::string& partition, int modified,
                              const std::vector<std::string>& tracks, int isMtp = 0) {
        Playlist* p = new Playlist(path, partition, modified);
        for (const std::string& t : tracks)
            p->entries.push_back(new PlaylistEntry(t, isMtp));
        return p;
    }

    boost::shared_ptr<Playlists> block(int op, const std::vector<Playlist*>& items) {
        boost::shared_ptr<Playlists> b(new Playlists());
        b->operation = Operation(op, 0, kDevice, mount, true);
        b->items = items;
        return b;
    }

    // Runs `inputs` through a saver; the blocks that come out of it.
    std::vector<boost::shared_ptr<Block<void>>> save(
        const std::vector<boost::shared_ptr<Playlists>>& inputs) {
        PlaylistSaver saver("PlaylistSaver");
        Collector<Block<void>> collector;
        saver.next = &collector;
        EXPECT_TRUE(olvane::test::runChain({&saver, &collector}, saver, inputs, collector));
        std::vector<boost::shared_ptr<Block<void>>> out;
        for (size_t i = 0; i < inputs.size(); ++i)
            out.push_back(collector.at(i));
        return out;
    }

    static std::vector<Row> query(const std::string& sql) {
        sqlite3* db = nullptr;
        std::vector<Row> rows;
        EXPECT_EQ(SQLITE_OK,
                  sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(kDevice).c_str(), &db));
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr));
        while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
            Row row;
            for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                const unsigned char* text = sqlite3_column_text(stmt, c);
                row.push_back(text ? reinterpret_cast<const char*>(text) : "<null>");
            }
            rows.push_back(row);
        }
        sqlite3_finalize(stmt);
        sqlite3_close(db);
        return rows;
    }

    static void exec(const std::string& sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK,
                  sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(kDevice).c_str(), &db));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }

    static std::vector<Row> playlistRows() {
        return query(
            "SELECT PARTITION_ID, PLAYPATH, PLAYID, PLAYNAME, TRACKPATH, TRACKID, AUDIOTYPE, "
            "LASTMODIFIED FROM PLAYLISTS ORDER BY ID;");
    }

    static Row fileRow(const Playlist& p, const std::string& track) {
        return {p.partitionId.toString(),         p.path, p.id.toString(),           p.name, track,
                Md5(Md5::SONG, track).toString(), "1",    std::to_string(p.modified)};
    }

    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    std::string mount;
};

// One row per entry, then the statement once more per playlist: the last
// entry twice, and for an empty playlist the bindings left before it.
TEST_F(PlaylistSaverTest, WritesEntriesAndRepeatsTheLastBindings) {
    Playlist* first = playlist(mount + "/first.m3u", mount, 5, {});
    Playlist* three = playlist(mount + "/Music/three.m3u", mount, 1700000000,
                               {"/usb/Music/a.mp3", "usb/Music/b c.mp3", "C:/Music/d.mp3"});
    Playlist* none = playlist(mount + "/none.pls", mount, 6, {});
    Playlist* mtp = playlist("mtp-playlist://12/Road", "mtp-folder://dev-1", 0, {"4711"}, 1);
    boost::shared_ptr<Playlists> in = block(3, {first, three, none, mtp});
    in->operation.deviceGone = true;
    Playlist* later = playlist(mount + "/later.m3u", mount, 9, {"usb/x.mp3"});
    boost::shared_ptr<Playlists> in2 = block(4, {later});

    std::vector<boost::shared_ptr<Block<void>>> out = save({in, in2});
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(3, out[0]->operation.id);
    EXPECT_TRUE(out[0]->operation.lastBlock);
    EXPECT_TRUE(out[0]->operation.deviceGone);
    EXPECT_EQ(kDevice, out[0]->operation.deviceId);
    EXPECT_EQ(4, out[1]->operation.id);
    EXPECT_FALSE(out[1]->operation.deviceGone);

    const Row nulls(8, "<null>");
    const Row lastOfThree = fileRow(*three, "C:/Music/d.mp3");
    const Row mtpRow = {mtp->partitionId.toString(),
                        "mtp-playlist://12/Road",
                        mtp->id.toString(),
                        "Road",
                        "4711",
                        "4711",
                        "1",
                        "0"};
    std::vector<Row> expected = {nulls,
                                 fileRow(*three, "/usb/Music/a.mp3"),
                                 fileRow(*three, "usb/Music/b c.mp3"),
                                 lastOfThree,
                                 lastOfThree,
                                 lastOfThree,
                                 mtpRow,
                                 mtpRow,
                                 fileRow(*later, "usb/x.mp3"),
                                 fileRow(*later, "usb/x.mp3")};
    EXPECT_EQ(expected, playlistRows());
    // Kind 0 ignores leading '/': the same track with or without it, one id.
    EXPECT_EQ(Md5(Md5::SONG, "usb/Music/a.mp3").toString(), playlistRows()[1][5]);

    EXPECT_EQ(1, log.count("PlaylistSaver for: 4 (op: 3)"));
    EXPECT_EQ(1, log.count("PlaylistSaver for: 1 (op: 4)"));
    EXPECT_EQ(2, log.countContaining("PlaylistSaver timer: "));
    EXPECT_EQ(0, log.countContaining("exec failed"));
    EXPECT_EQ(0, log.count("step failed"));
}

// A failing row ends the block's writing; the rows before it are kept, the
// operation goes on, and the next block is written again. A database that
// cannot be opened still lets the operation through.
TEST_F(PlaylistSaverTest, FailuresEndTheBlockButNotTheStage) {
    exec("CREATE UNIQUE INDEX ONE_TRACK ON PLAYLISTS(PLAYID, TRACKPATH);");
    Playlist* two = playlist(mount + "/two.m3u", mount, 1, {"usb/a.mp3", "usb/b.mp3"});
    Playlist* after = playlist(mount + "/after.m3u", mount, 2, {"usb/c.mp3"});
    Playlist* next = playlist(mount + "/next.m3u", mount, 3, {"usb/d.mp3"});

    boost::shared_ptr<Playlists> in = block(5, {two, after});
    boost::shared_ptr<Playlists> in2 = block(6, {next});
    std::vector<boost::shared_ptr<Block<void>>> out = save({in, in2});
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(5, out[0]->operation.id);
    EXPECT_EQ(6, out[1]->operation.id);
    EXPECT_EQ(std::vector<Row>({fileRow(*two, "usb/a.mp3"), fileRow(*two, "usb/b.mp3"),
                                fileRow(*next, "usb/d.mp3")}),
              playlistRows());
    EXPECT_EQ(2, log.countContaining("exec failed: 19 "));
    // The entry of "after.m3u" and its repeat.
    EXPECT_EQ(2, log.count("step failed"));

    log.clear();
    tmp.write("blocked", "");
    DatabaseMgr::instance().setDatabaseDirectory(tmp.path() + "/blocked/db");
    out = save({block(7, {playlist(mount + "/x.m3u", mount, 4, {"usb/e.mp3"})})});
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(7, out[0]->operation.id);
    EXPECT_TRUE(out[0]->operation.lastBlock);
    EXPECT_TRUE(log.contains("cannot open db"));
}

// A relative entry of a mined playlist names its song by the song's own
// OBJECTID, so the clean-up of entries without a song keeps it.
TEST_F(PlaylistSaverTest, MinedEntriesJoinTheirSongs) {
    const std::string song = tmp.write("usb/Music/song.mp3", std::string(128, '\xff'));
    const std::string list = tmp.write("usb/Music/list.m3u", "song.mp3\nmissing.mp3\n");
    const std::string top = tmp.write("usb/top.m3u", "Music\\song.mp3\n");

    kestrow::MSDPlaylistMiner miner("MSDPlaylistMiner");
    PlaylistSaver saver("PlaylistSaver");
    Collector<Block<void>> collector;
    miner.next = &saver;
    saver.next = &collector;
    boost::shared_ptr<Block<FileInfo*>> files(new Block<FileInfo*>());
    files->operation = Operation(8, 0, kDevice, mount, true);
    files->items = {new FileInfo(list, 0, 11), new FileInfo(top, 0, 12)};
    ASSERT_TRUE(olvane::test::runChain({&miner, &saver, &collector}, miner, {files}, collector));
    EXPECT_EQ(8, collector.at(0)->operation.id);

    const std::string objectId = MetaDataInfo(song, mount, "", "", "", "", "", 0, 0, 0).objectId;
    std::vector<Row> rows =
        query("SELECT TRACKPATH, TRACKID, PLAYPATH FROM PLAYLISTS ORDER BY ID;");
    ASSERT_EQ(5u, rows.size());
    EXPECT_EQ(Row({song, objectId, list}), rows[0]);
    EXPECT_EQ(mount + "/Music/missing.mp3", rows[1][0]);
    EXPECT_EQ(rows[1], rows[2]);
    EXPECT_EQ(Row({song, objectId, top}), rows[3]);
    EXPECT_EQ(rows[3], rows[4]);

    exec("INSERT INTO SONGS(PATH, OBJECTID) VALUES ('" + song + "', '" + objectId + "');");
    exec(
        "BEGIN TRANSACTION; DELETE FROM PLAYLISTS WHERE TRACKID NOT IN (SELECT OBJECTID from "
        "SONGS);COMMIT;");
    EXPECT_EQ(std::vector<Row>({Row({song, list}), Row({song, top}), Row({song, top})}),
              query("SELECT TRACKPATH, PLAYPATH FROM PLAYLISTS ORDER BY ID;"));
}

}  // namespace
