#pragma once
// Reads a device database the way the tests check one: on a connection of its own.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <iterator>
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

// Every row of the device's index tables as "TABLE|value|value..." texts,
// sorted. Row ids (ID columns) are left out, as two runs that write the same
// rows number them differently, unless `keepIds` (to show that rows were not
// written again). Compares a database with a clean index of the same tree.
inline std::vector<std::string> indexDump(const std::string& devId, bool keepIds = false) {
    std::vector<std::string> rows;
    sqlite3* db = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(DatabaseMgr::instance().getDbNameFromDevId(devId).c_str(),
                                         &db, SQLITE_OPEN_READONLY, nullptr));
    for (const char* table :
         {"SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS", "PLAYLISTS", "DIRECTORIES"}) {
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, (std::string("SELECT * FROM ") + table).c_str(),
                                                -1, &stmt, nullptr))
            << table;
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            std::string row = table;
            for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                const std::string column = sqlite3_column_name(stmt, c);
                if (column == "ID" && !keepIds)
                    continue;
                const unsigned char* v = sqlite3_column_text(stmt, c);
                row += "|" + (v ? std::string(reinterpret_cast<const char*>(v)) : "<null>");
            }
            rows.push_back(row);
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    std::sort(rows.begin(), rows.end());
    return rows;
}

// "" when the dumps hold the same rows; else the first rows that only one
// of them holds, "-" for `want`'s and "+" for `got`'s.
inline std::string dumpDifference(const std::vector<std::string>& want,
                                  const std::vector<std::string>& got) {
    std::vector<std::string> rows;
    std::set_symmetric_difference(want.begin(), want.end(), got.begin(), got.end(),
                                  std::back_inserter(rows));
    std::string out = rows.empty() && want != got ? "the same rows, repeated differently\n" : "";
    for (size_t i = 0; i < rows.size() && i < 6; ++i)
        out += (std::binary_search(want.begin(), want.end(), rows[i]) ? "-" : "+") + rows[i] + "\n";
    return out + (rows.size() > 6 ? std::to_string(rows.size()) + " rows differ\n" : "");
}

}  // namespace olvane::test
