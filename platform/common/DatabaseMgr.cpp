#include "platform/common/DatabaseMgr.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <stdexcept>
#include <vector>

#include "platform/common/Handles.h"
#include "platform/common/Md5.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/common/MountPointScope.h"
#include "platform/log/ZQLog.h"

namespace {

using olvane::DirHandle;
using olvane::SqliteHandle;

// Writers wait for the stages' transactions as long as the stages wait for
// one another.
constexpr int kBusyTimeoutMs = 3600000;
// Housekeeping reads of other devices' databases and the checkpoint of
// sync() do not hold the pipeline for long.
constexpr int kShortTimeoutMs = 10000;

const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS DIRECTORIES (PARTITION_ID TEXT, PATH TEXT, NAME TEXT, "
    "OBJECTID TEXT, PARENT_ID TEXT);"
    "CREATE INDEX IF NOT EXISTS DIRECTORIES_PATH ON DIRECTORIES(PATH);"
    "CREATE TABLE IF NOT EXISTS SONGS (ID INTEGER PRIMARY KEY, PARTITION_ID TEXT, PATH TEXT, "
    "OBJECTID TEXT, DIRECTORYID TEXT, NAME TEXT, TITLE TEXT, ARTISTID TEXT, ALBUMID TEXT, "
    "GENREID TEXT, COMPOSERID TEXT, AUDIOTYPE INTEGER, BOOKMARK INTEGER, LASTMODIFIED INTEGER, "
    "TRACKIND INTEGER, DISCNUM INTEGER, ASIANTITLE TEXT);"
    // With the time in the path index, the change finder's select of every
    // song's id, time and path reads that index alone, not the songs' rows.
    // It replaces the index on the path only, of databases made before it.
    "DROP INDEX IF EXISTS SONGS_PATH;"
    "CREATE INDEX IF NOT EXISTS SONGS_PATH_MTIME ON SONGS(PATH, LASTMODIFIED);"
    "CREATE INDEX IF NOT EXISTS SONGS_OBJECTID ON SONGS(OBJECTID);"
    // The end of each indexing drops lookup rows no song names: these let it
    // read the ids from small indices instead of scanning every song.
    "CREATE INDEX IF NOT EXISTS SONGS_ARTISTID ON SONGS(ARTISTID);"
    "CREATE INDEX IF NOT EXISTS SONGS_ALBUMID ON SONGS(ALBUMID);"
    "CREATE INDEX IF NOT EXISTS SONGS_GENREID ON SONGS(GENREID);"
    "CREATE INDEX IF NOT EXISTS SONGS_COMPOSERID ON SONGS(COMPOSERID);"
    "CREATE TABLE IF NOT EXISTS ARTISTS (ARTISTID TEXT PRIMARY KEY, ARTIST TEXT, "
    "ASIANARTIST TEXT);"
    "CREATE TABLE IF NOT EXISTS ALBUMS (ALBUMID TEXT PRIMARY KEY, ALBUM TEXT, ASIANALBUM TEXT);"
    "CREATE TABLE IF NOT EXISTS GENRES (GENREID TEXT PRIMARY KEY, GENRE TEXT, ASIANGENRE TEXT);"
    "CREATE TABLE IF NOT EXISTS COMPOSERS (COMPOSERID TEXT PRIMARY KEY, COMPOSER TEXT, "
    "ASIANCOMPOSER TEXT);"
    // No unique constraint: a playlist may name a song twice.
    "CREATE TABLE IF NOT EXISTS PLAYLISTS (ID INTEGER PRIMARY KEY, PARTITION_ID TEXT, "
    "PLAYPATH TEXT, PLAYID TEXT, PLAYNAME TEXT, TRACKPATH TEXT, TRACKID TEXT, AUDIOTYPE INTEGER, "
    "LASTMODIFIED INTEGER);"
    "CREATE INDEX IF NOT EXISTS PLAYLISTS_PLAYPATH ON PLAYLISTS(PLAYPATH);"
    "CREATE INDEX IF NOT EXISTS PLAYLISTS_PLAYID ON PLAYLISTS(PLAYID);"
    // One row per playlist. Rows without a path (an empty playlist written
    // as NULLs) are left out: a NULL path would end a reader's loop.
    "CREATE VIEW IF NOT EXISTS VIEW_PLAYLISTNAMES AS SELECT MIN(ID) AS ID, LASTMODIFIED, "
    "PLAYPATH FROM PLAYLISTS WHERE PLAYPATH IS NOT NULL GROUP BY PLAYID;"
    "CREATE TABLE IF NOT EXISTS OLVANE_STATUS (MOUNTPOINT TEXT PRIMARY KEY, STATUS TEXT, "
    "INDEXED_AT INTEGER);"
    "CREATE TABLE IF NOT EXISTS OLVANE_PARTITIONS (MOUNTPOINT TEXT PRIMARY KEY, BASE TEXT, "
    "SEEN INTEGER NOT NULL);";

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

// The mount point without trailing '/': "" for the root.
std::string baseOf(const std::string& mountPoint) {
    size_t end = mountPoint.find_last_not_of('/');
    return end == std::string::npos ? std::string() : mountPoint.substr(0, end + 1);
}

bool fileExists(const std::string& name) {
    struct stat st;
    return ::stat(name.c_str(), &st) == 0;
}

long long fileSize(const std::string& name) {
    struct stat st;
    return ::stat(name.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

long long storedSize(const std::string& name) {
    return fileSize(name) + fileSize(name + "-wal") + fileSize(name + "-shm");
}

void removeFiles(const std::string& name) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string file = name + suffix;
        if (::unlink(file.c_str()) != 0 && errno != ENOENT)
            ZQLOG_ERROR("cannot remove %s: %s", file.c_str(), std::strerror(errno));
    }
}

bool fsyncPath(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT;
    bool ok = ::fsync(fd) == 0;
    if (!ok)
        ZQLOG_ERROR("fsync %s: %s", path.c_str(), std::strerror(errno));
    ::close(fd);
    return ok;
}

// SQLite's message for the last failure on `db`, with the system's reason
// when a system call failed ("disk I/O error (No space left on device)").
std::string describe(sqlite3* db, const char* message = nullptr) {
    std::string text = message ? message : db ? sqlite3_errmsg(db) : "out of memory";
    const int error = db ? sqlite3_system_errno(db) : 0;
    if (error)
        text += std::string(" (") + std::strerror(error) + ")";
    return text;
}

// A short-lived connection for one operation of the manager. Failures are
// logged; ok() tells whether the connection is usable.
class Connection {
public:
    Connection(const std::string& file, bool create, int timeoutMs) : file_(file) {
        int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
        int rc = sqlite3_open_v2(file.c_str(), &db_, flags, nullptr);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("cannot open %s: %d %s", file.c_str(), rc, describe(db_).c_str());
            sqlite3_close(db_);
            db_ = nullptr;
            return;
        }
        DatabaseMgr::configureConnection(db_, timeoutMs);
    }
    ~Connection() {
        if (db_ && sqlite3_close(db_) != SQLITE_OK)
            ZQLOG_ERROR("Could not close db connection: %s", sqlite3_errmsg(db_));
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool ok() const { return db_ != nullptr; }
    sqlite3* get() const { return db_; }

    bool exec(const char* sql) {
        char* err = nullptr;
        int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &err);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("exec failed on %s: %d %s", file_.c_str(), rc, describe(db_, err).c_str());
            sqlite3_free(err);
            return false;
        }
        return true;
    }

