#include "platform/common/DatabaseMgr.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/common/Md5.h"
#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

long long sizeOf(const std::string& path) {
    std::error_code ec;
    auto size = fs::file_size(path, ec);
    return ec ? 0 : static_cast<long long>(size);
}

// A plain connection to a device database, as the application would hold.
struct Db {
    explicit Db(const std::string& devId) {
        sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(devId).c_str(), &db);
    }
    ~Db() { sqlite3_close(db); }

    // Runs `sql` with text parameters; returns the first column of its rows.
    Texts run(const char* sql, const Texts& params = {}) {
        Texts rows;
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr)) << sql;
        for (size_t i = 0; i < params.size(); ++i)
            sqlite3_bind_text(stmt, int(i + 1), params[i].c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* t = sqlite3_column_text(stmt, 0);
            rows.push_back(t ? reinterpret_cast<const char*>(t) : "");
        }
        sqlite3_finalize(stmt);
        return rows;
    }
    // A song with its artist, a directory and a playlist entry of a partition.
    void addRows(const std::string& mp) {
        const std::string pid = Md5(Md5::DIRECTORY, mp).toString();
        run("INSERT INTO SONGS (PARTITION_ID, PATH, ARTISTID) VALUES (?, ?, ?);",
            {pid, mp + "/a.mp3", mp});
        run("REPLACE INTO ARTISTS (ARTISTID, ARTIST) VALUES (?, ?);", {mp, mp});
        run("INSERT INTO DIRECTORIES (PARTITION_ID, PATH) VALUES (?, ?);", {pid, mp + "/d"});
        run("INSERT INTO PLAYLISTS (PARTITION_ID, PLAYPATH) VALUES (?, ?);", {pid, mp + "/l"});
    }

    sqlite3* db = nullptr;
};

class DatabaseMgrTest : public ::testing::Test {
protected:
    void SetUp() override { mgr.setDatabaseDirectory(dir.path()); }
    void TearDown() override { mgr.setClock(nullptr); }
    bool exists(const char* devId) { return fs::exists(mgr.getDbNameFromDevId(devId)); }

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
}

TEST_F(DatabaseMgrTest, CreateDbMakesTheSchemaOnceInWalMode) {
    dir.write("bad.db", std::string(4096, 'x'));
    EXPECT_THROW(mgr.createDb("bad", "/m", true), std::runtime_error);

    mgr.setDatabaseDirectory(dir.file("new/dir"));
    mgr.createDb("dev", "/media/usb", true);
    mgr.createDb("dev", "/media/usb", true);
    Db db("dev");
    EXPECT_EQ(Texts{"wal"}, db.run("PRAGMA journal_mode;"));
    for (std::string table : {"DIRECTORIES", "SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS",
                              "PLAYLISTS", "VIEW_PLAYLISTNAMES"})
        EXPECT_EQ(Texts{"0"}, db.run(("SELECT COUNT(*) FROM " + table + ";").c_str())) << table;

    // Repeated playlist rows are accepted; the view gives one row per
    // playlist and none for rows without a path.
    for (int i = 0; i < 2; ++i)
        db.run("INSERT INTO PLAYLISTS (PLAYPATH, PLAYID, TRACKID) VALUES ('/p', 'P', 'T');");
    db.run("INSERT INTO PLAYLISTS (PLAYPATH) VALUES (NULL);");
    EXPECT_EQ(Texts{"/p"}, db.run("SELECT PLAYPATH FROM VIEW_PLAYLISTNAMES;"));
    EXPECT_EQ(Texts{"3"}, db.run("SELECT COUNT(*) FROM PLAYLISTS;"));
}

