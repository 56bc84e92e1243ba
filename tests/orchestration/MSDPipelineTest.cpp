// Indexes real trees through the scheduler and the mass-storage pipeline.
#include "orchestration/MSDPipeline.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QProcess>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>

#include "msd/MSDCrawler.h"
#include "msd/MSDMiner.h"

#include "orchestration/Kestrow.h"
#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using olvane::test::dbColumn;
using olvane::test::dumpDifference;
using Strings = std::vector<std::string>;

namespace {

class MSDPipelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.file("db"));
        scheduler.setPipelineFactory([this](kestrow::OperationType, kestrow::Kestrow* owner) {
            auto* pipeline = new kestrow::MSDPipeline(owner);
            if (onDirectory)
                static_cast<kestrow::MSDCrawler*>(pipeline->crawler())
                    ->setDirectoryHook(onDirectory);
            for (kestrow::Runnable* stage : pipeline->children)
                if (auto* miner = dynamic_cast<kestrow::MSDMiner*>(stage); miner && onFile)
                    miner->setFileHook(onFile);
            return pipeline;
        });
        scheduler.launch();
        scheduler.start();
    }
    void TearDown() override {
        scheduler.stop();
        scheduler.join();
    }

    // Indexes one partition of device "dev" to the end; returns its signals.
    QStringList index(const std::string& mountPoint, bool isFirstPartition) {
        olvane::test::SignalLog sigs;
        scheduler.enqueueNewOperation(kestrow::MSD_OPERATION, "dev", 0, mountPoint,
                                      isFirstPartition);
        EXPECT_TRUE(olvane::test::waitFor(
            [&] {
                return sigs.entries.filter("indexingFinished ").size() == 1 &&
                       scheduler.registeredCount() == 0;
            },
            60000));
        return sigs.entries;
    }
    // A folder with a song and a playlist naming it. The playlist miner reads
    // a playlist's path as a URI: below a '%' it would find no entry.
    std::string makePartition(const std::string& relative) {
        tmp.copySample("gears-iron-road.mp3", relative + "/f/s.mp3");
        if (relative.find('%') == std::string::npos)
            tmp.write(relative + "/l.m3u", "f/s.mp3\n");
        return tmp.file(relative);
    }
    Strings column(const std::string& sql) { return dbColumn("dev", sql); }
    Strings paths() {  // of songs, folders and playlists
        return column(
            "SELECT PATH FROM SONGS UNION SELECT PATH FROM DIRECTORIES UNION "
            "SELECT PLAYPATH FROM PLAYLISTS ORDER BY 1");
    }

    olvane::test::TempDir tmp;
    // Given to the pipelines made from then on, run on their stage threads:
    // before each directory of the walk, before each file the miner reads.
    std::function<void(const std::string&)> onDirectory, onFile;
    kestrow::Kestrow scheduler;
};

}  // namespace

TEST_F(MSDPipelineTest, FailedTransactionsAreLoggedWithTheDatabaseMessage) {
    const std::string usb = makePartition("usb");
    DatabaseMgr::instance().createDb("dev", usb, true);
    // Stale rows for both change finders; every write undoes its transaction,
    // so each stage's "END TRANSACTION;" finds none to end.
    column("INSERT INTO SONGS (PATH) VALUES ('" + usb + "/gone.mp3');" +
           "INSERT INTO PLAYLISTS (PLAYPATH, PLAYID) VALUES ('" + usb + "/gone.m3u', 'p');");
    for (const char* on : {"DELETE ON SONGS", "DELETE ON PLAYLISTS", "INSERT ON SONGS",
                           "INSERT ON PLAYLISTS", "INSERT ON DIRECTORIES"})
        column(std::string("CREATE TRIGGER '") + on + "' BEFORE " + on +
               " BEGIN SELECT RAISE(ROLLBACK, 'no'); END;");
    olvane::LogCapture cap;
    index(usb, true);
    // Both change finders, the directory, song and playlist savers.
    EXPECT_EQ(5, cap.count("exec failed: 1 cannot commit - no transaction is active"));
}

