#include "msd/MSDCrawler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QSignalSpy>
#include <algorithm>

#include "facade/KestrowQTProxy.h"
#include "platform/log/LogCapture.h"
#include "tests/msd/MsdTestSupport.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using namespace olvane::test;
using Paths = std::set<std::string>;

TEST(MSDCrawlerTest, ExtensionsHiddenNamesAndSkippedDirectories) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
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

    CrawlResult r = crawl(usb);
    EXPECT_EQ(songs, relativePaths(r.songs->items, usb));
    EXPECT_EQ(lists, relativePaths(r.playlists->items, usb));
    EXPECT_EQ(Paths({usb, ".hidden", ".trash", "folder.mp3", "sub"}),
              relativePaths(r.directories->items, usb));
}

TEST(MSDCrawlerTest, BreadthFirstWithParentIndexes) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    t.write("usb/A/a.mp3", "");
    t.write("usb/A/B/C/deep.mp3", "");
    t.mkdir("usb/A/B2");
    t.write("usb/D/only.m3u", "");
    setMtime(t.file("usb/A/a.mp3"), 1234567);

    CrawlResult r = crawl(rootBlock(usb, false));
    const std::vector<kestrow::Directory*>& dirs = r.directories->items;
    EXPECT_EQ(Paths({usb, "A", "A/B", "A/B/C", "A/B2", "D"}), relativePaths(dirs, usb));
    EXPECT_EQ(usb, dirs[0]->path);
    for (size_t i = 1, depth = 0; i < dirs.size(); ++i) {
        ASSERT_LT(size_t(dirs[i]->parentIndex), i);
        EXPECT_EQ(dirs[size_t(dirs[i]->parentIndex)]->path + "/" + dirs[i]->name, dirs[i]->path);
        size_t d = size_t(std::count(dirs[i]->path.begin(), dirs[i]->path.end(), '/'));
        EXPECT_GE(d, depth) << "not breadth-first at " << dirs[i]->path;
        depth = d;
        // A song directly inside sets the flag; playlists do not.
        EXPECT_EQ(dirs[i]->name == "A" || dirs[i]->name == "C", dirs[i]->hasMusic);
    }
    const kestrow::FileInfo* a = r.songs->items[0]->path->find("a.mp3") != std::string::npos
                                     ? r.songs->items[0]
                                     : r.songs->items[1];
    EXPECT_EQ(1234567, a->lastModified);
    // The flags travel with the operation; only the playlists block is made last.
    EXPECT_FALSE(r.songs->operation.lastBlock);
    EXPECT_TRUE(r.playlists->operation.lastBlock);
}

TEST(MSDCrawlerTest, StopsAtSixteenThousandSongs) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    for (int i = 0; i <= 16000; ++i)  // the crawler never opens the files
        ::close(::open((usb + "/t" + std::to_string(i) + ".mp3").c_str(), O_CREAT, 0644));
    olvane::LogCapture cap;
    EXPECT_EQ(16000u, crawl(usb).songs->items.size());
    EXPECT_EQ(1, cap.count("16000 track reached"));

    ::unlink((usb + "/t0.mp3").c_str());
    ::unlink((usb + "/t1.mp3").c_str());
    cap.clear();
    EXPECT_EQ(15999u, crawl(usb).songs->items.size());
    EXPECT_EQ(0, cap.countContaining("track reached"));
}

TEST(MSDCrawlerTest, VanishedMountPointMarksAllThreeBlocks) {
    TempDir t;
    t.write("found/s.mp3", "");
    // The first directory is read; then the mount point is found gone.
    const std::string gone = t.file("gone");
    DirectoryBlock root = rootBlock(gone);
    root->items.insert(root->items.begin(), new kestrow::Directory(t.file("found"), gone, -1));
    olvane::LogCapture cap;
    CrawlResult r = crawl(root);
    EXPECT_EQ(1, cap.count("Error opening dir: " + gone));
    EXPECT_EQ(1, cap.count("MOUNT POINT IS NOT PRESENT ANYMORE " + gone + ": 2"));
    EXPECT_EQ(1u, r.songs->items.size());
    EXPECT_TRUE(r.songs->operation.deviceGone);
    EXPECT_TRUE(r.playlists->operation.deviceGone);
    EXPECT_TRUE(r.directories->operation.deviceGone);
}

TEST(MSDCrawlerTest, LinksNeitherLoopNorLeaveTheMountPoint) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    t.write("usb/music/a.mp3", "");
    t.write("usb/music/deep/b.mp3", "");
    t.write("outside/x.mp3", "");
    const char* links[][2] = {{"..", "music/up1"},
                              {"..", "music/up2"},
                              {"../../music", "music/deep/back"},
                              {"..", "up"},
                              {"/", "root"},
                              {"music", "alias"},
                              {"../outside/x.mp3", "out.mp3"},
                              {"music/a.mp3", "in.mp3"}};
    for (const auto& l : links)
        ASSERT_EQ(0, ::symlink(l[0], (usb + "/" + l[1]).c_str())) << l[1];

    olvane::LogCapture cap;
    CrawlResult r = crawl(usb);
    // music and alias are one directory, walked under the name met first.
    Paths songs = relativePaths(r.songs->items, usb);
    const std::string via = songs.count("music/a.mp3") ? "music" : "alias";
    EXPECT_EQ(Paths({via + "/a.mp3", via + "/deep/b.mp3", "in.mp3"}), songs);
    EXPECT_EQ(Paths({usb, via, via + "/deep"}), relativePaths(r.directories->items, usb));
    for (const char* out : {"/up", "/root", "/out.mp3"})
        EXPECT_EQ(1, cap.count("link leads out of the mount point, skipped: " + usb + out));
    EXPECT_EQ(4, cap.countContaining("directory already walked, skipped: " + usb));
}

TEST(MSDCrawlerTest, CompletionEmitsCrawlingFinishedOnlyWhileRunning) {
    TempDir t;
    kestrow::MSDCrawler crawler("MSDCrawler");
    StageCollector<kestrow::Block<kestrow::FileInfo*>> songs;
    crawler.next = &songs;
    QSignalSpy spy(&KestrowQTProxy::instance(), &KestrowQTProxy::crawlingFinished);
    olvane::LogCapture cap;
    crawler.signalCompletion(kestrow::Operation(1, 0, "dev1", t.path(), true));  // paused
    EXPECT_EQ(1, cap.count("Skip signalCrawlingFinished"));

    crawler.launch();
    crawler.start();
    crawler.enqueue(rootBlock(t.path()));
    ASSERT_TRUE(waitFor([&] { return songs.blocks().size() == 1; }));
    crawler.stop();
    crawler.join();
    ASSERT_EQ(1, spy.count());
    EXPECT_EQ(QString::fromLatin1(t.path().c_str()), spy.at(0).at(0).toString());
}