TEST_F(DatabaseMgrTest, StatusRoundTrip) {
    mgr.insertStatus("dev", "/media/usb", "OK");
    EXPECT_EQ("", mgr.getStatus("dev", "/media/usb"));
    EXPECT_FALSE(exists("dev")) << "a status made a database";

    mgr.createDb("dev", "/media/usb", true);
    EXPECT_EQ("", mgr.getStatus("dev", "/media/usb"));
    mgr.insertStatus("dev", "/media/usb", "PROGRESS");
    mgr.insertStatus("dev", "/media/usb2", "OK");
    EXPECT_EQ("PROGRESS", mgr.getStatus("dev", "/media/usb"));
    mgr.insertStatus("dev", "/media/usb", "OK");
    EXPECT_EQ("OK", mgr.getStatus("dev", "/media/usb"));
    EXPECT_EQ("OK", mgr.getStatus("dev", "/media/usb2"));
}

TEST_F(DatabaseMgrTest, DanglingPartitionsLoseTheirRows) {
    // Last attach: three partitions, one with a quote in its name.
    const Texts old = {"/media/usb", "/media/it's", "/media/usb_2"};
    for (size_t i = 0; i < old.size(); ++i) {
        mgr.createDb("dev", old[i], i == 0);
        Db("dev").addRows(old[i]);
        mgr.insertStatus("dev", old[i], "OK");
    }
    // This attach: "/media/usb_2" again, and a mount point that "/media/usb"
    // is a prefix (and a LIKE pattern) of.
    mgr.createDb("dev", "/media/usbb", true);
    mgr.createDb("dev", "/media/usb_2", false);
    Db db("dev");
    db.addRows("/media/usbb");
    mgr.removeDanglingPartitions("dev", "/media/usbb");

    const Texts kept = {"/media/usb_2", "/media/usbb"};
    EXPECT_EQ(kept, db.run("SELECT ARTIST FROM ARTISTS ORDER BY 1;"));
    EXPECT_EQ(kept, db.run("SELECT substr(PATH, 1, length(PATH) - 6) FROM SONGS ORDER BY 1;"));
    EXPECT_EQ(kept,
              db.run("SELECT substr(PATH, 1, length(PATH) - 2) FROM DIRECTORIES ORDER BY 1;"));
    EXPECT_EQ(kept, db.run("SELECT substr(PLAYPATH, 1, length(PLAYPATH) - 2) FROM PLAYLISTS "
                           "ORDER BY 1;"));
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
        mgr.setClock([&dev] { return dev.second; });
        if (dev.second)
            mgr.insertStatus(dev.first, "/m", "OK");
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
    EXPECT_FALSE(exists("b") || exists("d"));
    EXPECT_TRUE(exists("own") && exists("a") && exists("c"));

    mgr.checkAndDelete("own", 0);
    EXPECT_TRUE(exists("own"));
    EXPECT_FALSE(exists("a") || exists("c"));
    EXPECT_TRUE(fs::exists(dir.file("notes.txt")));
}

TEST_F(DatabaseMgrTest, SizeLimitDeleteAndSync) {
    const std::string name = dir.write("big.db", "");
    ASSERT_EQ(0, ::truncate(name.c_str(), DatabaseMgr::kSizeLimit - 1));
    EXPECT_FALSE(mgr.dbSizeHasReachLimit(name));
    dir.write("big.db-wal", "w");
    EXPECT_TRUE(mgr.dbSizeHasReachLimit(name));
    dir.write("big.db-shm", "s");
    mgr.deleteDb("big");
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_FALSE(fs::exists(name + suffix)) << suffix;

    // While another connection keeps the WAL, sync moves its content into
    // the database file itself.
    mgr.createDb("dev", "/m", true);
    Db db("dev");
    db.run("INSERT INTO SONGS (PATH) VALUES ('/m/a.mp3');");
    const std::string file = mgr.getDbNameFromDevId("dev");
    ASSERT_GT(sizeOf(file + "-wal"), 0);
    mgr.sync("dev");
    EXPECT_EQ(0, sizeOf(file + "-wal"));
    fs::copy_file(file, dir.file("copy.db"));
    EXPECT_EQ(Texts{"/m/a.mp3"}, Db("copy").run("SELECT PATH FROM SONGS;"));

    mgr.sync("missing");
    EXPECT_FALSE(exists("missing"));
}

}  // namespace
