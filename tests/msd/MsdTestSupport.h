#pragma once
// Helpers of the mass-storage stage tests: a thread-less downstream stage,
// one crawl on the test's thread, and direct access to the device database.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "msd/MSDCrawler.h"
#include "platform/common/DatabaseMgr.h"

namespace olvane {
namespace test {

// Keeps every block enqueued into it, in order; any thread may fill it.
template <class T>
class StageCollector : public kestrow::BaseServer<T> {
public:
    StageCollector() : kestrow::BaseServer<T>("StageCollector") {}
    void enqueue(boost::shared_ptr<T> block) override {
        std::lock_guard<std::mutex> lock(mutex_);
        blocks_.push_back(block);
    }
    void runLoop() override {}
    std::vector<boost::shared_ptr<T>> blocks() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<boost::shared_ptr<T>> blocks_;
};

typedef boost::shared_ptr<kestrow::Block<kestrow::FileInfo*>> FileBlock;
typedef boost::shared_ptr<kestrow::Block<kestrow::Directory*>> DirectoryBlock;

// The block the pipeline seeds the crawler with: the mount point alone.
inline DirectoryBlock rootBlock(const std::string& mountPoint, bool lastBlock = true) {
    DirectoryBlock block(new kestrow::Block<kestrow::Directory*>());
    block->operation = kestrow::Operation(7, 0, "dev1", mountPoint, lastBlock);
    block->items.push_back(new kestrow::Directory(mountPoint, mountPoint, -1));
    return block;
}

struct CrawlResult {
    FileBlock songs, playlists;
    DirectoryBlock directories;
};

inline CrawlResult crawl(DirectoryBlock root) {
    kestrow::MSDCrawler crawler("MSDCrawler");
    StageCollector<kestrow::Block<kestrow::FileInfo*>> playlists;
    StageCollector<kestrow::Block<kestrow::Directory*>> directories;
    crawler.setPlaylistSink(&playlists);
    crawler.setDirectorySink(&directories);
    crawler.start();
    CrawlResult result{crawler.doOperation(root), nullptr, nullptr};
    EXPECT_EQ(1u, playlists.blocks().size());
    EXPECT_EQ(1u, directories.blocks().size());
    result.playlists = playlists.blocks().at(0);
    result.directories = directories.blocks().at(0);
    return result;
}
inline CrawlResult crawl(const std::string& mountPoint) {
    return crawl(rootBlock(mountPoint));
}

inline const std::string& pathOf(const kestrow::FileInfo* f) {
    return *f->path;
}
inline const std::string& pathOf(const kestrow::Directory* d) {
    return d->path;
}

// Paths of the records, relative to `base` when below it.
template <class Items>
std::set<std::string> relativePaths(const Items& items, const std::string& base) {
    std::set<std::string> paths;
    for (const auto* item : items) {
        const std::string& path = pathOf(item);
        paths.insert(path.compare(0, base.size() + 1, base + "/") == 0
                         ? path.substr(base.size() + 1)
                         : path);
    }
    return paths;
}

// First column of every row of `sql` on dev1's database.
inline std::vector<std::string> column(const std::string& sql) {
    std::vector<std::string> values;
    sqlite3* db = nullptr;
    sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId("dev1").c_str(), &db);
    auto collect = [](void* out, int, char** v, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(v[0] ? v[0] : "<null>");
        return 0;
    };
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), collect, &values, nullptr)) << sql;
    sqlite3_close(db);
    return values;
}

}  // namespace test
}  // namespace olvane
