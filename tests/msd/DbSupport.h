#pragma once
// Direct access to a device database, for setting up and checking rows.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "platform/common/DatabaseMgr.h"

namespace olvane {
namespace test {

typedef std::vector<std::vector<std::string>> Rows;

// Runs `sql` on the device's database; NULL columns read as "<null>".
inline Rows query(const std::string& deviceId, const std::string& sql) {
    Rows rows;
    sqlite3* db = nullptr;
    EXPECT_EQ(SQLITE_OK,
              sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(deviceId).c_str(), &db));
    char* error = nullptr;
    auto collect = [](void* out, int n, char** values, char**) {
        std::vector<std::string> row;
        for (int i = 0; i < n; ++i)
            row.push_back(values[i] ? values[i] : "<null>");
        static_cast<Rows*>(out)->push_back(row);
        return 0;
    };
    int rc = sqlite3_exec(db, sql.c_str(), collect, &rows, &error);
    EXPECT_EQ(SQLITE_OK, rc) << sql << ": " << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
    return rows;
}

// First column of every row.
inline std::vector<std::string> column(const std::string& deviceId, const std::string& sql) {
    std::vector<std::string> values;
    for (const auto& row : query(deviceId, sql))
        values.push_back(row.at(0));
    return values;
}

// Quotes a text as an SQL string literal.
inline std::string literal(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c;
        if (c == '\'')
            quoted += '\'';
    }
    return quoted + "'";
}

}  // namespace test
}  // namespace olvane
