#include "playlist/PlaylistSaver.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "platform/common/DatabaseMgr.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/log/LogCapture.h"
#include "playlist/MSDPlaylistMiner.h"
#include "tests/support/TempDir.h"

using namespace kestrow;
typedef std::vector<std::string> Row;  // "<null>" for NULL

namespace {

class PlaylistSaverTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.path() + "/db");
        DatabaseMgr::instance().createDb("dev-1", mount, true);
    }

    template <class T>
    boost::shared_ptr<Block<T*>> block(int op, const std::vector<T*>& items) {
        boost::shared_ptr<Block<T*>> b(new Block<T*>());
        b->operation = Operation(op, 0, "dev-1", mount, true);
        b->items = items;
        return b;
    }
    static Playlist* playlist(const std::string& path, const std::string& partition, int modified,
                              const Row& tracks, int isMtp = 0) {
        Playlist* p = new Playlist(path, partition, modified);
        for (const std::string& t : tracks)
            p->entries.push_back(new PlaylistEntry(t, isMtp));
        return p;
    }
    static Row row(const Playlist* p, const std::string& track, std::string id = "") {
        id = id.empty() ? Md5(Md5::SONG, track).toString() : id;
        return {p->partitionId.toString(),  p->path, p->id.toString(), p->name, track, id, "1",
                std::to_string(p->modified)};
    }
    // Runs `sql` on the device database; the rows it yields.
    static std::vector<Row> query(const std::string& sql) {
        sqlstl::basic_sqlistream<char> db;
        DatabaseMgr::instance().open("dev-1", db, 1000);
        char** table = nullptr;
        int n = 0, columns = 0;
        EXPECT_EQ(SQLITE_OK, sqlite3_get_table(db.db, sql.c_str(), &table, &n, &columns, nullptr));
        std::vector<Row> rows(n);
        for (int i = 0; i < n * columns; ++i)
            rows[i / columns].push_back(table[columns + i] ? table[columns + i] : "<null>");
        sqlite3_free_table(table);
        return rows;
    }

    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    std::string mount = tmp.mkdir("usb");
};

// One row per entry, then the statement once more per playlist: the last
// entry twice, and for an empty playlist the bindings left before it. A
// failing row is logged and ends its block's writing (after.m3u is lost),
// not the operation nor the stage.
TEST_F(PlaylistSaverTest, WritesEntriesAndRepeatsTheLastBindings) {
    query("CREATE UNIQUE INDEX ONE_TRACK ON PLAYLISTS(TRACKPATH) WHERE PLAYNAME = 'two.m3u';");
    Playlist* three = playlist(mount + "/Music/three.m3u", mount, 1700000000,
                               {"/usb/Music/a.mp3", "usb/Music/b c.mp3", "C:/Music/d.mp3"});
    Playlist* mtp = playlist("mtp-playlist://12/Road", "mtp-folder://dev-1", 0, {"4711"}, 1);
    Playlist* two = playlist(mount + "/two.m3u", mount, 1, {"usb/a.mp3", "usb/b.mp3"});
    Playlist* next = playlist(mount + "/next.m3u", mount, 3, {"usb/d.mp3"});
    Row d = row(three, "C:/Music/d.mp3"), road = row(mtp, "4711", "4711");
    std::vector<Row> want({Row(8, "<null>"), row(three, "/usb/Music/a.mp3"),
                           row(three, "usb/Music/b c.mp3"), d, d, d, road, road,
                           row(two, "usb/a.mp3"), row(two, "usb/b.mp3"), row(next, "usb/d.mp3"),
                           row(next, "usb/d.mp3")});
    std::vector<std::vector<Playlist*>> blocks = {
        {playlist(mount + "/first.m3u", mount, 5, {}), three,
         playlist(mount + "/none.pls", mount, 6, {}), mtp},
        {two, playlist(mount + "/after.m3u", mount, 2, {"usb/c.mp3"})},
        {next}};
    PlaylistSaver saver("PlaylistSaver");
    for (size_t i = 0; i < blocks.size(); ++i)
        EXPECT_EQ(int(i), saver.doOperation(block(int(i), blocks[i]))->operation.id);
    EXPECT_EQ(want, query("SELECT PARTITION_ID, PLAYPATH, PLAYID, PLAYNAME, TRACKPATH, TRACKID, "
                          "AUDIOTYPE, LASTMODIFIED FROM PLAYLISTS ORDER BY ID;"));
    EXPECT_EQ(1, log.countContaining("exec failed: 19 "));
}

// A relative entry of a mined playlist names its song by the song's own
// OBJECTID, so the clean-up of entries without a song keeps it and drops
// the missing one.
TEST_F(PlaylistSaverTest, MinedEntriesJoinTheirSongs) {
    std::string song = tmp.write("usb/Music/song.mp3", std::string(128, '\xff'));
    std::string list = tmp.write("usb/Music/list.m3u", "song.mp3\nmissing.mp3\n");
    std::string top = tmp.write("usb/top.m3u", "Music\\song.mp3\n");
    auto files = block<FileInfo>(8, {new FileInfo(list, 0, 11), new FileInfo(top, 0, 12)});
    PlaylistSaver("saver").doOperation(MSDPlaylistMiner("miner").doOperation(files));
    std::string id = MetaDataInfo(song, mount, "", "", "", "", "", 0, 0, 0).objectId;
    EXPECT_EQ(std::vector<Row>({{song, id, list}, {song, id, top}, {song, id, top}}),
              query("INSERT INTO SONGS(PATH, OBJECTID) VALUES ('" + song + "', '" + id +
                    "'); DELETE FROM PLAYLISTS WHERE TRACKID NOT IN (SELECT OBJECTID from SONGS); "
                    "SELECT TRACKPATH, TRACKID, PLAYPATH FROM PLAYLISTS ORDER BY ID;"));
}

}  // namespace
