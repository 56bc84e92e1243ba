// The mass-storage stages, each run on the test's thread: the crawler, the
// normalizer, the change finder, the tag miner and the two savers.

#include <iostream>

#include "facade/KestrowQTProxy.h"
#include "msd/ChangeFinder.h"
#include "msd/DirectorySaver.h"
#include "msd/MSDCrawler.h"
#include "msd/MSDMiner.h"
#include "msd/Normalizer.h"
#include "msd/SongSaver.h"
#include "platform/common/MountPointScope.h"
#include "tests/support/StderrCapture.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using namespace kestrow;
using Paths = std::multiset<std::string>;  // a path found twice shows
using FileBlock = boost::shared_ptr<Block<FileInfo*>>;

namespace {

// Keeps every block enqueued into it, in order; the test's thread only.
template <class T>
struct Collector : BaseServer<T> {
    Collector() : BaseServer<T>("Collector") {}
    void enqueue(boost::shared_ptr<T> block) override { blocks.push_back(block); }
    void runLoop() override {}
    std::vector<boost::shared_ptr<T>> blocks;
};

// A started crawler; collectors keep its playlist and folder blocks.
struct Walker {
    explicit Walker(std::function<void(const std::string&)> hook = nullptr) {
        crawler.setPlaylistSink(&playlists);
        crawler.setDirectorySink(&directories);
        crawler.setDirectoryHook(hook);  // runs before each folder is read
        crawler.start();
    }
    // Walks from the block the pipeline seeds the crawler with: the mount point alone.
    Walker& walk(const std::string& mountPoint) {
        auto in = makeBlock<Directory>(testOperation(mountPoint));
        in->items.push_back(new Directory(mountPoint, mountPoint, -1));
        songs = crawler.doOperation(in);
        return *this;
    }
    MSDCrawler crawler{"MSDCrawler"};
    Collector<Block<FileInfo*>> playlists;
    Collector<Block<Directory*>> directories;
    Collector<Block<FileInfo*>> sent;  // songs blocks, when it is the crawler's next
    FileBlock songs;
};

class MsdStagesTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dbDir.path()); }

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
    static Strings rows(const std::string& sql) { return dbRows("dev1", sql, true); }

    TempDir dbDir, t;
    const std::string usb = t.mkdir("usb");
    olvane::LogCapture cap;
};

// One tree with every kind of name: what is a song or a playlist, what is
// skipped (hidden files, .TRASH, $RECYCLE.BIN, a link back into a walked
// folder; links out of the mount point are HostileTreeTest's), and the
// folders in breadth-first order, each after its parent. A size past 32
// bits (a sparse 3 GiB file) must not fail stat, on 32-bit targets too.
TEST_F(MsdStagesTest, CrawlerSortsNamesSkipsWalkedFoldersAndWalksBreadthFirst) {
    Paths songs = {"Song.MP3",       "song.Mp3",     "a.m3u.mp3", "b.m4b",       "c.M4A",
                   "d.wma",          "e.aac",        "f.wav",     "g.mpg",       "h.MPEG",
                   "i.asf",          "j.m4p",        "k.flac",    "l.m4r",       "m.mp4",
                   ".hidden/in.mp3", ".trash/k.mp3", "A/a.mp3",   "A/B/C/d.mp3", "music/a.mp3",
                   "big.mp4"};
    const Paths lists = {"list.M3U8", "x.m3u8", "y.m3u", "z.pls", "w.asx", "v.WPL", "D/only.m3u"};
    const Paths neither = {".song.mp3",          "a.mp3.mp3",          "a.mp3x",
                           "a.m3u8.m3u",         "notes.txt",          ".TRASH/t.mp3",
                           "$RECYCLE.BIN/r.mp3", "sub/.TRASH/deep.mp3"};
    for (const Paths& names : {songs, lists, neither})
        for (const std::string& name : names)
            t.write("usb/" + name, "");
    t.mkdir("usb/folder.mp3");
    t.mkdir("usb/A/B2");
    ASSERT_EQ(0, mkfifo(t.file("usb/pipe.mp3").c_str(), 0644));
    const char* links[] = {"..", "music/up", "music/a.mp3", "in.mp3"};  // target, link
    for (size_t i = 0; i < std::size(links); i += 2)
        ASSERT_EQ(0, ::symlink(links[i], (usb + "/" + links[i + 1]).c_str())) << links[i + 1];
    ASSERT_EQ(0, truncate(t.file("usb/big.mp4").c_str(), off_t(3LL << 30)));

    Walker w;
    w.walk(usb);
    songs.insert("in.mp3");
    EXPECT_EQ(songs, relative(w.songs->items));
    EXPECT_EQ(lists, relative(w.playlists.blocks.at(0)->items));
    const std::vector<Directory*>& dirs = w.directories.blocks.at(0)->items;
    EXPECT_EQ(Paths({usb, ".hidden", ".trash", "folder.mp3", "sub", "A", "A/B", "A/B/C", "A/B2",
                     "D", "music"}),
              relative(dirs));
    auto depth = [](const std::string& path) { return std::count(path.begin(), path.end(), '/'); };
    for (size_t i = 1; i < dirs.size(); ++i) {  // each after its parent, breadth-first
        ASSERT_LT(size_t(dirs[i]->parentIndex), i);
        EXPECT_EQ(dirs[size_t(dirs[i]->parentIndex)]->path + "/" + dirs[i]->name, dirs[i]->path);
        EXPECT_GE(depth(dirs[i]->path), depth(dirs[i - 1]->path)) << dirs[i]->path;
    }
    const std::vector<FileInfo*>& found = w.songs->items;  // in the walk's order too
    for (size_t i = 1; i < found.size(); ++i)
        EXPECT_GE(depth(*found[i]->path), depth(*found[i - 1]->path)) << *found[i]->path;
}

