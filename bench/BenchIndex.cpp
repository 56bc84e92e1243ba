// bench-index: one indexing of a mount point through the scheduler, measured
// from inside the process.
//
//   bench-index DB_DIR DEVICE_ID MOUNT_POINT
//
// Prints one JSON object: the time from the request until the scheduler
// retired it, the database flushed ("ms"); the times until the first song and
// the first 500 songs could be browsed with their artists ("first_song_ms",
// "first_songs_ms", -1 when that never happened), watched every 10 ms from a
// connection of its own as the head unit's screen would; the songs stored; and
// the process's peak resident size.
#include <sqlite3.h>
#include <sys/resource.h>

#include <QObject>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "facade/KestrowQTProxy.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

long long count(sqlite3* db, const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    long long n = -1;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        n = sqlite3_column_int64(stmt, 0);
    sqlite3_finalize(stmt);
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench-index DB_DIR DEVICE_ID MOUNT_POINT\n");
        return 2;
    }
    const std::string deviceId = argv[2], mountPoint = argv[3];
    DatabaseMgr::instance().setDatabaseDirectory(argv[1]);
    const std::string dbName = DatabaseMgr::instance().getDbNameFromDevId(deviceId);

    kestrow::Kestrow scheduler;
    scheduler.launch();
    scheduler.start();
    std::mutex mutex;
    std::condition_variable cond;
    bool finished = false;  // guarded by mutex
    QObject::connect(
        &KestrowQTProxy::instance(), &KestrowQTProxy::indexingFinished, &KestrowQTProxy::instance(),
        [&](QString) {
            std::lock_guard<std::mutex> lock(mutex);
            finished = true;
            cond.notify_all();
        },
        Qt::DirectConnection);

    const Clock::time_point start = Clock::now();
    std::atomic<bool> done{false};
    std::atomic<double> firstSongMs{-1}, firstSongsMs{-1};
    // Asks for the songs with their artists every 10 ms through a connection
    // of its own, as the head unit's song list would, and once more after the
    // request retired, so that songs saved in its last 10 ms are seen then.
    std::thread watcher([&] {
        sqlite3* db = nullptr;
        for (;;) {
            const bool last = done;
            if (!db &&
                sqlite3_open_v2(dbName.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
                sqlite3_close(db);
                db = nullptr;
            }
            const long long n =
                db ? count(db, "SELECT COUNT(*) FROM SONGS JOIN ARTISTS USING (ARTISTID);") : -1;
            if (n >= 1 && firstSongMs < 0)
                firstSongMs = msSince(start);
            if (n >= 500)
                firstSongsMs = msSince(start);
            if (last || firstSongsMs >= 0)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        sqlite3_close(db);
    });

    scheduler.enqueueNewOperation(kestrow::MSD_OPERATION, deviceId, 0, mountPoint, true);
    {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait(lock, [&] { return finished; });
    }
    // The request ends when the scheduler has retired it: after the flush.
    while (scheduler.registeredCount() != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double ms = msSince(start);
    done = true;
    watcher.join();
    scheduler.stop();
    scheduler.join();

    long long songs = -1;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(dbName.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK)
        songs = count(db, "SELECT COUNT(*) FROM SONGS;");
    sqlite3_close(db);
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf(
        "{\"ms\":%.1f,\"first_song_ms\":%.1f,\"first_songs_ms\":%.1f,\"songs\":%lld,"
        "\"max_rss_kb\":%ld}\n",
        ms, firstSongMs.load(), firstSongsMs.load(), songs, usage.ru_maxrss);
    return songs >= 0 ? 0 : 1;
}
