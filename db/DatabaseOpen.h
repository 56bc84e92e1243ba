#pragma once
// DatabaseMgr::open, the one way a stage connects to its device's database.

#include <sqlite3.h>

#include <stdexcept>
#include <string>

#include "platform/common/DatabaseMgr.h"
#include "platform/log/ZQLog.h"

// Opens `stream`'s connection on the device's existing database (made by
// createDb), creating the database directory first, and sets the busy
// time-out, and clears its storageError. Throws std::runtime_error("cannot
// open db") when the open fails, a missing file included; the stream is then
// left with no connection and cleared flags.
template <class Stream>
bool DatabaseMgr::open(const std::string& devId, Stream& stream, int timeoutMs) {
    std::string name = getDbNameFromDevId(devId);
    createDirectory();
    stream.finalize();
    stream.storageError = 0;
    if (stream.db) {
        sqlite3_close(stream.db);
        stream.db = nullptr;
    }
    // Never creates the file: a database deleted meanwhile must not come back empty.
    int rc = sqlite3_open_v2(name.c_str(), &stream.db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) {
        if (stream.db)
            sqlite3_close(stream.db);
        stream.clear();
        stream.db = nullptr;
        ZQLOG_WARN("error opening db: %s", name.c_str());
        throw std::runtime_error("cannot open db");
    }
    ZQLOG_INFO("Set timeout to %d ms", timeoutMs);
    DatabaseMgr::configureConnection(stream.db, timeoutMs);
    // A stage's connection serves one block: 128 KiB of cached pages write
    // it as fast as SQLite's default 2 MiB, which the board's heap would feel.
    sqlite3_exec(stream.db, "PRAGMA cache_size = -128;", nullptr, nullptr, nullptr);
    return true;
}
