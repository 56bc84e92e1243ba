// The database layer: the device databases, opening one for a stage, the SQL
// streams, the UTF-8 collation and the stopwatch.
#include "platform/common/DatabaseMgr.h"

#include <sqlite3.h>

#include "db/Collation.h"
#include "db/DatabaseOpen.h"
#include "db/Timer.h"
#include "platform/common/Md5.h"
#include "sql/SqlStream.h"
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

// Names, statuses, a database made again under a reader that keeps its WAL,
// sync. Then a stage's streams on it: a write statement is bound again after
// each step, and a failure lasts until the next query; a NULL text keeps the
// target and the stream good; at the end of a query stepping does not start
// it again. Only an existing database opens, with the time-out asked for; a
// failed open leaves no connection and cleared flags, and makes no file.
TEST_F(DatabaseMgrTest, NamesStatusSyncAndStreams) {
    EXPECT_EQ(dir.file("usb-SanDisk_1.0.db"), mgr.getDbNameFromDevId("usb-SanDisk_1.0"));
    EXPECT_EQ(dir.file("dev-2e2e.db"), mgr.getDbNameFromDevId(".."));
    EXPECT_EQ(dir.file("dev-612f62.db"), mgr.getDbNameFromDevId("a/b"));

    mgr.setDatabaseDirectory(dir.file("new/dir"));
    mgr.insertStatus("dev", "/m", "OK");
    EXPECT_FALSE(exists("dev") || mgr.getStatus("dev", "/m") != "") << "a status made a database";
    mgr.createDb("dev", "/m", true);
    for (auto [mp, status] : {std::pair{"/m", "PROGRESS"}, {"/m", "OK"}, {"/m2", "PROGRESS"}})
        mgr.insertStatus("dev", mp, status);
    EXPECT_EQ("OK PROGRESS", mgr.getStatus("dev", "/m") + " " + mgr.getStatus("dev", "/m2"));

    const std::string file = mgr.getDbNameFromDevId("dev");
    sqlstl::sqlostream out;  // keeps the WAL
    sqlstl::sqlistream in;
    mgr.open("dev", out, 1000);
    mgr.open("dev", in, 1000);
    out.exec("INSERT INTO SONGS (PATH) VALUES ('/m/a.mp3');");
    mgr.createDb("dev", "/m", true);
    ASSERT_GT(fs::file_size(file + "-wal"), 0u);
    mgr.sync("dev");
    EXPECT_EQ(0u, fs::file_size(file + "-wal"));
    fs::copy_file(file, dir.file("new/dir/copy.db"));
    EXPECT_EQ(Strings{"/m/a.mp3"}, dbColumn("copy", "SELECT PATH FROM SONGS;"));
    mgr.sync("missing");
    EXPECT_FALSE(exists("missing"));

    out.exec("CREATE TABLE T (A INTEGER PRIMARY KEY, B TEXT);");
    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    const std::string texts[] = {"x", "y"};  // bound without copying
    for (int i = 0; i < 2; ++i)
        out << i << texts[i] << sqlstl::step;
    out << 1 << "again" << sqlstl::step << 2 << "lost" << sqlstl::step;
    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    out << 3 << "z" << sqlstl::step << 4 << static_cast<const char*>(nullptr) << sqlstl::step;
    in.query("SELECT A, B FROM T ORDER BY A;");
    std::string rows, b;
    int a = 0;
    while (in.step().good() && (in >> a >> b).good())
        rows += std::to_string(a) + b + " ";
    EXPECT_EQ("0x 1y 3z 4z ", rows);
    EXPECT_TRUE((in.step() >> (a = -1)).eof());
    EXPECT_EQ(-1, a);
    EXPECT_FALSE(sqlite3_stmt_busy(in.stmt)) << "a restarted query holds a read lock";

    mgr.open("dev", in, 3600000);
    in.query("PRAGMA busy_timeout;");
    in.step() >> a;
    EXPECT_EQ(3600000, a);
    mgr.setDatabaseDirectory(dir.file("c"));  // where "dev" was deleted meanwhile
    in.setstate(std::ios_base::badbit);
    EXPECT_THROW(mgr.open("dev", in, 1000), std::runtime_error);
    EXPECT_TRUE(in.db == nullptr && in.good() && fs::is_directory(dir.file("c")) &&
                !fs::exists(dir.file("c/dev.db")));
    mgr.setDatabaseDirectory(dir.write("file", "x") + "/db");  // a file where the directory goes
    EXPECT_THROW(mgr.open("dev", in, 1000), std::runtime_error);
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
    EXPECT_EQ((Strings{"/media/usb_2/x 4", "/media/usbb/x 4"}),
              dbColumn("dev",
                       "SELECT X || ' ' || count(*) FROM (SELECT ARTIST X FROM ARTISTS "
                       "UNION ALL SELECT PATH FROM SONGS UNION ALL SELECT PATH FROM "
                       "DIRECTORIES UNION ALL SELECT PLAYPATH FROM PLAYLISTS) GROUP BY X;"));
    EXPECT_EQ((decltype(mgr.getStatuses("")){{"/media/usb_2", "OK"}, {"/media/usbb", "OK"}}),
              mgr.getStatuses("dev"));
}