// Songs go on as the walk finds them: the first block after at most 32, in
// the walk's order, only the returned one marked. The walk stops at 16000.
TEST_F(MsdStagesTest, CrawlerSendsSongsAsItWalksAndStopsAtSixteenThousand) {
    for (int i = 0; i < 100; ++i)
        t.write("usb/d" + std::to_string(i) + "/s.mp3", "");
    Walker whole, w;
    w.crawler.next = &w.sent;
    Strings walked, sent;
    for (const FileInfo* f : whole.walk(usb).songs->items)
        walked.push_back(*f->path);
    w.walk(usb);
    ASSERT_LE(2u, w.sent.blocks.size());
    EXPECT_GE(32u, w.sent.blocks[0]->items.size());
    w.sent.blocks.push_back(w.songs);
    for (const FileBlock& b : w.sent.blocks) {
        EXPECT_EQ(b == w.songs, b->operation.lastBlock);
        for (const FileInfo* f : b->items)
            sent.push_back(*f->path);
    }
    EXPECT_EQ(walked, sent);

    for (int i = 0; i <= 16000; ++i)
        t.write("usb/t" + std::to_string(i) + ".mp3", "");
    EXPECT_EQ(16000u, Walker().walk(usb).songs->items.size());
}

// The mount point's folder is read; then the device goes. The crawler marks
// its three blocks.
TEST_F(MsdStagesTest, CrawlerMarksTheDeviceGoneWhenTheMountPointVanishes) {
    t.write("usb/s.mp3", "");
    t.write("usb/sub/t.mp3", "");
    Walker w([&](const std::string& dir) {
        if (dir != usb)
            std::filesystem::rename(usb, t.file("away"));
    });
    EXPECT_EQ(1u, w.walk(usb).songs->items.size());
    EXPECT_TRUE(w.songs->operation.deviceGone && w.playlists.blocks.at(0)->operation.deviceGone &&
                w.directories.blocks.at(0)->operation.deviceGone);
}

// Paused, the walk waits between two entries, and a stop ends it there. Only
// a stopping crawler keeps crawlingFinished back.
TEST_F(MsdStagesTest, APausedWalkWaitsAndAStopEndsIt) {
    for (const char* dir : {"a", "b", "c"})
        t.write("usb/" + std::string(dir) + "/s.mp3", "");
    Walker w;
    std::atomic<int> opened{0}, found{-1};
    w.crawler.setDirectoryHook([&](const std::string&) {
        if (++opened == 3)
            w.crawler.pause();
    });
    std::thread walk([&] { found = int(w.walk(usb).songs->items.size()); });
    ASSERT_TRUE(waitFor([&] { return cap.contains("MSDCrawler held while paused"); }));
    QSignalSpy finished(&KestrowQTProxy::instance(), &KestrowQTProxy::crawlingFinished);
    w.crawler.signalCompletion(testOperation(usb));
    w.crawler.stop();
    ASSERT_TRUE(waitFor([&] { return found >= 0; }));
    walk.join();
    w.crawler.signalCompletion(testOperation(usb));
    EXPECT_EQ(std::make_tuple(1, 3, 1),
              std::make_tuple(found.load(), opened.load(), finished.count()));
}

