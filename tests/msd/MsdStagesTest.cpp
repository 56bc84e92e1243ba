// The mass-storage stages, each run on the test's thread: the crawler, the
// normalizer, the change finder, the tag miner and the two savers.
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>

#include <QSignalSpy>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <thread>

#include "facade/KestrowQTProxy.h"
#include "msd/ChangeFinder.h"
#include "msd/DirectorySaver.h"
#include "msd/MSDCrawler.h"
#include "msd/MSDMiner.h"
#include "msd/Normalizer.h"
#include "msd/SongSaver.h"
#include "platform/common/MountPointScope.h"
#include "playlist/MSDPlaylistMiner.h"
#include "playlist/PlaylistSaver.h"
#include "tests/support/StderrCapture.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using kestrow::Block;
using kestrow::Directory;
using kestrow::FileInfo;
using Paths = std::set<std::string>;
using FileBlock = boost::shared_ptr<Block<FileInfo*>>;
using DirectoryBlock = boost::shared_ptr<Block<Directory*>>;
using SongBlock = boost::shared_ptr<Block<MetaDataInfo*>>;

namespace {

// Keeps every block enqueued into it, in order; the test's thread only.
template <class T>
struct Collector : kestrow::BaseServer<T> {
    Collector() : kestrow::BaseServer<T>("Collector") {}
    void enqueue(boost::shared_ptr<T> block) override { blocks.push_back(block); }
    void runLoop() override {}
    std::vector<boost::shared_ptr<T>> blocks;
};

// A crawler wired to collectors, started.
struct Walker {
    Walker() {
        crawler.setPlaylistSink(&playlists);
        crawler.setDirectorySink(&directories);
        crawler.start();
    }
    kestrow::MSDCrawler crawler{"MSDCrawler"};
    Collector<Block<FileInfo*>> playlists;
    Collector<Block<Directory*>> directories;
};

struct Crawled {
    FileBlock songs, playlists;
    DirectoryBlock directories;
};

class MsdStagesTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dbDir.path()); }

    // The block the pipeline seeds the crawler with: the mount point alone.
    static DirectoryBlock root(const std::string& mountPoint) {
        return makeBlock<Directory>(testOperation(mountPoint),
                                    {new Directory(mountPoint, mountPoint, -1)});
    }
    // `hook` runs before each directory is read.
    static Crawled crawl(const std::string& mountPoint,
                         std::function<void(const std::string&)> hook = nullptr) {
        Walker w;
        w.crawler.setDirectoryHook(hook);
        FileBlock songs = w.crawler.doOperation(root(mountPoint));
        return Crawled{songs, w.playlists.blocks.at(0), w.directories.blocks.at(0)};
    }
    static const std::string& pathOf(const FileInfo* f) { return *f->path; }
    static const std::string& pathOf(const Directory* d) { return d->path; }
    // Paths of the records, relative to usb when below it.
    template <class Items>
    Paths relative(const Items& items) const {
        Paths paths;
        for (const auto* item : items) {
            const std::string& path = pathOf(item);
            paths.insert(path.rfind(usb + "/", 0) == 0 ? path.substr(usb.size() + 1) : path);
        }
        return paths;
    }
    static FileBlock files(const std::string& mountPoint, const Strings& paths, int time = 1234) {
        FileBlock in = makeBlock<FileInfo>(testOperation(mountPoint));
        for (const std::string& p : paths)
            in->items.push_back(new FileInfo(p, 0, time));
        return in;
    }
    static Strings column(const std::string& sql) { return dbColumn("dev1", sql); }

    TempDir dbDir, t;
    const std::string usb = t.mkdir("usb");
    olvane::LogCapture cap;
};

