// Runs the olvane-indexer program as a person would and reads what it prints.
#include <signal.h>

#include <QtCore>

#include "tests/support/AsUser.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Testing.h"

using namespace olvane::test;

class OlvaneIndexerTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(db.toStdString()); }
    // The lines `program ARGS` prints, its standard error left in `err`. It
    // must end with exit status `code` and say `says` on standard error; a run
    // that succeeds says nothing there unless given --log, one that fails
    // prints no indexingFinished. olvane-indexer gets --db-dir=<db> first
    // (after `show`).
    QStringList run(QStringList args, int code = 0, const QString& says = "",
                    const QString& program = OLVANE_INDEXER) {
        if (program == OLVANE_INDEXER)
            args.insert(args.value(0) == "show", "--db-dir=" + db);
        QProcess p;
        p.start(program, args);
        const bool ended = p.waitForFinished(180000) && p.exitStatus() == QProcess::NormalExit;
        const QStringList out =
            QString::fromUtf8(p.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        err = QString::fromUtf8(p.readAllStandardError());
        EXPECT_TRUE((ended ? p.exitCode() : -1) == code && err.contains(says) &&
                    (code ? out.filter("indexingFinished").isEmpty()
                          : err.isEmpty() || args.contains("--log")))
            << args.join(' ').toStdString() << ": " << err.toStdString();
        return out;
    }

    TempDir tree;
    const std::string root = tree.mkdir("usb");
    const QString mp = QString::fromStdString(root), db = QString::fromStdString(tree.file("db"));
    QString err;
};

// Mount points labelled in any script, given in an order that is not the
// library's own (byte-wise) order, of a device whose id is not ASCII either,
// each with a title in a Baltic code page (read right only with the market's
// --codepages); a phone's playlist names a song by its file URI. The first
// run prints the signals as JSON, the second, with nothing changed, plain.
TEST_F(OlvaneIndexerTest, PrintsTheSignalsPlainAndAsJsonForNamesInAnyScript) {
    QStringList mps, again;
    for (const std::string name : {"音楽 USB", "Музыка", "Música"}) {
        QFile song(QString::fromStdString(tree.copySample("cp1251-id3v1.mp3", name + "/a.mp3")));
        ASSERT_TRUE(song.open(QIODevice::ReadWrite) && song.seek(song.size() - 125));
        song.write(QByteArray("Zieme\xefmeita").leftJustified(124, '\0') + '\xff');  // ID3v1
        mps << QString::fromStdString(tree.file(name));
        again << "databaseExists флешка " + mps.last() << "crawlingFinished " + mps.last()
              << "indexingFinished " + mps.last();
    }
    tree.write("Музыка/phone.m3u8", QUrl::fromLocalFile(mps[1] + "/a.mp3").toEncoded().data());
    QStringList first;  // the JSON objects as plain lines
    int lastMs = 0;
    for (const QString& json :
         run(QStringList{"--device-id=флешка", "--codepages=WINDOWS-1257", "--json"} + mps)) {
        const QJsonObject o = QJsonDocument::fromJson(json.toUtf8()).object();
        EXPECT_TRUE(o.size() == 3 && o["ms"].toInt(-1) >= std::exchange(lastMs, o["ms"].toInt()));
        first << o["signal"].toString();
        for (const QJsonValue& arg : o["args"].toArray())
            first.last() += " " + arg.toString();
    }
    // The playlist branch may report a change before the crawl has finished.
    const QRegularExpression finished("^(crawling|indexing)Finished ");
    EXPECT_EQ(first.filter(finished), again.filter(finished));
    EXPECT_TRUE(first.endsWith(again.last()));
    for (const QString& mp : mps)
        EXPECT_TRUE(first.contains("contentModified " + mp)) << mp.toStdString();
    EXPECT_EQ(run(QStringList{"--device-id", "флешка"} + mps), again);
    EXPECT_EQ(dbColumn("флешка",
                       "SELECT TITLE FROM SONGS UNION ALL SELECT COUNT(DISTINCT TRACKPATH) FROM "
                       "PLAYLISTS WHERE TRACKPATH IN (SELECT PATH FROM SONGS);"),
              Strings({"Ziemeļmeita", "Ziemeļmeita", "Ziemeļmeita", "1"}));
}

