// The simulated phone where the connection, miner and end-to-end tests do not
// reach it, and the MTP helpers that name its tracks and read their content.
#include "platform/portolan/SimulatedDevice.h"

#include <taglib/fileref.h>
#include <taglib/tag.h>

#include <ctime>

#include "platform/mtputils/MtpUtils.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Testing.h"

using olvane::test::ElementList;
using olvane::test::ItemList;
using olvane::test::Strings;
using portolan::DeviceTable;
using portolan::SimulatedDevice;

namespace {

const t_handle kHandle = 41;

std::string text(t_status (*call)(t_handle, t_track_id, char*), t_track_id id,
                 t_status expected = STATUS_OK) {
    char buffer[PORTOLAN_TEXT_SIZE];
    EXPECT_EQ(expected, call(kHandle, id, buffer));
    return buffer;
}

std::vector<t_track_id> tracks() {
    unsigned n = 0;
    EXPECT_EQ(STATUS_OK, Access_GetNumElements(kHandle, CATEGORY_TRACKS, n));
    ElementList list;
    EXPECT_EQ(STATUS_OK, Access_GetPlaylistElements(kHandle, CATEGORY_TRACKS, 0, n, list));
    std::vector<t_track_id> ids;
    for (unsigned i = 0; i < list.count; ++i)
        ids.push_back(list.items[i].id);
    return ids;
}

struct SimulatedDeviceTest : ::testing::Test {
    SimulatedDeviceTest() {
        dir.copySample("gears-iron-road.mp3", "phone/Music/a-iron.mp3");
        dir.copySample("ferro-cafe-noir.flac", "phone/Music/b-cafe.flac");
        dir.copySample("ferro-blue-hour.m4a", "phone/Music/Jazz/d-blue.m4a");
        dir.copySample("gears-old-times.mp3", "card/f-old.mp3");
    }
    ~SimulatedDeviceTest() override {
        for (t_handle h : {kHandle, kHandle + 1, kHandle + 2})
            DeviceTable::instance().unplug(h);
    }
    // Plugs the phone in and lists its Music folder, as a crawl does.
    std::shared_ptr<SimulatedDevice> plugIn(t_handle handle, const std::string& deviceId,
                                            const SimulatedDevice::Faults& faults = {}) {
        auto device = SimulatedDevice::plugIn(
            handle, deviceId, {{"Phone", dir.file("phone")}, {"Card", dir.file("card")}}, faults);
        EXPECT_TRUE(device);
        ItemList list;
        const int32_t phone = int32_t(device->objectId("Phone"));
        Access_GetItems(handle, {2, int32_t(device->objectId("Phone/Music")), phone}, 8, 0, 9,
                        list);
        return device;
    }
    static std::string songId(const std::shared_ptr<SimulatedDevice>& device, const char* path) {
        return MtpUtils::getObjectIdForMtpTrack(device->objectId(path), device->deviceId());
    }