// One tree with every kind of name and link: what is a song or a playlist,
// what is skipped (hidden files, .TRASH, $RECYCLE.BIN, links out of the
// mount point or back into a walked folder), and the folders in breadth-first
// order, each after its parent.
TEST_F(MsdStagesTest, CrawlerSortsNamesSkipsLinksOutAndWalksBreadthFirst) {
    const Paths songs = {"Song.MP3",     "song.Mp3", "a.m3u.mp3",   "b.m4b",
                         "c.M4A",        "d.wma",    "e.aac",       "f.wav",
                         "g.mpg",        "h.MPEG",   "i.asf",       "j.m4p",
                         "k.flac",       "l.m4r",    "m.mp4",       ".hidden/in.mp3",
                         ".trash/k.mp3", "A/a.mp3",  "A/B/C/d.mp3", "music/a.mp3"};
    const Paths lists = {"list.M3U8", "x.m3u8", "y.m3u", "z.pls", "w.asx", "v.WPL", "D/only.m3u"};
    const Paths neither = {".song.mp3",          "a.mp3.mp3",          "a.mp3x",
                           "a.m3u8.m3u",         "notes.txt",          ".TRASH/t.mp3",
                           "$RECYCLE.BIN/r.mp3", "sub/.TRASH/deep.mp3"};
    for (const Paths& names : {songs, lists, neither})
        for (const std::string& name : names)
            t.write("usb/" + name, "");
    t.mkdir("usb/folder.mp3");
    t.mkdir("usb/A/B2");
    t.write("outside/x.mp3", "");
    ASSERT_EQ(0, mkfifo(t.file("usb/pipe.mp3").c_str(), 0644));
    const char* links[][2] = {{"..", "music/up"},
                              {"/", "root"},
                              {"../outside/x.mp3", "out.mp3"},
                              {"music/a.mp3", "in.mp3"}};
    for (const auto& l : links)
        ASSERT_EQ(0, ::symlink(l[0], (usb + "/" + l[1]).c_str())) << l[1];
    setMtime(t.file("usb/A/a.mp3"), 1234567);

    Crawled r = crawl(usb);
    Paths withLink = songs;
    withLink.insert("in.mp3");
    EXPECT_EQ(withLink, relative(r.songs->items));
    EXPECT_EQ(lists, relative(r.playlists->items));
    const std::vector<Directory*>& dirs = r.directories->items;
    EXPECT_EQ(Paths({usb, ".hidden", ".trash", "folder.mp3", "sub", "A", "A/B", "A/B/C", "A/B2",
                     "D", "music"}),
              relative(dirs));
    EXPECT_EQ(11u, dirs.size());
    for (size_t i = 1, depth = 0; i < dirs.size(); ++i) {  // each after its parent
        ASSERT_LT(size_t(dirs[i]->parentIndex), i);
        EXPECT_EQ(dirs[size_t(dirs[i]->parentIndex)]->path + "/" + dirs[i]->name, dirs[i]->path);
        size_t d = size_t(std::count(dirs[i]->path.begin(), dirs[i]->path.end(), '/'));
        EXPECT_GE(d, depth) << "not breadth-first at " << dirs[i]->path;
        depth = d;
    }
    size_t depth = 0;  // songs come in the walk's order too
    for (const FileInfo* f : r.songs->items) {
        const size_t d = size_t(std::count(f->path->begin(), f->path->end(), '/'));
        EXPECT_GE(d, depth) << "not breadth-first at " << *f->path;
        depth = d;
        EXPECT_TRUE(*f->path != usb + "/A/a.mp3" || f->lastModified == 1234567);
    }
}

// On 32-bit targets too: stat must not fail on sizes or times past 32 bits.
TEST_F(MsdStagesTest, FindsFilesOverTwoGiBAndPast2038) {
    t.write("usb/big.mp4", "");
    ASSERT_EQ(0, truncate(t.file("usb/big.mp4").c_str(), off_t(3LL << 30)));
    t.write("usb/later.mp3", "");
    setMtime(t.file("usb/later.mp3"), 2208988800LL);  // 2040-01-01
    EXPECT_EQ(Paths({"big.mp4", "later.mp3"}), relative(crawl(usb).songs->items));
}

TEST_F(MsdStagesTest, CrawlerStopsAtSixteenThousandSongs) {
    for (int i = 0; i <= 16000; ++i)
        t.write("usb/t" + std::to_string(i) + ".mp3", "");
    EXPECT_EQ(16000u, crawl(usb).songs->items.size());
}

// The mount point's folder is read; then the device goes. The crawler marks
// its three blocks, and the miner gives nothing for the device.
TEST_F(MsdStagesTest, CrawlerAndMinerMarkTheDeviceGoneWhenTheMountPointVanishes) {
    t.write("usb/s.mp3", "");
    t.write("usb/sub/t.mp3", "");
    Crawled r = crawl(usb, [&](const std::string& dir) {
        if (dir != usb)
            std::filesystem::rename(usb, t.file("away"));
    });
    EXPECT_EQ(1u, r.songs->items.size());
    EXPECT_TRUE(r.songs->operation.deviceGone && r.playlists->operation.deviceGone &&
                r.directories->operation.deviceGone);
    t.copySample("gears-iron-road.mp3", "away/a.mp3");
    SongBlock out =
        kestrow::MSDMiner("MSDMiner").doOperation(files(usb, {usb + "/a.mp3", usb + "/s.mp3"}));
    EXPECT_TRUE(out->operation.deviceGone);
    EXPECT_TRUE(out->items.empty());
}

