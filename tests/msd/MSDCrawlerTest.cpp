#include "msd/MSDCrawler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QSignalSpy>
#include <algorithm>
#include <cstdio>

#include "facade/KestrowQTProxy.h"
#include "platform/log/LogCapture.h"
#include "tests/msd/CrawlSupport.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using kestrow::Block;
using kestrow::Directory;
using kestrow::FileInfo;
using kestrow::MSDCrawler;
using olvane::test::crawl;
using olvane::test::relativePaths;
using olvane::test::TempDir;
using Paths = std::set<std::string>;

namespace {

void touch(const std::string& path) {
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0) << path;
    ::close(fd);
}

void link(const std::string& target, const std::string& path) {
    ASSERT_EQ(0, ::symlink(target.c_str(), path.c_str())) << path;
}

}  // namespace

TEST(MSDCrawlerTest, ExtensionsHiddenNamesAndSkippedDirectories) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    const char* songs[] = {"Song.MP3",       "song.Mp3",    "a.m3u.mp3", "b.m4b", "c.M4A",
                           "d.wma",          "e.aac",       "f.wav",     "g.mpg", "h.MPEG",
                           "i.asf",          "j.m4p",       "k.flac",    "l.m4r", "m.mp4",
                           ".hidden/in.mp3", ".trash/k.mp3"};
    const char* lists[] = {"list.M3U8", "x.m3u8", "y.m3u", "z.pls", "w.asx", "v.WPL"};
    const char* neither[] = {".song.mp3",          "a.mp3.mp3",          "a.mp3x",
                             "a.m3u8.m3u",         "notes.txt",          "mp3",
                             ".TRASH/t.mp3",       "$RECYCLE.BIN/r.mp3", ".hidden/.x.m3u",
                             "sub/.TRASH/deep.mp3"};
    for (const char* name : songs)
        t.write(std::string("usb/") + name, "");
    for (const char* name : lists)
        t.write(std::string("usb/") + name, "");
    for (const char* name : neither)
        t.write(std::string("usb/") + name, "");
    t.mkdir("usb/folder.mp3");
    ASSERT_EQ(0, mkfifo(t.file("usb/pipe.mp3").c_str(), 0644));

    olvane::test::CrawlResult r = crawl(usb);
    EXPECT_EQ(Paths(std::begin(songs), std::end(songs)), relativePaths(r.songs->items, usb));
    EXPECT_EQ(Paths(std::begin(lists), std::end(lists)), relativePaths(r.playlists->items, usb));
    EXPECT_EQ(Paths({usb, ".hidden", ".trash", "folder.mp3", "sub"}),
              relativePaths(r.directories->items, usb));
    for (const FileInfo* f : r.songs->items)
        EXPECT_EQ(0u, f->reserved);

    // The name alone decides, in table order, with the first occurrence rule.
    EXPECT_EQ(MSDCrawler::SONG, MSDCrawler::kindOf("a.mpeg"));
    EXPECT_EQ(MSDCrawler::PLAYLIST, MSDCrawler::kindOf("x.m3u8"));
    EXPECT_EQ(MSDCrawler::OTHER, MSDCrawler::kindOf("a.flac.flac"));
    EXPECT_EQ(MSDCrawler::OTHER, MSDCrawler::kindOf(".mp3x.mp3"));
}

