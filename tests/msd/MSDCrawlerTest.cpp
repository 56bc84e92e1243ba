#include "msd/MSDCrawler.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/msd/MsdTestSupport.h"
#include "tests/support/Wait.h"

using namespace olvane::test;

class MSDCrawlerTest : public ::testing::Test {
protected:
    TempDir t;
    const std::string usb = t.mkdir("usb");
    olvane::LogCapture cap;
};

TEST_F(MSDCrawlerTest, ExtensionsHiddenNamesAndSkippedDirectories) {
    const Paths songs = {"Song.MP3",       "song.Mp3",    "a.m3u.mp3", "b.m4b", "c.M4A",
                         "d.wma",          "e.aac",       "f.wav",     "g.mpg", "h.MPEG",
                         "i.asf",          "j.m4p",       "k.flac",    "l.m4r", "m.mp4",
                         ".hidden/in.mp3", ".trash/k.mp3"};
    const Paths lists = {"list.M3U8", "x.m3u8", "y.m3u", "z.pls", "w.asx", "v.WPL"};
    const Paths neither = {".song.mp3",          "a.mp3.mp3",          "a.mp3x",
                           "a.m3u8.m3u",         "notes.txt",          ".TRASH/t.mp3",
                           "$RECYCLE.BIN/r.mp3", "sub/.TRASH/deep.mp3"};
    for (const Paths& names : {songs, lists, neither})
        for (const std::string& name : names)
            t.write("usb/" + name, "");
    t.mkdir("usb/folder.mp3");
    ASSERT_EQ(0, mkfifo(t.file("usb/pipe.mp3").c_str(), 0644));

    CrawlResult r = crawl(rootBlock(usb));
    EXPECT_EQ(songs, relativePaths(r.songs->items, usb));
    EXPECT_EQ(lists, relativePaths(r.playlists->items, usb));
    EXPECT_EQ(Paths({usb, ".hidden", ".trash", "folder.mp3", "sub"}),
              relativePaths(r.directories->items, usb));
}

TEST_F(MSDCrawlerTest, BreadthFirstWithParentIndexes) {
    t.write("usb/A/a.mp3", "");
    t.write("usb/A/B/C/deep.mp3", "");
    t.mkdir("usb/A/B2");
    t.write("usb/D/only.m3u", "");
    setMtime(t.file("usb/A/a.mp3"), 1234567);

    CrawlResult r = crawl(rootBlock(usb));
    const std::vector<kestrow::Directory*>& dirs = r.directories->items;
    EXPECT_EQ(Paths({usb, "A", "A/B", "A/B/C", "A/B2", "D"}), relativePaths(dirs, usb));
    for (size_t i = 1, depth = 0; i < dirs.size(); ++i) {
        ASSERT_LT(size_t(dirs[i]->parentIndex), i);
        EXPECT_EQ(dirs[size_t(dirs[i]->parentIndex)]->path + "/" + dirs[i]->name, dirs[i]->path);
        size_t d = size_t(std::count(dirs[i]->path.begin(), dirs[i]->path.end(), '/'));
        EXPECT_GE(d, depth) << "not breadth-first at " << dirs[i]->path;
        depth = d;
    }
    EXPECT_EQ(1234567, r.songs->items.at(0)->lastModified);  // A's song is met first
}

// On 32-bit targets too: stat must not fail on sizes or times past 32 bits.
TEST_F(MSDCrawlerTest, FindsFilesOverTwoGiBAndPast2038) {
    t.write("usb/big.mp4", "");
    ASSERT_EQ(0, truncate(t.file("usb/big.mp4").c_str(), off_t(3LL << 30)));
    t.write("usb/later.mp3", "");
    setMtime(t.file("usb/later.mp3"), 2208988800LL);  // 2040-01-01
    EXPECT_EQ(Paths({"big.mp4", "later.mp3"}),
              relativePaths(crawl(rootBlock(usb)).songs->items, usb));
}

