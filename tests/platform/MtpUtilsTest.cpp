#include "platform/mtputils/MtpUtils.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/portolan/DeviceTable.h"
#include "platform/portolan/SimulatedDevice.h"
#include "tests/support/TempDir.h"

using portolan::DeviceTable;
using portolan::SimulatedDevice;

namespace {

// Lists a folder as the crawl does, so that its objects' raw paths become known.
void listFolder(t_handle handle, int32_t storage, int32_t folder) {
    unsigned n = 0;
    t_mtp_item_list list;
    ASSERT_EQ(STATUS_OK, Access_GetNumItems(handle, {2, folder, storage}, 8, n));
    ASSERT_EQ(STATUS_OK, Access_GetItems(handle, {2, folder, storage}, 8, 0, n, list));
    for (unsigned i = 0; i < list.count; ++i)
        free(list.items[i].name);
    free(list.items);
}

class MtpUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir.copySample("gears-iron-road.mp3", "phone/Music/a.mp3");
        dir.copySample("ferro-blue-hour.m4a", "phone/Music/b.m4a");
        dir.copySample("gears-old-times.mp3", "phone/DCIM/c.mp3");
    }
    void TearDown() override {
        for (t_handle h : {7, 8, 9})
            DeviceTable::instance().unplug(h);
    }

    // Plugs in the phone and lists its storage and its Music folder.
    std::shared_ptr<SimulatedDevice> connect(t_handle handle, const std::string& deviceId,
                                             const SimulatedDevice::Faults& faults = {}) {
        auto device =
            SimulatedDevice::plugIn(handle, deviceId, {{"Phone", dir.file("phone")}}, faults);
        const int32_t phone = int32_t(device->objectId("Phone"));
        listFolder(handle, phone, 0);
        listFolder(handle, phone, int32_t(device->objectId("Phone/Music")));
        return device;
    }

    olvane::test::TempDir dir;
};

TEST_F(MtpUtilsTest, PathsAndIdsNameTracksByRawPath) {
    SimulatedDevice::Faults faults;
    faults.noMetadata = {"Phone/Music/b.m4a"};
    auto device = connect(7, "dev-1", faults);
    const t_track_id a = device->objectId("Phone/Music/a.mp3");
    const t_track_id c = device->objectId("Phone/DCIM/c.mp3");

    EXPECT_EQ("Phone/Music/a.mp3", MtpUtils::getRawPathForMtpObject(7, a));
    EXPECT_EQ("", MtpUtils::getRawPathForMtpObject(7, c));  // DCIM never listed
    EXPECT_EQ("", MtpUtils::getRawPathForMtpObject(8, a));
    EXPECT_EQ("Phone/Music/a.mp3", MtpUtils::getPathForMtpTrack(a, "dev-1", "Phone/Music/a.mp3"));

    EXPECT_TRUE(MtpUtils::deviceHasMetadata(a, 7));
    EXPECT_FALSE(MtpUtils::deviceHasMetadata(device->objectId("Phone/Music/b.m4a"), 7));
    EXPECT_FALSE(MtpUtils::deviceHasMetadata(a, 8));

    const std::string id = MtpUtils::getObjectIdForMtpTrack(a, "dev-1");
    EXPECT_EQ(32u, id.size());
    EXPECT_EQ("", MtpUtils::getObjectIdForMtpTrack(c, "dev-1"));
    EXPECT_EQ("", MtpUtils::getObjectIdForMtpTrack(a, "dev-9"));

    // Another device over the same folders names its track otherwise.
    auto other = connect(9, "dev-2");
    EXPECT_NE(id, MtpUtils::getObjectIdForMtpTrack(other->objectId("Phone/Music/a.mp3"), "dev-2"));

    // After a reconnect with a file added before it, the track has another
    // number and the same id.
    DeviceTable::instance().unplug(7);
    dir.copySample("gears-copper-sky.mp3", "phone/Music/0.mp3");
    auto again = connect(8, "dev-1");
    const t_track_id a2 = again->objectId("Phone/Music/a.mp3");
    EXPECT_NE(a, a2);
    EXPECT_EQ(id, MtpUtils::getObjectIdForMtpTrack(a2, "dev-1"));
}

TEST_F(MtpUtilsTest, MetadataFromTheFilesContent) {
    // Title, artist, album, genre and composer; a failed read leaves them as they were.
    const std::pair<const char*, const char*> cases[] = {
        {"gears-iron-road.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale"},
        {"ferro-cafe-noir.flac", "Café Noir|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro"},
        {"ferro-blue-hour.m4a", "Blue Hour|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro"},
        {"moreno-summer-tape.wav", "Summer Tape|Lia Moreno|Postcards|Pop|Lia Moreno"},
        {"moreno-rain-check.wma", "Rain Check|Lia Moreno|Postcards|Pop|Lia Moreno"},
        {"truncated.flac", "failed keep||||"},
        {"random-bytes.m4a", "failed keep||||"},
        {"huge.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale"},
    };
    for (const auto& c : cases)
        if (std::string(c.first) != "huge.mp3")
            dir.copySample(c.first, std::string("phone/Music/") + c.first);
    // A tagged song followed by 4 GiB of zeros (sparse): only its head is read.
    dir.copySample("gears-iron-road.mp3", "phone/Music/huge.mp3");
    ASSERT_EQ(0, truncate(dir.file("phone/Music/huge.mp3").c_str(), 4ll << 30));
    auto device = connect(7, "dev-1");
    for (const auto& c : cases) {
        CTrackInfo info;
        info.setTitle("keep");
        const t_track_id id = device->objectId(std::string("Phone/Music/") + c.first);
        const bool read = MtpUtils::getMetadataFromMTPFile(id, info, 7);
        EXPECT_EQ(c.second, std::string(read ? "" : "failed ") + info.getTitle() + "|" +
                                info.getArtist() + "|" + info.getAlbum() + "|" + info.getGenre() +
                                "|" + info.getComposer());
    }
    CTrackInfo info;
    EXPECT_FALSE(MtpUtils::getMetadataFromMTPFile(device->objectId("Phone/Music"), info, 7));
    EXPECT_FALSE(MtpUtils::getMetadataFromMTPFile(device->objectId("Phone/Music/a.mp3"), info, 8));
}

}  // namespace
