// Indexes a device made to hurt: odd names, deep and wide trees, special
// files, broken songs, link loops, huge and hostile playlists, entries and
// links that lead outside the mount point. The host program runs as an
// unprivileged user, so that unreadable files are unreadable.
#include <sys/inotify.h>

#include "tests/support/AsUser.h"
#include "tests/support/Testing.h"

using namespace olvane::test;

namespace {

const char kSong[] = "gears-iron-road.mp3";

class HostileTreeTest : public ::testing::Test {
protected:
    // A tagged song at `relative` below the mount point, expected in SONGS.
    void song(const std::string& relative, const char* sample = kSong) {
        expected.insert(tmp.copySample(sample, "a/b/usb/" + relative));
    }
    // A file at `relative` below the mount point holding `bytes`; expected in
    // SONGS when its name is a song's.
    void file(const std::string& relative, const std::string& bytes, bool isSong = true) {
        const std::string path = tmp.write("a/b/usb/" + relative, bytes);
        if (isSong)
            expected.insert(path);
    }
    std::string usb(const std::string& relative = "") const {
        return tmp.file("a/b/usb") + (relative.empty() ? "" : "/" + relative);
    }
    std::string sample(const char* name) const {
        std::ifstream in(tmp.copySample(name, std::string("samples/") + name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // Runs the host program on the mount point as an unprivileged user; its
    // stderr, after checking that it ended well.
    std::string runIndexer() {
        QStringList args =
            asUnprivileged({OLVANE_INDEXER, "--db-dir", tmp.file("db").c_str(), "--device-id",
                            "dev", "--no-progress", "--log", "warning", usb().c_str()});
        QProcess indexer;
        indexer.start(args.takeFirst(), args);
        EXPECT_TRUE(indexer.waitForFinished(120000));
        const std::string log = indexer.readAllStandardError().toStdString();
        EXPECT_EQ(QProcess::NormalExit, indexer.exitStatus()) << log;
        EXPECT_EQ(0, indexer.exitCode()) << log;
        EXPECT_TRUE(indexer.readAllStandardOutput().contains("indexingFinished")) << log;
        DatabaseMgr::instance().setDatabaseDirectory(tmp.file("db"));
        return log;
    }

    // 50000 folders go in and out of a tmpfs in a second, not of a disk.
    TempDir tmp{::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : ""};
    std::set<std::string> expected;
};

}  // namespace

TEST_F(HostileTreeTest, IndexingEndsWithEverySongAndReadsNothingOutside) {
    ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0755));
    tmp.mkdir("a/b/usb");
    if (const std::string why = cannotRunUnprivilegedIn(tmp.mkdir("db")); !why.empty())
        GTEST_SKIP() << why;

    // Names.
    song("bad\xff\xfe.mp3");
    song("dir\xc3(/s.mp3");
    for (const char* name :
         {"new\nline", "quote\"", "quote'", "back\\slash", "100%", "under_score", "star*", "[x]?"})
        song(std::string(name) + ".mp3");
    song(std::string(251, 'n') + ".mp3");
    std::string longPath;
    while (4095 - usb(longPath).size() > 255)
        longPath += std::string(200, 'p') + "/";
    song(longPath + std::string(4095 - usb(longPath).size() - 4, 'q') + ".mp3");
    ASSERT_EQ(4095u, std::max_element(expected.begin(), expected.end(), [](auto& x, auto& y) {
                         return x.size() < y.size();
                     })->size());

    // Shapes.
    std::string deep = "deep";
    for (int i = 0; i < 200; ++i)
        deep += "/d";
    song(deep + "/s.mp3");
    tmp.mkdir("a/b/usb/wide");
    for (int i = 0; i < 50000; ++i)
        ASSERT_EQ(0, ::mkdir(usb("wide/" + std::to_string(i)).c_str(), 0755));
    tmp.mkdir("a/b/usb/fifo");
    ASSERT_EQ(0, ::mkfifo(usb("fifo/x.mp3").c_str(), 0666));
    song("x.mp3/s.mp3");  // a folder named like a song
    song("locked/x.mp3");
    ASSERT_EQ(0, ::chmod(usb("locked/x.mp3").c_str(), 0));
    tmp.copySample(kSong, "a/b/usb/closed/hidden.mp3");
    ASSERT_EQ(0, ::chmod(usb("closed").c_str(), 0));

