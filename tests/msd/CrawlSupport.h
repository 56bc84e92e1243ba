#pragma once
// Runs the crawler once, on the test's thread, and hands back its three blocks.

#include <gtest/gtest.h>

#include <boost/shared_ptr.hpp>
#include <set>
#include <string>

#include "msd/MSDCrawler.h"
#include "tests/msd/StageCollector.h"

namespace olvane {
namespace test {

struct CrawlResult {
    boost::shared_ptr<kestrow::Block<kestrow::FileInfo*>> songs;
    boost::shared_ptr<kestrow::Block<kestrow::FileInfo*>> playlists;
    boost::shared_ptr<kestrow::Block<kestrow::Directory*>> directories;
};

// The block the pipeline seeds the crawler with: the mount point alone.
inline boost::shared_ptr<kestrow::Block<kestrow::Directory*>> rootBlock(
    const std::string& mountPoint, const std::string& deviceId = "dev1", bool lastBlock = true) {
    boost::shared_ptr<kestrow::Block<kestrow::Directory*>> block(
        new kestrow::Block<kestrow::Directory*>());
    block->operation = kestrow::Operation(7, 0, deviceId, mountPoint, lastBlock);
    block->items.push_back(new kestrow::Directory(mountPoint, mountPoint, -1));
    return block;
}

inline CrawlResult crawlBlock(boost::shared_ptr<kestrow::Block<kestrow::Directory*>> root) {
    kestrow::MSDCrawler crawler("MSDCrawler");
    StageCollector<kestrow::Block<kestrow::FileInfo*>> playlists;
    StageCollector<kestrow::Block<kestrow::Directory*>> directories;
    crawler.setPlaylistSink(&playlists);
    crawler.setDirectorySink(&directories);
    crawler.start();
    CrawlResult result;
    result.songs = crawler.doOperation(root);
    EXPECT_EQ(1u, playlists.size());
    EXPECT_EQ(1u, directories.size());
    if (playlists.size() == 1 && directories.size() == 1) {
        result.playlists = playlists.blocks()[0];
        result.directories = directories.blocks()[0];
    }
    return result;
}

inline CrawlResult crawl(const std::string& mountPoint, const std::string& deviceId = "dev1") {
    return crawlBlock(rootBlock(mountPoint, deviceId));
}

inline const std::string& pathOf(const kestrow::FileInfo* file) {
    return *file->path;
}
inline const std::string& pathOf(const kestrow::Directory* directory) {
    return directory->path;
}

// Paths of the records, relative to `base`.
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

}  // namespace test
}  // namespace olvane
