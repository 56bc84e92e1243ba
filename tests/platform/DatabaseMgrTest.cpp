#include "platform/common/DatabaseMgr.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/common/Md5.h"
#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// Runs `sql` on a plain connection to the device's database; returns the
// first column of the rows.
Texts run(const std::string& devId, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(devId).c_str(), &db);
    Texts rows;
    auto add = [](void* rows, int, char** values, char**) {
        static_cast<Texts*>(rows)->push_back(values[0] ? values[0] : "");
        return 0;
    };
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), add, &rows, nullptr)) << sql;
    sqlite3_close(db);
    return rows;
}

class DatabaseMgrTest : public ::testing::Test {
protected:
    void SetUp() override { mgr.setDatabaseDirectory(dir.path()); }
    void TearDown() override { mgr.setClock(nullptr); }
    bool exists(const char* devId) { return fs::exists(mgr.getDbNameFromDevId(devId)); }

    olvane::test::TempDir dir;
    DatabaseMgr& mgr = DatabaseMgr::instance();
};

TEST_F(DatabaseMgrTest, NamesStatusCreateDbAndSync) {
    EXPECT_EQ(dir.file("usb-SanDisk_1.0.db"), mgr.getDbNameFromDevId("usb-SanDisk_1.0"));
    EXPECT_EQ(dir.file("dev-2e2e2f78.db"), mgr.getDbNameFromDevId("../x"));
    EXPECT_EQ(dir.file("dev-612f62.db"), mgr.getDbNameFromDevId("a/b"));
    dir.write("bad.db", std::string(4096, 'x'));
    EXPECT_THROW(mgr.createDb("bad", "/m", true), std::runtime_error);

    mgr.setDatabaseDirectory(dir.file("new/dir"));
    mgr.insertStatus("dev", "/m", "OK");
    EXPECT_EQ("", mgr.getStatus("dev", "/m"));
    EXPECT_FALSE(exists("dev")) << "a status made a database";
    mgr.createDb("dev", "/m", true);
    EXPECT_EQ("", mgr.getStatus("dev", "/m"));
    mgr.insertStatus("dev", "/m", "PROGRESS");
    mgr.insertStatus("dev", "/m", "OK");
    mgr.insertStatus("dev", "/m2", "PROGRESS");
    EXPECT_EQ("OK", mgr.getStatus("dev", "/m"));
    EXPECT_EQ("PROGRESS", mgr.getStatus("dev", "/m2"));

    sqlite3* db = nullptr;  // keeps the WAL
    ASSERT_EQ(SQLITE_OK, sqlite3_open(mgr.getDbNameFromDevId("dev").c_str(), &db));
    sqlite3_exec(db, "INSERT INTO SONGS (PATH) VALUES ('/m/a.mp3');", nullptr, nullptr, nullptr);
    mgr.createDb("dev", "/m", true);
    EXPECT_EQ(Texts{"wal"}, run("dev", "PRAGMA journal_mode;"));
    // Every table is there.
    run("dev",
        "SELECT 1 FROM DIRECTORIES, ARTISTS, ALBUMS, GENRES, COMPOSERS, PLAYLISTS, "
        "VIEW_PLAYLISTNAMES;");
    const std::string file = mgr.getDbNameFromDevId("dev");
    ASSERT_GT(fs::file_size(file + "-wal"), 0u);
    mgr.sync("dev");
    EXPECT_EQ(0u, fs::file_size(file + "-wal"));
    fs::copy_file(file, dir.file("new/dir/copy.db"));
    EXPECT_EQ(Texts{"/m/a.mp3"}, run("copy", "SELECT PATH FROM SONGS;"));
    sqlite3_close(db);
    mgr.sync("missing");
    EXPECT_FALSE(exists("missing"));
}

TEST_F(DatabaseMgrTest, DanglingPartitionsLoseTheirRows) {
    auto addRows = [](const std::string& mp) {
        const std::string pid = Md5(Md5::DIRECTORY, mp).toString(), path = mp + "/x";
        char* sql = sqlite3_mprintf(
            "INSERT INTO SONGS (PARTITION_ID, PATH, ARTISTID) VALUES (%Q, %Q, %Q);"
            "REPLACE INTO ARTISTS (ARTISTID, ARTIST) VALUES (%Q, %Q);"
            "INSERT INTO DIRECTORIES (PARTITION_ID, PATH) VALUES (%Q, %Q);"
            "INSERT INTO PLAYLISTS (PARTITION_ID, PLAYPATH) VALUES (%Q, %Q);",
            pid.c_str(), path.c_str(), mp.c_str(), mp.c_str(), mp.c_str(), pid.c_str(),
            path.c_str(), pid.c_str(), path.c_str());
        run("dev", sql);
        sqlite3_free(sql);
    };
    // Last attach: three partitions, one with a quote in its name.
    const Texts old = {"/media/usb", "/media/it's", "/media/usb_2"};
    for (size_t i = 0; i < old.size(); ++i) {
        mgr.createDb("dev", old[i], i == 0);
        addRows(old[i]);
        mgr.insertStatus("dev", old[i], "OK");
    }
    // This attach: "/media/usb_2" again, and a mount point that "/media/usb"
    // is a prefix (and a LIKE pattern) of.
    mgr.createDb("dev", "/media/usbb", true);
    mgr.createDb("dev", "/media/usb_2", false);
    addRows("/media/usbb");
    mgr.removeDanglingPartitions("dev", "/media/usbb");

    Texts kept(4, "/media/usb_2");
    kept.resize(8, "/media/usbb");
    EXPECT_EQ(kept, run("dev",
                        "SELECT ARTIST FROM ARTISTS UNION ALL SELECT rtrim(PATH, '/x') FROM SONGS "
                        "UNION ALL SELECT rtrim(PATH, '/x') FROM DIRECTORIES UNION ALL "
                        "SELECT rtrim(PLAYPATH, '/x') FROM PLAYLISTS ORDER BY 1;"));
    using Statuses = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ((Statuses{{"/media/usb_2", "OK"}}), mgr.getStatuses("dev"));
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
    // No connection is left open, so each database is a single file.
    auto stored = [this](const char* dev) { return fs::file_size(mgr.getDbNameFromDevId(dev)); };
    uintmax_t total = 0;
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

}  // namespace