    // Broken songs: empty, cut short and random, under every song extension.
    const char* samples[] = {"aac",  "gears-iron-road.mp3",  "asf",  "moreno-rain-check.wma",
                             "flac", "ferro-cafe-noir.flac", "m4a",  "ferro-blue-hour.m4a",
                             "m4b",  "ferro-blue-hour.m4a",  "m4p",  "ferro-blue-hour.m4a",
                             "m4r",  "ferro-blue-hour.m4a",  "mp3",  "gears-copper-sky.mp3",
                             "mp4",  "ferro-blue-hour.m4a",  "mpeg", "gears-iron-road.mp3",
                             "mpg",  "gears-iron-road.mp3",  "wav",  "moreno-summer-tape.wav",
                             "wma",  "moreno-rain-check.wma"};  // extension, sample
    std::mt19937 random(15);
    for (size_t i = 0; i < std::size(samples); i += 2) {
        const std::string ext = samples[i], bytes = sample(samples[i + 1]);
        file("broken/empty." + ext, "");
        for (size_t cut : {size_t(8), size_t(100), bytes.size() / 3, bytes.size() - 1})
            file("broken/cut" + std::to_string(cut) + "." + ext, bytes.substr(0, cut));
        std::string noise(4096, '\0');
        for (char& c : noise)
            c = char(random());
        file("broken/random." + ext, noise);
    }

