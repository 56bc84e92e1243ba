// Indexes a device made to hurt: odd names, deep and wide trees, broken
// songs, link loops, huge and hostile playlists, entries and links that lead
// outside the mount point (FIFOs and folders named like songs are the
// crawler's, in MsdStagesTest). The host program runs as an unprivileged
// user, so that unreadable files are unreadable.
#include <sys/inotify.h>

#include <sstream>

#include "tests/support/AsUser.h"
#include "tests/support/Testing.h"

using namespace olvane::test;

namespace {

class HostileTreeTest : public ::testing::Test {
protected:
    // A tagged song at `relative` below the mount point, expected in SONGS.
    void song(const std::string& relative, const char* sample = "gears-iron-road.mp3") {
        expected.insert(tmp.copySample(sample, "a/b/usb/" + relative));
    }
    // A file at `relative` below the mount point holding `bytes`.
    std::string file(const std::string& relative, const std::string& bytes) {
        return tmp.write("a/b/usb/" + relative, bytes);
    }
    std::string usb(const std::string& relative = "") const {
        return tmp.file("a/b/usb") + (relative.empty() ? "" : "/" + relative);
    }

    // Runs the host program on the mount point as an unprivileged user; its
    // stderr, after checking that it ended well.
    std::string runIndexer() {
        QStringList args =
            asUnprivileged({OLVANE_INDEXER, "--db-dir", tmp.file("db").c_str(), "--device-id",
                            "dev", "--no-progress", "--log", "warning", usb().c_str()});
        QProcess indexer;
        indexer.start(args.takeFirst(), args);
        const bool ended = indexer.waitForFinished(120000) &&
                           indexer.exitStatus() == QProcess::NormalExit && indexer.exitCode() == 0;
        const std::string log = indexer.readAllStandardError().toStdString();
        EXPECT_TRUE(ended && indexer.readAllStandardOutput().contains("indexingFinished")) << log;
        DatabaseMgr::instance().setDatabaseDirectory(tmp.file("db"));
        return log;
    }

    // 50000 folders go in and out of a tmpfs in a second, not of a disk.
    TempDir tmp{::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : ""};
    std::set<std::string> expected;
};

}  // namespace

