#include "platform/portolan/SimulatedDevice.h"

#include <gtest/gtest.h>
#include <taglib/fileref.h>
#include <taglib/tag.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "platform/portolan/DeviceTable.h"
#include "tests/support/TempDir.h"

using portolan::DeviceTable;
using portolan::SimulatedDevice;

namespace {

const t_handle kHandle = 41;

// What a listing answered, as "name:type", with every name and array freed
// the way a receiver must.
std::vector<std::string> take(t_mtp_item_list& list) {
    std::vector<std::string> out;
    for (unsigned i = 0; i < list.count; ++i) {
        out.push_back(std::string(list.items[i].name) + ":" + std::to_string(list.items[i].type));
        free(list.items[i].name);
    }
    free(list.items);
    return out;
}

std::vector<t_track_id> take(t_playlist_items_list& list) {
    std::vector<t_track_id> out;
    for (unsigned i = 0; i < list.count; ++i) {
        out.push_back(list.items[i].id);
        free(list.items[i].name);
    }
    free(list.items);
    return out;
}

std::vector<t_track_id> elements(t_content_categories category, t_status expected = STATUS_OK) {
    unsigned n = 0;
    EXPECT_EQ(STATUS_OK, Access_GetNumElements(kHandle, category, n));
    t_playlist_items_list list;
    EXPECT_EQ(expected, Access_GetPlaylistElements(kHandle, category, 0, n, list));
    return take(list);
}

std::string text(t_status (*call)(t_handle, t_track_id, char*), t_track_id id,
                 t_status expected = STATUS_OK) {
    char buffer[PORTOLAN_TEXT_SIZE];
    EXPECT_EQ(expected, call(kHandle, id, buffer));
    return buffer;
}

class SimulatedDeviceTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir.copySample("gears-iron-road.mp3", "phone/Music/a-iron.mp3");
        dir.copySample("ferro-cafe-noir.flac", "phone/Music/b-cafe.flac");
        dir.write("phone/Music/c.ogg", "not really ogg");
        dir.write("phone/Music/cover.jpg", "jpeg");
        dir.copySample("ferro-blue-hour.m4a", "phone/Music/Jazz/d-blue.m4a");
        dir.write("phone/Music/Trip.m3u",
                  "#EXTM3U\nJazz/d-blue.m4a\r\n../Music/a-iron.mp3\nmissing.mp3\n"
                  "\\Music\\b-cafe.flac\n");
        dir.copySample("motorhead-style.mp3", "phone/DCIM/e-motor.mp3");
        dir.copySample("gears-old-times.mp3", "card/f-old.mp3");
    }
    void TearDown() override {
        DeviceTable::instance().setUnplugHook(nullptr);
        DeviceTable::instance().unplug(kHandle);
        DeviceTable::instance().unplug(kHandle + 1);
    }

    std::shared_ptr<SimulatedDevice> plugIn(const SimulatedDevice::Faults& faults = {}) {
        auto device = SimulatedDevice::plugIn(
            kHandle, "dev-1", {{"Phone", dir.file("phone")}, {"Card", dir.file("card")}}, faults);
        EXPECT_TRUE(device);
        return device;
    }

    olvane::test::TempDir dir;
};

TEST_F(SimulatedDeviceTest, FoldersArePagedAndPathsKnownOnceListed) {
    SimulatedDevice::Faults faults;
    faults.pageSize = 2;
    auto device = plugIn(faults);
    const int32_t phone = int32_t(device->objectId("Phone"));
    const int32_t music = int32_t(device->objectId("Phone/Music"));
    const t_track_id iron = device->objectId("Phone/Music/a-iron.mp3");

    unsigned n = 0;
    t_mtp_item_list list;
    ASSERT_EQ(STATUS_OK, Access_GetNumItems(kHandle, {0, 0, 0}, 7, n));
    ASSERT_EQ(STATUS_OK, Access_GetItems(kHandle, {0, 0, 0}, 7, 0, n, list));
    EXPECT_EQ((std::vector<std::string>{"Phone:7", "Card:7"}), take(list));
    ASSERT_EQ(STATUS_OK, Access_GetItems(kHandle, {2, 0, phone}, 8, 0, 10, list));
    EXPECT_EQ((std::vector<std::string>{"DCIM:6", "Music:6"}), take(list));

    EXPECT_EQ("", device->rawPath(iron));
    ASSERT_EQ(STATUS_OK, Access_GetNumItems(kHandle, {2, music, phone}, 8, n));
    std::vector<std::string> all;
    for (unsigned start = 0; start < n;) {
        ASSERT_EQ(STATUS_OK, Access_GetItems(kHandle, {2, music, phone}, 8, start, n, list));
        EXPECT_LE(list.count, 2u);
        start += list.count;
        for (const std::string& item : take(list))
            all.push_back(item);
    }
    EXPECT_EQ((std::vector<std::string>{"Jazz:6", "Trip.m3u:1", "a-iron.mp3:5", "b-cafe.flac:5",
                                        "c.ogg:5", "cover.jpg:0"}),
              all);
    EXPECT_EQ("Phone/Music/a-iron.mp3", device->rawPath(iron));
    EXPECT_EQ("", device->rawPath(device->objectId("Phone/Music/Jazz/d-blue.m4a")));

    // The closing call, and containers that are not there.
    EXPECT_EQ(STATUS_OK, Access_GetItems(kHandle, {10, 0, 0}, 9, 0, 0, list));
    EXPECT_EQ(0u, list.count);
    EXPECT_EQ(STATUS_NOT_OK, Access_GetNumItems(kHandle, {2, music, music + 1}, 8, n));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Access_GetNumItems(kHandle, {2, 0, phone}, 7, n));
}

