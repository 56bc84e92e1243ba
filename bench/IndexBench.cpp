// Whole mass-storage indexing through the scheduler: a first indexing of a
// tree of tagged songs, and the second indexing of the unchanged tree, which
// must be near-instant (no tag is read, no row written).

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <QObject>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "facade/KestrowQTProxy.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"

namespace fs = std::filesystem;

namespace {

// One scheduler for the process; index() blocks until the request is retired.
class Indexer {
public:
    Indexer() {
        scheduler.launch();
        scheduler.start();
        QObject::connect(
            &KestrowQTProxy::instance(), &KestrowQTProxy::indexingFinished,
            &KestrowQTProxy::instance(),
            [this](QString) {
                std::lock_guard<std::mutex> lock(mutex);
                finished = true;
                cond.notify_all();
            },
            Qt::DirectConnection);
    }
    ~Indexer() {
        scheduler.stop();
        scheduler.join();
    }

    void index(const std::string& deviceId, const std::string& mountPoint) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            finished = false;
        }
        scheduler.enqueueNewOperation(kestrow::MSD_OPERATION, deviceId, 0, mountPoint, true);
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait(lock, [this] { return finished; });
        lock.unlock();
        while (scheduler.registeredCount() != 0)
            std::this_thread::yield();
    }

    kestrow::Kestrow scheduler;
    std::mutex mutex;
    std::condition_variable cond;
    bool finished = false;  // guarded by mutex
};

Indexer& indexer() {
    static Indexer instance;
    return instance;
}

// `songs` copies of a tagged sample in folders of 50, under a fresh directory.
std::string makeTree(int songs) {
    char tmpl[] = "/tmp/olvane-indexbench-XXXXXX";
    std::string base = mkdtemp(tmpl);
    const std::string sample = std::string(OLVANE_TEST_DATA_DIR) + "/gears-copper-sky.mp3";
    for (int i = 0; i < songs; ++i) {
        std::string dir = base + "/usb/album" + std::to_string(i / 50);
        fs::create_directories(dir);
        fs::copy_file(sample, dir + "/" + std::to_string(i) + ".mp3");
    }
    DatabaseMgr::instance().setDatabaseDirectory(base + "/db");
    return base;
}

void BM_FirstIndexing(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        std::string base = makeTree(int(state.range(0)));
        state.ResumeTiming();
        indexer().index("bench", base + "/usb");
        state.PauseTiming();
        fs::remove_all(base);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FirstIndexing)->Arg(1000)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_UnchangedReindexing(benchmark::State& state) {
    std::string base = makeTree(int(state.range(0)));
    indexer().index("bench", base + "/usb");
    for (auto _ : state)
        indexer().index("bench", base + "/usb");
    state.SetItemsProcessed(state.iterations() * state.range(0));
    fs::remove_all(base);
}
BENCHMARK(BM_UnchangedReindexing)->Arg(1000)->Arg(5000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