// Paused, the walk waits between two entries, and a stop ends it there. Only
// a stopping crawler keeps crawlingFinished back.
TEST_F(MsdStagesTest, APausedWalkWaitsAndAStopEndsIt) {
    for (const char* dir : {"a", "b", "c"})
        t.write("usb/" + std::string(dir) + "/s.mp3", "");
    Walker w;
    kestrow::MSDCrawler& crawler = w.crawler;
    std::atomic<int> opened{0};
    crawler.setDirectoryHook([&](const std::string&) {
        if (++opened == 3)
            crawler.pause();
    });
    std::atomic<int> found{-1};
    std::thread walk([&] { found = int(crawler.doOperation(root(usb))->items.size()); });
    ASSERT_TRUE(waitFor([&] { return cap.contains("MSDCrawler held while paused"); }));
    QSignalSpy finished(&KestrowQTProxy::instance(), &KestrowQTProxy::crawlingFinished);
    const kestrow::Operation op = testOperation(usb);
    crawler.signalCompletion(op);
    crawler.stop();
    ASSERT_TRUE(waitFor([&] { return found >= 0; }));
    walk.join();
    crawler.signalCompletion(op);
    EXPECT_EQ(1, found);
    EXPECT_EQ(3, opened);
    EXPECT_EQ(1, finished.count());
}

TEST_F(MsdStagesTest, NormalizerSendsChunksOfFiveHundredWithOnlyTheFinalOneMarked) {
    Strings paths;
    for (int i = 0; i < 1200; ++i)
        paths.push_back("/media/usb1/" + std::to_string(i));
    FileBlock big = files("/media/usb1", paths);
    const std::vector<FileInfo*> originals = big->items;
    kestrow::Normalizer normalizer("Normalizer");
    Collector<Block<FileInfo*>> miner;
    normalizer.next = &miner;
    // The returned chunk is passed on by the stage's loop, after the others.
    miner.blocks.push_back(normalizer.doOperation(big));
    ASSERT_EQ(3u, miner.blocks.size());
    std::vector<FileInfo*> moved;
    for (size_t c = 0; c < 3; ++c) {
        EXPECT_EQ(c < 2 ? 500u : 200u, miner.blocks[c]->items.size()) << c;
        EXPECT_EQ(c == 2, miner.blocks[c]->operation.lastBlock) << c;
        moved.insert(moved.end(), miner.blocks[c]->items.begin(), miner.blocks[c]->items.end());
    }
    EXPECT_EQ(originals, moved);  // the same records, in order
}

// New and touched files go on as "path@time"; rows that match no file are
// deleted. Siblings sharing the mount point's prefix are other partitions.
TEST_F(MsdStagesTest, ChangeFinderPassesOnNewAndChangedFilesAndDeletesStaleRows) {
    DatabaseMgr::instance().createDb("dev1", "/media/usb1", true);
    kestrow::ChangeFinder finder{"ChangeFinder-MSDSongs",
                                 "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE " +
                                     MountPointScope::sqlCondition("PATH") + ";",
                                 "DELETE FROM SONGS WHERE ID = ?;", false};
    finder.start();
    QSignalSpy spy{&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified};
    auto find = [&](const std::string& mountPoint,
                    const std::vector<std::pair<std::string, int>>& names, bool gone = false) {
        FileBlock in = makeBlock<FileInfo>(testOperation(mountPoint, true, 3));
        in->operation.deviceGone = gone;
        for (const auto& n : names)
            in->items.push_back(new FileInfo(mountPoint + "/" + n.first, 0, n.second));
        Strings result;
        FileBlock out = finder.doOperation(in);
        for (const FileInfo* f : out->items)
            result.push_back(*f->path + "@" + std::to_string(f->lastModified));
        return result;
    };
    auto addSongs = [](const Strings& paths) {  // as the song saver stores them
        for (const std::string& p : paths)
            column("INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES ('" + p + "', 100)");
    };
    auto status = [] { return DatabaseMgr::instance().getStatus("dev1", "/media/usb1"); };
    const Strings others = {"/media/usb1 (2)/r.mp3", "/media/usb1-2/q.mp3", "/media/usb1/a.mp3",
                            "/media/usb10/p.mp3", "/media/usb2/z.mp3"};
    const std::string songs = "SELECT PATH FROM SONGS ORDER BY PATH";

    EXPECT_EQ(Strings({"/media/usb1/a.mp3@1", "/media/usb1/b.mp3@1"}),
              find("/media/usb1", {{"b.mp3", 1}, {"a.mp3", 1}}));
    EXPECT_EQ("PROGRESS", status());
    EXPECT_EQ(1, spy.count());

    addSongs({"/media/usb1/a.mp3", "/media/usb1/b.mp3", "/media/usb1/c.mp3", "/media/usb1/old.mp3",
              "/media/usb2/z.mp3", "/media/usb10/p.mp3", "/media/usb1-2/q.mp3",
              "/media/usb1 (2)/r.mp3"});
    DatabaseMgr::instance().insertStatus("dev1", "/media/usb1", "OK");
    // Touched b and renamed old: deleted and passed on; removed c: deleted only.
    EXPECT_EQ(Strings({"/media/usb1/b.mp3@200", "/media/usb1/new.mp3@100"}),
              find("/media/usb1", {{"new.mp3", 100}, {"b.mp3", 200}, {"a.mp3", 100}}));
    EXPECT_EQ(others, column(songs));
    EXPECT_EQ(2, spy.count());

    // A removal alone is deleted, but neither recorded nor signalled.
    DatabaseMgr::instance().insertStatus("dev1", "/media/usb1", "OK");
    addSongs({"/media/usb1/d.mp3"});
    EXPECT_TRUE(find("/media/usb1", {{"a.mp3", 100}}).empty());
    EXPECT_EQ(others, column(songs));
    EXPECT_EQ("OK", status());
    EXPECT_EQ(2, spy.count());

    // A gone device's partial list is not compared, or it would delete the rest.
    EXPECT_TRUE(find("/media/usb1", {{"x.mp3", 1}}, true).empty());
    EXPECT_EQ(others, column(songs));
    // Pasted into the text, this mount point would make the select cover every row.
    EXPECT_TRUE(find("/media/usb\" OR PATH LIKE \"", {}).empty());
    EXPECT_EQ(others, column(songs));
}