    // Runs one statement with text parameters (and an optional integer as
    // the last parameter), reading its rows' first column into `rows`.
    bool run(const char* sql, std::initializer_list<std::string> texts,
             std::vector<std::string>* rows = nullptr, const long long* integer = nullptr) {
        int rc = SQLITE_OK;
        olvane::SqliteStatement stmt = olvane::prepareSqlite(db_, sql, rc);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("exec failed on %s: %d %s", file_.c_str(), rc, describe(db_).c_str());
            return false;
        }
        int index = 1;
        for (const std::string& t : texts)
            sqlite3_bind_text(stmt.get(), index++, t.data(), int(t.size()), SQLITE_TRANSIENT);
        if (integer)
            sqlite3_bind_int64(stmt.get(), index, *integer);
        while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
            if (rows) {
                const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
                rows->push_back(text ? reinterpret_cast<const char*>(text) : "");
            }
        }
        if (rc != SQLITE_DONE)
            ZQLOG_ERROR("exec failed on %s: %d %s", file_.c_str(), rc, describe(db_).c_str());
        return rc == SQLITE_DONE;
    }

private:
    std::string file_;
    sqlite3* db_ = nullptr;
};

// Every column of the index tables, by table, as the schema makes them: a
// database whose tables lack one was made by something else.
const std::vector<std::pair<std::string, std::vector<std::string>>>& schemaColumns() {
    static const auto columns = [] {
        std::vector<std::pair<std::string, std::vector<std::string>>> tables;
        int rc = SQLITE_OK;
        SqliteHandle db = olvane::openSqlite(":memory:", SQLITE_OPEN_READWRITE, rc);
        if (rc == SQLITE_OK &&
            sqlite3_exec(db.get(), kSchema, nullptr, nullptr, nullptr) == SQLITE_OK) {
            olvane::SqliteStatement stmt =
                olvane::prepareSqlite(db.get(),
                                      "SELECT m.name, p.name FROM sqlite_master AS m, "
                                      "pragma_table_info(m.name) AS p WHERE m.type = 'table' "
                                      "ORDER BY m.name, p.cid;",
                                      rc);
            while (stmt && sqlite3_step(stmt.get()) == SQLITE_ROW) {
                const std::string table =
                    reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
                if (tables.empty() || tables.back().first != table)
                    tables.emplace_back(table, std::vector<std::string>());
                tables.back().second.push_back(
                    reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 1)));
            }
        }
        return tables;
    }();
    return columns;
}