TEST_F(SimulatedDeviceTest, CategoriesListTracksPlaylistsAndAPlaylistsTracks) {
    auto device = plugIn();
    const auto id = [&](const char* rawPath) { return device->objectId(rawPath); };
    const t_track_id trip = id("Phone/Music/Trip.m3u");
    const t_track_id iron = id("Phone/Music/a-iron.mp3"), cafe = id("Phone/Music/b-cafe.flac");
    const t_track_id blue = id("Phone/Music/Jazz/d-blue.m4a");
    const std::vector<t_track_id> tracks = {
        id("Phone/DCIM/e-motor.mp3"), blue, iron, cafe, id("Phone/Music/c.ogg"),
        id("Card/f-old.mp3")};

    EXPECT_EQ(tracks, elements(CATEGORY_TRACKS));
    EXPECT_EQ(std::vector<t_track_id>{trip}, elements(CATEGORY_PLAYLISTS));
    EXPECT_EQ("Trip", text(Access_GetTrackTitle, trip));

    ASSERT_EQ(STATUS_OK, Command_SelectCategory(kHandle, CATEGORY_PLAYLISTS, int(trip)));
    EXPECT_EQ((std::vector<t_track_id>{blue, iron, cafe}), elements(CATEGORY_TRACKS));
    EXPECT_EQ(STATUS_NOT_OK, Command_SelectCategory(kHandle, CATEGORY_PLAYLISTS, int(iron)));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Command_SelectCategory(kHandle, CATEGORY_TRACKS, int(iron)));
    ASSERT_EQ(STATUS_OK, Command_ResetCategory(kHandle));
    EXPECT_EQ(tracks, elements(CATEGORY_TRACKS));
    unsigned n = 0;
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Access_GetNumElements(kHandle, 3, n));
    EXPECT_FALSE(SimulatedDevice::plugIn(kHandle, "dev-2", {}));      // handle in use
    EXPECT_FALSE(SimulatedDevice::plugIn(kHandle + 1, "dev-1", {}));  // device id in use
}

TEST_F(SimulatedDeviceTest, TrackTextsComeFromTagsCutAtACharacter) {
    setenv("TZ", "UTC", 1);
    tzset();
    const std::string iron = dir.file("phone/Music/a-iron.mp3");
    olvane::test::setMtime(iron, 1578225600);  // 2020-01-05 12:00 UTC
    {
        TagLib::FileRef cafe(dir.file("phone/Music/b-cafe.flac").c_str());
        std::string longTitle;
        for (int i = 0; i < 200; ++i)
            longTitle += "é";
        cafe.tag()->setTitle(TagLib::String(longTitle, TagLib::String::UTF8));
        ASSERT_TRUE(cafe.save());
    }
    auto device = plugIn();
    const t_track_id id = device->objectId("Phone/Music/a-iron.mp3");

    EXPECT_EQ((std::vector<std::string>{"Iron Road", "The Rusty Gears", "Steam and Steel", "Rock",
                                        "Tom Hale", "a-iron.mp3", "Sun Jan  5 12:00:00 2020"}),
              (std::vector<std::string>{
                  text(Access_GetTrackTitle, id), text(Access_GetTrackArtist, id),
                  text(Access_GetTrackAlbum, id), text(Access_GetTrackGenre, id),
                  text(Access_GetTrackComposer, id), text(Access_GetTrackFileName, id),
                  text(Access_GetTrackDateModified, id)}));
    unsigned short index = 0;
    EXPECT_EQ(STATUS_OK, Access_GetTrackAlbumTrackIndex(kHandle, id, index));
    EXPECT_EQ(1, index);

    std::string cut;
    for (int i = 0; i < 127; ++i)
        cut += "é";
    EXPECT_EQ(cut, text(Access_GetTrackTitle, device->objectId("Phone/Music/b-cafe.flac")));
    EXPECT_EQ("", text(Access_GetTrackTitle, device->objectId("Phone/Music"), STATUS_NOT_OK));
}

