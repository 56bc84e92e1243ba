#pragma once
// Owners of C handles: each closes its handle when it goes.

#include <dirent.h>
#include <sqlite3.h>

#include <memory>
#include <string>

namespace olvane {

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
// An open folder (opendir).
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct SqliteCloser {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
// An SQLite connection; also holds the handle of a failed open, for its message.
using SqliteHandle = std::unique_ptr<sqlite3, SqliteCloser>;

struct StatementFinalizer {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
// A prepared SQLite statement.
using SqliteStatement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Opens `file` with `flags`; the result code goes to `rc`.
inline SqliteHandle openSqlite(const std::string& file, int flags, int& rc) {
    sqlite3* db = nullptr;
    rc = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
    return SqliteHandle(db);
}

// Prepares `sql` on `db`; the result code goes to `rc`.
inline SqliteStatement prepareSqlite(sqlite3* db, const std::string& sql, int& rc) {
    sqlite3_stmt* stmt = nullptr;
    rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
    return SqliteStatement(stmt);
}

}  // namespace olvane