// title|artist|album|genre|composer|track|disc of each sample. A file read
// with no usable tag keeps its empty row for good; one not read at all (it
// vanished) is stored under a time no file has, to be read again.
// A full database skips the block.
TEST_F(MsdStagesTest, MinerReadsTagsAsWrittenAndUnreadableFilesGiveEmptyRecords) {
    const std::pair<std::string, std::string> expected[] = {
        {"gears-iron-road.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale|1|1"},
        {"gears-copper-sky.mp3", "Copper Sky|The Rusty Gears|Steam and Steel|Rock|Tom Hale|2|1"},
        {"gears-old-times.mp3", "Old Times|The Rusty Gears|Vinyl Days|Country||4|0"},
        {"ferro-blue-hour.m4a", "Blue Hour|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|5|2"},
        {"ferro-cafe-noir.flac", "Café Noir|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|6|2"},
        {"moreno-summer-tape.wav", "Summer Tape|Lia Moreno|Postcards|Pop|Lia Moreno|1|1"},
        {"moreno-rain-check.wma", "Rain Check|Lia Moreno|Postcards|Pop|Lia Moreno|2|1"},
        {"motorhead-style.mp3", "Ace of Spadës|Motörhead|Björk Café|Metal|Lemmy|3|1"},
        {"cp1251-id3v1.mp3", "Группа крови|Кино|Группа крови|Rock||1|0"},
        {"cp1251-id3v23.mp3",
         "Звезда по имени Солнце|Кино|Звезда по имени Солнце|Рок|Виктор Цой|2|1"},
        {"blank-title.mp3", "|Lia Moreno|Postcards|Pop||3|0"},
        {"truncated.flac", "|||||1|1"},
        {"random-bytes.m4a", "|||||1|1"},
        {"missing.mp3", "|||||1|1"},
    };
    Strings paths;
    for (const auto& e : expected)
        paths.push_back(e.first == "missing.mp3" ? t.file("usb/" + e.first)
                                                 : t.copySample(e.first, "usb/Music/" + e.first));
    SongBlock out = kestrow::MSDMiner("MSDMiner").doOperation(files(usb, paths));
    ASSERT_EQ(paths.size(), out->items.size());
    for (size_t i = 0; i < paths.size(); ++i) {
        const MetaDataInfo* m = out->items[i];
        SCOPED_TRACE(paths[i]);
        EXPECT_EQ(paths[i], m->path);
        EXPECT_EQ(expected[i].second, m->title + "|" + m->artist + "|" + m->album + "|" + m->genre +
                                          "|" + m->composer + "|" + std::to_string(m->trackNumber) +
                                          "|" + std::to_string(m->discNumber));
        EXPECT_EQ(i + 1 == paths.size() ? FileInfo::kUnreadTime : 1234, m->lastModified);
    }
    DatabaseMgr::instance().createDb("dev1", usb, true);
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("dev1").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    out = kestrow::MSDMiner("MSDMiner").doOperation(files(usb, {paths[0]}));
    EXPECT_FALSE(out->operation.deviceGone);
    EXPECT_TRUE(out->items.empty());
}

