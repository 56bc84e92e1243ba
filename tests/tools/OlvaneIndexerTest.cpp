// Runs the olvane-indexer program as a person would and reads what it prints.
#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>
#include <random>
#include <tuple>

#include "tests/support/AsUser.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Testing.h"

using namespace olvane::test;

namespace {

struct Result {
    int code;
    QStringList lines;  // stdout
    QString err;
};

class OlvaneIndexerTest : public ::testing::Test {
protected:
    void SetUp() override { use(db); }  // the databases the test reads
    // `program ARGS`; olvane-indexer gets --db-dir=<db> first (after `show`).
    Result run(QStringList args, const QString& program = OLVANE_INDEXER) {
        if (program == OLVANE_INDEXER)
            args.insert(args.value(0) == "show", "--db-dir=" + db);
        QProcess p;
        p.start(program, args);
        EXPECT_TRUE(p.waitForFinished(180000)) << args.join(' ').toStdString();
        return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1,
                QString::fromUtf8(p.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts),
                QString::fromUtf8(p.readAllStandardError())};
    }
    void use(const QString& d) { DatabaseMgr::instance().setDatabaseDirectory(d.toStdString()); }

    TempDir tree;
    const std::string root = tree.mkdir("usb");
    const QString mp = QString::fromStdString(root), db = QString::fromStdString(tree.file("db"));
};

// Mount points labelled in any script, given in an order that is not the
// library's own (byte-wise) order, of a device whose id is not ASCII either,
// each with a title in a Baltic code page (read right only with the market's
// --codepages); a phone's playlist names a song by its file URI. The first
// run prints the signals plain, the second, with nothing changed, as JSON.
TEST_F(OlvaneIndexerTest, PrintsTheSignalsPlainAndAsJsonForNamesInAnyScript) {
    QStringList mps, done;
    for (const std::string name : {"音楽 USB", "Музыка", "Música"}) {
        QFile song(QString::fromStdString(tree.copySample("cp1251-id3v1.mp3", name + "/a.mp3")));
        ASSERT_TRUE(song.open(QIODevice::ReadWrite) && song.seek(song.size() - 125));
        song.write(QByteArray("Zieme\xefmeita").leftJustified(124, '\0') + '\xff');  // ID3v1
        mps << QString::fromStdString(tree.file(name));
        done << "crawlingFinished " + mps.last() << "indexingFinished " + mps.last();
    }
    tree.write("Музыка/phone.m3u8", QUrl::fromLocalFile(mps[1] + "/a.mp3").toEncoded().data());
    const QString id = "флешка";
    const Result plain = run(QStringList{"--device-id=" + id, "--codepages", "WINDOWS-1257"} + mps);
    ASSERT_EQ(plain.code, 0) << plain.err.toStdString();
    // The playlist branch may report a change before the crawl has finished.
    EXPECT_EQ(plain.lines.filter(QRegularExpression("^(crawling|indexing)Finished ")), done);
    EXPECT_EQ(plain.lines.last(), done.last());
    for (const QString& mp : mps)
        EXPECT_TRUE(plain.lines.contains("contentModified " + mp)) << mp.toStdString();

    const Result json = run(QStringList{"--device-id", id, "--json"} + mps);
    EXPECT_EQ(json.code, 0);
    ASSERT_EQ(json.lines.size(), 9);
    const QStringList names = {"databaseExists", "crawlingFinished", "indexingFinished"};
    for (int i = 0, lastMs = 0; i < 9; ++i) {
        QJsonObject o = QJsonDocument::fromJson(json.lines[i].toUtf8()).object();
        EXPECT_GE(o["ms"].toInt(-1), lastMs);
        lastMs = o.take("ms").toInt(-1);
        const QJsonArray args = i % 3 ? QJsonArray{mps[i / 3]} : QJsonArray{id, mps[i / 3]};
        EXPECT_EQ(o, (QJsonObject{{"signal", names[i % 3]}, {"args", args}}));
    }
    EXPECT_EQ((plain.err + json.err).toStdString(), "");
    EXPECT_EQ(dbColumn(id.toStdString(),
                       "SELECT TITLE FROM SONGS UNION ALL SELECT COUNT(DISTINCT TRACKPATH) FROM "
                       "PLAYLISTS WHERE TRACKPATH IN (SELECT PATH FROM SONGS);"),
              Strings({"Ziemeļmeita", "Ziemeļmeita", "Ziemeļmeita", "1"}));
}

