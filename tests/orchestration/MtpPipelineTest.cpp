// The MTP pipeline's stages, and what it keeps of a phone that goes away.
#include "orchestration/MtpPipeline.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <string>
#include <vector>

#include "mtp/MtpCrawler.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "tests/support/SignalLog.h"
#include "tests/support/SimulatedPhone.h"

using Strings = std::vector<std::string>;
using portolan::SimulatedDevice;

namespace {

const t_handle kHandle = 91;

TEST(MtpPipelineStagesTest, NineStagesInRegistrationOrder) {
    olvane::LogCapture cap;
    kestrow::MtpPipeline pipeline(nullptr);
    EXPECT_NE(nullptr, dynamic_cast<kestrow::MtpCrawler*>(pipeline.crawler()));
    pipeline.stop();  // each stage logs its name, in the order of the stage list
    Strings stopped;
    for (const olvane::LogLine& line : cap.lines())
        if (line.message.find(" stop ") != std::string::npos)
            stopped.push_back(line.message.substr(0, line.message.find(" stop ")));
    EXPECT_EQ(Strings({"ChangeFinder-MtpSong", "Normalizer", "MtpMiner", "SongSaver",
                       "ChangeFinder-MtpPlaylist", "MtpPlaylistMiner", "PlaylistSaver",
                       "MtpCrawler", "MtpDirectorySaver", "MtpPipeline"}),
              stopped);
}

// Everything a query returns, one "a|b|c" text per row.
Strings rows(const std::string& sql) {
    Strings out;
    sqlite3* db = nullptr;
    sqlite3_open(DatabaseMgr::instance().getDbNameFromDevId("phone").c_str(), &db);
    auto add = [](void* o, int n, char** v, char**) {
        std::string row;
        for (int i = 0; i < n; ++i)
            row += std::string(i ? "|" : "") + (v[i] ? v[i] : "NULL");
        static_cast<Strings*>(o)->push_back(row);
        return 0;
    };
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), add, &out, nullptr)) << sql;
    sqlite3_close(db);
    return out;
}

class MtpPipelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        olvane::test::makePhoneTree(dir);
        scheduler.launch();
        scheduler.start();
    }
    void TearDown() override {
        scheduler.stop();
        scheduler.join();
    }
    // Indexes the phone, plugged in with `faults`, to the end.
    void index(const SimulatedDevice::Faults& faults = {}) {
        olvane::test::PluggedPhone phone(kHandle, "phone", dir.file("phone"), faults);
        olvane::test::SignalLog sigs;
        cap.clear();
        scheduler.enqueueNewOperation(kestrow::MTP_OPERATION, "phone", kHandle,
                                      "mtp-folder://phone", true);
        EXPECT_TRUE(olvane::test::announceWhenConnected(cap, kHandle));
        EXPECT_TRUE(olvane::test::waitFor([&] {
            return sigs.entries.contains("indexingFinished mtp-folder://phone") &&
                   scheduler.registeredCount() == 0;
        }));
    }
    std::map<std::string, Strings> tables() {
        std::map<std::string, Strings> t;
        for (const char* name :
             {"SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS", "PLAYLISTS", "DIRECTORIES"})
            t[name] = rows(std::string("SELECT * FROM ") + name + " ORDER BY 1, 2, 3;");
        return t;
    }

    olvane::test::TempDir dbDir, dir;
    olvane::LogCapture cap;
    kestrow::Kestrow scheduler;
};

// A phone unplugged in the middle of its folder listing, or whose catalogue
// cannot be loaded, keeps every row of its last complete index.
TEST_F(MtpPipelineTest, APhoneThatGoesAwayKeepsItsRows) {
    index();
    const auto complete = tables();
    ASSERT_EQ(3u, complete.at("SONGS").size());
    ASSERT_EQ("OK", DatabaseMgr::instance().getStatus("phone", "mtp-folder://phone"));

    SimulatedDevice::Faults unplugged, noCatalogue;
    unplugged.unplugAfter = 6;
    noCatalogue.busyFirst[SimulatedDevice::GET_NUM_ELEMENTS] = 1;
    for (const SimulatedDevice::Faults& faults : {unplugged, noCatalogue}) {
        index(faults);
        EXPECT_EQ(2, cap.countContaining("device gone, nothing compared"));
        EXPECT_EQ(1, cap.countContaining("device gone, folders not saved"));
        EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("phone", "mtp-folder://phone"));
        EXPECT_TRUE(complete == tables());
    }
}

}  // namespace
