// Runs the olvane-indexer program as a person would and reads what it prints.
#include <gtest/gtest.h>
#include <iconv.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QUrl>
#include <filesystem>
#include <memory>
#include <random>

#include "platform/common/DatabaseMgr.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using olvane::test::TempDir;

namespace {

std::string toCp1251(const std::string& utf8) {
    iconv_t cd = iconv_open("WINDOWS-1251", "UTF-8");
    std::string out(utf8.size(), '\0');
    char* in = const_cast<char*>(utf8.data());
    char* to = &out[0];
    size_t inLeft = utf8.size(), outLeft = out.size();
    iconv(cd, &in, &inLeft, &to, &outLeft);
    iconv_close(cd);
    out.resize(out.size() - outLeft);
    return out;
}

struct Result {
    int exitCode = -1;
    QStringList lines;  // stdout
    QString err;
};

class OlvaneIndexerTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 3; ++i)
            tree.copySample("gears-iron-road.mp3", "usb/a/" + std::to_string(i) + ".mp3");
        tree.copySample("ferro-blue-hour.m4a", "usb/b/blue.m4a");
        tree.write("usb/list.m3u", "a/0.mp3\nb/blue.m4a\n");
        root = tree.file("usb");
    }

    Result run(const QStringList& args, const QString& program = OLVANE_INDEXER) {
        QProcess p;
        p.setProgram(program);
        p.setArguments(args);
        p.start();
        EXPECT_TRUE(p.waitForFinished(120000));
        Result r;
        r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
        r.lines = QString::fromUtf8(p.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        r.err = QString::fromUtf8(p.readAllStandardError());
        return r;
    }
    QStringList withDb(QStringList args) { return QStringList{"--db-dir", dbDir()} + args; }
    QString dbDir() { return QString::fromStdString(tree.file("db")); }
    QString mp() const { return QString::fromStdString(root); }

    TempDir tree;
    std::string root;
};

TEST_F(OlvaneIndexerTest, PrintsEachSignalPlainAndAsJson) {
    const QString mp = this->mp();
    Result first = run(withDb({"--device-id", "stick", "--no-progress", mp}));
    ASSERT_EQ(first.exitCode, 0) << first.err.toStdString();
    ASSERT_GE(first.lines.size(), 3);
    // The playlist branch may report a change before the crawl has finished.
    EXPECT_EQ(first.lines.count("crawlingFinished " + mp), 1);
    EXPECT_TRUE(first.lines.contains("contentModified " + mp));
    EXPECT_EQ(first.lines.last(), "indexingFinished " + mp);
    EXPECT_TRUE(first.err.isEmpty()) << first.err.toStdString();

    Result second = run(withDb({"--device-id", "stick", "--json", mp}));
    ASSERT_EQ(second.exitCode, 0);
    const QList<QJsonArray> args = {{"stick", mp}, {mp}, {mp}};
    const QStringList names = {"databaseExists", "crawlingFinished", "indexingFinished"};
    ASSERT_EQ(second.lines.size(), 3);
    for (int i = 0, lastMs = -1; i < 3; ++i) {
        QJsonObject o = QJsonDocument::fromJson(second.lines[i].toUtf8()).object();
        EXPECT_EQ(o["signal"].toString(), names[i]);
        EXPECT_EQ(o["args"].toArray(), args[i]);
        EXPECT_GE(o["ms"].toInt(-1), lastMs);
        lastMs = o["ms"].toInt(-1);
    }
}

TEST_F(OlvaneIndexerTest, ShowSummarisesTheDatabaseUnderTheDerivedId) {
    Result r = run(withDb({"--log", "info", mp()}));
    ASSERT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains("INFO SongSaver::doOperation: SongSaver for: 4"));
    EXPECT_FALSE(r.err.contains("DEBUG "));
    // Without --device-id the id comes from the mount point: its name and a digest.
    QDir dir(dbDir());
    QStringList dbs = dir.entryList({"usb-*.db"});
    ASSERT_EQ(dbs.size(), 1);
    const QString id = dbs[0].chopped(3);
    EXPECT_EQ(id.size(), 12);

    Result plain = run(QStringList{"show"} + withDb({id}));
    ASSERT_EQ(plain.exitCode, 0) << plain.err.toStdString();
    EXPECT_EQ(plain.lines.mid(2),
              QStringList({"songs 4", "artists 2", "albums 2", "genres 2", "composers 2",
                           "playlists 1", "directories 3", "status " + mp() + " OK"}));

    Result json = run(QStringList{"show"} + withDb({"--json", id}));
    ASSERT_EQ(json.exitCode, 0);
    ASSERT_EQ(json.lines.size(), 1);
    QJsonObject o = QJsonDocument::fromJson(json.lines[0].toUtf8()).object();
    EXPECT_EQ(o["songs"].toInt(), 4);
    EXPECT_EQ(o["composers"].toInt(), 2);
    EXPECT_EQ(o["status"].toObject()[mp()].toString(), "OK");
}

