#include "sql/SqlStream.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "db/DatabaseOpen.h"
#include "platform/log/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class SqlStreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dir.path());
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
    olvane::LogCapture cap;
    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    const std::string texts[] = {"x", "y"};  // bound without copying
    for (int i = 0; i < 2; ++i) {
        out << i << texts[i] << sqlstl::step;
        EXPECT_EQ(1, out.index);
    }
    out << 1 << "again" << sqlstl::step;
    EXPECT_TRUE(out.bad());
    EXPECT_TRUE(cap.contains("exec failed: 19 "));
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

}  // namespace
