#include "platform/common/MountPointScope.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// Paths of SONGS that the condition selects for `mountPoint`, and the plan
// SQLite makes for it.
struct Selected {
    std::vector<std::string> paths;
    std::string plan;
};

Selected select(const std::vector<std::string>& paths, const std::string& mountPoint) {
    sqlite3* db = nullptr;
    sqlite3_open(":memory:", &db);
    sqlite3_exec(db,
                 "CREATE TABLE SONGS (ID INTEGER PRIMARY KEY, PATH TEXT);"
                 "CREATE INDEX SONGS_PATH ON SONGS(PATH);",
                 nullptr, nullptr, nullptr);
    for (const std::string& p : paths) {
        char* sql = sqlite3_mprintf("INSERT INTO SONGS (PATH) VALUES (%Q);", p.c_str());
        sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
        sqlite3_free(sql);
    }
    Selected out;
    for (const char* head : {"", "EXPLAIN QUERY PLAN "}) {
        const std::string sql = std::string(head) + "SELECT PATH FROM SONGS WHERE " +
                                MountPointScope::sqlCondition("PATH") + " ORDER BY ID;";
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr)) << sql;
        sqlite3_bind_text(stmt, 1, mountPoint.c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            const int column = *head ? 3 : 0;
            std::string text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
            if (*head)
                out.plan += text + "\n";
            else
                out.paths.push_back(text);
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return out;
}

TEST(MountPointScopeTest, APathBelongsByteForByteWithNoWildcard) {
    const std::vector<std::string> inside = {"/m/usb_1", "/m/usb_1/a.mp3", "/m/usb_1/x/y.mp3",
                                             "/m/usb_1//z"};
    const std::vector<std::string> outside = {"/m/usb_10/a.mp3", "/m/usbX1/a.mp3", "/m/USB_1/a",
                                              "/m/usb_1.mp3",    "/m/usb_",        "/m"};
    std::vector<std::string> all(outside);
    all.insert(all.end(), inside.begin(), inside.end());

    Selected s = select(all, "/m/usb_1");
    EXPECT_EQ(inside, s.paths);
    // A lookup and a range on the path index, no scan of the table.
    EXPECT_NE(std::string::npos, s.plan.find("SONGS_PATH (PATH>? AND PATH<?)")) << s.plan;
    EXPECT_NE(std::string::npos, s.plan.find("SONGS_PATH (PATH=?)")) << s.plan;
    EXPECT_EQ(std::string::npos, s.plan.find("SCAN")) << s.plan;
    for (const std::string& p : all)
        EXPECT_EQ(std::count(inside.begin(), inside.end(), p) == 1,
                  MountPointScope::contains("/m/usb_1", p))
            << p;
}

}  // namespace
