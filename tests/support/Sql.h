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

// Every row `sql` returns on the device's database: its first column, or
// with `whole` all but ID columns (all with `keepIds`) joined by '|'.
// "<null>" stands for NULL. A failing statement fails the test.
inline std::vector<std::string> dbRows(const std::string& devId, const std::string& sql, bool whole,
                                       bool keepIds = false) {
    struct Out {
        std::vector<std::string> rows;
        bool whole, keepIds;
    } out{{}, whole, keepIds};
    auto add = [](void* to, int n, char** v, char** names) {
        Out& out = *static_cast<Out*>(to);
        std::string row;
        for (int c = 0; c < (out.whole ? n : 1); ++c)
            if (out.keepIds || !out.whole || std::string(names[c]) != "ID")
                row += (c ? "|" : "") + std::string(v[c] ? v[c] : "<null>");
        out.rows.push_back(row);
        return 0;
    };
    sqlite3* db = nullptr;
    sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId(devId).c_str(), &db);
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), add, &out, nullptr)) << sql;
    sqlite3_close(db);
    return out.rows;
}

inline std::vector<std::string> dbColumn(const std::string& devId, const std::string& sql) {
    return dbRows(devId, sql, false);
}

// Every row of the device's index tables as "TABLE|value|value..." texts,
// sorted. Row ids (ID columns) are left out, as two runs that write the same
// rows number them differently, unless `keepIds` (to show that rows were not
// written again). Compares a database with a clean index of the same tree.
inline std::vector<std::string> indexDump(const std::string& devId, bool keepIds = false) {
    std::vector<std::string> rows;
    for (std::string table :
         {"SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS", "PLAYLISTS", "DIRECTORIES"}) {
        const std::vector<std::string> more =
            dbRows(devId, "SELECT '" + table + "', * FROM " + table, true, keepIds);
        rows.insert(rows.end(), more.begin(), more.end());
    }
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
