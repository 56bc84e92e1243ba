#include "orchestration/SongDirectoryPipeline.h"

#include <sqlite3.h>

#include <QString>

#include "db/DatabaseOpen.h"
#include "facade/KestrowQTProxy.h"
#include "msd/Directory.h"
#include "msd/FileInfo.h"
#include "msd/MountPointCheck.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "sql/SqlStream.h"

namespace kestrow {

SongDirectoryPipeline::SongDirectoryPipeline(const char* name_, Kestrow* owner_,
                                             OperationType type_)
    : Pipeline<Block<void>, Block<void>>(name_), owner(owner_), type(type_), writeFailed(false) {
    next = owner_;
}

void SongDirectoryPipeline::enqueueNewOperation(KestrowOperation& operation,
                                                bool isFirstPartition) {
    ZQLOG_INFO("enqueueNewOperation mp: %s", operation.mountPoint.c_str());
    DatabaseMgr& mgr = DatabaseMgr::instance();
    mgr.createDb(operation.deviceId, operation.mountPoint, isFirstPartition);
    // A re-plugged stick's rows move here before the walk rather than being read again.
    try {
        if (type == MSD_OPERATION)
            mgr.adoptMovedPartition(operation.deviceId, operation.mountPoint);
    } catch (const std::exception& e) {
        ZQLOG_ERROR("rows of %s not moved to %s: %s", operation.deviceId.c_str(),
                    operation.mountPoint.c_str(), e.what());
    }
    if (mgr.getStatus(operation.deviceId, operation.mountPoint) == "OK") {
        emit KestrowQTProxy::instance().databaseExists(
            QString::fromUtf8(operation.deviceId.c_str()),
            QString::fromUtf8(operation.mountPoint.c_str()));
    }
    enqueueOperation(operation);
}

void SongDirectoryPipeline::enqueueOperation(KestrowOperation& operation) {
    ZQLOG_INFO("enqueueOperation %d", operation.id);
    currentOperation = operation;
    playlistsWritten.clear();
    boost::shared_ptr<Block<Directory*>> root(new Block<Directory*>());
    root->operation =
        Operation(operation.id, operation.handle, operation.deviceId, operation.mountPoint, true);
    // The device is the file system at the mount point now: one that is gone
    // by the time the request runs is not read as an empty device.
    MountPointCheck::record(root->operation);
    root->items.push_back(new Directory(operation.mountPoint, operation.mountPoint, -1));
    crawler()->enqueue(root);
}

void SongDirectoryPipeline::clearPlaylists() {
    ZQLOG_INFO("Clear Playlists");
    try {
        sqlstl::basic_sqlostream<char> stream;
        DatabaseMgr::instance().open(currentOperation.deviceId, stream, 3600000);
        char* error = nullptr;
        int rc = sqlite3_exec(stream.db,
                              "BEGIN TRANSACTION; DELETE FROM PLAYLISTS WHERE TRACKID NOT IN "
                              "(SELECT OBJECTID from SONGS);COMMIT;",
                              nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("exec failed: %d %s", rc, error ? error : sqlite3_errmsg(stream.db));
            sqlite3_exec(stream.db, "ROLLBACK;", nullptr, nullptr, nullptr);
        }
        sqlite3_free(error);
        stream.close();
    } catch (const std::exception& e) {
        ZQLOG_ERROR("exec failed: %d %s", SQLITE_CANTOPEN, e.what());
    }
}

void SongDirectoryPipeline::markPlaylistsUnread() {
    if (playlistsWritten.empty())
        return;
    ZQLOG_INFO("%u playlists to be read again (op: %d)", unsigned(playlistsWritten.size()),
               currentOperation.id);
    try {
        sqlstl::basic_sqlostream<char> stream;
        DatabaseMgr::instance().open(currentOperation.deviceId, stream, 3600000);
        stream.exec("BEGIN TRANSACTION;");
        stream.query("UPDATE PLAYLISTS SET LASTMODIFIED = ? WHERE PLAYID = ?;");
        for (const std::string& id : playlistsWritten)
            stream << FileInfo::kUnreadTime << id << sqlstl::step<char, std::char_traits<char>>;
        stream.exec("END TRANSACTION;");
        stream.finalize();
        // Not marked, they would be taken for read: the database is not whole.
        writeFailed = writeFailed || stream.storageError;
        stream.close();
    } catch (const std::exception& e) {
        ZQLOG_ERROR("exec failed: %d %s", SQLITE_CANTOPEN, e.what());
        writeFailed = true;
    }
}

boost::shared_ptr<Block<void>> SongDirectoryPipeline::doOperation(
    boost::shared_ptr<Block<void>> block) {
    const Operation& op = block->operation;
    if (!op.lastBlock) {
        ZQLOG_ERROR("Received a non LAST block! WE SHOULD NEVER BE HERE");
        return boost::shared_ptr<Block<void>>();
    }
    if (op.id != currentOperation.id) {
        ZQLOG_ERROR("OPERATION MISMATCH!!");
        return boost::shared_ptr<Block<void>>();
    }
    ++currentOperation.resultCount;
    // A folder that could not be read, or rows that could not be written,
    // leave the database incomplete too.
    currentOperation.incomplete =
        currentOperation.incomplete || op.deviceGone || !op.unreadable.empty() || op.writeFailed;
    writeFailed = writeFailed || op.writeFailed;
    playlistsWritten.insert(playlistsWritten.end(), op.playlistsWritten.begin(),
                            op.playlistsWritten.end());
    ZQLOG_INFO("Result for id %d: %d", op.id, currentOperation.resultCount);
    if (currentOperation.resultCount != kTerminalStages)
        return boost::shared_ptr<Block<void>>();

    // Entries whose song is not in the database yet are kept while the
    // operation is incomplete, and only the songs are read again; but a
    // playlist read meanwhile may have been read while its songs were going
    // (each entry is looked up on the device), so it is read again too.
    if (currentOperation.incomplete) {
        ZQLOG_INFO("Playlists kept: the operation is incomplete (op: %d)", op.id);
        markPlaylistsUnread();
    } else {
        clearPlaylists();
    }

    long elapsed = currentOperation.timer.stop();
    ZQLOG_INFO("End operation for id %d that took %ld", op.id, elapsed);

    DatabaseMgr& mgr = DatabaseMgr::instance();
    const std::string& deviceId = currentOperation.deviceId;
    const std::string& mountPoint = currentOperation.mountPoint;
    if (!writeFailed &&
        mgr.insertStatus(deviceId, mountPoint, currentOperation.incomplete ? "PROGRESS" : "OK")) {
        mgr.removeDanglingPartitions(deviceId, mountPoint);
        emit KestrowQTProxy::instance().indexingFinished(QString::fromUtf8(mountPoint.c_str()));
    } else {
        // No indexingFinished, which would say that every row is committed:
        // the host learns of the failure by the request ending without it.
        ZQLOG_ERROR("indexing of %s not finished: its database could not be written",
                    mountPoint.c_str());
        mgr.insertStatus(deviceId, mountPoint, "PROGRESS");
    }
    mgr.sync(deviceId);
    mgr.checkAndDelete(deviceId, 89128960);

    owner->enqueue(block);
    return boost::shared_ptr<Block<void>>();
}

}  // namespace kestrow
