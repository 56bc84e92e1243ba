#include "platform/common/DatabaseMgr.h"

#include <errno.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "platform/log/ZQLog.h"

namespace {

const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS DIRECTORIES (PARTITION_ID TEXT, PATH TEXT, NAME TEXT, "
    "OBJECTID TEXT, PARENT_ID TEXT);"
    "CREATE INDEX IF NOT EXISTS DIRECTORIES_PATH ON DIRECTORIES(PATH);"
    "CREATE TABLE IF NOT EXISTS SONGS (ID INTEGER PRIMARY KEY, PARTITION_ID TEXT, PATH TEXT, "
    "OBJECTID TEXT, DIRECTORYID TEXT, NAME TEXT, TITLE TEXT, ARTISTID TEXT, ALBUMID TEXT, "
    "GENREID TEXT, COMPOSERID TEXT, AUDIOTYPE INTEGER, BOOKMARK INTEGER, LASTMODIFIED INTEGER, "
    "TRACKIND INTEGER, DISCNUM INTEGER, ASIANTITLE TEXT);"
    "CREATE INDEX IF NOT EXISTS SONGS_PATH ON SONGS(PATH);"
    "CREATE INDEX IF NOT EXISTS SONGS_OBJECTID ON SONGS(OBJECTID);"
    "CREATE TABLE IF NOT EXISTS ARTISTS (ARTISTID TEXT PRIMARY KEY, ARTIST TEXT, "
    "ASIANARTIST TEXT);"
    "CREATE TABLE IF NOT EXISTS ALBUMS (ALBUMID TEXT PRIMARY KEY, ALBUM TEXT, ASIANALBUM TEXT);"
    "CREATE TABLE IF NOT EXISTS GENRES (GENREID TEXT PRIMARY KEY, GENRE TEXT, ASIANGENRE TEXT);"
    "CREATE TABLE IF NOT EXISTS COMPOSERS (COMPOSERID TEXT PRIMARY KEY, COMPOSER TEXT, "
    "ASIANCOMPOSER TEXT);"
    "CREATE TABLE IF NOT EXISTS PLAYLISTS (ID INTEGER PRIMARY KEY, PARTITION_ID TEXT, "
    "PLAYPATH TEXT, PLAYID TEXT, PLAYNAME TEXT, TRACKPATH TEXT, TRACKID TEXT, AUDIOTYPE INTEGER, "
    "LASTMODIFIED INTEGER);"
    "CREATE INDEX IF NOT EXISTS PLAYLISTS_PLAYPATH ON PLAYLISTS(PLAYPATH);"
    "CREATE VIEW IF NOT EXISTS VIEW_PLAYLISTNAMES AS SELECT MIN(ID) AS ID, LASTMODIFIED, "
    "PLAYPATH FROM PLAYLISTS WHERE PLAYPATH IS NOT NULL GROUP BY PLAYID;"
    "CREATE TABLE IF NOT EXISTS OLVANE_STATUS (MOUNTPOINT TEXT PRIMARY KEY, STATUS TEXT);";

bool isPlainId(const std::string& id) {
    if (id.empty() || id[0] == '.')
        return false;
    for (unsigned char c : id) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-';
        if (!ok)
            return false;
    }
    return true;
}

// A short-lived connection for one operation of the manager.
class Connection {
public:
    explicit Connection(const std::string& file) {
        if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
            ZQLOG_ERROR("cannot open %s: %s", file.c_str(), db_ ? sqlite3_errmsg(db_) : "");
            sqlite3_close(db_);
            db_ = nullptr;
            throw std::runtime_error("cannot open db");
        }
        sqlite3_busy_timeout(db_, 3600000);
    }
    ~Connection() { sqlite3_close(db_); }
    sqlite3* get() const { return db_; }

    bool exec(const char* sql) {
        char* err = nullptr;
        int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &err);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("exec failed: %d %s", rc, err ? err : "");
            sqlite3_free(err);
            return false;
        }
        return true;
    }

private:
    sqlite3* db_ = nullptr;
};

}  // namespace

DatabaseMgr& DatabaseMgr::instance() {
    static DatabaseMgr mgr;
    return mgr;
}

void DatabaseMgr::setDatabaseDirectory(const std::string& dir) {
    std::lock_guard<std::mutex> lock(mutex_);
    dir_ = dir;
}

std::string DatabaseMgr::databaseDirectory() const {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!dir_.empty())
            return dir_;
    }
    const char* env = std::getenv("OLVANE_DB_DIR");
    if (env && *env)
        return env;
    env = std::getenv("XDG_DATA_HOME");
    if (env && *env)
        return std::string(env) + "/olvane";
    env = std::getenv("HOME");
    return std::string(env && *env ? env : "/tmp") + "/.local/share/olvane";
}