enum class Verdict { VALID, INVALID, UNKNOWN };

bool damaged(int rc) {
    return (rc & 0xff) == SQLITE_CORRUPT || (rc & 0xff) == SQLITE_NOTADB;
}

// The file's header says it is a database of SQLite, whole: the magic text,
// and (when the header's page count is current) all its pages present.
Verdict inspectHeader(const std::string& name, std::string& why) {
    int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        why = std::strerror(errno);
        if (fd >= 0)
            ::close(fd);
        return Verdict::UNKNOWN;
    }
    unsigned char h[100];
    const ssize_t n = ::pread(fd, h, sizeof h, 0);
    ::close(fd);
    if (st.st_size == 0)
        return Verdict::VALID;  // SQLite makes a database of an empty file
    if (n != ssize_t(sizeof h) || std::memcmp(h, "SQLite format 3", 16) != 0) {
        why = "not an SQLite file";
        return Verdict::INVALID;
    }
    auto be32 = [&h](int at) {
        return (unsigned long long)h[at] << 24 | h[at + 1] << 16 | h[at + 2] << 8 | h[at + 3];
    };
    const unsigned long long pageSize = h[16] == 0 && h[17] == 1 ? 65536 : h[16] << 8 | h[17];
    if (be32(24) == be32(92) && be32(28) * pageSize > (unsigned long long)st.st_size) {
        why = "truncated: " + std::to_string(be32(28)) + " pages of " + std::to_string(pageSize) +
              " bytes in " + std::to_string(st.st_size) + " bytes";
        return Verdict::INVALID;
    }
    return Verdict::VALID;
}

// Whether the file at `name` is an index database. INVALID only on a
// positive finding: not SQLite, damaged, or tables without the index's
// columns. SQLite's check of the whole file (quick_check) runs when
// `thorough`, or when the file holds no complete indexing (a status other
// than "OK", or none): a database whose last indexing ended well is not read
// through at every request. A file that cannot be read is UNKNOWN. `why`
// tells what was found.
Verdict inspect(const std::string& name, bool thorough, std::string& why) {
    const Verdict header = inspectHeader(name, why);
    if (header != Verdict::VALID)
        return header;
    int rc = SQLITE_OK;
    SqliteHandle db = olvane::openSqlite(name, SQLITE_OPEN_READWRITE, rc);
    if (rc == SQLITE_OK)
        DatabaseMgr::configureConnection(db.get(), kShortTimeoutMs);
    // Column `column` of each row of `sql`; false, with `rc` set, on failure.
    auto rows = [&](const std::string& sql, int column) {
        std::vector<std::string> out;
        olvane::SqliteStatement stmt = olvane::prepareSqlite(db.get(), sql, rc);
        if (rc == SQLITE_OK) {
            while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
                const unsigned char* t = sqlite3_column_text(stmt.get(), column);
                out.push_back(t ? reinterpret_cast<const char*>(t) : "");
            }
        }
        rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
        return out;
    };
    Verdict v = Verdict::VALID;
    for (const auto& [table, wanted] : schemaColumns()) {
        const std::vector<std::string> present = rows("PRAGMA table_info(" + table + ");", 1);
        for (const std::string& column : wanted) {
            if (rc != SQLITE_OK || present.empty())
                break;
            if (std::find(present.begin(), present.end(), column) == present.end()) {
                why = "table " + table + " has no column " + column;
                v = Verdict::INVALID;
            }
        }
        if (rc != SQLITE_OK || v != Verdict::VALID)
            break;
    }
    if (rc == SQLITE_OK && v == Verdict::VALID && !thorough) {
        const std::vector<std::string> statuses = rows("SELECT STATUS FROM OLVANE_STATUS;", 0);
        thorough = rc != SQLITE_OK || statuses.empty() ||
                   std::count(statuses.begin(), statuses.end(), "OK") != long(statuses.size());
        rc = damaged(rc) ? rc : SQLITE_OK;
    }
    if (rc == SQLITE_OK && v == Verdict::VALID && thorough) {
        const std::vector<std::string> check = rows("PRAGMA quick_check(1);", 0);
        if (rc == SQLITE_OK && (check.empty() || check[0] != "ok")) {
            why = check.empty() ? "its check gave no answer" : check[0];
            v = Verdict::INVALID;
        }
    }
    if (rc != SQLITE_OK) {
        why = describe(db.get());
        v = damaged(rc) ? Verdict::INVALID : Verdict::UNKNOWN;
    }
    return v;
}