// Indexed once with a folder that cannot be read, then again with that one
// open and another, read the first time, locked: the locked folder keeps its
// songs, folders and playlists while the rest of the tree is indexed again; a
// warning names it, and the status says that the index is incomplete.
TEST_F(HostileTreeTest, IndexingEndsWithEverySongAndReadsNothingOutside) {
    ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0755));
    tmp.mkdir("a/b/usb");
    if (const std::string why = cannotRunUnprivilegedIn(tmp.mkdir("db")); !why.empty())
        GTEST_SKIP() << why;

    // Names.
    for (const char* name : {"bad\xff\xfe", "dir\xc3(/s", "new\nline", "quote\"", "quote'",
                             "back\\slash", "100%", "under_score", "star*", "[x]?"})
        song(std::string(name) + ".mp3");
    song(std::string(251, 'n') + ".mp3");
    std::string longPath;  // of 4095 bytes
    while (4095 - usb(longPath).size() > 255)
        longPath += std::string(200, 'p') + "/";
    song(longPath + std::string(4095 - usb(longPath).size() - 4, 'q') + ".mp3");

    // Shapes.
    song("deep" + QString("/d").repeated(200).toStdString() + "/s.mp3");
    for (int i = 0; i < 50000; ++i)
        tmp.mkdir("a/b/usb/wide/" + std::to_string(i));
    song("locked/x.mp3");
    ASSERT_EQ(0, ::chmod(usb("locked/x.mp3").c_str(), 0));
    song("locked/deep/t.mp3", "gears-old-times.mp3");
    file("locked/l.m3u", "deep/t.mp3\n");
    tmp.copySample("gears-iron-road.mp3", "a/b/usb/closed/hidden.mp3");
    ASSERT_EQ(0, ::chmod(usb("closed").c_str(), 0));

    // Broken songs: empty, cut short and random, under every song extension
    // (pairs of extension and sample).
    std::istringstream samples(
        "aac gears-iron-road.mp3 asf moreno-rain-check.wma flac ferro-cafe-noir.flac m4a "
        "ferro-blue-hour.m4a m4b ferro-blue-hour.m4a m4p ferro-blue-hour.m4a m4r ferro-blue-hour."
        "m4a mp3 gears-copper-sky.mp3 mp4 ferro-blue-hour.m4a mpeg gears-iron-road.mp3 mpg "
        "gears-iron-road.mp3 wav moreno-summer-tape.wav wma moreno-rain-check.wma");
    std::mt19937 random(15);
    for (std::string ext, name; samples >> ext >> name;) {
        std::ifstream in(std::string(OLVANE_TEST_DATA_DIR) + "/" + name, std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(in), {});
        expected.insert(file("cut/empty." + ext, ""));
        for (size_t cut : {size_t(8), size_t(100), bytes.size() / 3, bytes.size() - 1})
            expected.insert(file("cut/" + std::to_string(cut) + "." + ext, bytes.substr(0, cut)));
        std::string noise(4096, '\0');
        std::generate(noise.begin(), noise.end(), [&] { return char(random()); });
        expected.insert(file("cut/random." + ext, noise));
    }

    // Links: loops, the root of the system, a file and a folder outside.
    const std::string outside = tmp.mkdir("a/b/etc");
    tmp.write("a/b/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    tmp.mkdir("a/b/usb/links");
    std::istringstream links("abs.mp3 " + outside +  // name, target
                             "/passwd self self l1 l2 l2 l1 up .. here . root / out.mp3 "
                             "../../etc/passwd out ../../etc");
    for (std::string name, target; links >> name >> target;)
        ASSERT_EQ(0, ::symlink(target.c_str(), usb("links/" + name).c_str()));

    // Playlists: huge, hostile, and naming what lies outside.
    file("lists/long.m3u",
         QString("../under_score.mp3\n../100%.mp3\n").repeated(50000).toStdString());
    file("lists/wide.m3u", std::string(1 << 20, 'w') + "\n../100%.mp3\n");
    file("lists/bad\xff.m3u", "../bad\xff\xfe.mp3\n../dir\xc3(/s.mp3\n");
    file("lists/escape.m3u",
         "../../etc/passwd\n../../../etc/passwd\n../links/out.mp3\n../LINKS/OUT/passwd\nfile://" +
             outside + "/passwd\n");
    file("lists/escape.pls", "[playlist]\nFile1=../../etc/passwd\nFile2=file://" + outside +
                                 "/passwd\nNumberOfEntries=2\n");
    // Each entity holds ten of the one before: &i; is 10^8 of them.
    std::string laughs = "<!DOCTYPE x [<!ENTITY a \"lollollollollol\">";
    for (char e = 'b'; e <= 'i'; ++e)
        laughs += std::string("<!ENTITY ") + e + " \"" +
                  QString("&%1;").arg(QChar(e - 1)).repeated(10).toStdString() + "\">";
    file("lists/laughs.asx",
         laughs +
             "]><asx version=\"3.0\"><title>&i;</title><entry><ref href=\"&i;\"/></entry>"
             "<entry><ref href=\"../../etc/passwd\"/></entry></asx>");
    file("lists/laughs.wpl",
         "<?wpl version=\"1.0\"?>" + laughs +
             "]><smil><head><title>&i;</title></head><body><seq><media src=\"&i;\"/>"
             "<media src=\"..\\..\\etc\\passwd\"/></seq></body></smil>");

    // Anything that opens what lies outside shows here.
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_LE(0, watch);
    // A folder's watch sees what is opened or read inside it too.
    ASSERT_LE(0, ::inotify_add_watch(watch, outside.c_str(), IN_OPEN | IN_ACCESS));
    char events[4096];
    ::close(::open((outside + "/passwd").c_str(), O_RDONLY));  // the watch sees an open
    ASSERT_LT(0, ::read(watch, events, sizeof events));

    runIndexer();
    ::chmod(usb("closed").c_str(), 0755);
    auto songs = [&] { return dbColumn("dev", "SELECT PATH FROM SONGS ORDER BY PATH"); };
    EXPECT_EQ(Strings(expected.begin(), expected.end()), songs());
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev", usb()));  // the closed folder
    // The long playlist names a song with each of its lines. Entries naming no
    // song stay while the status is PROGRESS, but none of them lies outside
    // the mount point.
    EXPECT_EQ(Strings({"bad\xff.m3u|2", "l.m3u|1", "long.m3u|100000", "wide.m3u|1"}),
              dbColumn("dev",
                       "SELECT PLAYNAME || '|' || COUNT(*) FROM PLAYLISTS "
                       "WHERE TRACKPATH IN (SELECT PATH FROM SONGS) GROUP BY PLAYNAME ORDER BY 1"));
    EXPECT_EQ(Strings{},
              dbColumn("dev", "SELECT TRACKPATH FROM PLAYLISTS WHERE instr(TRACKPATH, '" + usb() +
                                  "/') <> 1"));

    ASSERT_EQ(0, ::chmod(usb("locked").c_str(), 0));
    expected.insert(usb("closed/hidden.mp3"));
    song("new/n.mp3", "gears-copper-sky.mp3");  // the folders are written again
    const std::string log = runIndexer();
    ::chmod(usb("locked").c_str(), 0755);
    EXPECT_EQ(-1, ::read(watch, events, sizeof events))
        << "a file outside the mount point was opened";
    ::close(watch);
    EXPECT_NE(std::string::npos, log.find("Error opening dir: " + usb("locked"))) << log;
    EXPECT_EQ(Strings(expected.begin(), expected.end()), songs());
    EXPECT_EQ(Strings({usb("locked"), usb("locked/deep"), usb("locked/l.m3u")}),
              dbColumn("dev",
                       "SELECT * FROM (SELECT PATH p FROM DIRECTORIES UNION SELECT PLAYPATH FROM "
                       "PLAYLISTS) WHERE p LIKE '%/locked%' ORDER BY 1"));
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev", usb()));
}