TEST_F(OlvaneIndexerTest, RefusesBadInputWithExitStatus) {
    Result notDir = run(withDb({QString::fromStdString(tree.file("usb/list.m3u"))}));
    EXPECT_EQ(notDir.exitCode, 2);
    EXPECT_TRUE(notDir.err.contains("is not a directory"));
    EXPECT_FALSE(QDir(dbDir()).exists());  // nothing was requested

    const QString phone = QString::fromStdString(tree.mkdir("phone"));
    for (const QStringList& bad : {QStringList{"--bogus", mp()},
                                   {"--log", "loud", mp()},
                                   {"--codepages=WINDOWS-1252,KLINGON", mp()},
                                   {},
                                   {"--handle", "2", mp()},
                                   {"--mtp-sim", phone, mp()},
                                   {"--mtp-sim", phone, "--handle", "0"},
                                   {"--mtp-sim", phone, "--sim-faults", "page=2,busy=nothing:1"}})
        EXPECT_EQ(run(withDb(bad)).exitCode, 2) << bad.join(' ').toStdString();
    Result missing = run(QStringList{"show"} + withDb({"nosuchdevice"}));
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.err.contains("no database for device nosuchdevice"));
}

// A simulated phone, listed two objects at a time with an empty answer in
// the middle of a folder, announced ready late; then again, unchanged.
TEST_F(OlvaneIndexerTest, IndexesASimulatedPhone) {
    const QStringList args =
        withDb({"--mtp-sim", QString::fromStdString(olvane::test::makePhoneTree(tree)),
                "--device-id", "phone", "--handle", "3", "--ready-after", "300", "--sim-faults",
                "page=2,empty=Phone/Music:1"});
    Result first = run(args);
    ASSERT_EQ(first.exitCode, 0) << first.err.toStdString();
    EXPECT_EQ(first.lines.count("crawlingFinished mtp-folder://phone"), 1);
    EXPECT_EQ(first.lines.last(), "indexingFinished mtp-folder://phone");

    DatabaseMgr::instance().setDatabaseDirectory(dbDir().toStdString());
    const std::string sql = "SELECT ID || ' ' || PATH FROM SONGS ORDER BY 1;";
    const std::vector<std::string> songs = olvane::test::dbColumn("phone", sql);
    EXPECT_EQ(
        std::vector<std::string>({"1 Phone/Music/Gears/copper.mp3", "2 Phone/Music/Gears/iron.mp3",
                                  "3 Phone/Music/Jazz/blue.m4a"}),
        songs);
    Result again = run(args);
    EXPECT_EQ(again.lines.first(), "databaseExists phone mtp-folder://phone");
    EXPECT_EQ(songs, olvane::test::dbColumn("phone", sql));
}

// Volume labels in any script; given in an order that is not the library's
// own (byte-wise) order of waiting requests.
TEST_F(OlvaneIndexerTest, IndexesNamesInAnyScriptOneAfterTheOtherInTheOrderGiven) {
    QStringList mps;
    for (const std::string name : {"音楽 USB", "Музыка", "Música"}) {
        tree.copySample("gears-iron-road.mp3", name + "/a.mp3");
        mps << QString::fromStdString(tree.file(name));
    }
    QStringList finished, unchanged;
    for (const QString& mp : mps) {
        finished << "indexingFinished " + mp;
        unchanged << "databaseExists stick " + mp << "crawlingFinished " + mp
                  << "indexingFinished " + mp;
    }
    Result first = run(QStringList{"--db-dir=" + dbDir(), "--device-id=stick"} + mps);
    ASSERT_EQ(first.exitCode, 0) << first.err.toStdString();
    EXPECT_EQ(first.lines.filter("indexingFinished").join('\n').toStdString(),
              finished.join('\n').toStdString());
    // Run again: each partition was left complete ("OK"), keeps its rows, and
    // all its signals come before the next one's.
    Result again = run(withDb({"--device-id", "stick"}) + mps);
    EXPECT_EQ(again.lines.join('\n').toStdString(), unchanged.join('\n').toStdString());
}