// A simulated phone, listed two objects at a time with an empty answer in
// the middle of a folder, announced ready late; then again, unchanged, which
// changes nothing. With no --device-id, the id is the folder's name and 8 hex
// digits of a digest.
TEST_F(OlvaneIndexerTest, IndexesASimulatedPhone) {
    const QStringList args = {
        "--mtp-sim",    makePhoneTree(tree).c_str(), "--handle", "3", "--ready-after", "300",
        "--sim-faults", "page=2,empty=Phone/Music:1"};
    const QStringList first = run(args);
    const QString done = first.value(first.size() - 1), phone = done.section(' ', 1);
    EXPECT_TRUE(
        done.contains(QRegularExpression("^indexingFinished mtp-folder://phone-[0-9a-f]{8}$")));
    const QString id = phone.mid(13);
    EXPECT_EQ(run(args), QStringList({"databaseExists " + id + " " + phone,
                                      "crawlingFinished " + phone, done}));
    EXPECT_EQ(dbColumn(id.toStdString(), "SELECT ID || ' ' || NAME FROM SONGS ORDER BY 1;"),
              Strings({"1 copper.mp3", "2 iron.mp3", "3 blue.m4a"}));
}

// Usage errors, and names that cannot reach the library unchanged, exit 2; a
// request that is refused or fails exits 1 with its cause on one line (not
// the clean-up that follows it).
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
        EXPECT_TRUE(
            run(args, code, says, args.value(0) == "-c" ? "/bin/sh" : OLVANE_INDEXER).isEmpty() &&
            err.startsWith("olvane-indexer: ") && (code != 1 || err.count('\n') == 1))
            << args.join(' ').toStdString() << ": " << err.toStdString();
    }
    EXPECT_FALSE(QFile::exists(db)) << "nothing was requested";
}

