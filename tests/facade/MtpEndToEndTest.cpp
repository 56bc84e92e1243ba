// Indexes a simulated phone from end to end through the facade's slots, with
// the scheduler, the MTP pipeline and all its stages.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "facade/KestrowQTProxy.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "tests/support/SignalLog.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Sql.h"

using olvane::test::dbColumn;
using Strings = std::vector<std::string>;

namespace {

const t_handle kHandle = 12;

class MtpEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        scheduler.launch();
        scheduler.start();
        KestrowQTProxy::instance().setScheduler(&scheduler);
    }
    void TearDown() override {
        scheduler.stop();
        scheduler.join();
        KestrowQTProxy::instance().setScheduler(nullptr);
    }
    // One request through the facade, announced ready as the head unit does;
    // returns the signals it produced.
    QStringList index() {
        olvane::test::SignalLog sigs;
        KestrowQTProxy& proxy = KestrowQTProxy::instance();
        const int connected = cap.count("setDeviceConnected DONE");
        proxy.startMtpIndexing("phone1", kHandle, true);
        EXPECT_TRUE(olvane::test::waitFor(
            [&] { return cap.count("setDeviceConnected DONE") > connected; }));
        proxy.setDeviceReady(kHandle);
        EXPECT_TRUE(olvane::test::waitFor([&] {
            return sigs.entries.contains("indexingFinished " + kMountPoint) &&
                   scheduler.registeredCount() == 0;
        }));
        return sigs.entries;
    }
    Strings column(const std::string& sql) { return dbColumn("phone1", sql); }

    const QString kMountPoint = "mtp-folder://phone1";
    olvane::test::TempDir dbDir, dir;
    olvane::LogCapture cap;
    kestrow::Kestrow scheduler;
};

TEST_F(MtpEndToEndTest, IndexesAPhoneThenLeavesItsSongsAlone) {
    olvane::test::PluggedPhone phone(kHandle, "phone1", olvane::test::makePhoneTree(dir));
    const QStringList first = index();
    EXPECT_EQ(1, first.count("crawlingFinished " + kMountPoint));
    EXPECT_TRUE(first.contains("contentModified " + kMountPoint));
    EXPECT_EQ("OK", DatabaseMgr::instance().getStatus("phone1", kMountPoint.toStdString()));

    // No Ogg, no hidden file, nothing of the top-level DCIM.
    EXPECT_EQ(Strings({"Phone/Music/Gears/copper.mp3|Copper Sky|Rock",
                       "Phone/Music/Gears/iron.mp3|Iron Road|Rock",
                       "Phone/Music/Jazz/blue.m4a|Blue Hour|Jazz"}),
              column("SELECT s.PATH || '|' || s.TITLE || '|' || g.GENRE FROM SONGS s "
                     "JOIN GENRES g USING (GENREID) ORDER BY 1;"));
    EXPECT_EQ(Strings({"Phone", "Phone/Music", "Phone/Music/Gears", "Phone/Music/Jazz"}),
              column("SELECT PATH FROM DIRECTORIES ORDER BY 1;"));
    EXPECT_EQ(Strings({"0"}), column("SELECT COUNT(*) FROM SONGS WHERE DIRECTORYID NOT IN "
                                     "(SELECT OBJECTID FROM DIRECTORIES);"));
    // Each entry names its song by the song's OBJECTID; entries of songs not
    // indexed are gone.
    EXPECT_EQ(Strings({"Best|copper.mp3", "Road|blue.m4a", "Road|iron.mp3"}),
              column("SELECT DISTINCT p.PLAYNAME || '|' || s.NAME FROM PLAYLISTS p "
                     "LEFT JOIN SONGS s ON p.TRACKID = s.OBJECTID ORDER BY 1;"));

    // Again, the phone unchanged: no song row is written or deleted.
    const Strings songs = column("SELECT ID || PATH || OBJECTID FROM SONGS ORDER BY 1;");
    cap.clear();
    const QStringList second = index();
    EXPECT_EQ("databaseExists phone1 " + kMountPoint, second.first());
    EXPECT_EQ(1, cap.countContaining("ChangeFinder-MtpSong: db Objects To be Deleted count: 0 "));
    EXPECT_EQ(songs, column("SELECT ID || PATH || OBJECTID FROM SONGS ORDER BY 1;"));
    EXPECT_EQ(3u, column("SELECT DISTINCT PLAYNAME, TRACKID FROM PLAYLISTS;").size());
    EXPECT_EQ("OK", DatabaseMgr::instance().getStatus("phone1", kMountPoint.toStdString()));
}

}  // namespace