// An operation's chunks start at 8 records and double up to 500, over all
// its blocks; only the final chunk of its last block is marked.
TEST_F(MsdStagesTest, NormalizerSendsSmallChunksFirstWithOnlyTheFinalOneMarked) {
    Normalizer normalizer("Normalizer");
    Collector<Block<FileInfo*>> miner;
    normalizer.next = &miner;
    // Each operation's blocks as "size" or "size!" (marked), and its chunks.
    const std::vector<std::pair<Strings, std::string>> table = {
        {{"1200!"}, "8 16 32 64 128 256 500 196! "},
        {{"40", "0", "10", "300!"}, "8 16 16 10 128 172! "},
        {{"0!"}, "0! "},
        {{"5", "0!"}, "5 0! "}};
    int id = 0;
    for (const auto& [blocks, want] : table) {
        miner.blocks.clear();
        std::vector<FileInfo*> originals, moved;
        for (const std::string& b : blocks) {
            FileBlock in = makeBlock<FileInfo>(testOperation("/u", b.back() == '!', id));
            for (int i = std::stoi(b); i > 0; --i)
                in->items.push_back(new FileInfo("/u/s.mp3", 0, 1));
            originals.insert(originals.end(), in->items.begin(), in->items.end());
            // The returned chunk is passed on by the stage's loop, after the others.
            if (FileBlock last = normalizer.doOperation(in))
                miner.blocks.push_back(last);
        }
        std::string chunks;  // each chunk's size, "!" on the marked one
        for (const FileBlock& b : miner.blocks) {
            chunks += std::to_string(b->items.size()) + (b->operation.lastBlock ? "! " : " ");
            moved.insert(moved.end(), b->items.begin(), b->items.end());
        }
        EXPECT_EQ(want, chunks) << id++;
        EXPECT_EQ(originals, moved);  // the same records, in order
    }
}

// New and touched files go on; rows that match no file are deleted.
TEST_F(MsdStagesTest, ChangeFinderPassesOnNewAndChangedFilesAndDeletesStaleRows) {
    DatabaseMgr& mgr = DatabaseMgr::instance();
    mgr.createDb("dev1", "/media/usb1", true);
    ChangeFinder finder{"ChangeFinder-MSDSongs",
                        "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE " +
                            MountPointScope::sqlCondition("PATH") + ";",
                        "DELETE FROM SONGS WHERE ID = ?;", false};
    finder.start();
    QSignalSpy spy{&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified};
    // The files ("name@time") below mp that go on, then usb1's status and the
    // number of contentModified signals.
    auto find = [&](const std::string& mp, const Strings& names, bool last = true) {
        FileBlock in = makeBlock<FileInfo>(testOperation(mp, last));
        for (const std::string& n : names)
            in->items.push_back(new FileInfo(mp + "/" + n.substr(0, n.find('@')), 0,
                                             std::stoi(n.substr(n.find('@') + 1))));
        std::string out;
        in = finder.doOperation(in);  // the loop would outlive a temporary
        for (const FileInfo* f : in->items)
            out += f->path->substr(mp.size() + 1) + "@" + std::to_string(f->lastModified) + " ";
        return out + mgr.getStatus("dev1", "/media/usb1") + " " + std::to_string(spy.count());
    };
    EXPECT_EQ("a.mp3@1 b.mp3@1 PROGRESS 1", find("/media/usb1", {"b.mp3@1", "a.mp3@1"}));

    for (const char* path : {"usb1/a", "usb1/b", "usb1/c", "usb1/old"})  // as the saver does
        rows("INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES ('/media/" + std::string(path) +
             ".mp3', 100)");
    mgr.insertStatus("dev1", "/media/usb1", "OK");
    // One walk in two blocks. Touched b: its row deleted at once and passed
    // on; renamed old: passed on; removed c and old: deleted after the last
    // block only. One signal for the walk.
    EXPECT_EQ("b.mp3@200 new.mp3@100 PROGRESS 2",
              find("/media/usb1", {"new.mp3@100", "b.mp3@200"}, false));
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb1/c.mp3", "/media/usb1/old.mp3"}),
              rows("SELECT PATH FROM SONGS ORDER BY PATH"));
    EXPECT_EQ("PROGRESS 2", find("/media/usb1", {"a.mp3@100"}));
    const Strings kept = {"/media/usb1/a.mp3"};
    EXPECT_EQ(kept, rows("SELECT PATH FROM SONGS ORDER BY PATH"));

    // A removal alone is deleted, but neither recorded nor signalled.
    mgr.insertStatus("dev1", "/media/usb1", "OK");
    rows("INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES ('/media/usb1/d.mp3', 100)");
    EXPECT_EQ("OK 2", find("/media/usb1", {"a.mp3@100"}));
    // Pasted into the text, this mount point would make the select cover every row.
    EXPECT_EQ("OK 2", find("/media/usb\" OR PATH LIKE \"", {}));
    EXPECT_EQ(kept, rows("SELECT PATH FROM SONGS ORDER BY PATH"));
}