TEST_F(MSDCrawlerTest, StopsAtSixteenThousandSongs) {
    for (int i = 0; i <= 16000; ++i)
        t.write("usb/t" + std::to_string(i) + ".mp3", "");
    EXPECT_EQ(16000u, crawl(rootBlock(usb)).songs->items.size());
    EXPECT_EQ(1, cap.count("16000 track reached"));
    EXPECT_EQ(1, cap.countContaining("track reached"));
}

TEST_F(MSDCrawlerTest, VanishedMountPointMarksAllThreeBlocks) {
    t.write("usb/s.mp3", "");
    t.write("usb/sub/t.mp3", "");
    // The mount point's folder is read; then the device goes.
    CrawlResult r = crawl(rootBlock(usb), [&](const std::string& dir) {
        if (dir != usb)
            std::filesystem::rename(usb, t.file("away"));
    });
    EXPECT_EQ(1, cap.count("MOUNT POINT IS NOT PRESENT ANYMORE " + usb + ": 2"));
    EXPECT_EQ(1u, r.songs->items.size());
    EXPECT_TRUE(r.songs->operation.deviceGone && r.playlists->operation.deviceGone &&
                r.directories->operation.deviceGone);
}

TEST_F(MSDCrawlerTest, LinksNeitherLoopNorLeaveTheMountPoint) {
    t.write("usb/music/a.mp3", "");
    t.write("outside/x.mp3", "");
    const char* links[][2] = {{"..", "music/up"},
                              {"/", "root"},
                              {"../outside/x.mp3", "out.mp3"},
                              {"music/a.mp3", "in.mp3"}};
    for (const auto& l : links)
        ASSERT_EQ(0, ::symlink(l[0], (usb + "/" + l[1]).c_str())) << l[1];

    CrawlResult r = crawl(rootBlock(usb));
    EXPECT_EQ(Paths({"music/a.mp3", "in.mp3"}), relativePaths(r.songs->items, usb));
    EXPECT_EQ(Paths({usb, "music"}), relativePaths(r.directories->items, usb));
    for (const char* out : {"/root", "/out.mp3"})
        EXPECT_EQ(1, cap.count("link leads out of the mount point, skipped: " + usb + out));
    EXPECT_EQ(1, cap.count("directory already walked, skipped: " + usb + "/music/up"));
}

// Paused, the walk waits between two entries, and a stop ends it there. Only
// a stopping crawler keeps crawlingFinished back.
TEST_F(MSDCrawlerTest, APausedWalkWaitsAndAStopEndsIt) {
    for (const char* dir : {"a", "b", "c"})
        t.write("usb/" + std::string(dir) + "/s.mp3", "");
    kestrow::MSDCrawler crawler("MSDCrawler");
    StageCollector<kestrow::Block<kestrow::FileInfo*>> playlists;
    StageCollector<kestrow::Block<kestrow::Directory*>> directories;
    crawler.setPlaylistSink(&playlists);
    crawler.setDirectorySink(&directories);
    std::atomic<int> opened{0};
    crawler.setDirectoryHook([&](const std::string&) {
        if (++opened == 3)
            crawler.pause();
    });
    crawler.start();
    std::atomic<int> found{-1};
    std::thread walk([&] { found = int(crawler.doOperation(rootBlock(usb))->items.size()); });
    ASSERT_TRUE(waitFor([&] { return cap.contains("MSDCrawler held while paused"); }));
    QSignalSpy finished(&KestrowQTProxy::instance(), &KestrowQTProxy::crawlingFinished);
    const kestrow::Operation op = rootBlock(usb)->operation;
    crawler.signalCompletion(op);
    crawler.stop();
    ASSERT_TRUE(waitFor([&] { return found >= 0; }));
    walk.join();
    crawler.signalCompletion(op);
    EXPECT_EQ(1, found);
    EXPECT_EQ(3, opened);
    EXPECT_EQ(1, finished.count());
    EXPECT_EQ(1, cap.count("Skip signalCrawlingFinished"));
}