// Stops of every kind, on a first index of 3000 songs and on a re-index
// with a tenth of them touched; each run goes on from where the last stopped.
// In the first, Ctrl-C at the first change, then (as root, on a tmpfs) the
// disk fills up, while other processes still read every song it held; in
// the re-index, the disk turns read-only, then holds a database file the
// indexer may not write. Each ends with its exit status and reason, never as
// done, and keeps the database. Then power cuts (SIGKILL) at ten random
// moments. After each stop the database passes SQLite's integrity check; the
// run that completes at last leaves the tables of an index that nothing
// stopped, which device "clean" holds.
TEST_F(OlvaneIndexerTest, AnyStopLeavesADatabaseThatTheNextRunCompletes) {
    auto song = [](int i) { return QString("usb/%1/%2.mp3").arg(i / 100).arg(i).toStdString(); };
    for (int i = 0; i < 3000; ++i)
        tree.copySample("gears-copper-sky.mp3", song(i));
    tree.copySample("ferro-blue-hour.m4a", "usb/b/blue.m4a");
    tree.write("usb/list.m3u", "0/0.mp3\n29/2999.mp3\nb/blue.m4a\n");
    const std::string dir = tree.mkdir("db"), id = "cut";
    const bool tmpfs = ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64m,mode=0777") == 0;
    std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(dir.c_str(), MNT_DETACH); });
    const QString file = QString::fromStdString(DatabaseMgr::instance().getDbNameFromDevId(id));
    const QStringList args = {"--device-id", "cut", "--no-progress", mp},
                      indexer = QStringList{OLVANE_INDEXER, "--db-dir", db} + args,
                      countSongs = {"-readonly", file, "SELECT count(*) FROM SONGS"};
    for (bool touched : {false, true}) {
        for (int i = 0; touched && i < 3000; i += 10)
            setMtime(tree.file(song(i)), 1000000000);
        QElapsedTimer clock;
        clock.start();
        run({"--device-id", "clean", "--log", "info", "--no-progress", mp}, 0,
            "INFO SongSaver::doOperation: SongSaver for: ");
        const int duration = int(clock.elapsed());
        EXPECT_FALSE(err.contains("DEBUG "));
        const Strings want = indexDump("clean");
        if (tmpfs && touched) {
            const Strings before = indexDump(id);
            ASSERT_EQ(0, ::mount("tmpfs", dir.c_str(), "tmpfs", MS_REMOUNT, "ro"));
            run(args, 1, "Read-only file system");
            ASSERT_EQ(0, ::mount("tmpfs", dir.c_str(), "tmpfs", MS_REMOUNT, "rw"));
            ASSERT_EQ("", cannotRunUnprivilegedIn(tree.path()));
            ASSERT_EQ(0, ::chmod(file.toStdString().c_str(), 0644));
            const QStringList other = asUnprivileged(indexer);
            run(other.mid(1), 1, "Permission denied", other[0]);
            EXPECT_EQ("", dumpDifference(before, indexDump(id)));
        }
        for (int trial = touched; trial <= 10; ++trial) {  // trial 0: Ctrl-C
            // Ten cuts in about one indexing's time: most land mid-way.
            const int killAt = QRandomGenerator::global()->bounded(duration / 4 + 1);
            QProcess p;
            p.start(OLVANE_INDEXER, indexer.mid(1));
            if (trial) {
                p.waitForFinished(killAt);  // the cut, unless the run ends first
            } else {
                QByteArray out;
                auto changed = [&] {
                    p.waitForReadyRead(10);
                    return (out += p.readAllStandardOutput()).contains("contentModified") ||
                           p.state() == QProcess::NotRunning;
                };
                ASSERT_TRUE(waitFor(changed, 60000) && p.state() == QProcess::Running)
                    << "indexing ended before the interrupt";
                ::kill(pid_t(p.processId()), SIGINT);
                EXPECT_TRUE(p.waitForFinished(60000) && p.exitCode() == 130 &&
                            !(out + p.readAllStandardOutput()).contains("indexingFinished"));
                EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus(id, root));
            }
            p.kill();
            p.waitForFinished();
            EXPECT_EQ(Strings{"ok"}, dbColumn(id, "PRAGMA integrity_check;"))
                << "pass " << touched << ", stop " << trial << " at " << killAt << " ms";
            if (trial == 0 && tmpfs) {
                const int held = run(countSongs, 0, "", "sqlite3").value(0).toInt();
                const QStorageInfo disk(db);
                const auto size = disk.bytesTotal() - disk.bytesFree() + 65536;  // 64 KiB more
                ASSERT_EQ(0, ::mount("tmpfs", dir.c_str(), "tmpfs", MS_REMOUNT,
                                     ("size=" + std::to_string(size)).c_str()));
                run(args, 1, "database or disk is full");
                EXPECT_GE(run(countSongs, 0, "", "sqlite3").value(0).toInt(),
                          held);  // it may add some
                EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus(id, root));
                ASSERT_EQ(0, ::mount("tmpfs", dir.c_str(), "tmpfs", MS_REMOUNT, "size=64m"));
            }
        }
        run(args);
        EXPECT_EQ("", dumpDifference(want, indexDump(id)));
        EXPECT_EQ(run({"show", "cut"}).mid(2) + run({"show", "--json", "cut"}),
                  QStringList({"songs 3001", "artists 2", "albums 2", "genres 2", "composers 2",
                               "playlists 1", "directories 32", "status " + mp + " OK",
                               QString(R"({"albums":2,"artists":2,"composers":2,"database":"%1",)"
                                       R"("deviceId":"cut","directories":32,"genres":2,)"
                                       R"("playlists":1,"songs":3001,"status":{"%2":"OK"}})")
                                   .arg(file, mp)}));
    }
    if (!tmpfs)
        GTEST_SKIP() << "a full and a read-only disk need a tmpfs, which needs root";
}