// Deletes the rows of one dangling partition (its id ?1, its base ?2) from a
// table whose path column is `column`, sparing rows below any partition seen
// in the current attach.
std::string danglingDelete(const char* table, const char* column) {
    const std::string t(table), c(column);
    return "DELETE FROM " + t + " WHERE (PARTITION_ID = ?1 OR " +
           MountPointScope::sqlCondition(c, "?2") + ") AND NOT EXISTS (SELECT 1 FROM " +
           "OLVANE_PARTITIONS P WHERE P.SEEN = 1 AND " +
           MountPointScope::sqlCondition(t + "." + c, "P.BASE") + ");";
}

std::string textOf(sqlite3_value* v) {
    const void* bytes = sqlite3_value_blob(v);
    return bytes ? std::string(static_cast<const char*>(bytes), size_t(sqlite3_value_bytes(v)))
                 : std::string();
}

void resultText(sqlite3_context* ctx, const std::string& text) {
    sqlite3_result_text(ctx, text.data(), int(text.size()), SQLITE_TRANSIENT);
}

// SQL functions of a partition's move, NULL for NULL. olvane_id(kind, text):
// the Md5 of `text` for kind `kind`.
void sqlId(sqlite3_context* ctx, int, sqlite3_value** argv) {
    if (sqlite3_value_type(argv[1]) == SQLITE_NULL)
        return sqlite3_result_null(ctx);
    resultText(ctx, Md5(Md5::Kind(sqlite3_value_int(argv[0])), textOf(argv[1])).toString());
}

// olvane_dir(path): the folder of a path as the crawler names it: "/" for
// "/a", "" for a path without '/'.
void sqlDir(sqlite3_context* ctx, int, sqlite3_value** argv) {
    if (sqlite3_value_type(argv[0]) == SQLITE_NULL)
        return sqlite3_result_null(ctx);
    resultText(ctx, MetaDataInfo::directoryOf(textOf(argv[0])));
}

// olvane_name(path): the last component of a path, as a folder's NAME.
void sqlName(sqlite3_context* ctx, int, sqlite3_value** argv) {
    if (sqlite3_value_type(argv[0]) == SQLITE_NULL)
        return sqlite3_result_null(ctx);
    resultText(ctx, MetaDataInfo::lastComponent(textOf(argv[0])));
}

// olvane_rebase(path, from, to): a path at or below mount point `from` moved
// below mount point `to`; any other path as it is.
void sqlRebase(sqlite3_context* ctx, int, sqlite3_value** argv) {
    const std::string path = textOf(argv[0]), from = textOf(argv[1]);
    if (sqlite3_value_type(argv[0]) == SQLITE_NULL || !MountPointScope::contains(from, path))
        return sqlite3_result_value(ctx, argv[0]);
    resultText(ctx, textOf(argv[2]) + path.substr(from.size()));
}

using Sample = std::vector<std::pair<std::string, long long>>;

// Up to 64 songs (path, stored time) at or below `mountPoint`, spread over
// them in path order: of N, the rows R (from 0) where R * 64 % N < 64, which
// are all when N <= 64, else the first at or after each i * N / 64.
bool readSample(sqlite3* db, const std::string& mountPoint, Sample& sample) {
    static const std::string sql = "SELECT PATH, LASTMODIFIED FROM SONGS WHERE " +
                                   MountPointScope::sqlCondition("PATH") + " ORDER BY PATH;";
    Sample songs;
    int rc = SQLITE_OK;
    olvane::SqliteStatement stmt = olvane::prepareSqlite(db, sql, rc);
    if (rc == SQLITE_OK) {
        sqlite3_bind_text(stmt.get(), 1, mountPoint.data(), int(mountPoint.size()),
                          SQLITE_TRANSIENT);
        while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
            songs.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0)),
                               sqlite3_column_int64(stmt.get(), 1));
    }
    if (rc != SQLITE_DONE)
        ZQLOG_ERROR("songs of %s not sampled: %s", mountPoint.c_str(), describe(db).c_str());
    for (size_t r = 0; r < songs.size(); ++r)
        if (r * 64 % songs.size() < 64)
            sample.push_back(std::move(songs[r]));
    return rc == SQLITE_DONE;
}