    olvane::test::TempDir dir;
};

// A second storage, the answers for what is not there, playlist lines of
// every shape, the date text, a title cut at a character, the one-time
// count, a handle or device id in use, a refused handle that stays attached.
TEST_F(SimulatedDeviceTest, AnswersNoOtherTestReaches) {
    setenv("TZ", "UTC", 1);
    tzset();
    olvane::test::setMtime(dir.file("phone/Music/a-iron.mp3"), 1578225600);  // 2020-01-05 12:00
    std::string cut;  // 127 two-byte characters fit in 255 bytes
    for (int i = 0; i < 127; ++i)
        cut += "é";
    {
        TagLib::FileRef cafe(dir.file("phone/Music/b-cafe.flac").c_str());
        cafe.tag()->setTitle(TagLib::String(cut + cut, TagLib::String::UTF8));
        ASSERT_TRUE(cafe.save());
    }
    dir.write("phone/Music/Trip.m3u",
              "#EXTM3U\nJazz/d-blue.m4a\r\n../Music/a-iron.mp3\nmissing.mp3\n"
              "\\Music\\b-cafe.flac\n");
    SimulatedDevice::Faults faults;
    faults.firstCount["Card"] = 5;
    auto device = plugIn(kHandle, "dev-1", faults);
    const auto id = [&](const char* rawPath) { return device->objectId(rawPath); };
    const int32_t phone = int32_t(id("Phone")), music = int32_t(id("Phone/Music"));
    const t_track_id trip = id("Phone/Music/Trip.m3u"), iron = id("Phone/Music/a-iron.mp3");

    unsigned n = 0, again = 0;  // the injected count once, then the real one
    ItemList storages;
    ASSERT_EQ(STATUS_OK, Access_GetItems(kHandle, {0, 0, 0}, 7, 0, 9, storages));
    EXPECT_EQ(2u, storages.count);
    EXPECT_EQ("Phone:7 Card:7",
              std::string(storages.items[0].name) + ":" + std::to_string(storages.items[0].type) +
                  " " + storages.items[1].name + ":" + std::to_string(storages.items[1].type));
    Access_GetNumItems(kHandle, {2, 0, int32_t(id("Card"))}, 8, n);
    Access_GetNumItems(kHandle, {2, 0, int32_t(id("Card"))}, 8, again);
    EXPECT_EQ(std::make_pair(5u, 1u), std::make_pair(n, again));
    // Containers, categories and objects that are not there.
    EXPECT_EQ(STATUS_NOT_OK, Access_GetNumItems(kHandle, {2, music, music + 1}, 8, n));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Access_GetNumItems(kHandle, {2, 0, phone}, 7, n));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Access_GetNumElements(kHandle, 3, n));
    EXPECT_EQ(STATUS_NOT_OK, Command_SelectCategory(kHandle, CATEGORY_PLAYLISTS, int(iron)));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Command_SelectCategory(kHandle, CATEGORY_TRACKS, int(trip)));
    EXPECT_EQ("", text(Access_GetTrackTitle, t_track_id(music), STATUS_NOT_OK));

    // Comments, CR, "..", backslashes; a line naming no track is left out.
    const std::vector<t_track_id> all = tracks();
    ASSERT_EQ(STATUS_OK, Command_SelectCategory(kHandle, CATEGORY_PLAYLISTS, int(trip)));
    EXPECT_EQ((std::vector<t_track_id>{id("Phone/Music/Jazz/d-blue.m4a"), iron,
                                       id("Phone/Music/b-cafe.flac")}),
              tracks());
    ASSERT_EQ(STATUS_OK, Command_ResetCategory(kHandle));
    EXPECT_EQ(all.size() == 4 ? all : std::vector<t_track_id>(), tracks());

    EXPECT_EQ((Strings{"a-iron.mp3", "Sun Jan  5 12:00:00 2020", cut}),
              (Strings{text(Access_GetTrackFileName, iron), text(Access_GetTrackDateModified, iron),
                       text(Access_GetTrackTitle, id("Phone/Music/b-cafe.flac"))}));

    EXPECT_FALSE(SimulatedDevice::plugIn(kHandle, "dev-2", {}));      // handle in use
    EXPECT_FALSE(SimulatedDevice::plugIn(kHandle + 1, "dev-1", {}));  // device id in use
    SimulatedDevice::Faults after2;
    after2.badHandleAfter = 2;
    ASSERT_TRUE(SimulatedDevice::plugIn(kHandle + 1, "dev-2", {}, after2));
    Strings answers;
    for (int i = 0; i < 3; ++i)
        answers.push_back(std::to_string(Command_ResetCategory(kHandle + 1)));
    EXPECT_EQ(Strings({"0", "0", "-3"}), answers);
    EXPECT_TRUE(DeviceTable::instance().unplug(kHandle + 1));  // was still attached
}