// Whatever a file holds and however big it is, reading it costs a few small
// reads and a few MiB. Here 4 GiB of zeros (sparse) named as songs of each
// kind, which TagLib would scan to the end: they are read, hold no tag, and
// keep their empty rows.
TEST_F(MsdStagesTest, MinerReadsAHugeFileWithAFewSmallReads) {
    auto counter = [](const char* file, const std::string& key) {  // from /proc/self
        std::ifstream in(std::string("/proc/self/") + file);
        for (std::string k; in >> k;) {
            long long v = 0;
            if (k == key && in >> v)
                return v;
        }
        return -1LL;
    };
    Strings paths;
    for (const char* name : {"big.mp3", "big.flac", "big.m4a", "big.wav", "big.wma", "big.mpg"}) {
        paths.push_back(t.write(std::string("usb/") + name, ""));
        ASSERT_EQ(0, ::truncate(paths.back().c_str(), 4LL << 30));
    }
    const long long read = counter("io", "rchar:"), peakKb = counter("status", "VmHWM:");
    SongBlock out = kestrow::MSDMiner("MSDMiner").doOperation(files(usb, paths));
    EXPECT_LT(counter("io", "rchar:") - read, 32LL << 20);
    EXPECT_LT(counter("status", "VmHWM:") - peakKb, 64LL << 10);
    ASSERT_EQ(paths.size(), out->items.size());
    for (const MetaDataInfo* m : out->items)
        EXPECT_EQ(1234, m->lastModified) << m->path;
}

// Two miners overlap (as when another device is prioritised): neither may
// touch the host's std::cerr, and TagLib's complaints about broken files
// stay off the process's stderr.
TEST_F(MsdStagesTest, OverlappingMinersLeaveTheHostsStderrAlone) {
    Strings paths;
    for (int i = 0; i < 200; ++i)
        paths.push_back(
            i % 2 ? t.copySample("truncated.flac", "usb/" + std::to_string(i) + ".flac")
                  : t.copySample("gears-iron-road.mp3", "usb/" + std::to_string(i) + ".mp3"));
    std::streambuf* host = std::cerr.rdbuf();
    StderrCapture err(t.file("stderr.txt"));
    std::atomic<bool> mining{true};
    std::atomic<int> swapped{0};
    std::thread watcher([&] {
        while (mining)
            swapped += std::cerr.rdbuf() != host;
    });
    kestrow::MSDMiner one("MSDMiner"), other("MSDMiner");
    std::thread second([&] { other.doOperation(files(usb, paths)); });
    one.doOperation(files(usb, paths));
    second.join();
    mining = false;
    watcher.join();
    EXPECT_EQ("", err.restore());
    EXPECT_EQ(0, swapped);
    EXPECT_TRUE(std::cerr.rdbuf() == host);
}