// Whether each sampled song of the partition at `from` is a regular file
// below `to` modified at its stored time, to 2 s as FAT keeps times. An
// empty sample never matches.
bool sampleMatches(const Sample& sample, const std::string& from, const std::string& to) {
    for (const auto& [path, stored] : sample) {
        struct stat st;
        const std::string moved = to + path.substr(from.size());
        if (::stat(moved.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
            stored < (long long)st.st_mtime - 2 || stored > (long long)st.st_mtime + 2)
            return false;
    }
    return !sample.empty();
}

// The updates that move a partition's rows from mount point ?1 to ?2, whose
// PARTITION_ID is ?3: their paths, and what an indexing makes of a path: the
// ids (Md5.h) and a folder's NAME, which is the mount point's own for its
// row. A folder's PARENT_ID is its parent's OBJECTID; the mount point's row
// keeps its empty one.
const std::vector<std::string>& moveStatements() {
    static const std::vector<std::string> statements = [] {
        const std::string at = MountPointScope::sqlCondition("PATH"),
                          path = "olvane_rebase(PATH, ?1, ?2)",
                          list = "olvane_rebase(PLAYPATH, ?1, ?2)",
                          track = "olvane_rebase(TRACKPATH, ?1, ?2)";
        return std::vector<std::string>{
            "UPDATE SONGS SET PATH = " + path + ", PARTITION_ID = ?3, OBJECTID = olvane_id(0, " +
                path + "), DIRECTORYID = olvane_id(1, olvane_dir(" + path + ")) WHERE " + at + ";",
            "UPDATE DIRECTORIES SET PATH = " + path + ", NAME = olvane_name(" + path +
                "), PARTITION_ID = ?3, OBJECTID = olvane_id(1, " + path +
                "), PARENT_ID = CASE PATH WHEN ?1 THEN PARENT_ID " +
                "ELSE olvane_id(1, olvane_dir(" + path + ")) END WHERE " + at + ";",
            "UPDATE PLAYLISTS SET PLAYPATH = " + list + ", PARTITION_ID = ?3, PLAYID = " +
                "olvane_id(6, " + list + "), TRACKPATH = " + track + ", TRACKID = CASE WHEN " +
                MountPointScope::sqlCondition("TRACKPATH") + " THEN olvane_id(0, " + track +
                ") ELSE TRACKID END WHERE " + MountPointScope::sqlCondition("PLAYPATH") + ";"};
    }();
    return statements;
}

// The database's "indexed at" time: its newest status time, else the file's
// modification time.
long long indexedAt(const std::string& name) {
    {
        Connection c(name, false, kShortTimeoutMs);
        std::vector<std::string> rows;
        if (c.ok() &&
            c.run("SELECT MAX(INDEXED_AT) FROM OLVANE_STATUS WHERE INDEXED_AT IS NOT NULL;", {},
                  &rows) &&
            !rows.empty() && !rows[0].empty())
            return std::atoll(rows[0].c_str());
    }
    struct stat st;
    return ::stat(name.c_str(), &st) == 0 ? static_cast<long long>(st.st_mtime) : 0;
}

}  // namespace

void DatabaseMgr::configureConnection(sqlite3* db, int timeoutMs) {
    sqlite3_busy_timeout(db, timeoutMs);
    // In WAL mode a commit is then written, not flushed: a power cut may lose
    // the last commits, never the database's soundness. Each indexing ends
    // with sync(), which flushes them all.
    sqlite3_exec(db, "PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr);
    int persist = 1;
    sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    // The kept WAL is emptied when its frames are back in the database: a
    // later connection, such as one reading the status, then writes nothing
    // to the file, whose time stands for the last indexing where no status does.
    sqlite3_exec(db, "PRAGMA journal_size_limit=0;", nullptr, nullptr, nullptr);
}

const char* const DatabaseMgr::kLookupCleanup =
    "DELETE FROM ARTISTS WHERE ARTISTID NOT IN ( SELECT DISTINCT ARTISTID FROM SONGS);"
    "DELETE FROM ALBUMS WHERE ALBUMID NOT IN ( SELECT DISTINCT ALBUMID FROM SONGS);"
    "DELETE FROM GENRES WHERE GENREID NOT IN ( SELECT DISTINCT GENREID FROM SONGS);"
    "DELETE FROM COMPOSERS WHERE COMPOSERID NOT IN ( SELECT DISTINCT COMPOSERID FROM SONGS);";

DatabaseMgr& DatabaseMgr::instance() {
    static DatabaseMgr mgr;
    return mgr;
}

void DatabaseMgr::setDatabaseDirectory(const std::string& dir) {
    std::lock_guard<std::mutex> lock(mutex_);
    dir_ = dir;
}

void DatabaseMgr::setClock(std::function<long long()> clock) {
    std::lock_guard<std::mutex> lock(mutex_);
    clock_ = std::move(clock);
}

long long DatabaseMgr::now() const {
    std::function<long long()> clock;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        clock = clock_;
    }
    return clock ? clock() : static_cast<long long>(std::time(nullptr));
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
            // Private to the owner: the databases list what is on the devices.
            if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
                ZQLOG_WARN("cannot create %s: %s", part.c_str(), std::strerror(errno));
                return;
            }
        }
    }
}

