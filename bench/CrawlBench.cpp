// Second indexing of an unchanged device: crawl plus change finder, which
// must pass nothing on and touch no row.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "msd/ChangeFinder.h"
#include "msd/Directory.h"
#include "msd/MSDCrawler.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/common/MountPointScope.h"

using namespace kestrow;

namespace {

const std::string kSelect =
    "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE " + MountPointScope::sqlCondition("PATH") + ";";
const char* const kDelete = "DELETE FROM SONGS WHERE ID = ?;";

// A device of `files` songs in folders of 100, indexed once.
class Device {
public:
    explicit Device(int files) {
        char tmpl[] = "/tmp/olvane-bench-XXXXXX";
        base = mkdtemp(tmpl);
        mountPoint = base + "/usb";
        DatabaseMgr::instance().setDatabaseDirectory(base + "/db");
        for (int i = 0; i < files; ++i) {
            std::string dir = mountPoint + "/artist" + std::to_string(i / 100);
            std::filesystem::create_directories(dir);
            int fd = ::open((dir + "/track" + std::to_string(i) + ".mp3").c_str(),
                            O_CREAT | O_WRONLY, 0644);
            ::close(fd);
        }
        DatabaseMgr::instance().createDb("bench", mountPoint, true);
        crawler.start();
        finder.start();
        boost::shared_ptr<Block<FileInfo*>> first = changes();
        sqlite3* db = nullptr;
        sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId("bench").c_str(), &db);
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, "INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES (?, ?)", -1, &stmt,
                           nullptr);
        for (const FileInfo* f : first->items) {
            sqlite3_bind_text(stmt, 1, f->path->c_str(), -1, SQLITE_STATIC);
            sqlite3_bind_int(stmt, 2, f->lastModified);
            sqlite3_step(stmt);
            sqlite3_reset(stmt);
        }
        sqlite3_finalize(stmt);
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }
    ~Device() {
        std::error_code ec;
        std::filesystem::remove_all(base, ec);
    }

    boost::shared_ptr<Block<FileInfo*>> crawl() {
        boost::shared_ptr<Block<Directory*>> root(new Block<Directory*>());
        root->operation = Operation(1, 0, "bench", mountPoint, true);
        root->items.push_back(new Directory(mountPoint, mountPoint, -1));
        return crawler.doOperation(root);
    }
    boost::shared_ptr<Block<FileInfo*>> changes() { return finder.doOperation(crawl()); }

    std::string base;
    std::string mountPoint;
    MSDCrawler crawler{"MSDCrawler"};
    ChangeFinder finder{"ChangeFinder-MSDSongs", kSelect, kDelete, false};
};

void BM_Crawl(benchmark::State& state) {
    Device device(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(device.crawl()->items.size());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_CrawlAndFindChangesUnchanged(benchmark::State& state) {
    Device device(int(state.range(0)));
    for (auto _ : state) {
        size_t passed = device.changes()->items.size();
        if (passed != 0)
            state.SkipWithError("an unchanged device passed records on");
        benchmark::DoNotOptimize(passed);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_Crawl)->Arg(1000)->Arg(4000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CrawlAndFindChangesUnchanged)->Arg(1000)->Arg(4000)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