std::string DatabaseMgr::getDbNameFromDevId(const std::string& devId) const {
    const std::string dir = databaseDirectory();
    if (isPlainId(devId))
        return dir + "/" + devId + ".db";
    static const char hex[] = "0123456789abcdef";
    std::string name = dir + "/dev-";
    for (unsigned char c : devId) {
        name += hex[c >> 4];
        name += hex[c & 15];
    }
    return name + ".db";
}

void DatabaseMgr::createDirectory() {
    const std::string dir = databaseDirectory();
    // mkdir -p
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/') {
            std::string part = dir.substr(0, pos);
            if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
                ZQLOG_WARN("cannot create %s: %d", part.c_str(), errno);
                return;
            }
        }
    }
}

void DatabaseMgr::createDb(const std::string& devId, const std::string& mountPoint,
                           bool isFirstPartition) {
    (void)mountPoint;
    (void)isFirstPartition;
    createDirectory();
    Connection c(getDbNameFromDevId(devId));
    c.exec("PRAGMA journal_mode=WAL;");
    std::string sql = std::string("BEGIN;") + kSchema + "COMMIT;";
    if (!c.exec(sql.c_str())) {
        c.exec("ROLLBACK;");
        throw std::runtime_error("cannot create the database schema");
    }
}

void DatabaseMgr::removeDanglingPartitions(const std::string&, const std::string&) {}

void DatabaseMgr::insertStatus(const std::string& devId, const std::string& mountPoint,
                               const char* status) {
    Connection c(getDbNameFromDevId(devId));
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(c.get(),
                           "REPLACE INTO OLVANE_STATUS (MOUNTPOINT, STATUS) VALUES (?, ?);", -1,
                           &stmt, nullptr) != SQLITE_OK) {
        ZQLOG_ERROR("insertStatus: %s", sqlite3_errmsg(c.get()));
        return;
    }
    sqlite3_bind_text(stmt, 1, mountPoint.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 2, status ? status : "", -1, SQLITE_TRANSIENT);
    if (sqlite3_step(stmt) != SQLITE_DONE)
        ZQLOG_ERROR("insertStatus: %s", sqlite3_errmsg(c.get()));
    sqlite3_finalize(stmt);
}

std::string DatabaseMgr::getStatus(const std::string& devId, const std::string& mountPoint) {
    Connection c(getDbNameFromDevId(devId));
    sqlite3_stmt* stmt = nullptr;
    std::string status;
    if (sqlite3_prepare_v2(c.get(), "SELECT STATUS FROM OLVANE_STATUS WHERE MOUNTPOINT = ?;", -1,
                           &stmt, nullptr) != SQLITE_OK)
        return status;
    sqlite3_bind_text(stmt, 1, mountPoint.c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
        const unsigned char* t = sqlite3_column_text(stmt, 0);
        if (t)
            status = reinterpret_cast<const char*>(t);
    }
    sqlite3_finalize(stmt);
    return status;
}

bool DatabaseMgr::dbSizeHasReachLimit(const std::string& dbName) {
    struct stat st;
    long long total = 0;
    if (::stat(dbName.c_str(), &st) == 0)
        total += st.st_size;
    if (::stat((dbName + "-wal").c_str(), &st) == 0)
        total += st.st_size;
    return total >= kSizeLimit;
}

void DatabaseMgr::checkAndDelete(const std::string&, long) {}

void DatabaseMgr::deleteDb(const std::string& devId) {
    const std::string name = getDbNameFromDevId(devId);
    for (const char* suffix : {"", "-wal", "-shm"})
        ::unlink((name + suffix).c_str());
}

void DatabaseMgr::sync(const std::string&) {}

std::vector<std::pair<std::string, std::string>> DatabaseMgr::getStatuses(
    const std::string& devId) {
    std::vector<std::pair<std::string, std::string>> out;
    Connection c(getDbNameFromDevId(devId));
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(c.get(),
                           "SELECT MOUNTPOINT, STATUS FROM OLVANE_STATUS ORDER BY MOUNTPOINT;", -1,
                           &stmt, nullptr) != SQLITE_OK)
        return out;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        const unsigned char* mp = sqlite3_column_text(stmt, 0);
        const unsigned char* st = sqlite3_column_text(stmt, 1);
        out.emplace_back(mp ? reinterpret_cast<const char*>(mp) : "",
                         st ? reinterpret_cast<const char*>(st) : "");
    }
    sqlite3_finalize(stmt);
    return out;
}
