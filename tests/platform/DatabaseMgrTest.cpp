#include "platform/common/DatabaseMgr.h"

#include <sqlite3.h>

#include "platform/common/Md5.h"
#include "tests/support/Testing.h"

namespace {

using olvane::test::dbColumn;
using olvane::test::Strings;
namespace fs = std::filesystem;

struct DatabaseMgrTest : ::testing::Test {
    void SetUp() override { mgr.setDatabaseDirectory(dir.path()); }
    void TearDown() override { mgr.setClock(nullptr); }
    bool exists(const char* devId, const char* suffix = "") {
        return fs::exists(mgr.getDbNameFromDevId(devId) + suffix);
    }

    olvane::test::TempDir dir;
    DatabaseMgr& mgr = DatabaseMgr::instance();
};

TEST_F(DatabaseMgrTest, NamesStatusCreateDbAndSync) {
    EXPECT_EQ(dir.file("usb-SanDisk_1.0.db"), mgr.getDbNameFromDevId("usb-SanDisk_1.0"));
    EXPECT_EQ(dir.file("dev-2e2e2f78.db"), mgr.getDbNameFromDevId("../x"));
    EXPECT_EQ(dir.file("dev-612f62.db"), mgr.getDbNameFromDevId("a/b"));
    EXPECT_EQ(dir.file("dev-2f6574632f706173737764.db"), mgr.getDbNameFromDevId("/etc/passwd"));

    mgr.setDatabaseDirectory(dir.file("new/dir"));
    mgr.insertStatus("dev", "/m", "OK");
    EXPECT_FALSE(exists("dev") || mgr.getStatus("dev", "/m") != "") << "a status made a database";
    mgr.createDb("dev", "/m", true);
    mgr.insertStatus("dev", "/m", "PROGRESS");
    mgr.insertStatus("dev", "/m", "OK");
    mgr.insertStatus("dev", "/m2", "PROGRESS");
    EXPECT_EQ("OK PROGRESS", mgr.getStatus("dev", "/m") + " " + mgr.getStatus("dev", "/m2"));

    const std::string file = mgr.getDbNameFromDevId("dev");
    sqlite3* db = nullptr;  // keeps the WAL
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
    sqlite3_exec(db, "INSERT INTO SONGS (PATH) VALUES ('/m/a.mp3');", nullptr, nullptr, nullptr);
    mgr.createDb("dev", "/m", true);
    // The tables the other tests do not use are there too.
    dbColumn("dev", "SELECT 1 FROM ALBUMS, GENRES, COMPOSERS, VIEW_PLAYLISTNAMES;");
    ASSERT_GT(fs::file_size(file + "-wal"), 0u);
    mgr.sync("dev");
    EXPECT_EQ(0u, fs::file_size(file + "-wal"));
    fs::copy_file(file, dir.file("new/dir/copy.db"));
    EXPECT_EQ(std::vector<std::string>{"/m/a.mp3"}, dbColumn("copy", "SELECT PATH FROM SONGS;"));
    sqlite3_close(db);
    mgr.sync("missing");
    EXPECT_FALSE(exists("missing"));
}

TEST_F(DatabaseMgrTest, DanglingPartitionsLoseTheirRows) {
    // Last attach: three partitions, one with a quote in its name. This one:
    // "/media/usbb", which "/media/usb" is a prefix (and a LIKE pattern) of,
    // and "/media/usb_2" again. Every partition gets rows below it and a status.
    const char* mp[] = {"/media/usb", "/media/it's", "/media/usb_2", "/media/usbb", "/media/usb_2"};
    std::string sql = "CREATE TEMP TABLE M (P UNIQUE, ID, F)";
    for (int i = 0; i < 5; ++i) {
        mgr.createDb("dev", mp[i], i % 3 == 0);
        mgr.insertStatus("dev", mp[i], "OK");
        char* row = sqlite3_mprintf(";REPLACE INTO M VALUES (%Q, %Q, %Q || '/x')", mp[i],
                                    Md5(Md5::DIRECTORY, mp[i]).toString().c_str(), mp[i]);
        sql += row;
        sqlite3_free(row);
    }
    dbColumn("dev", sql +
                        ";INSERT INTO SONGS (PARTITION_ID, PATH, ARTISTID) SELECT ID, F, P FROM M"
                        ";INSERT INTO ARTISTS (ARTISTID, ARTIST) SELECT P, F FROM M"
                        ";INSERT INTO DIRECTORIES (PARTITION_ID, PATH) SELECT ID, F FROM M"
                        ";INSERT INTO PLAYLISTS (PARTITION_ID, PLAYPATH) SELECT ID, F FROM M;");
    mgr.removeDanglingPartitions("dev", "/media/usbb");

    // What is left, with its number of rows (one per table).
    EXPECT_EQ((std::vector<std::string>{"/media/usb_2/x 4", "/media/usbb/x 4"}),
              dbColumn("dev",
                       "SELECT X || ' ' || count(*) FROM (SELECT ARTIST X FROM ARTISTS "
                       "UNION ALL SELECT PATH FROM SONGS UNION ALL SELECT PATH FROM "
                       "DIRECTORIES UNION ALL SELECT PLAYPATH FROM PLAYLISTS) GROUP BY X;"));
    EXPECT_EQ((decltype(mgr.getStatuses("")){{"/media/usb_2", "OK"}, {"/media/usbb", "OK"}}),
              mgr.getStatuses("dev"));
}

// A database keeps its -wal and -shm files after its last connection closes,
// and they count in its size.
TEST_F(DatabaseMgrTest, CheckAndDeleteRemovesLeastRecentlyIndexedFirst) {
    // Indexed at: own 50 (oldest, but never deleted), b 100, d 150 (no
    // status: its file time), c 200, a 300.
    const std::pair<const char*, long long> devices[] = {
        {"own", 50}, {"a", 300}, {"b", 100}, {"c", 200}, {"d", 0}};
    auto size = [this](const char* d) {
        long n = 0;
        for (const char* suffix : {"", "-wal", "-shm"})
            n += long(fs::file_size(mgr.getDbNameFromDevId(d) + suffix));
        return n;
    };
    long all = 0;
    for (const auto& dev : devices) {
        mgr.createDb(dev.first, "/m", true);
        mgr.setClock([&dev] { return dev.second; });
        if (dev.second)
            mgr.insertStatus(dev.first, "/m", "OK");
        EXPECT_TRUE(exists(dev.first, "-wal") && exists(dev.first, "-shm")) << dev.first;
        all += size(dev.first);
    }
    olvane::test::setMtime(mgr.getDbNameFromDevId("d"), 150);
    dir.write("notes.txt", std::string(100000, 'n'));
    mgr.checkAndDelete("own", all - size("b") - 1);  // deleting b is not enough; b and d are
    EXPECT_FALSE(exists("b") || exists("d"));
    EXPECT_TRUE(exists("own") && exists("a") && exists("c"));

    mgr.holdDevice("c");  // a device with a request is spared until released
    mgr.checkAndDelete("own", 0);
    EXPECT_TRUE(exists("own") && exists("c") && fs::exists(dir.file("notes.txt")));
    EXPECT_FALSE(exists("a"));
    mgr.releaseDevice("c");
    mgr.checkAndDelete("own", 0);
    EXPECT_FALSE(exists("c"));

    const std::string db = mgr.getDbNameFromDevId("big");
    auto sized = [&](const char* suffix, long size) {  // sparse: nothing is written
        fs::resize_file(dir.write("big.db" + std::string(suffix), ""), size);
    };
    sized("", DatabaseMgr::kSizeLimit / 2);
    sized("-wal", DatabaseMgr::kSizeLimit / 2 - 1);
    sized("-shm", 1);
    EXPECT_FALSE(mgr.dbSizeHasReachLimit(db));
    sized("-wal", DatabaseMgr::kSizeLimit / 2);
    EXPECT_TRUE(mgr.dbSizeHasReachLimit(db));
    mgr.deleteDb("big");
    EXPECT_FALSE(exists("big") || exists("big", "-wal") || exists("big", "-shm"));
}

// What is not an index database is rebuilt, and said so: random bytes, a
// truncated copy, a database of another schema. An empty file is simply
// made one, a good one kept as it is. Directories are made 0700, files 0600.
TEST_F(DatabaseMgrTest, CreateDbRebuildsWhatIsNotAnIndexDatabase) {
    olvane::LogCapture cap;
    mgr.setDatabaseDirectory(dir.file("new/dir"));
    mgr.createDb("good", "/m", true);
    dbColumn("good",
             "WITH RECURSIVE N(I) AS (SELECT 1 UNION ALL SELECT I + 1 FROM N WHERE I < 200) "
             "INSERT INTO SONGS (PATH) SELECT '/m/' || I FROM N;");
    mgr.sync("good");
    const std::string good = mgr.getDbNameFromDevId("good");
    fs::copy_file(good, dir.file("new/dir/truncated.db"));
    fs::resize_file(dir.file("new/dir/truncated.db"), fs::file_size(good) / 2);
    std::string noise(20000, '\0');
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = char((i * 2654435761u) >> 13);
    dir.write("new/dir/random.db", noise);
    dir.write("new/dir/empty.db", "");
    dbColumn("foreign", "CREATE TABLE SONGS (X); INSERT INTO SONGS VALUES (1);");

    for (const char* dev : {"random", "truncated", "empty", "foreign", "good"}) {
        SCOPED_TRACE(dev);
        const std::string d = dev;
        EXPECT_NO_THROW(mgr.createDb(dev, "/m", true));
        EXPECT_EQ(Strings({"ok", d == "good" ? "200" : "0"}),
                  dbColumn(dev, "PRAGMA quick_check; SELECT count(*) FROM SONGS;"));
        EXPECT_EQ(d != "good" && d != "empty",
                  cap.contains(mgr.getDbNameFromDevId(dev) + " is not an index database"));
        EXPECT_EQ(0600u, unsigned(fs::status(mgr.getDbNameFromDevId(dev)).permissions()));
    }
    for (const char* d : {"new", "new/dir"})
        EXPECT_EQ(0700u, unsigned(fs::status(dir.file(d)).permissions())) << d;
}

}  // namespace
