// The simulated phone where the connection, miner and end-to-end tests do not
// reach it, and the MTP utilities that name its tracks and read their content.
#include "platform/portolan/SimulatedDevice.h"

#include <taglib/fileref.h>
#include <taglib/tag.h>

#include "platform/mtputils/MtpUtils.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Testing.h"

#include <QDebug>

using olvane::test::Strings;
using portolan::DeviceTable;
using portolan::SimulatedDevice;

namespace {

const t_handle kHandle = 41;

// "<status> <text>" of a text call.
std::string text(t_status (*call)(t_handle, t_track_id, char*), t_track_id id) {
    char buffer[PORTOLAN_TEXT_SIZE];
    return std::to_string(call(kHandle, id, buffer)) + " " + buffer;
}

// Selects the playlist (0: none) and lists its tracks, "<count>: <names>".
std::string tracks(int32_t playlist) {
    unsigned n = 0;
    olvane::test::ElementList list;
    EXPECT_EQ(STATUS_OK, playlist ? Command_SelectCategory(kHandle, CATEGORY_PLAYLISTS, playlist)
                                  : Command_ResetCategory(kHandle));
    EXPECT_EQ(STATUS_OK, Access_GetNumElements(kHandle, CATEGORY_TRACKS, n));
    EXPECT_EQ(STATUS_OK, Access_GetPlaylistElements(kHandle, CATEGORY_TRACKS, 0, n, list));
    std::string names = std::to_string(n) + ":";
    for (unsigned i = 0; i < list.count; ++i)
        names += std::string(" ") + list.items[i].name;
    return names;
}

// A second storage, the answers for what is not there, playlist lines of
// every shape, the date text, a title cut at a character, the one-time
// count, a handle or device id in use, a refused handle that stays attached.
// A track is named by its device and raw path, known once its folder is
// listed, the same after a reconnect with a file added before it. Tags are
// read from the content, of a huge file only its head.
TEST(SimulatedDeviceTest, AnswersNoOtherTestReaches) {
    olvane::test::TempDir dir;
    dir.copySample("gears-iron-road.mp3", "phone/Music/a-iron.mp3");
    dir.copySample("ferro-cafe-noir.flac", "phone/Music/b-cafe.flac");
    dir.copySample("random-bytes.m4a", "phone/Music/#noise.m4a");
    dir.copySample("ferro-blue-hour.m4a", "phone/Music/Jazz/d-blue.m4a");
    dir.copySample("gears-old-times.mp3", "card/f-old.mp3");
    ASSERT_EQ(0, truncate(dir.file("phone/Music/a-iron.mp3").c_str(), 4ll << 30));  // sparse
    setenv("TZ", "UTC", 1);
    tzset();
    olvane::test::setMtime(dir.file("phone/Music/a-iron.mp3"), 1578225600);  // 2020-01-05 12:00
    const std::string cut = QString(127, QChar(0xE9)).toStdString();         // fits in 255 bytes
    TagLib::FileRef cafe(dir.file("phone/Music/b-cafe.flac").c_str());
    cafe.tag()->setTitle(TagLib::String(cut + cut, TagLib::String::UTF8));
    ASSERT_TRUE(cafe.save());
    dir.write("phone/Music/Trip.m3u",
              "#noise.m4a\nb-cafe.flac\r\n../Music/a-iron.mp3\nmissing.mp3\n"
              "\\Music\\Jazz\\d-blue.m4a\n");
    // Plugs the phone in and lists its Music folder, as a crawl does. Storages
    // come first: "Phone" is object 1.
    const auto plugIn = [&](t_handle handle, const char* deviceId) {
        SimulatedDevice::Faults faults;
        faults.firstCount["Card"] = 5;
        auto device = SimulatedDevice::plugIn(
            handle, deviceId, {{"Phone", dir.file("phone")}, {"Card", dir.file("card")}}, faults);
        olvane::test::ItemList list;
        Access_GetItems(handle, {2, int32_t(device->objectId("Phone/Music")), 1}, 8, 0, 9, list);
        return device;
    };
    auto device = plugIn(kHandle, "dev-1");
    const auto id = [&](const char* rawPath) { return int32_t(device->objectId(rawPath)); };
    const int32_t music = id("Phone/Music"), card = id("Card"), trip = id("Phone/Music/Trip.m3u"),
                  iron = id("Phone/Music/a-iron.mp3");

    olvane::test::ItemList storages;
    unsigned n = 0;
    const auto reset = [] { return Command_ResetCategory(kHandle + 1); };
    SimulatedDevice::Faults after2;
    after2.badHandleAfter = 2;
    // Two storages; the injected count once, then the real one; containers,
    // categories and objects that are not there; a handle, then a device id
    // in use; a device answering a bad handle after two calls stays attached.
    QString got;
    QDebug(&got) << Access_GetItems(kHandle, {0, 0, 0}, 7, 0, 9, storages) << storages.count
                 << storages.items[0].name << storages.items[1].name << storages.items[1].type
                 << Access_GetNumItems(kHandle, {2, 0, card}, 8, n) << n
                 << Access_GetNumItems(kHandle, {2, 0, card}, 8, n) << n
                 << Access_GetNumItems(kHandle, {2, music, music + 1}, 8, n)
                 << Access_GetNumItems(kHandle, {2, 0, 1}, 7, n)
                 << Access_GetNumElements(kHandle, 3, n)
                 << Command_SelectCategory(kHandle, CATEGORY_PLAYLISTS, iron)
                 << Command_SelectCategory(kHandle, CATEGORY_TRACKS, trip)
                 << bool(SimulatedDevice::plugIn(kHandle, "dev-2", {}))
                 << bool(SimulatedDevice::plugIn(kHandle + 1, "dev-1", {}))
                 << bool(SimulatedDevice::plugIn(kHandle + 1, "dev-2", {}, after2)) << reset()
                 << reset() << reset() << DeviceTable::instance().unplug(kHandle + 1);
    EXPECT_EQ("0 2 Phone Card 7 0 5 0 1 -1 -2 -2 -1 -2 false false true 0 0 -3 true ",
              got.toStdString());

    // Comments (even one naming a track), CR, "..", backslashes; a line naming no
    // track is left out.
    // Tags are read from the content; a failed read leaves them as they were.
    const auto tags = [&](const std::string& file) {
        CTrackInfo info;
        info.setTitle("keep");
        const bool read =
            MtpUtils::getMetadataFromMTPFile(id(("Phone/Music/" + file).c_str()), info, kHandle);
        return std::string(read ? "" : "failed ") + info.getTitle() + "|" + info.getArtist() + "|" +
               info.getAlbum() + "|" + info.getGenre() + "|" + info.getComposer();
    };
    const std::string all = "5: #noise.m4a d-blue.m4a a-iron.mp3 b-cafe.flac f-old.mp3";
    EXPECT_EQ((Strings{all, "3: b-cafe.flac a-iron.mp3 d-blue.m4a", all, "0 a-iron.mp3",
                       "0 Sun Jan  5 12:00:00 2020", "0 " + cut, "-1 ", "failed keep||||",
                       "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale"}),
              (Strings{tracks(0), tracks(trip), tracks(0), text(Access_GetTrackFileName, iron),
                       text(Access_GetTrackDateModified, iron),
                       text(Access_GetTrackTitle, id("Phone/Music/b-cafe.flac")),
                       text(Access_GetTrackTitle, music), tags("#noise.m4a"), tags("a-iron.mp3")}));

    // Raw paths and ids, none for another handle, an unlisted track or an
    // unknown device; another device over the same folders; a reconnect.
    const std::string song = MtpUtils::getObjectIdForMtpTrack(iron, "dev-1");
    EXPECT_EQ((Strings{"Phone/Music/a-iron.mp3", "", "", ""}),
              (Strings{MtpUtils::getRawPathForMtpObject(kHandle, iron),
                       MtpUtils::getRawPathForMtpObject(kHandle + 1, iron),
                       MtpUtils::getObjectIdForMtpTrack(id("Phone/Music/Jazz/d-blue.m4a"), "dev-1"),
                       MtpUtils::getObjectIdForMtpTrack(iron, "dev-9")}));
    device = plugIn(kHandle + 2, "dev-2");
    EXPECT_NE(song, MtpUtils::getObjectIdForMtpTrack(id("Phone/Music/a-iron.mp3"), "dev-2"));
    DeviceTable::instance().unplug(kHandle);
    dir.copySample("gears-copper-sky.mp3", "phone/Music/0.mp3");
    device = plugIn(kHandle + 1, "dev-1");
    EXPECT_NE(iron, id("Phone/Music/a-iron.mp3"));
    EXPECT_EQ(song, MtpUtils::getObjectIdForMtpTrack(id("Phone/Music/a-iron.mp3"), "dev-1"));
    for (t_handle h : {kHandle + 1, kHandle + 2})
        DeviceTable::instance().unplug(h);
}

}  // namespace
