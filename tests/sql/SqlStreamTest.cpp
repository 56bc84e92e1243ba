// The database layer: opening a device's database, the SQL streams, the
// UTF-8 collation and the stopwatch.
#include "sql/SqlStream.h"

#include <glib.h>

#include "db/Collation.h"
#include "db/DatabaseOpen.h"
#include "db/Timer.h"
#include "tests/support/Testing.h"

namespace {

class SqlStreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dir.file("a/b"));
        DatabaseMgr::instance().createDb("dev", "/m", true);
        DatabaseMgr::instance().open("dev", out, 1000);
        DatabaseMgr::instance().open("dev", in, 1000);
        sqlite3_exec(out.db, "CREATE TABLE T (A INTEGER PRIMARY KEY, B TEXT);", 0, 0, 0);
    }
    olvane::test::TempDir dir;
    sqlstl::sqlostream out;
    sqlstl::sqlistream in;
};

TEST_F(SqlStreamTest, WritesReuseTheStatementAndAFailureLastsUntilTheNextQuery) {
    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    const std::string texts[] = {"x", "y"};  // bound without copying
    for (int i = 0; i < 2; ++i) {
        out << i << texts[i] << sqlstl::step;
        EXPECT_EQ(1, out.index);
    }
    out << 1 << "again" << sqlstl::step;
    EXPECT_TRUE(out.bad());
    out << 2 << "lost" << sqlstl::step;

    out.query("INSERT INTO T (A, B) VALUES (?, ?);");  // clears the failure
    out << 3 << "z" << sqlstl::step;
    std::string all;
    in.query("SELECT group_concat(A || ':' || B, ' ') FROM (SELECT * FROM T ORDER BY A);");
    in.step() >> all;
    EXPECT_EQ("0:x 1:y 3:z", all);
}

TEST_F(SqlStreamTest, ReadEndsAtEndOfFileAndNullTextKeepsTheTarget) {
    sqlite3_exec(out.db, "INSERT INTO T VALUES (7, 'a'), (8, NULL), (9, 'c');", 0, 0, 0);
    in.query("SELECT A, B FROM T ORDER BY A;");
    std::string rows;
    int a = 0;
    std::string b;
    while (in.step().good() && (in >> a >> b).good())
        rows += std::to_string(a) + b + " ";
    EXPECT_EQ("7a 8a 9c ", rows) << "a NULL text leaves the target and the stream good";

    in.query("SELECT A FROM T WHERE A = 7;");
    in.step();
    EXPECT_TRUE(in.step().eof());
    a = -1;  // at end of file the query does not start again and nothing is read
    EXPECT_TRUE((in.step() >> a).eof());
    EXPECT_EQ(-1, a);
    EXPECT_FALSE(sqlite3_stmt_busy(in.stmt)) << "a restarted query holds a read lock";
}

// Only an existing database opens, with the timeout asked for; a failed open
// leaves no connection and makes no file.
TEST_F(SqlStreamTest, OnlyAnExistingDatabaseOpensAndAFailedOpenLeavesNoConnection) {
    sqlstl::sqlistream longer, none;
    EXPECT_TRUE(DatabaseMgr::instance().open("dev", longer, 3600000));
    int timeout = 0;
    longer.query("PRAGMA busy_timeout;");
    longer.step() >> timeout;
    EXPECT_EQ(3600000, timeout);
    // A database deleted meanwhile is not made again, empty.
    DatabaseMgr::instance().setDatabaseDirectory(dir.file("c"));
    EXPECT_THROW(DatabaseMgr::instance().open("dev", none, 1000), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_directory(dir.file("c")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("c/dev.db")));

    // A regular file where the directory should be.
    DatabaseMgr::instance().setDatabaseDirectory(dir.write("file", "x") + "/db");
    none.setstate(std::ios_base::badbit);
    try {
        DatabaseMgr::instance().open("dev", none, 1000);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("cannot open db", e.what());
    }
    EXPECT_TRUE(none.db == nullptr && none.good());
}

// The collation's sign; each text is passed with bytes past its length.
TEST(CollationTest, AgreesOnStackAndHeapBuffers) {
    auto collate = [](const std::string& a, const std::string& b) {
        const std::string pa = a + "zzz", pb = b + "AAA";
        int r = collation_utf8(nullptr, int(a.size()), pa.data(), int(b.size()), pb.data());
        return (r > 0) - (r < 0);
    };
    for (size_t len : {size_t(8191), size_t(8192), size_t(20000)}) {
        SCOPED_TRACE(len);
        const std::string low(len, 'a'), high = std::string(len - 1, 'a') + "b";
        EXPECT_EQ(-1, collate(low, high));
        EXPECT_EQ(1, collate(high, low));
        EXPECT_EQ(0, collate(low, low));
        EXPECT_EQ(-1, collate(std::string(8000, 'a'), high));  // one stack, one heap buffer
    }
    EXPECT_EQ(g_utf8_collate("été", "f") > 0, collate("été", "f") > 0);
    // The stopwatch rounds half up, across a second.
    EXPECT_EQ(1, Timer({10, 999600}).stop({11, 1099}));
    EXPECT_EQ(2, Timer({10, 999600}).stop({11, 1100}));
}

}  // namespace
