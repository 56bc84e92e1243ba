#pragma once
// Reads a device database the way the tests check one: on a connection of its own.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "platform/common/DatabaseMgr.h"

namespace olvane::test {

// First column of every row `sql` returns on the device's database ("<null>"
// for NULL). A failing statement fails the test.
inline std::vector<std::string> dbColumn(const std::string& devId, const std::string& sql) {
    std::vector<std::string> rows;
    auto add = [](void* out, int, char** v, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(v[0] ? v[0] : "<null>");
        return 0;
    };
    sqlite3* db = nullptr;
    sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(devId).c_str(), &db);
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), add, &rows, nullptr)) << sql;
    sqlite3_close(db);
    return rows;
}

}  // namespace olvane::test
