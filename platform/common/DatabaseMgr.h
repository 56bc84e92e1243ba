#pragma once
// libolvane-common's manager of the per-device index databases: file names,
// schema, status records, partitions and housekeeping. Thread-safe: every
// operation opens its own short-lived connection.

#include <mutex>
#include <string>
#include <utility>
#include <vector>

class DatabaseMgr {
public:
    // Size at which a device database (file and WAL together) is full.
    static const long kSizeLimit = 89128960;

    static DatabaseMgr& instance();

    // Directory of the database files. Set by hosts and tests; otherwise
    // $OLVANE_DB_DIR, else $XDG_DATA_HOME/olvane, else ~/.local/share/olvane.
    void setDatabaseDirectory(const std::string& dir);
    std::string databaseDirectory() const;

    // <dir>/<devId>.db for a plain id (letters, digits, '.', '_', '-', not
    // starting with '.'); <dir>/dev-<hex of the id's bytes>.db otherwise.
    std::string getDbNameFromDevId(const std::string& devId) const;
    void createDirectory();

    // Creates the database and its schema when missing (idempotent), in WAL
    // mode, and records the partition: isFirstPartition starts a new attach
    // of the device. Throws std::runtime_error when the database cannot be made.
    void createDb(const std::string& devId, const std::string& mountPoint, bool isFirstPartition);
    // Deletes the rows and status of this device's partitions not seen in the
    // current attach.
    void removeDanglingPartitions(const std::string& devId, const std::string& mountPoint);

    void insertStatus(const std::string& devId, const std::string& mountPoint, const char* status);
    // "" when no status is recorded.
    std::string getStatus(const std::string& devId, const std::string& mountPoint);
    // Every (mount point, status) recorded for the device, by mount point.
    std::vector<std::pair<std::string, std::string>> getStatuses(const std::string& devId);

    // True when the file and its WAL together reach kSizeLimit bytes.
    bool dbSizeHasReachLimit(const std::string& dbName);
    // Deletes other devices' databases, least recently indexed first, until
    // all stored databases together take at most `limit` bytes.
    void checkAndDelete(const std::string& devId, long limit);
    // Removes the file with its -wal and -shm files.
    void deleteDb(const std::string& devId);
    // Checkpoints the WAL and fsyncs the file and its directory.
    void sync(const std::string& devId);

    // Defined in the core library (db/DatabaseOpen.h).
    template <class Stream>
    bool open(const std::string& devId, Stream& stream, int timeoutMs);

private:
    DatabaseMgr() = default;
    DatabaseMgr(const DatabaseMgr&) = delete;
    DatabaseMgr& operator=(const DatabaseMgr&) = delete;

    mutable std::mutex mutex_;
    std::string dir_;  // guarded by mutex_; empty: use the environment
};