// Songs join one lookup row per name. The lookup rows left unused (the change
// finder deleted DDT's only song) go only after the operation's last block.
// A row that cannot be bound or is refused loses only itself.
TEST_F(MsdStagesTest, SongSaverStoresSongsLookupRowsAndLosesOnlyRefusedRows) {
    DatabaseMgr::instance().createDb("dev1", "/media/usb0", true);
    kestrow::SongSaver saver{"SongSaver"};
    auto save = [&](const std::vector<Strings>& songs, bool last, int op) {
        auto in = makeBlock<MetaDataInfo>(testOperation("/media/usb0", last, op));
        for (const auto& s : songs)  // file, artist, album
            in->items.push_back(new MetaDataInfo("/media/usb0/" + s[0], "/media/usb0", "T " + s[0],
                                                 s[1], s[2], "Rock", "C " + s[1], 1, 2, 100));
        EXPECT_EQ(op, saver.doOperation(in)->operation.id);
    };
    save({{"a.mp3", "Kino", "One"}, {"b.mp3", "Kino", "One"}, {"x.mp3", "DDT", "Two"}}, true, 1);
    EXPECT_EQ(Strings({"/media/usb0/a.mp3|a.mp3|T a.mp3|1|2|100|One|Kino|Rock|C Kino",
                       "/media/usb0/b.mp3|b.mp3|T b.mp3|1|2|100|One|Kino|Rock|C Kino",
                       "/media/usb0/x.mp3|x.mp3|T x.mp3|1|2|100|Two|DDT|Rock|C DDT"}),
              column("SELECT PATH||'|'||NAME||'|'||TITLE||'|'||TRACKIND||'|'||DISCNUM||'|'||"
                     "LASTMODIFIED||'|'||ALBUM||'|'||ARTIST||'|'||GENRE||'|'||COMPOSER FROM SONGS "
                     "JOIN ALBUMS USING (ALBUMID) JOIN ARTISTS USING (ARTISTID) JOIN GENRES USING "
                     "(GENREID) JOIN COMPOSERS USING (COMPOSERID) ORDER BY 1"));
    EXPECT_EQ(Strings({"2"}), column("SELECT COUNT(*) FROM ALBUMS"));

    column("DELETE FROM SONGS WHERE PATH = '/media/usb0/x.mp3'");
    save({{"c.mp3", "Kino", "One"}}, false, 2);
    EXPECT_EQ(Strings({"DDT", "Kino"}), column("SELECT ARTIST FROM ARTISTS ORDER BY 1"));
    save({}, true, 2);
    const std::string lookups =
        "SELECT (SELECT group_concat(ARTIST) FROM ARTISTS)||'|'||(SELECT group_concat(ALBUM) FROM "
        "ALBUMS)||'|'||(SELECT group_concat(COMPOSER) FROM COMPOSERS)||'|'||(SELECT COUNT(*) FROM "
        "SONGS)";
    EXPECT_EQ(Strings({"Kino|One|C Kino|3"}), column(lookups));

    column(
        "CREATE TRIGGER refuse BEFORE INSERT ON SONGS WHEN NEW.NAME = 'f.mp3' "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    saver.open("dev1");
    sqlite3_limit(saver.ostream.db, SQLITE_LIMIT_LENGTH, 1000);  // the long name cannot be bound
    save({{"d.mp3", "A", "1"},
          {std::string(2000, 'x') + ".mp3", "B", "2"},
          {"e.mp3", "C", "3"},
          {"f.mp3", "D", "4"},
          {"g.mp3", "E", "5"}},
         true, 3);
    EXPECT_EQ(Strings({"a.mp3", "b.mp3", "c.mp3", "d.mp3", "e.mp3", "g.mp3"}),
              column("SELECT NAME FROM SONGS ORDER BY 1"));
}

// Pasted into the text, the quote in this mount point would make the
// statements cover every row. Folders holding only a music subfolder are
// stored, each with its parent; an unchanged tree is not written again.
TEST_F(MsdStagesTest, DirectorySaverStoresWhatLeadsToMusicAndRewritesOnlyOnChange) {
    const std::string q = t.mkdir("usb\" OR PATH LIKE \"");
    const std::string song = t.write("usb\" OR PATH LIKE \"/Music/Artist/Album/s.mp3", "");
    t.write("usb\" OR PATH LIKE \"/Docs/readme.txt", "");
    t.write("usb\" OR PATH LIKE \"/Lists/p.m3u", "");
    DatabaseMgr::instance().createDb("dev1", q, true);
    column("INSERT INTO DIRECTORIES VALUES ('p', '/media/other/x', 'x', 'o', '')");
    auto stored = [] {  // rows of the mount point as "path|parent path"
        return column(
            "SELECT d.PATH || '|' || ifnull(p.PATH, d.PARENT_ID) FROM DIRECTORIES d LEFT JOIN "
            "DIRECTORIES p ON p.OBJECTID = d.PARENT_ID WHERE d.PARTITION_ID <> 'p' ORDER BY 1");
    };
    kestrow::DirectorySaver saver{"DirectorySaver"};
    saver.start();
    QSignalSpy spy(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);

    saver.doOperation(crawl(q).directories);
    EXPECT_EQ(Strings({q + "/Music/Artist/Album|" + q + "/Music/Artist",
                       q + "/Music/Artist|" + q + "/Music", q + "/Music|" + q, q + "|"}),
              stored());
    saver.doOperation(crawl(q).directories);
    EXPECT_EQ(1, spy.count());

    ASSERT_EQ(0, ::unlink(song.c_str()));
    saver.doOperation(crawl(q).directories);
    EXPECT_TRUE(stored().empty());
    EXPECT_EQ(2, spy.count());
    EXPECT_EQ(1u, column("SELECT PATH FROM DIRECTORIES").size());
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + 1))
        text.replace(at, from.size(), to);
    return text;
}

