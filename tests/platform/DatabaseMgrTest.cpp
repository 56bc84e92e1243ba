#include "platform/common/DatabaseMgr.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/common/Md5.h"
#include "tests/support/TempDir.h"

namespace {

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

long long sizeOf(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// A plain connection to a device database, as the application would hold.
class Db {
public:
    explicit Db(const std::string& devId) {
        sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(devId).c_str(), &db);
    }
    ~Db() { sqlite3_close(db); }

    void run(const char* sql, std::initializer_list<std::string> params = {}) {
        sqlite3_stmt* stmt = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr)) << sql;
        int i = 1;
        for (const std::string& p : params)
            sqlite3_bind_text(stmt, i++, p.c_str(), -1, SQLITE_TRANSIENT);
        EXPECT_EQ(SQLITE_DONE, sqlite3_step(stmt)) << sqlite3_errmsg(db);
        sqlite3_finalize(stmt);
    }
    // The first column of every row, "" for NULL.
    std::vector<std::string> column(const char* sql) {
        std::vector<std::string> out;
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK)
            return {"error: " + std::string(sqlite3_errmsg(db))};
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* t = sqlite3_column_text(stmt, 0);
            out.push_back(t ? reinterpret_cast<const char*>(t) : "");
        }
        sqlite3_finalize(stmt);
        return out;
    }
    // A song, its directory and a playlist entry below `mountPoint`.
    void addPartitionRows(const std::string& mountPoint, const std::string& artist) {
        const std::string pid = Md5(Md5::DIRECTORY, mountPoint).toString();
        const std::string aid = Md5(Md5::ARTIST, artist).toString();
        run("INSERT INTO SONGS (PARTITION_ID, PATH, ARTISTID) VALUES (?, ?, ?);",
            {pid, mountPoint + "/a.mp3", aid});
        run("REPLACE INTO ARTISTS (ARTISTID, ARTIST) VALUES (?, ?);", {aid, artist});
        run("INSERT INTO DIRECTORIES (PARTITION_ID, PATH) VALUES (?, ?);",
            {pid, mountPoint + "/d"});
        run("INSERT INTO PLAYLISTS (PARTITION_ID, PLAYPATH) VALUES (?, ?);",
            {pid, mountPoint + "/l.m3u"});
    }

    sqlite3* db = nullptr;
};

class DatabaseMgrTest : public ::testing::Test {
protected:
    void SetUp() override { mgr.setDatabaseDirectory(dir.path()); }
    void TearDown() override { mgr.setClock(nullptr); }

    olvane::test::TempDir dir;
    DatabaseMgr& mgr = DatabaseMgr::instance();
};

TEST_F(DatabaseMgrTest, DeviceIdsNameFilesInsideTheDirectory) {
    EXPECT_EQ(dir.path() + "/usb-SanDisk_1.0.db", mgr.getDbNameFromDevId("usb-SanDisk_1.0"));
    EXPECT_EQ(dir.path() + "/dev-2e2e2f78.db", mgr.getDbNameFromDevId("../x"));
    EXPECT_EQ(dir.path() + "/dev-612f62.db", mgr.getDbNameFromDevId("a/b"));
    EXPECT_EQ(dir.path() + "/dev-2e61.db", mgr.getDbNameFromDevId(".a"));
    EXPECT_EQ(dir.path() + "/dev-.db", mgr.getDbNameFromDevId(""));
    EXPECT_NE(mgr.getDbNameFromDevId("a b"), mgr.getDbNameFromDevId("a_b"));

    mgr.setDatabaseDirectory("");
    setenv("OLVANE_DB_DIR", "/x/db", 1);
    EXPECT_EQ("/x/db/d.db", mgr.getDbNameFromDevId("d"));
    unsetenv("OLVANE_DB_DIR");
    setenv("XDG_DATA_HOME", "/x/data", 1);
    EXPECT_EQ("/x/data/olvane", mgr.databaseDirectory());
    unsetenv("XDG_DATA_HOME");
}