// A stick read under another clock: FAT keeps local time to 2 s, so every
// file moves by the same whole hours, or by a second or two. Twenty songs
// stored at t0; each case gives the files' new times in one or two blocks.
// When 90% of them share a shift, they keep their rows with the new time and
// nothing is passed on nor signalled; files of another shift, or all of
// them below 90%, are changed. A shift that can no longer reach 90% does not
// wait for the last block.
TEST_F(MsdStagesTest, ChangeFinderKeepsTheRowsOfAStickWhoseClockMoved) {
    DatabaseMgr::instance().createDb("dev1", usb, true);
    ChangeFinder finder{"ChangeFinder-MSDSongs",
                        "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE " +
                            MountPointScope::sqlCondition("PATH") + ";",
                        "DELETE FROM SONGS WHERE ID = ?;", false,
                        "UPDATE SONGS SET LASTMODIFIED = ?1 WHERE ID = ?2;"};
    finder.start();
    QSignalSpy spy{&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified};
    const long long t0 = 1700000000, h = 3600;
    struct Case {
        std::vector<long long> shifts;  // of songs 0.., the rest as the last
        size_t firstBlock;              // songs in a first block, not the last
        std::string passedOn;           // numbers of the songs passed on per block
    };
    const Case cases[] = {
        {{1, -2, 0}, 0, "|"},
        {{14 * h + 2, 14 * h - 1}, 10, "||"},
        {{0, 0, h}, 0, "|"},
        {{12345, h}, 10, "00 ||"},
        {{99, -99, -3 * h}, 0, "00 01 |"},
        {{h, h, h, h, h, h, h, h, h, h, h, h, h, h, h, h, h, 12345},
         0,
         "00 01 02 03 04 05 06 07 08 09 10 11 12 13 14 15 16 17 18 19 |"},
        {{15 * h}, 0, "00 01 02 03 04 05 06 07 08 09 10 11 12 13 14 15 16 17 18 19 |"},
        {{12345, 12345, 12345, 12345, 12345, 12345, h},
         10,
         "00 01 02 03 04 05 06 07 08 09 |10 11 12 13 14 15 16 17 18 19 |"},
        {{0, h, h, 1}, 10, "01 02 ||"},
    };
    for (const Case& c : cases) {
        rows("DELETE FROM SONGS");
        std::map<std::string, std::string> kept;  // path, and its time when its row is kept
        const auto path = [&](size_t i) {
            return usb + "/" + char('0' + i / 10) + char('0' + i % 10);
        };
        for (size_t i = 0; i < 20; ++i)
            rows("INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES ('" + path(i) + "', " +
                 std::to_string(t0) + ")");
        std::string passedOn;
        for (auto [from, to] : {std::pair{size_t(0), c.firstBlock}, {c.firstBlock, size_t(20)}}) {
            if (from == to)
                continue;
            FileBlock in = makeBlock<FileInfo>(testOperation(usb, to == 20));
            for (size_t i = from; i < to; ++i) {
                const long long time = t0 + c.shifts[std::min(i, c.shifts.size() - 1)];
                kept[path(i)] = std::to_string(time);
                in->items.push_back(new FileInfo(path(i), 0, time));
            }
            in = finder.doOperation(in);
            for (const FileInfo* f : in->items)
                passedOn += f->path->substr(usb.size() + 1) + " ", kept[*f->path] = "<null>";
            passedOn += "|";
        }
        SCOPED_TRACE(c.passedOn);
        EXPECT_EQ(c.passedOn, passedOn);
        // A kept row holds its file's new time; a changed file's row is gone.
        for (const auto& [path, time] : kept)
            EXPECT_EQ(time, rows("SELECT group_concat(LASTMODIFIED) FROM SONGS WHERE PATH = '" +
                                 path + "'")[0]);
        EXPECT_EQ(passedOn.find(' ') == std::string::npos ? 0 : 1, spy.count());
        spy.clear();
    }
}

