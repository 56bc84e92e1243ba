// Indexes real trees through the scheduler and the mass-storage pipeline.
#include "orchestration/MSDPipeline.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QProcess>

#include "orchestration/Kestrow.h"
#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using olvane::test::dbColumn;
using Strings = std::vector<std::string>;

namespace {

class MSDPipelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.file("db"));
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
    // Each name is a prefix, or a LIKE pattern, of the next one's.
    const Strings names = {"usb1", "usb10", "a_b", "aXb", "100%", "100x"};
    for (size_t i = 0; i < names.size(); ++i)
        index(makePartition("x/" + names[i]), i == 0);
    const Strings rows = paths();
    ASSERT_EQ(6u * 3 + 5, rows.size());  // two folders and a song each, five playlists

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
