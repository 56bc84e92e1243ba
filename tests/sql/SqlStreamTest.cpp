#include "sql/SqlStream.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "db/DatabaseOpen.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class SqlStreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dir.path());
        DatabaseMgr::instance().open("dev", out, 1000);
        DatabaseMgr::instance().open("dev", in, 1000);
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(out.db,
                                          "CREATE TABLE T (A INTEGER PRIMARY KEY, B TEXT, "
                                          "C INTEGER);",
                                          nullptr, nullptr, nullptr));
    }

    // All rows of T as "a:b" texts, in key order.
    std::vector<std::string> rows() {
        std::vector<std::string> result;
        in.query("SELECT A, B FROM T ORDER BY A;");
        for (in.step(); in.good() && !in.eof(); in.step()) {
            int a = -1;
            std::string b;
            in >> a >> b;
            result.push_back(std::to_string(a) + ":" + b);
        }
        return result;
    }

    olvane::test::TempDir dir;
    sqlstl::sqlostream out;
    sqlstl::sqlistream in;
};

TEST_F(SqlStreamTest, ConstraintViolationLeavesStreamBadUntilNextQuery) {
    olvane::LogCapture cap;
    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    out << 1 << "one" << sqlstl::step;
    EXPECT_TRUE(out.good());
    out << 1 << "again" << sqlstl::step;
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(nullptr, out.stmt);
    EXPECT_TRUE(cap.contains("exec failed: 19 "));

    // Ignored until the next query.
    out << 2 << "two" << sqlstl::step;
    EXPECT_EQ(1, cap.count("step failed"));
    EXPECT_EQ(std::vector<std::string>{"1:one"}, rows());

    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    EXPECT_TRUE(out.good());
    out << 2 << "two" << sqlstl::step;
    EXPECT_EQ((std::vector<std::string>{"1:one", "2:two"}), rows());
}

TEST_F(SqlStreamTest, StatementIsReusedAfterEachStep) {
    out.query("INSERT INTO T (A, B) VALUES (?, ?);");
    const std::string texts[] = {"x", "y"};
    for (int i = 0; i < 2; ++i) {
        out << i << texts[i] << sqlstl::step;
        EXPECT_EQ(1, out.index);
    }
    ASSERT_TRUE(out.good());
    EXPECT_EQ((std::vector<std::string>{"0:x", "1:y"}), rows());
}

TEST_F(SqlStreamTest, FailuresOfPrepareBindAndReturnedRows) {
    olvane::LogCapture cap;
    out.query("INSERT INTO NOWHERE VALUES (1);");
    EXPECT_TRUE(out.bad());
    EXPECT_TRUE(cap.contains("exec failed: 1 "));

    // A bind past the last parameter sets failbit; the step does not run.
    out.query("INSERT INTO T (A) VALUES (?);");
    out << 5 << "extra";
    EXPECT_TRUE(out.fail());
    EXPECT_FALSE(out.bad());
    out << sqlstl::step;
    EXPECT_EQ(1, cap.count("step failed"));
    EXPECT_TRUE(rows().empty());

    // A statement that returns a row fails the writing stream.
    out.query("SELECT 1;");
    out << sqlstl::step;
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(nullptr, out.stmt);
}

TEST_F(SqlStreamTest, ReadEndsAtEndOfFileAndNullTextFails) {
    sqlite3_exec(out.db, "INSERT INTO T VALUES (1, 'a', 7); INSERT INTO T VALUES (2, NULL, 8);",
                 nullptr, nullptr, nullptr);
    in.query("SELECT C, B FROM T ORDER BY A;");
    int c = 0;
    std::string b = "unset";
    in.step() >> c >> b;
    EXPECT_EQ(7, c);
    EXPECT_EQ("a", b);
    EXPECT_TRUE(in.good());

    in.step() >> c >> b;
    EXPECT_EQ(8, c);
    EXPECT_EQ("a", b) << "a NULL text leaves the target";
    EXPECT_TRUE(in.fail());

    in.query("SELECT C FROM T WHERE A = 1;");
    in.step();
    in.step();
    EXPECT_TRUE(in.eof());
    // At end of file the query does not start again and nothing is read.
    c = -1;
    in.step() >> c;
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(-1, c);
    EXPECT_FALSE(sqlite3_stmt_busy(in.stmt)) << "a restarted query holds a read lock";

    in.query("SELECT C FROM T WHERE A = 99;");
    in.step();
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.bad());
}

}  // namespace
