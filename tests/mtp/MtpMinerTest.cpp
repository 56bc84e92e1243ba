#include "mtp/MtpMiner.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "mtp/MtpPlaylistMiner.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/SimulatedPhone.h"

using kestrow::Block;
using kestrow::FileInfo;

namespace {

const t_handle kHandle = 81;

// Mines copper, iron and blue (in a folder not listed) with the device
// attached with `faults`; after one listing call, each song takes six calls.
std::string mine(const portolan::SimulatedDevice::Faults& faults, bool* gone = nullptr) {
    olvane::test::TempDir dir;
    olvane::test::PluggedPhone phone(kHandle, "phone", olvane::test::makePhoneTree(dir), faults);
    const auto& device = phone.device;
    t_mtp_item_list list;
    Access_GetItems(kHandle, {2, int32_t(device->objectId("Phone/Music/Gears")), 1}, 8, 0, 9, list);
    for (unsigned i = 0; i < list.count; ++i)
        free(list.items[i].name);
    free(list.items);

    boost::shared_ptr<Block<FileInfo*>> in(new Block<FileInfo*>());
    in->operation = kestrow::Operation(5, kHandle, "phone", "mtp-folder://phone", true);
    for (const char* path : {"Phone/Music/Gears/copper.mp3", "Phone/Music/Gears/iron.mp3",
                             "Phone/Music/Jazz/blue.m4a"})
        in->items.push_back(new FileInfo(path, device->objectId(path), 0));
    kestrow::MtpDevice::instance().setDeviceConnected(kHandle);
    auto out = kestrow::MtpMiner("MtpMiner").doOperation(in);
    EXPECT_EQ(5, out->operation.id);
    if (gone)
        *gone = out->operation.deviceGone;
    std::string titles;
    for (const MetaDataInfo* song : out->items)
        titles += (song ? song->title : "null") + "|";
    return titles;
}

TEST(MtpMinerTest, SlotsLeftOverStayEmpty) {
    olvane::test::TempDir dbDir;
    DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
    olvane::LogCapture cap;
    EXPECT_EQ("Copper Sky|Iron Road|null|", mine({}));  // blue's folder was not listed

    portolan::SimulatedDevice::Faults faults;
    faults.unplugAfter = 1 + 6 + 2;
    bool gone = false;
    EXPECT_EQ("Copper Sky|null|null|", mine(faults, &gone));
    EXPECT_TRUE(gone);
    EXPECT_EQ(1, cap.count("Indexing of track stopped or device removed"));

    DatabaseMgr::instance().createDb("phone", "mtp-folder://phone", true);
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("phone").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    EXPECT_EQ("null|null|null|", mine({}));
    EXPECT_EQ(1, cap.count("MtpMiner SKIPPED db size limit reached (op: 5)"));
}

// Each playlist takes five calls: the second is read while the phone is unplugged.
TEST(MtpMinerTest, PlaylistsOfAPhoneGoneMidBlock) {
    olvane::test::TempDir dir;
    portolan::SimulatedDevice::Faults faults;
    faults.unplugAfter = 5 + 2;
    olvane::test::PluggedPhone phone(kHandle, "phone", olvane::test::makePhoneTree(dir), faults);
    boost::shared_ptr<Block<FileInfo*>> in(new Block<FileInfo*>());
    in->operation = kestrow::Operation(6, kHandle, "phone", "mtp-folder://phone", true);
    for (const char* path : {"Phone/Music/Best.m3u", "Phone/Music/Road.m3u"})
        in->items.push_back(new FileInfo("", phone.device->objectId(path), 0));
    kestrow::MtpDevice::instance().setDeviceConnected(kHandle);
    auto out = kestrow::MtpPlaylistMiner("MtpPlaylistMiner").doOperation(in);
    ASSERT_EQ(1u, out->items.size());
    EXPECT_EQ("Best", out->items[0]->name);
    EXPECT_TRUE(out->operation.deviceGone);
}

}  // namespace