void DatabaseMgr::createDb(const std::string& devId, const std::string& mountPoint,
                           bool isFirstPartition) {
    createDirectory();
    const std::string name = getDbNameFromDevId(devId);
    // Said plainly before SQLite tries: for a read-only folder it names the
    // shared-memory file it could not make.
    for (const std::string& path : {databaseDirectory(), name}) {
        if (::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 && errno != ENOENT) {
            ZQLOG_ERROR("cannot write %s: %s", path.c_str(), std::strerror(errno));
            throw std::runtime_error("cannot write " + path);
        }
    }
    std::string why;
    if (fileExists(name) && inspect(name, false, why) == Verdict::INVALID) {
        ZQLOG_WARN("%s is not an index database (%s): rebuilt", name.c_str(), why.c_str());
        removeFiles(name);
    }
    // Readable by its owner only. Made before SQLite opens it, as SQLite
    // gives the WAL and shared-memory files the database file's mode.
    int fd = ::open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::fchmod(fd, 0600);
        ::close(fd);
    }
    for (int attempt = 0;; ++attempt) {
        Connection c(name, true, kBusyTimeoutMs);
        if (!c.ok())
            throw std::runtime_error("cannot open db");
        std::vector<std::string> mode;
        bool ok = c.run("PRAGMA journal_mode=WAL;", {}, &mode);
        if (ok && (mode.empty() || mode[0] != "wal"))
            ZQLOG_WARN("%s stays in journal mode %s", name.c_str(),
                       mode.empty() ? "?" : mode[0].c_str());
        // IMMEDIATE: two creators of one file queue on the busy time-out
        // instead of failing on a lock upgrade.
        ok = ok && c.exec("BEGIN IMMEDIATE;") && c.exec(kSchema);
        if (ok && isFirstPartition)
            ok = c.exec("UPDATE OLVANE_PARTITIONS SET SEEN = 0;");
        if (ok)
            ok = c.run("REPLACE INTO OLVANE_PARTITIONS (MOUNTPOINT, BASE, SEEN) VALUES (?, ?, 1);",
                       {mountPoint, baseOf(mountPoint)});
        if (ok)
            ok = c.exec("COMMIT;");
        if (ok)
            break;
        const int rc = sqlite3_extended_errcode(c.get());
        sqlite3_exec(c.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
        // Damage that the quick look at the file did not see.
        if (attempt == 0 && damaged(rc) && inspect(name, true, why) == Verdict::INVALID) {
            ZQLOG_WARN("%s is not an index database (%s): rebuilt", name.c_str(), why.c_str());
            removeFiles(name);
            continue;
        }
        throw std::runtime_error("cannot create db " + name);
    }
    ZQLOG_INFO("database %s ready for %s (first partition: %d)", name.c_str(), mountPoint.c_str(),
               int(isFirstPartition));
}

