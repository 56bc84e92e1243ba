#include "mtp/MtpMiner.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/common/DatabaseMgr.h"
#include "tests/support/SimulatedPhone.h"

using kestrow::Block;
using kestrow::FileInfo;

namespace {

const t_handle kHandle = 81;

class MtpMinerTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        olvane::test::makePhoneTree(dir);
    }
    // The tracks of Phone/Music/Gears and Phone/Music/Jazz/blue.m4a, known to
    // the library after one listing call.
    boost::shared_ptr<Block<MetaDataInfo*>> mine(const olvane::test::PluggedPhone& phone) {
        const auto& device = phone.device;
        const t_mtp_container gears = {2, int32_t(device->objectId("Phone/Music/Gears")),
                                       int32_t(device->objectId("Phone"))};
        t_mtp_item_list list;
        EXPECT_EQ(STATUS_OK, Access_GetItems(kHandle, gears, 8, 0, 10, list));
        for (unsigned i = 0; i < list.count; ++i)
            free(list.items[i].name);
        free(list.items);

        boost::shared_ptr<Block<FileInfo*>> in(new Block<FileInfo*>());
        in->operation = kestrow::Operation(5, kHandle, "phone", "mtp-folder://phone", true);
        for (const char* path : {"Phone/Music/Gears/copper.mp3", "Phone/Music/Gears/iron.mp3",
                                 "Phone/Music/Jazz/blue.m4a"})
            in->items.push_back(new FileInfo(path, device->objectId(path), 0));
        kestrow::MtpDevice::instance().setDeviceConnected(kHandle);
        kestrow::MtpMiner miner("MtpMiner");
        return miner.doOperation(in);
    }
    static std::string titles(const Block<MetaDataInfo*>& block) {
        std::string out;
        for (const MetaDataInfo* song : block.items)
            out += (song ? song->title : "null") + "|";
        return out;
    }

    olvane::test::TempDir dbDir, dir;
    olvane::LogCapture cap;
};

TEST_F(MtpMinerTest, ADeviceGoneMidBlockLeavesTheRestOfTheSlotsEmpty) {
    portolan::SimulatedDevice::Faults faults;
    faults.unplugAfter = 1 + 6 + 2;  // the listing, one track's six calls, two more
    olvane::test::PluggedPhone phone(kHandle, "phone", dir.file("phone"), faults);
    auto out = mine(phone);
    EXPECT_EQ("Copper Sky|null|null|", titles(*out));
    EXPECT_TRUE(out->operation.deviceGone);
    EXPECT_EQ(1, cap.count("Indexing of track stopped or device removed"));
}

TEST_F(MtpMinerTest, AFullDatabaseGetsNoSongsButTheOperationGoesOn) {
    DatabaseMgr::instance().createDb("phone", "mtp-folder://phone", true);
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("phone").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    olvane::test::PluggedPhone phone(kHandle, "phone", dir.file("phone"));
    auto out = mine(phone);
    EXPECT_EQ("null|null|null|", titles(*out));
    EXPECT_EQ(5, out->operation.id);
    EXPECT_TRUE(out->operation.lastBlock);
    EXPECT_EQ(1, cap.count("MtpMiner SKIPPED db size limit reached (op: 5)"));
}

}  // namespace