// Every entry of a crawled playlist, in any format and shape, must carry the
// PATH and OBJECTID of the song a player would open. GLib's complaints go to
// the log, not to stderr, where a message of the host's own still goes.
TEST_F(MsdStagesTest, PlaylistEntriesNameTheSongsPlayersOpen) {
    for (const char* song : {"Music/a.mp3", "Music/My Song.mp3", "Music/Ünï/ü.mp3", "Other/z.mp3",
                             "Музыка/Кино - Группа крови.mp3", "Музыка/Кукушка.mp3"})
        t.write(std::string("usb/") + song, "");
    // Each entry as written in a playlist of usb/Music, and the song it names
    // (a remote entry names itself; "" is dropped).
    gchar* mountUri = g_filename_to_uri(usb.c_str(), nullptr, nullptr);
    const std::vector<std::pair<std::string, std::string>> shapes = {
        {"a.mp3", "Music/a.mp3"},
        {"./Ünï/../Ünï/ü.mp3", "Music/Ünï/ü.mp3"},
        {"..\\Other\\z.mp3", "Other/z.mp3"},
        {"/Music/My Song.mp3", "Music/My Song.mp3"},
        {"\\Other\\z.mp3", "Other/z.mp3"},
        {usb + "/Music/a.mp3", "Music/a.mp3"},
        {"E:\\Music\\Ünï\\ü.mp3", "Music/Ünï/ü.mp3"},
        {"E:/Other/z.mp3", "Other/z.mp3"},
        {mountUri + std::string("/Music/My%20Song.mp3"), "Music/My Song.mp3"},
        {"file:///Music/%C3%9Cn%C3%AF/%C3%BC.mp3", "Music/Ünï/ü.mp3"},
        {"http://radio.example/live?x=1&y=2#z", "http://radio.example/live?x=1&y=2#z"},
        {"..\\..\\etc\\passwd", ""},
    };
    g_free(mountUri);
    std::string m3u = "#EXTM3U\r\n", m3u8 = "\xEF\xBB\xBF", pls = "[playlist]\r\n",
                wpl = "<?wpl version=\"1.0\"?><smil><body><seq>";
    Strings songs;
    for (size_t i = 0; i < shapes.size(); ++i) {
        const std::string& text = shapes[i].first;
        m3u += "#EXTINF:60,Artist - Title\r\n" + text + "\r\n";
        m3u8 += text + "\n";
        // A blank before '=' once: a key that the pls parser cannot number.
        pls += "File" + std::to_string(i + 1) + (i == 1 ? " = " : "=") + text + "\r\n";
        wpl += "<media src=\"" + replaced(text, "&", "&amp;") + "\"/>";
        if (!shapes[i].second.empty())
            songs.push_back(shapes[i].second);
    }
    gchar* cp1251 = g_convert(
        "#EXTM3U\r\n#EXTINF:245,Кино - Группа крови\r\nКино - Группа крови.mp3\r\n"
        "#EXTINF:397,Кино - Кукушка\r\n\\Музыка\\Кукушка.mp3\r\n",
        -1, "WINDOWS-1251", "UTF-8", nullptr, nullptr, nullptr);
    std::string garbage;
    for (unsigned i = 0, x = 1; i < 4096; ++i, x = x * 1103515245u + 12345u)
        garbage += char(x >> 16);  // NUL bytes and all, the same on every run
    const std::map<std::string, std::pair<std::string, Strings>> playlists = {
        {"Music/Mix #1 50% ?.m3u", {m3u, songs}},
        {"Music/Любимое 音楽.m3u8", {m3u8, songs}},
        {"Music/a b.pls", {pls, songs}},
        {"Music/x#y.wpl", {wpl + "</seq></body></smil>", songs}},
        {"Музыка/Кино.m3u", {cp1251, {"Музыка/Кино - Группа крови.mp3", "Музыка/Кукушка.mp3"}}},
        {"Music/bom.pls", {"\xEF\xBB\xBF[playlist]\nFile1=a.mp3\n", {"Music/a.mp3"}}},
        {"Music/nul.m3u", {"file:///x%00y.mp3\r\na.mp3\r\n", {"Music/a.mp3"}}},
        {"Music/empty.m3u", {"", {}}},
        {"Music/garbage.m3u", {garbage, {}}},
        {"Music/garbage.pls", {garbage, {}}},
        {"Music/garbage.wpl", {garbage, {}}},
    };
    g_free(cp1251);
    for (const auto& p : playlists)
        t.write("usb/" + p.first, p.second.first);

    Crawled crawled = crawl(usb);
    std::map<std::string, std::pair<std::string, std::string>> songOf;  // PATH, OBJECTID
    for (const FileInfo* f : crawled.songs->items) {
        MetaDataInfo song(*f->path, usb, "", "", "", "", "", 0, 0, 0);
        songOf[f->path->substr(usb.size() + 1)] = {song.path, song.objectId};
    }
    StderrCapture err(t.file("stderr.txt"));
    auto out = kestrow::MSDPlaylistMiner("MSDPlaylistMiner").doOperation(crawled.playlists);
    g_log("Host", G_LOG_LEVEL_WARNING, "host message");
    const std::string written = err.restore();
    EXPECT_EQ(std::string::npos, written.find("GLib")) << written;
    EXPECT_NE(std::string::npos, written.find("host message")) << written;
    EXPECT_TRUE(cap.contains("GLib-GIO"));  // the m3u's root-absolute lines

    ASSERT_EQ(playlists.size(), out->items.size());
    for (const kestrow::Playlist* p : out->items) {
        SCOPED_TRACE(p->path);
        std::vector<std::pair<std::string, std::string>> want, got;
        for (const std::string& s : playlists.at(p->path.substr(usb.size() + 1)).second)
            want.push_back(s.rfind("http", 0) == 0 ? std::make_pair(s, Md5(Md5::SONG, s).toString())
                                                   : songOf.at(s));
        for (const kestrow::PlaylistEntry* e : p->entries)
            got.emplace_back(e->path, e->id.toString());
        EXPECT_EQ(want, got);
    }
}