// A simulated phone, listed two objects at a time with an empty answer in
// the middle of a folder, announced ready late; then again, unchanged. With
// no --device-id, the id is the folder's name and 8 hex digits of a digest.
TEST_F(OlvaneIndexerTest, IndexesASimulatedPhone) {
    const QStringList args =
        QString("--mtp-sim %1 --handle 3 --ready-after 300 --sim-faults page=2,empty=Phone/Music:1")
            .arg(makePhoneTree(tree).c_str())
            .split(' ');
    const Result first = run(args);
    ASSERT_EQ(first.code, 0) << first.err.toStdString();
    const QString phone = first.lines.last().section(' ', 1), id = phone.mid(13);
    EXPECT_TRUE(QRegularExpression("^mtp-folder://phone-[0-9a-f]{8}$").match(phone).hasMatch());
    EXPECT_EQ(first.lines.last(), "indexingFinished " + phone);
    EXPECT_EQ(first.lines.count("crawlingFinished " + phone), 1);
    const std::string sql = "SELECT ID || ' ' || PATH FROM SONGS ORDER BY 1;";
    const Strings songs = dbColumn(id.toStdString(), sql);
    EXPECT_EQ(songs, Strings({"1 Phone/Music/Gears/copper.mp3", "2 Phone/Music/Gears/iron.mp3",
                              "3 Phone/Music/Jazz/blue.m4a"}));
    EXPECT_EQ(run(args).lines.value(0), "databaseExists " + id + " " + phone);
    EXPECT_EQ(songs, dbColumn(id.toStdString(), sql));
}

// Usage errors, and names that cannot reach the library unchanged, exit 2; a
// request that is refused or fails exits 1 with its cause on one line.
TEST_F(OlvaneIndexerTest, RefusesWhatItCannotDoAndSaysWhy) {
    tree.copySample("gears-iron-road.mp3", "bad\xff/a.mp3");
    ASSERT_EQ(::symlink(tree.file("bad\xff").c_str(), tree.file("link").c_str()), 0);
    const QString dir = QString::fromStdString(tree.path());
    tree.write("file", "");
    const QString raw = "exec \"$0\" --db-dir=\"$1\" \"$1/bad$(printf '\\377')\"";
    // Arguments to olvane-indexer (or to /bin/sh after "-c"), exit status, reason.
    const std::tuple<QStringList, int, QString> rows[] = {
        {{dir + "/file"}, 2, "file is not a directory"},
        {{"--bogus", mp}, 2, "Unknown option 'bogus'"},
        {{"--log", "loud", mp}, 2, "unknown log level: loud"},
        {{"--codepages=WINDOWS-1252,KLINGON", mp}, 2, "unknown code page in WINDOWS-1252,KLINGON"},
        {{}, 2, "no mount point given"},
        {{"--handle", "2", mp}, 2, "--handle needs --mtp-sim"},
        {{"--mtp-sim", mp, mp}, 2, "--mtp-sim takes no mount point"},
        {{"--mtp-sim", mp, "--handle", "0"}, 2, "--handle takes a number above 0"},
        {{"--mtp-sim", mp, "--sim-faults", "page=2,busy=nothing:1"}, 2, "\"busy=nothing:1\""},
        {{dir + "/link"}, 2, "not valid UTF-8"},  // resolves to a name that is not
        {{"-c", raw, OLVANE_INDEXER, db}, 2, "not valid UTF-8"},
        {{"show", "nosuchdevice"}, 1, "no database for device nosuchdevice"},
        {{"--db-dir", dir + "/file/db", mp}, 1, mp + ": cannot create " + dir + "/file/db"},
    };
    for (const auto& [args, code, says] : rows) {
        SCOPED_TRACE(args.join(' ').toStdString());
        const Result r = run(args, args.value(0) == "-c" ? "/bin/sh" : OLVANE_INDEXER);
        EXPECT_EQ(r.code, code);
        EXPECT_TRUE(r.err.startsWith("olvane-indexer: ") && r.err.contains(says) &&
                    r.lines.isEmpty())
            << r.err.toStdString();
        // The cause, not the clean-up that follows it.
        EXPECT_TRUE(code != 1 || r.err.count('\n') == 1) << r.err.toStdString();
    }
    EXPECT_FALSE(QFile::exists(db)) << "nothing was requested";
}