// title|artist|album|genre|composer|track|disc of each sample. A file read
// with no usable tag keeps its empty row for good; one not read at all (it
// vanished) is stored under a time no file has, to be read again. Whatever
// a file holds and however big it is, reading it costs a few small reads and
// a few MiB: here 4 GiB of zeros (sparse) named as songs of each kind, which
// TagLib would scan to the end. Two miners overlap (as when another device
// is prioritised): neither may touch the host's std::cerr, and TagLib's
// complaints about broken files stay off the process's stderr. A full
// database skips the block.
TEST_F(MsdStagesTest, MinersReadTagsAsWrittenAndUnreadableOrHugeFilesGiveEmptyRecords) {
    const std::pair<std::string, std::string> expected[] = {
        {"gears-iron-road.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale|1|1"},
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
    Strings paths, want;
    for (const auto& e : expected) {
        const bool missing = e.first == "missing.mp3";
        paths.push_back(missing ? t.file("usb/" + e.first)
                                : t.copySample(e.first, "usb/Music/" + e.first));
        want.push_back(paths.back() + ":" + e.second + "@" +
                       std::to_string(missing ? FileInfo::kUnreadTime : 1234));
    }
    for (const std::string big : {"big.mp3:|||||0|0", "big.flac:|||||1|1", "big.m4a:|||||1|1",
                                  "big.wav:|||||0|0", "big.wma:|||||1|1", "big.mpg:|||||1|1"}) {
        paths.push_back(t.write("usb/" + big.substr(0, big.find(':')), ""));
        ASSERT_EQ(0, ::truncate(paths.back().c_str(), 4LL << 30));
        want.push_back(usb + "/" + big + "@1234");
    }
    FileBlock in = makeBlock<FileInfo>(testOperation(usb));
    for (const std::string& p : paths)
        in->items.push_back(new FileInfo(p, 0, 1234));
    auto counter = [](const std::string& file, const std::string& key) {  // from /proc/self
        std::ifstream in("/proc/self/" + file);
        const std::string text(std::istreambuf_iterator<char>(in), {});
        return std::stoll(text.substr(text.find(key) + key.size()));
    };
    const long long read = counter("io", "rchar:"), peakKb = counter("status", "VmHWM:");
    std::streambuf* host = std::cerr.rdbuf();
    StderrCapture err(t.file("stderr.txt"));
    std::atomic<bool> mining{true};
    std::atomic<int> swapped{0};
    std::thread watcher([&] {
        while (mining)
            swapped += std::cerr.rdbuf() != host;
    });
    MSDMiner one("MSDMiner"), other("MSDMiner");
    boost::shared_ptr<Block<MetaDataInfo*>> outs[2];
    std::thread second([&] { outs[1] = other.doOperation(in); });
    outs[0] = one.doOperation(in);
    second.join();
    mining = false;
    watcher.join();
    EXPECT_EQ("", err.restore());
    EXPECT_TRUE(swapped == 0 && std::cerr.rdbuf() == host);
    EXPECT_LT(counter("io", "rchar:") - read, 32LL << 20);
    EXPECT_LT(counter("status", "VmHWM:") - peakKb, 64LL << 10);
    for (const auto& out : outs) {
        Strings got;
        for (const MetaDataInfo* m : out->items)
            got.push_back(m->path + ":" + m->title + "|" + m->artist + "|" + m->album + "|" +
                          m->genre + "|" + m->composer + "|" + std::to_string(m->trackNumber) +
                          "|" + std::to_string(m->discNumber) + "@" +
                          std::to_string(m->lastModified));
        EXPECT_EQ(want, got);
    }
    DatabaseMgr::instance().createDb("dev1", usb, true);
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("dev1").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    auto out = one.doOperation(in);
    EXPECT_TRUE(!out->operation.deviceGone && out->items.empty());
}

// Songs join one lookup row per name. Only the block that completes the
// operation goes on; the lookup rows left unused (the change finder deleted
// DDT's only song) go only after it. A row that cannot be bound or is
// refused loses only itself.
TEST_F(MsdStagesTest, SongSaverStoresSongsLookupRowsAndLosesOnlyRefusedRows) {
    DatabaseMgr::instance().createDb("dev1", "/media/usb0", true);
    SongSaver saver{"SongSaver"};
    auto save = [&](const std::vector<Strings>& songs, bool last, int op) {
        auto in = makeBlock<MetaDataInfo>(testOperation("/media/usb0", last, op));
        for (const auto& s : songs)  // name, artist, album
            in->items.push_back(new MetaDataInfo("/media/usb0/" + s[0], "/media/usb0", "T " + s[0],
                                                 s[1], s[2], "Rock", "C " + s[1], 1, 2, 100));
        boost::shared_ptr<Block<void>> out = saver.doOperation(in);
        EXPECT_EQ(last ? op : -1, out ? out->operation.id : -1);
    };
    save({{"a", "Kino", "One"}, {"b", "Kino", "One"}, {"x", "DDT", "Two"}}, true, 1);
    EXPECT_EQ(
        Strings({"/media/usb0/a|a|T a|1|2|100|One|Kino|Rock|C Kino",
                 "/media/usb0/b|b|T b|1|2|100|One|Kino|Rock|C Kino",
                 "/media/usb0/x|x|T x|1|2|100|Two|DDT|Rock|C DDT"}),
        rows("SELECT PATH, NAME, TITLE, TRACKIND, DISCNUM, LASTMODIFIED, ALBUM, ARTIST, GENRE, "
             "COMPOSER FROM SONGS JOIN ALBUMS USING (ALBUMID) JOIN ARTISTS USING (ARTISTID) "
             "JOIN GENRES USING (GENREID) JOIN COMPOSERS USING (COMPOSERID) ORDER BY 1"));
    EXPECT_EQ(Strings({"2"}), rows("SELECT COUNT(*) FROM ALBUMS"));

    rows("DELETE FROM SONGS WHERE NAME = 'x'");
    save({{"c", "Kino", "One"}}, false, 2);
    EXPECT_EQ(Strings({"DDT", "Kino"}), rows("SELECT ARTIST FROM ARTISTS ORDER BY 1"));
    save({}, true, 2);
    const std::string lookups =
        "SELECT (SELECT group_concat(ARTIST) FROM ARTISTS), (SELECT group_concat(ALBUM) FROM "
        "ALBUMS), (SELECT group_concat(COMPOSER) FROM COMPOSERS), (SELECT COUNT(*) FROM SONGS)";
    EXPECT_EQ(Strings({"Kino|One|C Kino|3"}), rows(lookups));

    rows("CREATE TRIGGER r INSERT ON SONGS WHEN NEW.NAME='f' BEGIN SELECT RAISE(ABORT,'r'); END");
    saver.open("dev1");
    sqlite3_limit(saver.ostream.db, SQLITE_LIMIT_LENGTH, 1000);
    const std::string big(2000, 'x');  // too long to be bound
    save({{"d", "A", "1"}, {big, "B", "2"}, {"e", "C", "3"}, {"f", "D", "4"}, {"g", "E", "5"}},
         true, 3);
    EXPECT_EQ(Strings({"a", "b", "c", "d", "e", "g"}), rows("SELECT NAME FROM SONGS ORDER BY 1"));
}

// Pasted into the text, the quote in this mount point would make the
// statements cover every row. Folders holding only a music subfolder are
// stored, each with its parent. Another partition's row stays.
TEST_F(MsdStagesTest, DirectorySaverStoresWhatLeadsToMusicAndKeepsOtherPartitions) {
    const std::string q = t.mkdir("usb\" OR PATH LIKE \"");
    for (const char* file : {"/Music/Artist/Album/s.mp3", "/Docs/readme.txt", "/Lists/p.m3u"})
        t.write("usb\" OR PATH LIKE \"" + std::string(file), "");
    DatabaseMgr::instance().createDb("dev1", q, true);
    rows("INSERT INTO DIRECTORIES VALUES ('p', '/media/other/x', 'x', 'o', '')");
    DirectorySaver saver{"DirectorySaver"};
    saver.doOperation(Walker().walk(q).directories.blocks.at(0));
    EXPECT_EQ(Strings({"/media/other/x|", q + "/Music/Artist/Album|" + q + "/Music/Artist",
                       q + "/Music/Artist|" + q + "/Music", q + "/Music|" + q, q + "|"}),
              rows("SELECT d.PATH || '|' || ifnull(p.PATH, d.PARENT_ID) FROM DIRECTORIES d LEFT "
                   "JOIN DIRECTORIES p ON p.OBJECTID = d.PARENT_ID ORDER BY 1"));
}

}  // namespace
