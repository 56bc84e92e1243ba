// Indexes a simulated phone from end to end through the facade's slots, with
// the scheduler, the MTP pipeline and all its stages.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "facade/KestrowQTProxy.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Sql.h"
#include "tests/support/Wait.h"

using portolan::SimulatedDevice;
using Strings = std::vector<std::string>;

namespace {

const t_handle kHandle = 12;
const QString kMountPoint = "mtp-folder://phone1";

class MtpEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        scheduler.launch();
        scheduler.start();
        KestrowQTProxy::instance().setScheduler(&scheduler);
        folder = olvane::test::makePhoneTree(dir);
    }
    void TearDown() override {
        scheduler.stop();
        scheduler.join();
        KestrowQTProxy::instance().setScheduler(nullptr);
    }
    // One request for the phone, plugged in with `faults`, announced ready as
    // the head unit does; returns the signals it produced.
    QStringList index(const SimulatedDevice::Faults& faults = {},
                      portolan::DeviceTable::UnplugHook hook = nullptr) {
        olvane::test::PluggedPhone phone(kHandle, "phone1", folder, faults, hook);
        olvane::test::SignalLog sigs;
        cap.clear();
        KestrowQTProxy& proxy = KestrowQTProxy::instance();
        proxy.startMtpIndexing("phone1", kHandle, true);
        EXPECT_TRUE(olvane::test::waitFor([&] { return cap.count("setDeviceConnected DONE"); }));
        proxy.setDeviceReady(kHandle);
        EXPECT_TRUE(olvane::test::waitFor([&] {
            return sigs.entries.contains("indexingFinished " + kMountPoint) &&
                   scheduler.registeredCount() == 0;
        }));
        return sigs.entries;
    }
    Strings column(const std::string& sql) { return olvane::test::dbColumn("phone1", sql); }
    std::string status() {
        return DatabaseMgr::instance().getStatus("phone1", kMountPoint.toStdString());
    }
    std::vector<Strings> tables() {
        return {column("SELECT ID || PATH || OBJECTID || TITLE || ALBUMID FROM SONGS ORDER BY 1;"),
                column("SELECT PLAYID || TRACKID FROM PLAYLISTS ORDER BY 1;"),
                column("SELECT PATH || OBJECTID || PARENT_ID FROM DIRECTORIES ORDER BY 1;"),
                column("SELECT ARTISTID || ARTIST FROM ARTISTS ORDER BY 1;")};
    }

    olvane::test::TempDir dbDir, dir;
    std::string folder;
    olvane::LogCapture cap;
    kestrow::Kestrow scheduler;
};

TEST_F(MtpEndToEndTest, IndexesAPhoneThenLeavesItsSongsAlone) {
    const QStringList first = index();
    EXPECT_EQ(1, first.count("crawlingFinished " + kMountPoint));
    EXPECT_TRUE(first.contains("contentModified " + kMountPoint));
    EXPECT_EQ("OK", status());
    // No Ogg, no hidden file, nothing of the top-level DCIM.
    EXPECT_EQ(Strings({"Phone/Music/Gears/copper.mp3|Copper Sky|Rock",
                       "Phone/Music/Gears/iron.mp3|Iron Road|Rock",
                       "Phone/Music/Jazz/blue.m4a|Blue Hour|Jazz"}),
              column("SELECT s.PATH || '|' || s.TITLE || '|' || g.GENRE FROM SONGS s "
                     "JOIN GENRES g USING (GENREID) ORDER BY 1;"));
    EXPECT_EQ(Strings({"Phone", "Phone/Music", "Phone/Music/Gears", "Phone/Music/Jazz"}),
              column("SELECT PATH FROM DIRECTORIES ORDER BY 1;"));
    // Entries name their songs by OBJECTID; those of songs not indexed are gone.
    EXPECT_EQ(Strings({"Best|copper.mp3", "Road|blue.m4a", "Road|iron.mp3"}),
              column("SELECT DISTINCT p.PLAYNAME || '|' || s.NAME FROM PLAYLISTS p "
                     "LEFT JOIN SONGS s ON p.TRACKID = s.OBJECTID ORDER BY 1;"));

    // Again, the phone unchanged: no song row is written or deleted.
    const std::vector<Strings> before = tables();
    EXPECT_EQ("databaseExists phone1 " + kMountPoint, index().first());
    EXPECT_EQ(1, cap.countContaining("ChangeFinder-MtpSong: db Objects To be Deleted count: 0 "));
    EXPECT_EQ(before, tables());
    EXPECT_EQ("OK", status());
}

// Unplugged in the middle of the folder listing (also when announced ready
// just after the unplug), or with a catalogue that cannot be loaded: the
// three chains get blocks marked deviceGone, and the last complete index stays.
TEST_F(MtpEndToEndTest, APhoneThatGoesAwayKeepsItsRows) {
    index();
    const std::vector<Strings> complete = tables();
    ASSERT_EQ(3u, complete[0].size());
    SimulatedDevice::Faults unplugged, noCatalogue;
    unplugged.unplugAfter = 6;
    noCatalogue.busyFirst[SimulatedDevice::GET_NUM_ELEMENTS] = 1;
    const portolan::DeviceTable::UnplugHook lateAnnouncement = [](t_handle h) {
        kestrow::MtpDevice::instance().disconnectDevice(h);
        kestrow::MtpDevice::instance().setDeviceReady(h);
    };
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        index(i == 2 ? noCatalogue : unplugged, i == 1 ? lateAnnouncement : nullptr);
        EXPECT_EQ(2, cap.countContaining("device gone, nothing compared"));
        EXPECT_EQ(1, cap.countContaining("device gone, folders not saved"));
        EXPECT_EQ(i == 2 ? 1 : 0, cap.count("loadData Failed"));
        EXPECT_EQ("PROGRESS", status());
        EXPECT_EQ(complete, tables());
    }
}

TEST_F(MtpEndToEndTest, APhoneWithPlaylistsAndNoTracks) {
    dir.write("lists/A.m3u", "none.mp3\n");
    dir.write("lists/B.m3u", "");
    folder = dir.file("lists");
    index();
    EXPECT_EQ(1, cap.count("MtpMiner for: 0 (op: 1) MP: mtp-folder://phone1"));
    EXPECT_EQ(1, cap.count("MtpPlaylistMiner for: 2 (op: 1) MP: mtp-folder://phone1 "));
    EXPECT_EQ(1, cap.count("MtpDirectorySaver for: 0"));
    EXPECT_EQ("OK", status());
}

}  // namespace