// A stick as the world fills one: a Cyrillic volume label, tags in a legacy
// code page, playlists written by Windows players and by phones. Every song
// reads right and every playlist entry names its song (the entries that name
// none are dropped at the end of the indexing), with nothing on stderr.
TEST_F(OlvaneIndexerTest, ReadsAStickFromAnyMarket) {
    const std::string label = "Музыка";
    tree.copySample("cp1251-id3v1.mp3", label + "/Кино/Группа крови.mp3");
    tree.copySample("cp1251-id3v23.mp3", label + "/Кино/Звезда.mp3");
    tree.copySample("motorhead-style.mp3", label + "/Motörhead/Ace.mp3");
    const std::string stick = tree.file(label);
    const std::string uri = QUrl::fromLocalFile(QString::fromStdString(stick + "/Кино/Звезда.mp3"))
                                .toEncoded()
                                .toStdString();
    // A Windows player's m3u in its own code page, with every kind of path it writes.
    tree.write(label + "/lists/win.m3u",
               toCp1251("..\\Кино\\Группа крови.mp3\r\n\\Кино\\Звезда.mp3\r\n"
                        "E:\\Кино\\Группа крови.mp3\r\nE:/Кино/Звезда.mp3\r\n"));
    tree.write(label + "/lists/mix.m3u8",
               "\xEF\xBB\xBF#EXTM3U\r\n#EXTINF:-1,Ace\r\n"
               "../Motörhead/Ace.mp3\r\n" +
                   uri + "\r\n");
    tree.write(label + "/lists/old.pls",
               "[playlist]\nFile1=..\\Motörhead\\Ace.mp3\nNumberOfEntries=1\n");

    Result r = run(withDb({"--device-id", "world", QString::fromStdString(stick)}));
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.isEmpty()) << r.err.toStdString();
    DatabaseMgr::instance().setDatabaseDirectory(dbDir().toStdString());
    EXPECT_EQ(
        olvane::test::dbColumn("world", "SELECT TITLE FROM SONGS ORDER BY TITLE;"),
        std::vector<std::string>({"Ace of Spadës", "Группа крови", "Звезда по имени Солнце"}));
    EXPECT_EQ(
        olvane::test::dbColumn("world",
                               "SELECT PLAYNAME || ' ' || COUNT(DISTINCT TRACKID) FROM PLAYLISTS"
                               " GROUP BY PLAYNAME ORDER BY PLAYNAME;"),
        std::vector<std::string>({"mix.m3u8 2", "old.pls 1", "win.m3u 2"}));
    EXPECT_EQ(olvane::test::dbColumn("world",
                                     "SELECT COUNT(*) FROM PLAYLISTS WHERE TRACKPATH "
                                     "NOT IN (SELECT PATH FROM SONGS);"),
              std::vector<std::string>({"0"}));
}

// A mount point that is not UTF-8 cannot reach the library unchanged; a
// request the library refuses is reported with its reason.
TEST_F(OlvaneIndexerTest, RefusesWhatCannotBeIndexedAndSaysWhy) {
    tree.copySample("gears-iron-road.mp3", "bad\xff/a.mp3");
    ASSERT_EQ(::symlink(tree.file("bad\xff").c_str(), tree.file("link").c_str()), 0);
    const QString raw = "exec \"$0\" --db-dir \"$1\" \"$(printf '%s/bad\\377' \"$2\")\"";
    for (Result r : {run(withDb({QString::fromStdString(tree.file("link"))})),
                     run({"-c", raw, OLVANE_INDEXER, dbDir(), QString::fromStdString(tree.path())},
                         "/bin/sh")}) {
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_TRUE(r.err.contains("not valid UTF-8")) << r.err.toStdString();
        EXPECT_TRUE(r.lines.isEmpty());
    }

    // The database directory cannot be created: its parent is a file.
    tree.write("file", "");
    Result refused = run({"--db-dir", QString::fromStdString(tree.file("file/db")), mp()});
    EXPECT_EQ(refused.exitCode, 1);
    // The cause, not the clean-up that follows it.
    const QString cause = "olvane-indexer: " + mp() + ": cannot create " +
                          QString::fromStdString(tree.file("file/db"));
    EXPECT_TRUE(refused.err.startsWith(cause)) << refused.err.toStdString();
    EXPECT_EQ(refused.err.count('\n'), 1);
}