TEST_F(MSDPipelineTest, EachPartitionKeepsItsOwnRows) {
    // Each name is a prefix, or a LIKE pattern, of the next one's; the last
    // would end the SQL text it was pasted into.
    const Strings names = {
        "usb1", "usb10", "a_b", "aXb", "100%", "100x", "it's \"x\"; DROP TABLE SONGS; --"};
    for (size_t i = 0; i < names.size(); ++i)
        index(makePartition("x/" + names[i]), i == 0);
    const Strings rows = paths();
    ASSERT_EQ(7u * 3 + 6, rows.size());  // two folders and a song each, six playlists

    for (const std::string& name : names) {
        EXPECT_TRUE(index(tmp.file("x/" + name), false).filter("contentModified").isEmpty())
            << name;
        EXPECT_EQ(rows, paths()) << name;
    }
}

TEST_F(MSDPipelineTest, AnUnreadableFolderKeepsWhatItHeld) {
    // Root reads a folder of mode 000: as root, the indexing runs as nobody.
    const QStringList asUser = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const bool root = ::geteuid() == 0;
    const std::string usb = makePartition("usb");
    tmp.copySample("gears-old-times.mp3", "usb/locked/deep/t.mp3");
    tmp.write("usb/locked/l.m3u", "deep/t.mp3\n");
    QProcess::execute("chmod", {"-R", "a+rwX", tmp.path().c_str()});
    if (root &&
        QProcess::execute("setpriv", asUser.mid(1) + QStringList{"test", "-w", tmp.path().c_str()}))
        GTEST_SKIP() << "cannot drop to uid 65534 with setpriv, and root reads any folder";

    auto run = [&] {  // the indexer's stderr
        QStringList args = (root ? asUser : QStringList()) +
                           QStringList{OLVANE_INDEXER, "--db-dir", tmp.file("db").c_str(),
                                       "--device-id",  "dev",      "--no-progress",
                                       "--log",        "warning",  usb.c_str()};
        QProcess p;
        p.start(args.takeFirst(), args);
        EXPECT_TRUE(p.waitForFinished(120000));
        return p.readAllStandardError().toStdString();
    };
    run();
    ASSERT_EQ(0, ::chmod(tmp.file("usb/locked").c_str(), 0));
    tmp.copySample("gears-copper-sky.mp3", "usb/new/n.mp3");  // the folders are rewritten
    const std::string log = run();
    ::chmod(tmp.file("usb/locked").c_str(), 0777);

    EXPECT_NE(std::string::npos, log.find("Error opening dir: " + usb + "/locked")) << log;
    EXPECT_EQ(Strings({usb, usb + "/f", usb + "/f/s.mp3", usb + "/l.m3u", usb + "/locked",
                       usb + "/locked/deep", usb + "/locked/deep/t.mp3", usb + "/locked/l.m3u",
                       usb + "/new", usb + "/new/n.mp3"}),
              paths());
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev", usb));
}