TEST_F(DatabaseMgrTest, CreateDbMakesTheSchemaOnceInWalMode) {
    mgr.setDatabaseDirectory(dir.file("new/dir"));
    mgr.createDb("dev", "/media/usb", true);
    mgr.createDb("dev", "/media/usb", true);
    Db db("dev");
    EXPECT_EQ(std::vector<std::string>{"wal"}, db.column("PRAGMA journal_mode;"));
    for (const char* table : {"DIRECTORIES", "SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS",
                              "PLAYLISTS", "VIEW_PLAYLISTNAMES"})
        EXPECT_EQ(std::vector<std::string>{"0"},
                  db.column(("SELECT COUNT(*) FROM " + std::string(table) + ";").c_str()));

    // Repeated playlist rows are accepted; the view gives one row per
    // playlist and none for rows without a path.
    for (int i = 0; i < 2; ++i)
        db.run("INSERT INTO PLAYLISTS (PLAYPATH, PLAYID, TRACKID) VALUES ('/p', 'P', 'T');");
    db.run("INSERT INTO PLAYLISTS (PLAYPATH) VALUES (NULL);");
    EXPECT_EQ(std::vector<std::string>{"/p"},
              db.column("SELECT PLAYPATH FROM VIEW_PLAYLISTNAMES;"));
    db.run("REPLACE INTO ARTISTS (ARTISTID, ARTIST) VALUES ('1', 'a');");
    db.run("REPLACE INTO ARTISTS (ARTISTID, ARTIST) VALUES ('1', 'b');");
    EXPECT_EQ(std::vector<std::string>{"b"}, db.column("SELECT ARTIST FROM ARTISTS;"));
}

TEST_F(DatabaseMgrTest, CreateDbThrowsOnAFileItCannotUse) {
    dir.write("dev.db", std::string(4096, 'x'));
    EXPECT_THROW(mgr.createDb("dev", "/media/usb", true), std::runtime_error);
    mgr.setDatabaseDirectory(dir.write("plain", "x"));
    EXPECT_THROW(mgr.createDb("dev", "/media/usb", true), std::runtime_error);
}

TEST_F(DatabaseMgrTest, StatusRoundTrip) {
    EXPECT_EQ("", mgr.getStatus("dev", "/media/usb"));
    mgr.insertStatus("dev", "/media/usb", "OK");
    EXPECT_FALSE(exists(mgr.getDbNameFromDevId("dev"))) << "status made a database";

    mgr.createDb("dev", "/media/usb", true);
    EXPECT_EQ("", mgr.getStatus("dev", "/media/usb"));
    mgr.insertStatus("dev", "/media/usb", "PROGRESS");
    mgr.insertStatus("dev", "/media/usb2", "OK");
    EXPECT_EQ("PROGRESS", mgr.getStatus("dev", "/media/usb"));
    mgr.insertStatus("dev", "/media/usb", "OK");
    EXPECT_EQ("OK", mgr.getStatus("dev", "/media/usb"));
    EXPECT_EQ("OK", mgr.getStatus("dev", "/media/usb2"));
    EXPECT_EQ("", mgr.getStatus("other", "/media/usb"));
}

TEST_F(DatabaseMgrTest, DanglingPartitionsLoseTheirRows) {
    // Last attach: three partitions, one of them with a quote in its name.
    const std::vector<std::string> old = {"/media/usb", "/media/it's", "/media/usb_2"};
    mgr.createDb("dev", old[0], true);
    mgr.createDb("dev", old[1], false);
    mgr.createDb("dev", old[2], false);
    {
        Db db("dev");
        for (const std::string& mp : old) {
            db.addPartitionRows(mp, "Only " + mp);
            mgr.insertStatus("dev", mp, "OK");
        }
    }
    // This attach: "/media/usb_2" again, and a mount point that "/media/usb"
    // is a prefix (and a LIKE pattern) of.
    mgr.createDb("dev", "/media/usbb", true);
    mgr.createDb("dev", "/media/usb_2", false);
    Db db("dev");
    db.addPartitionRows("/media/usbb", "Only /media/usbb");
    mgr.removeDanglingPartitions("dev", "/media/usbb");

    const std::vector<std::string> kept = {"/media/usb_2/a.mp3", "/media/usbb/a.mp3"};
    EXPECT_EQ(kept, db.column("SELECT PATH FROM SONGS ORDER BY PATH;"));
    EXPECT_EQ((std::vector<std::string>{"/media/usb_2/d", "/media/usbb/d"}),
              db.column("SELECT PATH FROM DIRECTORIES ORDER BY PATH;"));
    EXPECT_EQ((std::vector<std::string>{"/media/usb_2/l.m3u", "/media/usbb/l.m3u"}),
              db.column("SELECT PLAYPATH FROM PLAYLISTS ORDER BY PLAYPATH;"));
    EXPECT_EQ((std::vector<std::string>{"Only /media/usb_2", "Only /media/usbb"}),
              db.column("SELECT ARTIST FROM ARTISTS ORDER BY ARTIST;"));
    EXPECT_EQ("", mgr.getStatus("dev", "/media/usb"));
    EXPECT_EQ("", mgr.getStatus("dev", "/media/it's"));
    EXPECT_EQ("OK", mgr.getStatus("dev", "/media/usb_2"));
}