TEST_F(OlvaneIndexerTest, CtrlCStopsCleanlyAndKeepsWhatWasCommitted) {
    // Enough songs that the miner is still busy when the interrupt comes.
    for (int i = 0; i < 3000; ++i)
        tree.copySample("gears-copper-sky.mp3", "usb/many/" + std::to_string(i) + ".mp3");
    QProcess p;
    p.setProgram(OLVANE_INDEXER);
    p.setArguments(withDb({"--device-id", "big", mp()}));
    p.start();
    QByteArray out;
    ASSERT_TRUE(olvane::test::waitFor(
        [&] {
            p.waitForReadyRead(10);
            out += p.readAllStandardOutput();
            return out.contains("contentModified") || p.state() == QProcess::NotRunning;
        },
        60000));
    ASSERT_EQ(p.state(), QProcess::Running) << "indexing ended before the interrupt";
    ::kill(pid_t(p.processId()), SIGINT);
    ASSERT_TRUE(p.waitForFinished(60000));
    out += p.readAllStandardOutput();
    EXPECT_EQ(p.exitCode(), 130);
    EXPECT_FALSE(out.contains("indexingFinished"));

    DatabaseMgr::instance().setDatabaseDirectory(dbDir().toStdString());
    EXPECT_EQ(DatabaseMgr::instance().getStatus("big", root), "PROGRESS");
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(DatabaseMgr::instance().getDbNameFromDevId("big").c_str(), &db,
                              SQLITE_OPEN_READONLY, nullptr),
              SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "PRAGMA integrity_check;", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);

    // The next run goes on from there and completes.
    Result again = run(withDb({"--device-id", "big", "--no-progress", mp()}));
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(DatabaseMgr::instance().getStatus("big", root), "OK");
}

}  // namespace

// The disk that holds the databases fills up mid-way, turns read-only, or
// holds a database file the indexer may not write: each run ends with a
// clear error, never as done, and keeps the database; once there is room,
// the next run completes with the tables of a clean index.
TEST_F(OlvaneIndexerTest, AFullOrReadOnlyDiskEndsWithAClearErrorAndKeepsTheDatabase) {
    const std::string db = dbDir().toStdString(), dev = "stick";
    TempDir cleanDb;
    ASSERT_EQ(0, ::mkdir(db.c_str(), 0777));
    if (::mount("tmpfs", db.c_str(), "tmpfs", 0, "size=4m,mode=0777") != 0)
        GTEST_SKIP() << "a full and a read-only disk need a tmpfs, which needs root: "
                     << std::strerror(errno);
    std::shared_ptr<void> unmount(nullptr, [&db](void*) { ::umount2(db.c_str(), MNT_DETACH); });
    auto remount = [&](const char* options) {
        return ::mount("tmpfs", db.c_str(), "tmpfs", MS_REMOUNT, options);
    };
    auto dump = [&](const std::string& dir) {
        DatabaseMgr::instance().setDatabaseDirectory(dir);
        return olvane::test::indexDump(dev);
    };
    const QStringList args = {"--device-id", QString::fromStdString(dev), "--no-progress", mp()};
    ASSERT_EQ(0, run(withDb(args)).exitCode);
    for (int i = 0; i < 1000; ++i)
        tree.copySample("gears-copper-sky.mp3", "usb/many/" + std::to_string(i) + ".mp3");
    ASSERT_EQ(0, run(QStringList{"--db-dir", cleanDb.path().c_str()} + args).exitCode);
    const auto clean = dump(cleanDb.path());
    DatabaseMgr::instance().setDatabaseDirectory(db);

    struct statvfs fs;
    ASSERT_EQ(0, ::statvfs(db.c_str(), &fs));
    const unsigned long long used = (fs.f_blocks - fs.f_bfree) * fs.f_frsize;
    ASSERT_EQ(0, remount(("size=" + std::to_string(used + (64 << 10))).c_str()));
    Result full = run(withDb(args));
    EXPECT_EQ(1, full.exitCode);
    EXPECT_TRUE(full.err.contains("database or disk is full")) << full.err.toStdString();
    EXPECT_FALSE(full.lines.contains("indexingFinished " + mp()));
    EXPECT_NE("OK", DatabaseMgr::instance().getStatus(dev, root));

    ASSERT_EQ(0, remount("size=64m"));
    ASSERT_EQ(0, run(withDb(args)).exitCode);
    EXPECT_EQ("", olvane::test::dumpDifference(clean, dump(db)));
    EXPECT_EQ("OK", DatabaseMgr::instance().getStatus(dev, root));

    // Something to write: a changed song.
    olvane::test::setMtime(tree.file("usb/many/0.mp3"), 1000000000);
    ASSERT_EQ(0, remount("ro"));
    Result readOnly = run(withDb(args));
    EXPECT_EQ(1, readOnly.exitCode);
    EXPECT_TRUE(readOnly.err.contains("Read-only file system")) << readOnly.err.toStdString();
    ASSERT_EQ(0, remount("rw"));
    EXPECT_EQ("", olvane::test::dumpDifference(clean, dump(db)));

    // A database file that the indexer may read but not write, in a folder
    // it may write.
    QProcess::execute("chmod", {"-R", "a+rX", tree.path().c_str()});
    ASSERT_EQ(0, ::chmod(DatabaseMgr::instance().getDbNameFromDevId(dev).c_str(), 0644));
    const QStringList asNobody = {"--reuid=65534", "--regid=65534", "--clear-groups"};
    Result other = run(asNobody + QStringList{OLVANE_INDEXER} + withDb(args), "setpriv");
    EXPECT_EQ(1, other.exitCode);
    EXPECT_TRUE(other.err.contains("Permission denied")) << other.err.toStdString();
    EXPECT_EQ("", olvane::test::dumpDifference(clean, dump(db)));
}