TEST(MSDCrawlerTest, BreadthFirstWithParentIndexesAndMusicFlags) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    t.write("usb/A/a.mp3", "");
    t.write("usb/A/B/C/deep.mp3", "");
    t.mkdir("usb/A/B2");
    t.write("usb/D/only.m3u", "");
    t.mkdir("usb/E");
    olvane::test::setMtime(t.file("usb/A/a.mp3"), 1234567);

    olvane::test::CrawlResult r = crawl(usb);
    const std::vector<Directory*>& dirs = r.directories->items;
    EXPECT_EQ(Paths({usb, "A", "A/B", "A/B/C", "A/B2", "D", "E"}), relativePaths(dirs, usb));
    ASSERT_EQ(usb, dirs[0]->path);
    EXPECT_EQ(-1, dirs[0]->parentIndex);
    size_t depth = 0;
    for (size_t i = 1; i < dirs.size(); ++i) {
        ASSERT_GE(dirs[i]->parentIndex, 0);
        ASSERT_LT(size_t(dirs[i]->parentIndex), i);
        EXPECT_EQ(dirs[size_t(dirs[i]->parentIndex)]->path + "/" + dirs[i]->name, dirs[i]->path);
        size_t d = size_t(std::count(dirs[i]->path.begin(), dirs[i]->path.end(), '/'));
        EXPECT_GE(d, depth) << "not breadth-first at " << dirs[i]->path;
        depth = d;
        EXPECT_EQ(Md5(Md5::DIRECTORY, dirs[i]->path), dirs[i]->objectId);
        EXPECT_EQ(Md5(Md5::DIRECTORY, usb), dirs[i]->partitionId);
        // Only a song directly inside sets the flag; propagation is the saver's.
        const std::string rel = dirs[i]->path.substr(usb.size() + 1);
        EXPECT_EQ(rel == "A" || rel == "A/B/C", dirs[i]->hasMusic) << rel;
    }
    EXPECT_FALSE(dirs[0]->hasMusic);
    for (const FileInfo* f : r.songs->items) {
        if (*f->path == t.file("usb/A/a.mp3")) {
            EXPECT_EQ(1234567, f->lastModified);
        }
    }

    // Flags travel with the operation; the playlists block alone is made last.
    TempDir empty;
    olvane::test::CrawlResult e =
        olvane::test::crawlBlock(olvane::test::rootBlock(empty.path(), "dev1", false));
    EXPECT_TRUE(e.songs->items.empty());
    EXPECT_FALSE(e.songs->operation.lastBlock);
    EXPECT_TRUE(e.playlists->items.empty());
    EXPECT_TRUE(e.playlists->operation.lastBlock);
    ASSERT_EQ(1u, e.directories->items.size());
    EXPECT_FALSE(e.songs->operation.deviceGone);
}

TEST(MSDCrawlerTest, StopsAtSixteenThousandSongs) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    char name[64];
    for (int i = 0; i <= 16000; ++i) {
        std::snprintf(name, sizeof name, "/t%05d.mp3", i);
        touch(usb + name);
    }
    t.write("usb/list.m3u", "");

    olvane::LogCapture cap;
    olvane::test::CrawlResult r = crawl(usb);
    EXPECT_EQ(16000u, r.songs->items.size());
    EXPECT_EQ(1, cap.count("16000 track reached"));
    EXPECT_EQ(1, cap.countContaining("found 16000"));

    // Below the limit: every song, no limit message.
    ::unlink((usb + "/t00000.mp3").c_str());
    ::unlink((usb + "/t00001.mp3").c_str());
    cap.clear();
    r = crawl(usb);
    EXPECT_EQ(15999u, r.songs->items.size());
    EXPECT_EQ(0, cap.countContaining("track reached"));
    EXPECT_EQ(1u, r.playlists->items.size());
}

TEST(MSDCrawlerTest, VanishedMountPointMarksAllBlocks) {
    TempDir t;
    const std::string gone = t.file("gone");
    olvane::LogCapture cap;
    olvane::test::CrawlResult r = crawl(gone);
    EXPECT_EQ(1, cap.count("Error opening dir: " + gone));
    EXPECT_EQ(1, cap.count("MOUNT POINT IS NOT PRESENT ANYMORE " + gone + ": 2"));
    EXPECT_TRUE(r.songs->operation.deviceGone);
    EXPECT_TRUE(r.playlists->operation.deviceGone);
    EXPECT_TRUE(r.playlists->operation.lastBlock);
    EXPECT_TRUE(r.directories->operation.deviceGone);

    // What was found before the device went away stays in the blocks.
    t.write("found/s.mp3", "");
    boost::shared_ptr<Block<Directory*>> root = olvane::test::rootBlock(gone);
    delete root->items[0];
    root->items[0] = new Directory(t.file("found"), gone, -1);
    root->items.push_back(new Directory(gone, gone, 0));
    r = olvane::test::crawlBlock(root);
    ASSERT_EQ(1u, r.songs->items.size());
    EXPECT_TRUE(r.songs->operation.deviceGone);

    // A directory that cannot be opened while the mount point is there is passed over.
    const std::string usb = t.mkdir("usb");
    t.write("usb/s.mp3", "");
    root = olvane::test::rootBlock(usb);
    root->items.push_back(new Directory(usb + "/vanished", usb, 0));
    cap.clear();
    r = olvane::test::crawlBlock(root);
    EXPECT_EQ(1, cap.count("Error opening dir: " + usb + "/vanished"));
    EXPECT_EQ(1, cap.count("go on"));
    EXPECT_EQ(0, cap.countContaining("MOUNT POINT"));
    EXPECT_EQ(1u, r.songs->items.size());
    EXPECT_FALSE(r.songs->operation.deviceGone);
    EXPECT_FALSE(r.directories->operation.deviceGone);
}