TEST_F(DatabaseMgrTest, CheckAndDeleteRemovesLeastRecentlyIndexedFirst) {
    // Indexed at: own 50 (oldest, but never deleted), b 100, d 150 (no
    // status: its file time), c 200, a 300.
    const std::pair<const char*, long long> devices[] = {
        {"own", 50}, {"a", 300}, {"b", 100}, {"c", 200}, {"d", 0}};
    for (const auto& dev : devices) {
        mgr.createDb(dev.first, "/m", true);
        if (dev.second) {
            mgr.setClock([&dev] { return dev.second; });
            mgr.insertStatus(dev.first, "/m", "OK");
        }
    }
    olvane::test::setMtime(mgr.getDbNameFromDevId("d"), 150);
    dir.write("notes.txt", std::string(100000, 'n'));

    auto stored = [this](const char* dev) {
        const std::string n = mgr.getDbNameFromDevId(dev);
        return sizeOf(n) + sizeOf(n + "-wal") + sizeOf(n + "-shm");
    };
    long long total = 0;
    for (const auto& dev : devices)
        total += stored(dev.first);
    // Deleting b is not enough; b and d are.
    mgr.checkAndDelete("own", long(total - stored("b") - 1));
    for (const char* gone : {"b", "d"})
        EXPECT_FALSE(exists(mgr.getDbNameFromDevId(gone))) << gone;
    for (const char* kept : {"own", "a", "c"})
        EXPECT_TRUE(exists(mgr.getDbNameFromDevId(kept))) << kept;

    mgr.checkAndDelete("own", 0);
    EXPECT_TRUE(exists(mgr.getDbNameFromDevId("own")));
    EXPECT_FALSE(exists(mgr.getDbNameFromDevId("a")));
    EXPECT_FALSE(exists(mgr.getDbNameFromDevId("c")));
    EXPECT_TRUE(exists(dir.file("notes.txt")));
}

TEST_F(DatabaseMgrTest, SizeLimitDeleteAndSync) {
    const std::string name = mgr.getDbNameFromDevId("big");
    dir.write("big.db", "");
    ASSERT_EQ(0, ::truncate(name.c_str(), DatabaseMgr::kSizeLimit - 1));
    EXPECT_FALSE(mgr.dbSizeHasReachLimit(name));
    dir.write("big.db-wal", "w");
    EXPECT_TRUE(mgr.dbSizeHasReachLimit(name));
    dir.write("big.db-shm", "s");
    mgr.deleteDb("big");
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_FALSE(exists(name + suffix)) << suffix;

    // While another connection keeps the WAL, sync moves its content into
    // the database file itself.
    mgr.createDb("dev", "/m", true);
    Db db("dev");
    db.run("INSERT INTO SONGS (PATH) VALUES ('/m/a.mp3');");
    const std::string file = mgr.getDbNameFromDevId("dev");
    ASSERT_GT(sizeOf(file + "-wal"), 0);
    mgr.sync("dev");
    EXPECT_EQ(0, sizeOf(file + "-wal"));
    std::filesystem::copy_file(file, dir.file("copy.db"));
    Db copy("copy");
    EXPECT_EQ(std::vector<std::string>{"/m/a.mp3"}, copy.column("SELECT PATH FROM SONGS;"));

    mgr.sync("missing");
    EXPECT_FALSE(exists(mgr.getDbNameFromDevId("missing")));
}

}  // namespace