// One row per entry, then the statement once more per playlist: the last
// entry twice, and for an empty playlist the bindings left before it. A
// failing row ends its block's writing (after.m3u is lost), not the
// operation nor the stage.
TEST_F(MsdStagesTest, PlaylistSaverWritesEntriesAndRepeatsTheLastBindings) {
    using kestrow::Playlist;
    DatabaseMgr::instance().createDb("dev1", usb, true);
    column("CREATE UNIQUE INDEX ONE_TRACK ON PLAYLISTS(TRACKPATH) WHERE PLAYNAME = 'two.m3u';");
    auto playlist = [](const std::string& path, const std::string& partition, int modified,
                       const Strings& tracks, int isMtp = 0) {
        Playlist* p = new Playlist(path, partition, modified);
        for (const std::string& track : tracks)
            p->entries.push_back(new kestrow::PlaylistEntry(track, isMtp));
        return p;
    };
    auto row = [](const Playlist* p, const std::string& track, std::string id = "") {
        id = id.empty() ? Md5(Md5::SONG, track).toString() : id;
        return p->partitionId.toString() + "|" + p->path + "|" + p->id.toString() + "|" + p->name +
               "|" + track + "|" + id + "|1|" + std::to_string(p->modified);
    };
    Playlist* three = playlist(usb + "/Music/three.m3u", usb, 1700000000,
                               {"/usb/Music/a.mp3", "usb/Music/b c.mp3", "C:/Music/d.mp3"});
    Playlist* mtp = playlist("mtp-playlist://12/Road", "mtp-folder://dev1", 0, {"4711"}, 1);
    Playlist* two = playlist(usb + "/two.m3u", usb, 1, {"usb/a.mp3", "usb/b.mp3"});
    Playlist* next = playlist(usb + "/next.m3u", usb, 3, {"usb/d.mp3"});
    const std::string d = row(three, "C:/Music/d.mp3"), road = row(mtp, "4711", "4711");
    const Strings want({"-|-|-|-|-|-|-|-", row(three, "/usb/Music/a.mp3"),
                        row(three, "usb/Music/b c.mp3"), d, d, d, road, road, row(two, "usb/a.mp3"),
                        row(two, "usb/b.mp3"), row(next, "usb/d.mp3"), row(next, "usb/d.mp3")});
    const std::vector<std::vector<Playlist*>> blocks = {
        {playlist(usb + "/first.m3u", usb, 5, {}), three, playlist(usb + "/none.pls", usb, 6, {}),
         mtp},
        {two, playlist(usb + "/after.m3u", usb, 2, {"usb/c.mp3"})},
        {next}};
    kestrow::PlaylistSaver saver("PlaylistSaver");
    for (size_t i = 0; i < blocks.size(); ++i) {
        auto in = makeBlock<Playlist>(testOperation(usb, true, int(i)));
        in->items = blocks[i];
        EXPECT_EQ(int(i), saver.doOperation(in)->operation.id);
    }
    std::string select;
    for (const char* c : {"PARTITION_ID", "PLAYPATH", "PLAYID", "PLAYNAME", "TRACKPATH", "TRACKID",
                          "AUDIOTYPE", "LASTMODIFIED"})
        select += std::string(select.empty() ? "" : "||'|'||") + "ifnull(" + c + ",'-')";
    EXPECT_EQ(want, column("SELECT " + select + " FROM PLAYLISTS ORDER BY ID;"));
}

}  // namespace