// A database keeps its -wal and -shm files after its last connection closes,
// and they count in its size; of a database's size limit only the -shm does not.
TEST_F(DatabaseMgrTest, CheckAndDeleteRemovesLeastRecentlyIndexedFirst) {
    // Indexed at: own 50 (oldest, but never deleted), b 100, d 150 (no
    // status: its file time), c 200, a 300.
    const std::pair<const char*, long long> devices[] = {
        {"own", 50}, {"a", 300}, {"b", 100}, {"c", 200}, {"d", 0}};
    auto size = [this](const char* d, long n = 0) {
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
        all += size(dev.first);  // throws if the -wal or -shm is gone
    }
    olvane::test::setMtime(mgr.getDbNameFromDevId("d"), 150);
    dir.write("notes.txt", std::string(100000, 'n'));
    mgr.checkAndDelete("own", all - size("b") - 1);  // deleting b is not enough; b and d are
    EXPECT_TRUE(!exists("b") && !exists("d") && exists("own") && exists("a") && exists("c"));

    mgr.checkAndDelete("own", 0);
    EXPECT_TRUE(!exists("a") && !exists("c") && exists("own") && fs::exists(dir.file("notes.txt")));

    const long half = DatabaseMgr::kSizeLimit / 2;  // sparse files: nothing is written
    for (long wal : {half - 1, half}) {
        for (const char* suffix : {"", "-wal", "-shm"})
            fs::resize_file(dir.write("big.db" + std::string(suffix), ""),
                            *suffix ? suffix[1] == 'w' ? wal : 1 : half);
        EXPECT_EQ(wal == half, mgr.dbSizeHasReachLimit(dir.file("big.db")));
    }
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
    dir.write("new/dir/random.db", std::string(20000, '\x9c'));
    dir.write("new/dir/empty.db", "");
    dbColumn("foreign", "CREATE TABLE SONGS (X); INSERT INTO SONGS VALUES (1);");

    for (const std::string dev : {"random", "truncated", "empty", "foreign", "good"}) {
        SCOPED_TRACE(dev);
        EXPECT_NO_THROW(mgr.createDb(dev, "/m", true));
        EXPECT_EQ(Strings({"ok", dev == "good" ? "200" : "0"}),
                  dbColumn(dev, "PRAGMA quick_check; SELECT count(*) FROM SONGS;"));
        EXPECT_EQ(dev != "good" && dev != "empty",
                  cap.contains(mgr.getDbNameFromDevId(dev) + " is not an index database"));
        EXPECT_EQ(0600u, unsigned(fs::status(mgr.getDbNameFromDevId(dev)).permissions()));
    }
    for (const char* d : {"new", "new/dir"})
        EXPECT_EQ(0700u, unsigned(fs::status(dir.file(d)).permissions())) << d;
}

// The collation's sign, on stack and heap buffers (one of each for the last
// pair); each text is passed with bytes past its length. The stopwatch
// rounds half up, across a second.
TEST(CollationTest, AgreesOnStackAndHeapBuffersAndTheStopwatchRoundsHalfUp) {
    auto collate = [](const std::string& a, const std::string& b) {
        const std::string pa = a + "zzz", pb = b + "AAA";
        int r = collation_utf8(nullptr, int(a.size()), pa.data(), int(b.size()), pb.data());
        return (r > 0) - (r < 0);
    };
    for (size_t len : {8191, 8192, 20000}) {
        const std::string low(len, 'a'), high = std::string(len - 1, 'a') + "b";
        EXPECT_EQ((std::vector<int>{-1, 1, 0, -1}),
                  (std::vector<int>{collate(low, high), collate(high, low), collate(low, low),
                                    collate(std::string(8000, 'a'), high)}))
            << len;
    }
    EXPECT_EQ(0, collate("été", "e\u0301te\u0301"));  // the same text, once decomposed
    EXPECT_EQ(1, Timer({10, 999600}).stop({11, 1099}));
    EXPECT_EQ(2, Timer({10, 999600}).stop({11, 1100}));
}

}  // namespace
