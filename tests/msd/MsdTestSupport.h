#pragma once
// Helpers of the mass-storage stage tests: a thread-less downstream stage,
// one crawl on the test's thread, and direct access to the device database.

#include <gtest/gtest.h>
#include <unistd.h>

#include <QSignalSpy>

#include <functional>
#include <set>

#include "facade/KestrowQTProxy.h"
#include "msd/MSDCrawler.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"

namespace olvane::test {

using kestrow::FileInfo;
using Strings = std::vector<std::string>;
using Paths = std::set<std::string>;
typedef boost::shared_ptr<kestrow::Block<kestrow::FileInfo*>> FileBlock;
typedef boost::shared_ptr<kestrow::Block<kestrow::Directory*>> DirectoryBlock;

// Keeps every block enqueued into it, in order; the test's thread only.
template <class T>
struct StageCollector : kestrow::BaseServer<T> {
    StageCollector() : kestrow::BaseServer<T>("StageCollector") {}
    void enqueue(boost::shared_ptr<T> block) override { blocks.push_back(block); }
    void runLoop() override {}
    std::vector<boost::shared_ptr<T>> blocks;
};

// Every test gets a database directory of its own.
struct DbTest : ::testing::Test {
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dbDir.path()); }
    TempDir dbDir;
};

// The block the pipeline seeds the crawler with: the mount point alone.
inline DirectoryBlock rootBlock(const std::string& mountPoint) {
    DirectoryBlock block(new kestrow::Block<kestrow::Directory*>());
    block->operation = kestrow::Operation(7, 0, "dev1", mountPoint, true);
    block->items.push_back(new kestrow::Directory(mountPoint, mountPoint, -1));
    return block;
}

struct CrawlResult {
    FileBlock songs, playlists;
    DirectoryBlock directories;
};

// `hook` runs before each directory is read.
inline CrawlResult crawl(DirectoryBlock root,
                         std::function<void(const std::string&)> hook = nullptr) {
    kestrow::MSDCrawler crawler("MSDCrawler");
    crawler.setDirectoryHook(hook);
    StageCollector<kestrow::Block<kestrow::FileInfo*>> playlists;
    StageCollector<kestrow::Block<kestrow::Directory*>> directories;
    crawler.setPlaylistSink(&playlists);
    crawler.setDirectorySink(&directories);
    crawler.start();
    // A braced list runs left to right: the crawl first, then the sinks are read.
    return CrawlResult{crawler.doOperation(root), playlists.blocks.at(0), directories.blocks.at(0)};
}

// Paths of the records, relative to `base` when below it.
template <class Items>
Paths relativePaths(const Items& items, const std::string& base) {
    Paths paths;
    for (const auto* item : items) {
        std::string path;
        if constexpr (std::is_pointer<decltype(item->path)>::value)
            path = *item->path;
        else
            path = item->path;
        paths.insert(path.rfind(base + "/", 0) == 0 ? path.substr(base.size() + 1) : path);
    }
    return paths;
}

// First column of every row of `sql` on dev1's database.
inline const auto column = [](const std::string& sql) { return dbColumn("dev1", sql); };

}  // namespace olvane::test