// The device goes away before the walk or before the first song is read, in
// each of the ways a stick leaves: removed, renamed away, or unmounted with
// its mount point folder kept (a tmpfs, detached as `umount -l` does). The
// indexing ends "PROGRESS" with nothing deleted, and once the tree is back
// the next indexing gives the tables of a clean index.
TEST_F(MSDPipelineTest, AVanishedDeviceKeepsItsRowsAndComesBackWhole) {
    for (int s = 0; s < 12; ++s)
        tmp.copySample("gears-iron-road.mp3",
                       "tree/d" + std::to_string(s / 4) + "/" + std::to_string(s) + ".mp3");
    tmp.write("tree/list.m3u", "d0/0.mp3\nd1/5.mp3\nd2/10.mp3\n");
    const std::string usb = tmp.file("usb");
    enum Way { REMOVED, RENAMED, UNMOUNTED } way = REMOVED;
    // A fresh copy of the tree at the mount point, on a tmpfs of its own when
    // it is to be unmounted.
    auto place = [&] {
        ::umount2(usb.c_str(), MNT_DETACH);
        std::filesystem::remove_all(usb + ".away");
        std::filesystem::remove_all(usb);
        std::filesystem::create_directory(usb);
        return (way != UNMOUNTED || ::mount("tmpfs", usb.c_str(), "tmpfs", 0, "size=8m") == 0) &&
               QProcess::execute("cp", {"-a", tmp.file("tree/.").c_str(), usb.c_str()}) == 0;
    };
    ASSERT_TRUE(place());
    index(usb, true);
    const Strings clean = olvane::test::indexDump("dev");
    std::atomic<int> countdown{0};  // folders walked or songs read until the device goes
    auto vanish = [&](const std::string&) {
        if (countdown <= 0 || --countdown != 0)
            return;
        if (way == REMOVED)
            std::filesystem::remove_all(usb);
        else if (way == RENAMED)
            std::filesystem::rename(usb, usb + ".away");
        else
            EXPECT_EQ(0, ::umount2(usb.c_str(), MNT_DETACH)) << std::strerror(errno);
    };
    for (Way w : {REMOVED, RENAMED, UNMOUNTED}) {
        for (bool inMiner : {false, true}) {
            way = w;
            SCOPED_TRACE(std::to_string(w) + (inMiner ? " while mining" : " before the walk"));
            if (!place())
                GTEST_SKIP() << "unmounting needs a tmpfs, which needs root: "
                             << std::strerror(errno);
            olvane::test::TempDir db;
            DatabaseMgr::instance().setDatabaseDirectory(db.path());
            if (!inMiner)
                index(usb, true);
            const Strings before = inMiner ? Strings() : olvane::test::indexDump("dev");
            // While mining: after some songs were saved, so that the playlist
            // keeps the entries that name them.
            countdown = inMiner ? 6 : 1;
            (inMiner ? onFile : onDirectory) = vanish;
            index(usb, true);
            onFile = onDirectory = nullptr;
            EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev", usb));
            if (!inMiner) {
                EXPECT_EQ("", dumpDifference(before, olvane::test::indexDump("dev")));
            }
            ASSERT_TRUE(place());
            index(usb, true);
            EXPECT_EQ("", dumpDifference(clean, olvane::test::indexDump("dev")));
            EXPECT_EQ("OK", DatabaseMgr::instance().getStatus("dev", usb));
        }
    }
    ::umount2(usb.c_str(), MNT_DETACH);
}

// A song that cannot be read when the miner comes to it (here: gone, while
// the device stays) gets a row that the next indexing reads again, instead of
// an empty row kept for good; the playlist entry naming it stays meanwhile.
TEST_F(MSDPipelineTest, ASongThatCouldNotBeReadIsReadAgainNextTime) {
    const std::string usb = makePartition("usb");
    const std::string song = usb + "/f/s.mp3";
    const std::string kept = tmp.file("kept.mp3");
    onFile = [&](const std::string& path) {
        if (path == song)
            std::filesystem::rename(song, kept);
    };
    index(usb, true);
    onFile = nullptr;
    std::filesystem::rename(kept, song);
    EXPECT_EQ(Strings{""}, column("SELECT TITLE FROM SONGS"));
    EXPECT_EQ(Strings{song}, column("SELECT DISTINCT TRACKPATH FROM PLAYLISTS"));

    index(usb, false);
    EXPECT_EQ(Strings{"Iron Road"}, column("SELECT TITLE FROM SONGS"));
    EXPECT_EQ(Strings{song}, column("SELECT DISTINCT TRACKPATH FROM PLAYLISTS"));
    EXPECT_EQ("OK", DatabaseMgr::instance().getStatus("dev", usb));
}
