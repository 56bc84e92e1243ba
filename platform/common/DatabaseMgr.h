#pragma once
// libolvane-common's manager of the per-device index databases: file names,
// schema, status records, partitions and housekeeping. Thread-safe: every
// operation opens its own short-lived connection, and the manager's settings
// are guarded by its mutex. Only createDb and open throw; every other failure (a
// missing, locked, full or corrupt database) is logged and leaves the files
// as they were.
//
// Besides the index tables each database holds two tables of its own:
//   OLVANE_STATUS (MOUNTPOINT, STATUS, INDEXED_AT): one status per mount
//     point, with the time (seconds) at which it was last written; the
//     newest INDEXED_AT is the database's "indexed at" time.
//   OLVANE_PARTITIONS (MOUNTPOINT, BASE, SEEN): the device's partitions;
//     SEEN is 1 for those seen in the current attach of the device.

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

class DatabaseMgr {
public:
    // Size at which a device database (file and WAL together) is full.
    static const long kSizeLimit = 89128960;

    static DatabaseMgr& instance();

    // Four statements that delete the artists, albums, genres and composers
    // no song names any more; run inside the caller's transaction.
    static const char* const kLookupCleanup;

    // Directory of the database files. Set by hosts and tests; otherwise
    // $OLVANE_DB_DIR, else $XDG_DATA_HOME/olvane, else ~/.local/share/olvane.
    void setDatabaseDirectory(const std::string& dir);
    std::string databaseDirectory() const;

    // <dir>/<devId>.db for a plain id (letters, digits, '.', '_', '-', not
    // starting with '.'); <dir>/dev-<hex of the id's bytes>.db otherwise.
    std::string getDbNameFromDevId(const std::string& devId) const;
    void createDirectory();

    // Creates the database and its schema when missing (idempotent), in WAL
    // mode, in one transaction, and records the partition. A file that is not
    // an index database (not SQLite, damaged, other tables) is deleted and
    // made anew, with a warning; SQLite's check of the whole file runs only
    // when the last indexing of some partition did not end "OK". The
    // directory is made 0700, the file 0600. isFirstPartition
    // starts a new attach of the device (the partitions seen so far are
    // forgotten); every call marks `mountPoint` as seen in the current attach.
    // Throws std::runtime_error when the folder or the file cannot be
    // written, or the database cannot be opened or made.
    void createDb(const std::string& devId, const std::string& mountPoint, bool isFirstPartition);
    // Deletes the SONGS, DIRECTORIES and PLAYLISTS rows and the status of
    // the device's partitions not seen in the current attach, then the
    // lookup rows no song uses any more. Rows are chosen by PARTITION_ID or
    // by lying at or below the partition's mount point, never when they lie
    // below a partition seen in the current attach. `mountPoint` is kept.
    void removeDanglingPartitions(const std::string& devId, const std::string& mountPoint);
    // Moves to `mountPoint` the rows of a partition of the device recorded at
    // another mount point and not seen in the current attach, when its files
    // are now at `mountPoint`: a stick plugged in again elsewhere. Nothing
    // happens while any SONGS, DIRECTORIES or PLAYLISTS row lies at or below
    // `mountPoint`. A partition's files are at a mount point when up to 64 of
    // its songs, spread over it in path order, are regular files there
    // modified at their stored time (to 2 s); a partition without songs, or
    // whose files are still at its own mount point, is not moved. The first
    // that matches, by mount point, has its rows' paths and the ids made of
    // them rewritten as an indexing at `mountPoint` makes them, its status
    // moved to `mountPoint` and its partition record dropped, in one
    // transaction. Returns whether rows were moved; a failure is logged and
    // moves nothing. Call after createDb.
    bool adoptMovedPartition(const std::string& devId, const std::string& mountPoint);

    // Records `status` for the mount point with the current time; false when
    // it could not be written. Does not create a database that does not exist.
    bool insertStatus(const std::string& devId, const std::string& mountPoint, const char* status);
    // "" when no status is recorded or the database cannot be read.
    std::string getStatus(const std::string& devId, const std::string& mountPoint);
    // Every (mount point, status) recorded for the device, by mount point.
    std::vector<std::pair<std::string, std::string>> getStatuses(const std::string& devId);

    // True when the file and its WAL together reach kSizeLimit bytes.
    bool dbSizeHasReachLimit(const std::string& dbName);
    // Keeps all stored databases (*.db in the directory, with their -wal and
    // -shm files) at or under `limit` bytes together by deleting other
    // devices' databases, least recently indexed first (oldest INDEXED_AT;
    // a database without a readable status counts by its file's
    // modification time; ties go by file name). Never deletes devId's, nor
    // that of a held device.
    void checkAndDelete(const std::string& devId, long limit);
    // Marks a device whose database checkAndDelete must spare, such as one
    // with an indexing request registered; counted: a device held twice is
    // spared until it is released twice. Releasing a device not held does
    // nothing.
    void holdDevice(const std::string& devId);
    void releaseDevice(const std::string& devId);
    // Removes the file with its -wal and -shm files.
    void deleteDb(const std::string& devId);
    // Removes them only when the file is not an index database (SQLite's
    // check of the whole file fails, or it is not SQLite); a valid one, or
    // one that cannot be read, is kept and the reason logged.
    void deleteInvalidDb(const std::string& devId);
    // Checkpoints the WAL (TRUNCATE) and fsyncs the file, its WAL and its
    // directory. A missing database is only logged.
    void sync(const std::string& devId);

    // Source of the current time in seconds for INDEXED_AT; time(nullptr)
    // unless set. An empty function restores the default.
    void setClock(std::function<long long()> clock);

    // Sets up a new connection to a device database: the busy time-out,
    // commits written but not flushed (sync() flushes them), and the WAL and
    // shared-memory files kept when it closes, so that a reader opens the
    // database without making a file, as on a full disk.
    static void configureConnection(sqlite3* db, int timeoutMs);

    // Opens the device's existing database on `stream` (never creates the
    // file), with the busy time-out. Throws std::runtime_error("cannot open
    // db") when it cannot be opened. Defined in the core library
    // (db/DatabaseOpen.h).
    template <class Stream>
    bool open(const std::string& devId, Stream& stream, int timeoutMs);

private:
    DatabaseMgr() = default;
    DatabaseMgr(const DatabaseMgr&) = delete;
    DatabaseMgr& operator=(const DatabaseMgr&) = delete;

    long long now() const;

    mutable std::mutex mutex_;
    std::string dir_;                   // guarded by mutex_; empty: use the environment
    std::function<long long()> clock_;  // guarded by mutex_; empty: time(nullptr)
    std::map<std::string, int> held_;   // guarded by mutex_; device id -> holds
};