// A power cut, as olvane-indexer killed (SIGKILL) at ten random moments of a
// first index of 3000 songs, and of a re-index with a tenth of them touched:
// each run goes on from where the last was cut. After each cut the database
// passes SQLite's integrity check, and the run that completes at last leaves
// the tables of an index that nothing cut.
TEST_F(OlvaneIndexerTest, APowerCutLeavesADatabaseThatTheNextRunCompletes) {
    std::vector<std::string> songs;
    for (int i = 0; i < 3000; ++i)
        songs.push_back(
            tree.copySample("gears-copper-sky.mp3",
                            "usb/" + std::to_string(i / 100) + "/" + std::to_string(i) + ".mp3"));
    tree.write("usb/list.m3u", "0/0.mp3\n29/2999.mp3\na/0.mp3\n");
    const QStringList args = {"--device-id", "cut", "--no-progress", mp()};
    TempDir before, clean, db;
    auto dbFile = [](const std::string& dir) {
        DatabaseMgr::instance().setDatabaseDirectory(dir);
        return DatabaseMgr::instance().getDbNameFromDevId("cut");
    };
    // Runs to the end into `dir`; returns how long it took (ms).
    auto complete = [&](const std::string& dir) {
        QElapsedTimer t;
        t.start();
        EXPECT_EQ(0, run(QStringList{"--db-dir", dir.c_str()} + args).exitCode);
        return int(t.elapsed());
    };
    std::random_device seed;
    std::mt19937 random(seed());
    int cuts = 0;
    for (bool touched : {false, true}) {
        if (touched) {
            for (size_t i = 0; i < songs.size(); i += 10)
                olvane::test::setMtime(songs[i], 1000000000);
            std::filesystem::copy_file(dbFile(before.path()), dbFile(clean.path()));
            std::filesystem::copy_file(dbFile(before.path()), dbFile(db.path()),
                                       std::filesystem::copy_options::overwrite_existing);
        }
        const int duration = complete(touched ? clean.path() : before.path());
        dbFile(touched ? clean.path() : before.path());
        const auto want = olvane::test::indexDump("cut");
        for (int trial = 0; trial < 10; ++trial) {
            // Ten cuts in about one indexing's time: most land mid-way.
            const int killAt = std::uniform_int_distribution<int>(0, duration / 4)(random);
            SCOPED_TRACE((touched ? "re-index cut at " : "first index cut at ") +
                         std::to_string(killAt) + " ms");
            QProcess p;
            p.start(OLVANE_INDEXER, QStringList{"--db-dir", db.path().c_str()} + args);
            QElapsedTimer clock;
            clock.start();
            olvane::test::waitFor(
                [&] { return clock.elapsed() >= killAt || p.state() == QProcess::NotRunning; });
            cuts += p.state() == QProcess::Running;
            p.kill();  // SIGKILL
            p.waitForFinished();
            if (std::filesystem::exists(dbFile(db.path()))) {
                EXPECT_EQ(std::vector<std::string>{"ok"},
                          olvane::test::dbColumn("cut", "PRAGMA integrity_check;"));
            }
        }
        complete(db.path());
        EXPECT_EQ("", olvane::test::dumpDifference(want, olvane::test::indexDump("cut")));
        EXPECT_EQ("OK", DatabaseMgr::instance().getStatus("cut", root));
    }
    EXPECT_GE(cuts, 10) << "most runs should have been cut while running";
}