TEST(MSDCrawlerTest, LinksNeverLeaveTheMountPointNorLoop) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    t.write("usb/music/a.mp3", "");
    t.write("usb/music/deep/b.mp3", "");
    t.write("outside/x.mp3", "");
    link("..", usb + "/music/up1");
    link("..", usb + "/music/up2");
    link(".", usb + "/music/self");
    link("../../music", usb + "/music/deep/back");
    link("..", usb + "/up");
    link("/", usb + "/root");
    link("music", usb + "/alias");
    link(t.file("outside/x.mp3"), usb + "/outlink.mp3");
    link("music/a.mp3", usb + "/inlink.mp3");
    link("nowhere", usb + "/dangling.mp3");
    link("loop.mp3", usb + "/loop.mp3");

    olvane::LogCapture cap;
    olvane::test::CrawlResult r = crawl(usb);
    // music and alias are one directory: whichever comes first is walked.
    std::set<std::string> songs = relativePaths(r.songs->items, usb);
    const std::string via = songs.count("music/a.mp3") ? "music" : "alias";
    EXPECT_EQ(Paths({via + "/a.mp3", via + "/deep/b.mp3", "inlink.mp3"}), songs);
    EXPECT_EQ(Paths({usb, via, via + "/deep"}), relativePaths(r.directories->items, usb));
    for (const char* out : {"/up", "/root", "/outlink.mp3"})
        EXPECT_EQ(1, cap.count("link leads out of the mount point, skipped: " + usb + out)) << out;
    for (const char* again : {"/up1", "/up2", "/self", "/deep/back"})
        EXPECT_EQ(1, cap.count("directory already walked, skipped: " + usb + "/" + via + again))
            << again;
    EXPECT_EQ(1, cap.count("directory already walked, skipped: " + usb + "/" +
                           (via == "music" ? "alias" : "music")));
}

TEST(MSDCrawlerTest, CompletionEmitsCrawlingFinishedOnlyWhileRunning) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    t.write("usb/s.mp3", "");
    MSDCrawler crawler("MSDCrawler");
    olvane::test::StageCollector<Block<FileInfo*>> songs, playlists;
    olvane::test::StageCollector<Block<Directory*>> dirs;
    crawler.next = &songs;
    crawler.setPlaylistSink(&playlists);
    crawler.setDirectorySink(&dirs);
    QSignalSpy spy(&KestrowQTProxy::instance(), &KestrowQTProxy::crawlingFinished);

    olvane::LogCapture cap;
    crawler.signalCompletion(kestrow::Operation(1, 0, "dev1", usb, true));  // still paused
    EXPECT_EQ(1, cap.count("Skip signalCrawlingFinished"));
    EXPECT_EQ(0, spy.count());

    crawler.launch();
    crawler.start();
    crawler.enqueue(olvane::test::rootBlock(usb));
    ASSERT_TRUE(olvane::test::waitFor([&] { return songs.size() == 1; }));
    crawler.stop();
    crawler.join();
    ASSERT_EQ(1, spy.count());
    EXPECT_EQ(QString::fromLatin1(usb.c_str()), spy.at(0).at(0).toString());
    EXPECT_EQ(1u, songs.blocks()[0]->items.size());
    EXPECT_EQ(1u, playlists.size());
    EXPECT_EQ(1u, dirs.size());
}