// A track is named by its device and raw path, known once its folder is
// listed: the same after a reconnect with a file added before it.
TEST_F(SimulatedDeviceTest, MtpUtilsNameTracksByRawPath) {
    SimulatedDevice::Faults faults;
    faults.noMetadata = {"Phone/Music/b-cafe.flac"};
    auto device = plugIn(kHandle, "dev-1", faults);
    const t_track_id a = device->objectId("Phone/Music/a-iron.mp3");
    const t_track_id blue = device->objectId("Phone/Music/Jazz/d-blue.m4a");  // never listed
    const t_track_id cafe = device->objectId("Phone/Music/b-cafe.flac");
    const std::string id = songId(device, "Phone/Music/a-iron.mp3");
    // Raw paths, whether the device has the tags, and ids (none when unknown).
    EXPECT_EQ(
        (Strings{"Phone/Music/a-iron.mp3", "", "", "Phone/Music/a-iron.mp3", "100", "32|"}),
        (Strings{MtpUtils::getRawPathForMtpObject(kHandle, a),
                 MtpUtils::getRawPathForMtpObject(kHandle, blue),
                 MtpUtils::getRawPathForMtpObject(kHandle + 1, a),
                 MtpUtils::getPathForMtpTrack(a, "dev-1", "Phone/Music/a-iron.mp3"),
                 std::to_string(MtpUtils::deviceHasMetadata(a, kHandle)) +
                     std::to_string(MtpUtils::deviceHasMetadata(cafe, kHandle)) +
                     std::to_string(MtpUtils::deviceHasMetadata(a, kHandle + 1)),
                 std::to_string(id.size()) + "|" + MtpUtils::getObjectIdForMtpTrack(blue, "dev-1") +
                     MtpUtils::getObjectIdForMtpTrack(a, "dev-9")}));
    // Another device over the same folders.
    EXPECT_NE(id, songId(plugIn(kHandle + 2, "dev-2"), "Phone/Music/a-iron.mp3"));

    DeviceTable::instance().unplug(kHandle);
    dir.copySample("gears-copper-sky.mp3", "phone/Music/0.mp3");
    auto again = plugIn(kHandle + 1, "dev-1");
    EXPECT_NE(a, again->objectId("Phone/Music/a-iron.mp3"));
    EXPECT_EQ(id, songId(again, "Phone/Music/a-iron.mp3"));
}

// Title, artist, album, genre and composer from the content; a failed read
// leaves them as they were. Of a huge file only the head is read.
TEST_F(SimulatedDeviceTest, MtpUtilsReadTagsFromTheContent) {
    const std::pair<const char*, const char*> cases[] = {
        {"ferro-cafe-noir.flac", "Café Noir|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro"},
        {"random-bytes.m4a", "failed keep||||"},
        {"huge.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale"},
    };
    for (const auto& c : cases)
        dir.copySample(std::string(c.first) == "huge.mp3" ? "gears-iron-road.mp3" : c.first,
                       std::string("phone/Music/") + c.first);
    ASSERT_EQ(0, truncate(dir.file("phone/Music/huge.mp3").c_str(), 4ll << 30));  // sparse
    auto device = plugIn(kHandle, "dev-1");
    for (const auto& c : cases) {
        CTrackInfo info;
        info.setTitle("keep");
        const t_track_id id = device->objectId(std::string("Phone/Music/") + c.first);
        const bool read = MtpUtils::getMetadataFromMTPFile(id, info, kHandle);
        EXPECT_EQ(c.second, std::string(read ? "" : "failed ") + info.getTitle() + "|" +
                                info.getArtist() + "|" + info.getAlbum() + "|" + info.getGenre() +
                                "|" + info.getComposer());
    }
    CTrackInfo info;
    EXPECT_FALSE(MtpUtils::getMetadataFromMTPFile(device->objectId("Phone/Music"), info, kHandle));
    EXPECT_FALSE(MtpUtils::getMetadataFromMTPFile(device->objectId("Phone/Music/a-iron.mp3"), info,
                                                  kHandle + 1));
}

}  // namespace