void DatabaseMgr::removeDanglingPartitions(const std::string& devId,
                                           const std::string& mountPoint) {
    const std::string name = getDbNameFromDevId(devId);
    Connection c(name, false, kBusyTimeoutMs);
    if (!c.ok() || !c.exec("BEGIN IMMEDIATE;"))
        return;
    std::vector<std::string> dangling;
    bool ok = c.run("SELECT MOUNTPOINT FROM OLVANE_PARTITIONS WHERE SEEN = 0 AND MOUNTPOINT <> ?;",
                    {mountPoint}, &dangling);
    const std::string songs = danglingDelete("SONGS", "PATH");
    const std::string dirs = danglingDelete("DIRECTORIES", "PATH");
    const std::string lists = danglingDelete("PLAYLISTS", "PLAYPATH");
    for (size_t i = 0; ok && i < dangling.size(); ++i) {
        const std::string& mp = dangling[i];
        const std::string pid = Md5(Md5::DIRECTORY, mp).toString();
        const std::string base = baseOf(mp);
        ZQLOG_INFO("removing dangling partition %s of %s", mp.c_str(), devId.c_str());
        ok = c.run(songs.c_str(), {pid, base}) && c.run(dirs.c_str(), {pid, base}) &&
             c.run(lists.c_str(), {pid, base}) &&
             c.run("DELETE FROM OLVANE_STATUS WHERE MOUNTPOINT = ?;", {mp}) &&
             c.run("DELETE FROM OLVANE_PARTITIONS WHERE MOUNTPOINT = ?;", {mp});
    }
    if (ok && !dangling.empty())
        ok = c.exec(DatabaseMgr::kLookupCleanup);
    if (!ok || !c.exec("COMMIT;")) {
        ZQLOG_ERROR("dangling partitions of %s kept", devId.c_str());
        sqlite3_exec(c.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
    }
}

bool DatabaseMgr::adoptMovedPartition(const std::string& devId, const std::string& mountPoint) {
    const std::string name = getDbNameFromDevId(devId);
    if (!fileExists(name))
        return false;
    Connection c(name, false, kBusyTimeoutMs);
    bool ok = c.ok();
    const struct {
        const char* name;
        int args;
        void (*function)(sqlite3_context*, int, sqlite3_value**);
    } functions[] = {{"olvane_id", 2, sqlId},
                     {"olvane_dir", 1, sqlDir},
                     {"olvane_name", 1, sqlName},
                     {"olvane_rebase", 3, sqlRebase}};
    for (const auto& f : functions)
        ok = ok &&
             sqlite3_create_function(c.get(), f.name, f.args, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                     nullptr, f.function, nullptr, nullptr) == SQLITE_OK;
    ok = ok && c.exec("BEGIN IMMEDIATE;");
    std::vector<std::string> taken, candidates;
    ok = ok && c.run(("SELECT 1 WHERE EXISTS (SELECT 1 FROM SONGS WHERE " +
                      MountPointScope::sqlCondition("PATH") +
                      ") OR EXISTS (SELECT 1 FROM DIRECTORIES WHERE " +
                      MountPointScope::sqlCondition("PATH") +
                      ") OR EXISTS (SELECT 1 FROM PLAYLISTS WHERE " +
                      MountPointScope::sqlCondition("PLAYPATH") + ");")
                         .c_str(),
                     {baseOf(mountPoint)}, &taken);
    if (ok && taken.empty())
        ok = c.run(
            "SELECT MOUNTPOINT FROM OLVANE_PARTITIONS WHERE SEEN = 0 AND MOUNTPOINT <> ? "
            "ORDER BY MOUNTPOINT;",
            {mountPoint}, &candidates);
    std::string from;
    for (size_t i = 0; ok && from.empty() && i < candidates.size(); ++i) {
        const std::string& mp = candidates[i];
        Sample sample;
        ok = readSample(c.get(), mp, sample);
        if (!ok || sampleMatches(sample, mp, mp))
            continue;  // still at its own mount point
        if (sampleMatches(sample, mp, mountPoint))
            from = mp;
        else
            ZQLOG_INFO("partition %s of %s not moved to %s: its sampled songs are not there",
                       mp.c_str(), devId.c_str(), mountPoint.c_str());
    }
    const std::string pid = Md5(Md5::DIRECTORY, mountPoint).toString();
    for (size_t i = 0; ok && !from.empty() && i < moveStatements().size(); ++i)
        ok = c.run(moveStatements()[i].c_str(), {from, mountPoint, pid});
    if (ok && !from.empty())
        ok = c.run("DELETE FROM OLVANE_STATUS WHERE MOUNTPOINT = ?;", {mountPoint}) &&
             c.run("UPDATE OLVANE_STATUS SET MOUNTPOINT = ?2 WHERE MOUNTPOINT = ?1;",
                   {from, mountPoint}) &&
             c.run("DELETE FROM OLVANE_PARTITIONS WHERE MOUNTPOINT = ?;", {from}) &&
             c.exec("COMMIT;");
    if (!ok || from.empty()) {
        if (c.ok())
            sqlite3_exec(c.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
        if (!ok)
            ZQLOG_ERROR("partition %s of %s not moved to %s: database error, nothing moved",
                        from.empty() ? "?" : from.c_str(), devId.c_str(), mountPoint.c_str());
        return false;
    }
    ZQLOG_DEBUG("partition %s of %s moved to %s", from.c_str(), devId.c_str(), mountPoint.c_str());
    return true;
}

bool DatabaseMgr::insertStatus(const std::string& devId, const std::string& mountPoint,
                               const char* status) {
    Connection c(getDbNameFromDevId(devId), false, kBusyTimeoutMs);
    if (!c.ok())
        return false;
    const long long at = now();
    if (!c.run("REPLACE INTO OLVANE_STATUS (MOUNTPOINT, STATUS, INDEXED_AT) VALUES (?, ?, ?);",
               {mountPoint, status ? status : ""}, nullptr, &at)) {
        ZQLOG_ERROR("status %s of %s not recorded", status ? status : "", mountPoint.c_str());
        return false;
    }
    return true;
}

std::string DatabaseMgr::getStatus(const std::string& devId, const std::string& mountPoint) {
    const std::string name = getDbNameFromDevId(devId);
    if (!fileExists(name))
        return std::string();
    Connection c(name, false, kBusyTimeoutMs);
    std::vector<std::string> rows;
    if (!c.ok() ||
        !c.run("SELECT STATUS FROM OLVANE_STATUS WHERE MOUNTPOINT = ?;", {mountPoint}, &rows) ||
        rows.empty())
        return std::string();
    return rows[0];
}

bool DatabaseMgr::dbSizeHasReachLimit(const std::string& dbName) {
    return fileSize(dbName) + fileSize(dbName + "-wal") >= kSizeLimit;
}

void DatabaseMgr::holdDevice(const std::string& devId) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++held_[devId];
}

void DatabaseMgr::releaseDevice(const std::string& devId) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = held_.find(devId);
    if (it != held_.end() && --it->second <= 0)
        held_.erase(it);
}