// Stops of every kind, on a first index of 3000 songs and on a re-index
// with a tenth of them touched; each run goes on from where the last stopped.
// In the first, Ctrl-C at the first change, then (as root, on a tmpfs) the
// disk fills up; in the re-index, the disk turns read-only, then holds a
// database file the indexer may not write. Each ends with its exit status and
// reason, never as done, and keeps the database. Then power cuts (SIGKILL)
// at ten random moments. After each stop the database passes SQLite's
// integrity check; the run that completes at last leaves the tables of an
// index that nothing stopped.
TEST_F(OlvaneIndexerTest, AnyStopLeavesADatabaseThatTheNextRunCompletes) {
    auto song = [&](int i) {
        return "usb/" + std::to_string(i / 100) + "/" + std::to_string(i) + ".mp3";
    };
    for (int i = 0; i < 3000; ++i)
        tree.copySample("gears-copper-sky.mp3", song(i));
    tree.copySample("ferro-blue-hour.m4a", "usb/b/blue.m4a");
    tree.write("usb/list.m3u", "0/0.mp3\n29/2999.mp3\nb/blue.m4a\n");
    const std::string dir = db.toStdString(), id = "cut";
    ASSERT_EQ(0, ::mkdir(dir.c_str(), 0777));
    const bool tmpfs = ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64m,mode=0777") == 0;
    const std::string noTmpfs = std::strerror(errno);
    std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(dir.c_str(), MNT_DETACH); });
    auto remount = [&](const std::string& options) {
        return ::mount("tmpfs", dir.c_str(), "tmpfs", MS_REMOUNT, options.c_str());
    };
    const QStringList args = {"--device-id", "cut", "--no-progress", mp},
                      indexer = QStringList{OLVANE_INDEXER, "--db-dir", db} + args;
    auto fails = [&](const QStringList& cmd, const char* reason) {
        const Result r = run(cmd.mid(1), cmd[0]);
        EXPECT_TRUE(r.code == 1 && r.err.contains(reason) &&
                    !r.lines.contains("indexingFinished " + mp))
            << r.code << r.err.toStdString();
    };
    TempDir clean;
    std::mt19937 random(std::random_device{}());
    int cuts = 0;
    for (bool touched : {false, true}) {
        for (int i = 0; touched && i < 3000; i += 10)
            setMtime(tree.file(song(i)), 1000000000);
        QElapsedTimer clock;
        clock.start();
        const Result complete =
            run(QStringList{"--db-dir", clean.path().c_str(), "--log", "info"} + args);
        const int duration = int(clock.elapsed());
        EXPECT_EQ(0, complete.code) << complete.err.toStdString();
        EXPECT_TRUE(complete.err.contains("INFO SongSaver::doOperation: SongSaver for: "));
        EXPECT_FALSE(complete.err.contains("DEBUG ")) << "only info and above";
        use(clean.path().c_str());
        const Strings want = indexDump(id);
        use(db);
        if (tmpfs && touched) {
            const Strings before = indexDump(id);
            ASSERT_EQ(0, remount("ro"));
            fails(indexer, "Read-only file system");
            ASSERT_EQ(0, remount("rw"));
            ASSERT_EQ("", cannotRunUnprivilegedIn(tree.path()));
            ASSERT_EQ(0, ::chmod(DatabaseMgr::instance().getDbNameFromDevId(id).c_str(), 0644));
            fails(asUnprivileged(indexer), "Permission denied");
            EXPECT_EQ("", dumpDifference(before, indexDump(id)));
        }
        for (int trial = touched; trial <= 10; ++trial) {  // trial 0: Ctrl-C
            // Ten cuts in about one indexing's time: most land mid-way.
            const int killAt = std::uniform_int_distribution<int>(0, duration / 4)(random);
            SCOPED_TRACE(std::to_string(touched) + " " + std::to_string(trial) + " at " +
                         std::to_string(killAt) + " ms");
            QProcess p;
            p.start(OLVANE_INDEXER, QStringList{"--db-dir", db} + args);
            QByteArray out;
            clock.restart();
            waitFor(
                [&] {
                    p.waitForReadyRead(10);
                    out += p.readAllStandardOutput();
                    return (trial ? clock.elapsed() >= killAt : out.contains("contentModified")) ||
                           p.state() == QProcess::NotRunning;
                },
                60000);
            if (trial == 0) {
                ASSERT_EQ(p.state(), QProcess::Running) << "indexing ended before the interrupt";
                ::kill(pid_t(p.processId()), SIGINT);
                ASSERT_TRUE(p.waitForFinished(60000));
                EXPECT_EQ(p.exitCode(), 130);
                EXPECT_FALSE((out + p.readAllStandardOutput()).contains("indexingFinished"));
                EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus(id, root));
            }
            cuts += p.state() == QProcess::Running;
            p.kill();
            p.waitForFinished();
            EXPECT_EQ(Strings{"ok"}, dbColumn(id, "PRAGMA integrity_check;"));
            struct statvfs fs;
            if (trial == 0 && tmpfs && ::statvfs(dir.c_str(), &fs) == 0) {
                const auto used = (fs.f_blocks - fs.f_bfree) * fs.f_frsize;
                ASSERT_EQ(0, remount("size=" + std::to_string(used + 65536)));  // 64 KiB more
                fails(indexer, "database or disk is full");
                EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus(id, root));
                ASSERT_EQ(0, remount("size=64m"));
            }
        }
        ASSERT_EQ(0, run(args).code);
        EXPECT_EQ("", dumpDifference(want, indexDump(id)));
        EXPECT_EQ(run({"show", "cut"}).lines.mid(2),
                  QStringList({"songs 3001", "artists 2", "albums 2", "genres 2", "composers 2",
                               "playlists 1", "directories 32", "status " + mp + " OK"}));
    }
    EXPECT_GE(cuts, 10) << "most runs should have been cut while running";
    const Result json = run({"show", "--json", "cut"});
    const QJsonObject o = QJsonDocument::fromJson(json.lines.value(0).toUtf8()).object();
    EXPECT_EQ(json.code, 0);
    EXPECT_EQ(o["songs"].toInt(), 3001);
    EXPECT_EQ(o["composers"].toInt(), 2);
    EXPECT_EQ(o["status"].toObject()[mp].toString(), "OK");
    if (!tmpfs) {
        GTEST_SKIP() << "a full and a read-only disk need a tmpfs, which needs root: " << noTmpfs;
    }
}

}  // namespace