    // Links: loops, the root of the system, a file and a folder outside.
    const std::string outside = tmp.mkdir("a/b/etc");
    tmp.write("a/b/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    tmp.mkdir("a/b/usb/links");
    const std::string links[] = {"self",    "self",
                                 "l1",      "l2",
                                 "l2",      "l1",
                                 "up",      "..",
                                 "here",    ".",
                                 "root",    "/",
                                 "out.mp3", "../../etc/passwd",
                                 "out",     "../../etc",
                                 "abs.mp3", outside + "/passwd"};  // name, target
    for (size_t i = 0; i < std::size(links); i += 2)
        ASSERT_EQ(0, ::symlink(links[i + 1].c_str(), usb("links/" + links[i]).c_str()));

    // Playlists: huge, hostile, and naming what lies outside.
    std::string lines;
    for (int i = 0; i < 100000; ++i)
        lines += i % 2 ? "../100%.mp3\n" : "../under_score.mp3\n";
    file("lists/long.m3u", lines, false);
    file("lists/wide.m3u", std::string(1 << 20, 'w') + "\n../100%.mp3\n", false);
    file("lists/bad\xff.m3u", "../bad\xff\xfe.mp3\n../dir\xc3(/s.mp3\n", false);
    const std::string escape =
        "../../etc/passwd\n../../../etc/passwd\n../links/out.mp3\n../LINKS/OUT/passwd\nfile://" +
        outside + "/passwd\n";
    file("lists/escape.m3u", escape, false);
    file("lists/escape.pls",
         "[playlist]\nFile1=../../etc/passwd\nFile2=file://" + outside +
             "/passwd\nNumberOfEntries=2\n",
         false);
    // Each entity holds ten of the one before: &i; is 10^8 of them.
    std::string laughs = "<!DOCTYPE x [<!ENTITY a \"lollollollollol\">";
    for (char e = 'b'; e <= 'i'; ++e) {
        laughs += std::string("<!ENTITY ") + e + " \"";
        for (int i = 0; i < 10; ++i)
            laughs += std::string("&") + char(e - 1) + ";";
        laughs += "\">";
    }
    laughs += "]>";
    file("lists/laughs.asx",
         laughs +
             "<asx version=\"3.0\"><title>&i;</title><entry><ref href=\"&i;\"/></entry>"
             "<entry><ref href=\"../../etc/passwd\"/></entry></asx>",
         false);
    file("lists/laughs.wpl",
         "<?wpl version=\"1.0\"?>" + laughs +
             "<smil><head><title>&i;</title></head><body><seq><media src=\"&i;\"/>"
             "<media src=\"..\\..\\etc\\passwd\"/></seq></body></smil>",
         false);

    // Anything that opens what lies outside shows here.
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_LE(0, watch);
    ASSERT_LE(0, ::inotify_add_watch(watch, outside.c_str(), IN_OPEN | IN_ACCESS));
    ASSERT_LE(0, ::inotify_add_watch(watch, (outside + "/passwd").c_str(), IN_OPEN | IN_ACCESS));
    char events[4096];
    ::close(::open((outside + "/passwd").c_str(), O_RDONLY));  // the watch sees an open
    ASSERT_LT(0, ::read(watch, events, sizeof events));

    runIndexer();
    EXPECT_EQ(-1, ::read(watch, events, sizeof events))
        << "a file outside the mount point was opened";
    ::close(watch);
    ::chmod(usb("closed").c_str(), 0755);

    EXPECT_EQ(Strings(expected.begin(), expected.end()),
              dbColumn("dev", "SELECT PATH FROM SONGS ORDER BY PATH"));
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev", usb()));  // the closed folder
    // The long playlist names a song with each of its lines. Entries naming no
    // song stay while the status is PROGRESS, but none of them lies outside
    // the mount point.
    EXPECT_EQ(Strings({"bad\xff.m3u|2", "long.m3u|100000", "wide.m3u|1"}),
              dbColumn("dev",
                       "SELECT PLAYNAME || '|' || COUNT(*) FROM PLAYLISTS "
                       "WHERE TRACKPATH IN (SELECT PATH FROM SONGS) GROUP BY PLAYNAME ORDER BY 1"));
    EXPECT_EQ(Strings{},
              dbColumn("dev", "SELECT TRACKPATH FROM PLAYLISTS WHERE substr(TRACKPATH, 1, " +
                                  std::to_string(usb().size() + 1) + ") <> '" + usb() + "/'"));
}

// A folder that was read before and cannot be read now keeps its songs,
// folders and playlists, while the rest of the tree is indexed again; a
// warning names it, and the status says that the index is incomplete.
TEST_F(HostileTreeTest, AnUnreadableFolderKeepsWhatItHeld) {
    song("f/s.mp3");
    song("locked/deep/t.mp3", "gears-old-times.mp3");
    file("l.m3u", "f/s.mp3\n", false);
    file("locked/l.m3u", "deep/t.mp3\n", false);
    if (const std::string why = cannotRunUnprivilegedIn(tmp.path()); !why.empty())
        GTEST_SKIP() << why;
    runIndexer();
    ASSERT_EQ(0, ::chmod(usb("locked").c_str(), 0));
    song("new/n.mp3", "gears-copper-sky.mp3");  // the folders are written again
    const std::string log = runIndexer();
    ::chmod(usb("locked").c_str(), 0777);

    EXPECT_NE(std::string::npos, log.find("Error opening dir: " + usb("locked"))) << log;
    EXPECT_EQ(
        Strings({usb(), usb("f"), usb("f/s.mp3"), usb("l.m3u"), usb("locked"), usb("locked/deep"),
                 usb("locked/deep/t.mp3"), usb("locked/l.m3u"), usb("new"), usb("new/n.mp3")}),
        dbColumn("dev",
                 "SELECT PATH FROM SONGS UNION SELECT PATH FROM DIRECTORIES UNION "
                 "SELECT PLAYPATH FROM PLAYLISTS ORDER BY 1"));
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev", usb()));
}