TEST_F(SimulatedDeviceTest, InjectedFaults) {
    SimulatedDevice::Faults faults;
    faults.busyFirst[SimulatedDevice::GET_NUM_ITEMS] = 2;
    faults.pageSize = 4;
    faults.emptyLaterBatches["Phone/Music"] = 2;
    faults.firstCount["Card"] = 5;
    faults.noMetadata = {"Phone/Music/a-iron.mp3"};
    faults.emptyTitles = {"Phone/Music/b-cafe.flac"};
    faults.unplugAfter = 20;
    std::vector<t_handle> unplugged;
    DeviceTable::instance().setUnplugHook([&](t_handle h) { unplugged.push_back(h); });
    auto device = plugIn(faults);
    const int32_t phone = int32_t(device->objectId("Phone"));
    const int32_t music = int32_t(device->objectId("Phone/Music"));
    const int32_t card = int32_t(device->objectId("Card"));
    SimulatedDevice::Faults after2;
    after2.badHandleAfter = 2;
    ASSERT_TRUE(SimulatedDevice::plugIn(kHandle + 1, "dev-2", {}, after2));
    std::vector<t_status> lost;
    for (int i = 0; i < 3; ++i)
        lost.push_back(Command_ResetCategory(kHandle + 1));
    EXPECT_EQ((std::vector<t_status>{STATUS_OK, STATUS_OK, STATUS_BAD_HANDLE}), lost);
    EXPECT_TRUE(DeviceTable::instance().unplug(kHandle + 1));  // still attached
    EXPECT_EQ(std::vector<t_handle>{kHandle + 1}, unplugged);
    unplugged.clear();

    unsigned n = 0;
    std::vector<t_status> statuses;
    for (int i = 0; i < 3; ++i)
        statuses.push_back(Access_GetNumItems(kHandle, {2, 0, card}, 8, n));
    EXPECT_EQ((std::vector<t_status>{STATUS_PROCESSING, STATUS_PROCESSING, STATUS_OK}), statuses);
    EXPECT_EQ(5u, n);
    ASSERT_EQ(STATUS_OK, Access_GetNumItems(kHandle, {2, 0, card}, 8, n));
    EXPECT_EQ(1u, n);

    std::vector<unsigned> batches;
    t_mtp_item_list list;
    for (unsigned start : {0u, 4u, 4u, 4u}) {
        ASSERT_EQ(STATUS_OK, Access_GetItems(kHandle, {2, music, phone}, 8, start, 6, list));
        batches.push_back(unsigned(take(list).size()));
    }
    EXPECT_EQ((std::vector<unsigned>{4, 0, 0, 2}), batches);

    const t_track_id iron = device->objectId("Phone/Music/a-iron.mp3");
    const t_track_id cafe = device->objectId("Phone/Music/b-cafe.flac");
    unsigned short index = 0;
    EXPECT_FALSE(device->hasMetadata(iron));
    EXPECT_EQ("", text(Access_GetTrackArtist, iron, STATUS_NOT_SUPPORTED));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Access_GetTrackAlbumTrackIndex(kHandle, iron, index));
    EXPECT_EQ("a-iron.mp3", text(Access_GetTrackFileName, iron));
    EXPECT_EQ("", text(Access_GetTrackTitle, cafe));
    EXPECT_EQ("Nina Ferro Quartet", text(Access_GetTrackArtist, cafe));

    // Calls 14 to 20 pass; the 21st unplugs the device.
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(STATUS_OK, Command_ResetCategory(kHandle));
    EXPECT_TRUE(unplugged.empty());
    EXPECT_EQ(STATUS_BAD_HANDLE, Command_ResetCategory(kHandle));
    EXPECT_EQ(std::vector<t_handle>{kHandle}, unplugged);
    EXPECT_FALSE(DeviceTable::instance().find(kHandle));
    EXPECT_EQ(STATUS_BAD_HANDLE, Access_GetNumElements(kHandle, CATEGORY_TRACKS, n));
}

}  // namespace