void DatabaseMgr::checkAndDelete(const std::string& devId, long limit) {
    const std::string dir = databaseDirectory();
    const std::string own = getDbNameFromDevId(devId);
    // The databases of the devices in hand are counted but never deleted.
    std::vector<std::string> spared{own};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& h : held_)
            spared.push_back(h.first);
    }
    for (size_t i = 1; i < spared.size(); ++i)
        spared[i] = getDbNameFromDevId(spared[i]);
    DirHandle d(::opendir(dir.c_str()));
    if (!d) {
        ZQLOG_WARN("cannot read %s: %s", dir.c_str(), std::strerror(errno));
        return;
    }
    struct Stored {
        long long indexedAt;
        std::string name;
    };
    std::vector<Stored> others;
    long long total = 0;
    while (dirent* e = ::readdir(d.get())) {
        const std::string file = e->d_name;
        if (file.size() < 4 || file.compare(file.size() - 3, 3, ".db") != 0)
            continue;
        const std::string name = dir + "/" + file;
        struct stat st;
        if (::stat(name.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        total += storedSize(name);
        if (std::find(spared.begin(), spared.end(), name) == spared.end())
            others.push_back({0, name});
    }
    d.reset();
    if (total <= limit)
        return;
    for (Stored& s : others)
        s.indexedAt = indexedAt(s.name);
    std::sort(others.begin(), others.end(), [](const Stored& a, const Stored& b) {
        return a.indexedAt != b.indexedAt ? a.indexedAt < b.indexedAt : a.name < b.name;
    });
    for (const Stored& s : others) {
        if (total <= limit)
            break;
        const long long size = storedSize(s.name);
        ZQLOG_INFO("size limit %ld: deleting %s (%lld bytes, indexed at %lld)", limit,
                   s.name.c_str(), size, s.indexedAt);
        removeFiles(s.name);
        total -= size;
    }
    if (total > limit)
        ZQLOG_WARN("databases take %lld bytes after clean-up, over the limit %ld", total, limit);
}

void DatabaseMgr::deleteInvalidDb(const std::string& devId) {
    const std::string name = getDbNameFromDevId(devId);
    if (!fileExists(name))
        return;
    std::string why;
    const Verdict v = inspect(name, true, why);
    if (v == Verdict::INVALID) {
        ZQLOG_WARN("deleting %s: not an index database (%s)", name.c_str(), why.c_str());
        removeFiles(name);
    } else if (v == Verdict::VALID) {
        ZQLOG_INFO("%s kept: a valid index database", name.c_str());
    } else {
        ZQLOG_INFO("%s kept: it cannot be checked (%s)", name.c_str(), why.c_str());
    }
}

void DatabaseMgr::deleteDb(const std::string& devId) {
    const std::string name = getDbNameFromDevId(devId);
    ZQLOG_INFO("deleting %s", name.c_str());
    removeFiles(name);
}

void DatabaseMgr::sync(const std::string& devId) {
    const std::string name = getDbNameFromDevId(devId);
    if (!fileExists(name)) {
        ZQLOG_WARN("nothing to sync: %s does not exist", name.c_str());
        return;
    }
    {
        Connection c(name, false, kShortTimeoutMs);
        // The pragma (unlike sqlite3_wal_checkpoint_v2 on a fresh connection)
        // reads the file first, so it knows the database is in WAL mode. Its
        // first column is 1 when a reader kept the WAL; the WAL is then
        // fsynced below.
        std::vector<std::string> busy;
        if (c.ok() && c.run("PRAGMA wal_checkpoint(TRUNCATE);", {}, &busy) && !busy.empty() &&
            busy[0] != "0")
            ZQLOG_WARN("checkpoint of %s incomplete: the WAL is in use", name.c_str());
    }
    fsyncPath(name, O_RDONLY);
    fsyncPath(name + "-wal", O_RDONLY);
    size_t slash = name.rfind('/');
    fsyncPath(slash == std::string::npos ? "."
              : slash == 0               ? "/"
                                         : name.substr(0, slash),
              O_RDONLY | O_DIRECTORY);
}

std::vector<std::pair<std::string, std::string>> DatabaseMgr::getStatuses(
    const std::string& devId) {
    std::vector<std::pair<std::string, std::string>> out;
    const std::string name = getDbNameFromDevId(devId);
    if (!fileExists(name))
        return out;
    Connection c(name, false, kBusyTimeoutMs);
    sqlite3_stmt* stmt = nullptr;
    if (!c.ok() || sqlite3_prepare_v2(c.get(),
                                      "SELECT MOUNTPOINT, STATUS FROM OLVANE_STATUS "
                                      "ORDER BY MOUNTPOINT;",
                                      -1, &stmt, nullptr) != SQLITE_OK)
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
