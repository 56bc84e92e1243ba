#include "mtp/MtpConnection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "mtp/MtpConnectionImpl.h"
#include "mtp/MtpDevice.h"
#include "mtp/MtpDirectory.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/log/LogCapture.h"
#include "platform/mtputils/MtpUtils.h"
#include "playlist/Playlist.h"
#include "tests/support/SimulatedPhone.h"

using kestrow::MtpConnection;
using portolan::SimulatedDevice;
using Impl = kestrow::MtpConnection::Impl;
using Strings = std::vector<std::string>;

namespace {

const t_handle kHandle = 61;

std::vector<unsigned> gSleeps;  // every pause asked for, in microseconds
void recordSleep(unsigned us) {
    gSleeps.push_back(us);
}
long pauses(unsigned us) {
    return std::count(gSleeps.begin(), gSleeps.end(), us);
}

class MtpConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = olvane::test::makePhoneTree(dir);
        dir.copySample("gears-old-times.mp3", "phone/Music/DCIM/deep.mp3");
    }
    void plugIn(const SimulatedDevice::Faults& faults = {}) {
        phone = std::make_unique<olvane::test::PluggedPhone>(kHandle, "phone", folder, faults);
        kestrow::MtpDevice::instance().setDeviceConnected(kHandle);
        MtpConnection::setSleepFunction(recordSleep);
        gSleeps.clear();
    }
    t_track_id id(const std::string& rawPath) { return phone->device->objectId(rawPath); }
    bool known(const std::string& rawPath) { return !phone->device->rawPath(id(rawPath)).empty(); }

    olvane::test::TempDir dir;
    std::string folder;
    std::unique_ptr<olvane::test::PluggedPhone> phone;
    std::string deviceId = "phone";
    Impl impl{kHandle, deviceId};
    olvane::LogCapture cap;
};

TEST_F(MtpConnectionTest, StatusTexts) {
    const std::string fail = " - Fail to invoke method: Access_GetTrackGenre . - ";
    const std::vector<std::pair<t_status, std::string>> table = {
        {-1, "STATUS NOT OK!"},
        {-2, "STATUS NOT SUPPORTED!"},
        {-3, "STATUS NOT OK BAD HANDLE!"},
        {-4, ": STATUS NOT OK GENERIC PLUGIN ERROR!"},
        {-5, "STATUS NOT OK PLUGIN NOT INITIALIZED!"},
        {-7, "UNKNOWN ERROR!"},
        {-6, "UNKNOWN ERROR!"}};
    for (const auto& row : table) {
        cap.clear();
        impl.checkStatus("Access_GetTrackGenre", row.first);
        ASSERT_EQ(1u, cap.lines().size());
        EXPECT_EQ(fail + row.second, cap.lines()[0].message) << row.first;
        EXPECT_EQ(DLT_LOG_INFO, cap.lines()[0].level);
    }
}

TEST_F(MtpConnectionTest, BusyLibraryIsAskedAgainOnceASecondUpTo80Times) {
    SimulatedDevice::Faults faults;
    faults.busyFirst = {{SimulatedDevice::GET_NUM_ITEMS, 3},
                        {SimulatedDevice::GET_ITEMS, 1000},
                        {SimulatedDevice::GET_TRACK_TITLE, 81},
                        {SimulatedDevice::GET_TRACK_FILE_NAME, 80}};
    plugIn(faults);
    unsigned n = 0;
    EXPECT_EQ(STATUS_OK, impl.SafeGetNumItems(kHandle, {0, 0, 0}, 7, n));
    EXPECT_EQ(1u, n);
    EXPECT_EQ((std::vector<unsigned>{10000, 1000000, 10000, 1000000, 10000, 1000000, 10000}),
              gSleeps);
    EXPECT_EQ(1, cap.count(" Processing from portolan API. count = 3"));

    gSleeps.clear();
    t_mtp_item_list list;
    EXPECT_EQ(STATUS_PROCESSING, impl.SafeGetItems(kHandle, {0, 0, 0}, 7, 0, n, list));
    EXPECT_EQ(81, pauses(10000));
    EXPECT_EQ(80, pauses(1000000));

    // Title and file name: no 10 ms pauses; a title still busy after 81
    // answers falls back to the file name, found on its 81st try.
    gSleeps.clear();
    EXPECT_EQ("iron", impl.getTrackTitle(id("Phone/Music/Gears/iron.mp3")));
    EXPECT_EQ(0, pauses(10000));
    EXPECT_EQ(160, pauses(1000000));
    EXPECT_EQ(1, cap.count(" - Fail to invoke method: Access_GetTrackTitle . - UNKNOWN ERROR!"));
}

TEST_F(MtpConnectionTest, TreeWalkPagesRetriesEmptyBatchesAndSkipsTopLevelFolders) {
    dir.mkdir("phone/Empty");
    struct Case {
        const char* what;
        unsigned pageSize;
        std::map<std::string, unsigned> emptyLater, firstCount;
        unsigned badHandleAfter;
        bool result;
        Strings known, unknown, warnings;
    };
    const std::vector<Case> cases = {
        {"pages of 2",
         2,
         {},
         {},
         0,
         true,
         {"Phone/Music/Gears/iron.mp3", "Phone/Music/Jazz/blue.m4a", "Phone/Music/DCIM/deep.mp3"},
         {"Phone/DCIM/motor.mp3"},
         {}},
        {"an empty later batch, then the rest",
         2,
         {{"Phone/Music", 1}},
         {},
         0,
         true,
         {"Phone/Music/Gears/iron.mp3", "Phone/Music/skip.ogg"},
         {},
         {"Could not fetch more items for container M of storage S. Got 2 / 7. Checking if "
          "number of elements changed",
          "New number of elements for container M of storage S is 7"}},
        {"two empty later batches: the folder is left incomplete",
         2,
         {{"Phone/Music", 2}},
         {},
         0,
         true,
         {"Phone/Music/.secret.mp3"},
         {"Phone/Music/Gears/iron.mp3"},
         {"Could not fetch more items for container M of storage S. Got 2 / 7. Checking if "
          "number of elements changed",
          "New number of elements for container M of storage S is 7",
          "Could not fetch all items for container M of storage S. Got 2 / 7"}},
        {"nothing at the start of a folder said to hold 2",
         0,
         {},
         {{"Phone/Empty", 2}},
         0,
         true,
         {"Phone/Music/Jazz/blue.m4a"},
         {},
         {"Folder E of storage S answered no items 81 times: given up"}},
        {"a bad handle", 0, {}, {}, 6, false, {}, {"Phone/Music/Jazz/blue.m4a"}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SimulatedDevice::Faults faults;
        faults.pageSize = c.pageSize;
        faults.emptyLaterBatches = c.emptyLater;
        faults.firstCount = c.firstCount;
        faults.badHandleAfter = c.badHandleAfter;
        plugIn(faults);
        cap.clear();
        EXPECT_EQ(c.result, impl.crawlMtpDevice());
        for (const std::string& path : c.known)
            EXPECT_TRUE(known(path)) << path;
        for (const std::string& path : c.unknown)
            EXPECT_FALSE(known(path)) << path;
        Strings warnings;
        for (const olvane::LogLine& line : cap.lines())
            if (line.level == DLT_LOG_WARN)
                warnings.push_back(line.message);
        Strings expected;
        for (std::string w : c.warnings) {
            for (const auto& [from, to] :
                 {std::pair<std::string, std::string>{
                      "container M", "container " + std::to_string(id("Phone/Music"))},
                  {"Folder E", "Folder " + std::to_string(id("Phone/Empty"))},
                  {"storage S", "storage " + std::to_string(id("Phone"))}})
                if (w.find(from) != std::string::npos)
                    w.replace(w.find(from), from.size(), to);
            expected.push_back(w);
        }
        EXPECT_EQ(expected, warnings);
        EXPECT_EQ(c.result ? 0 : 1,
                  cap.count(" - Fail to invoke method: MTPFileTree . - STATUS NOT OK BAD HANDLE!"));
        phone.reset();
    }
    EXPECT_EQ(1, cap.count("Ignoring folder:DCIM - id:2"));
}

TEST_F(MtpConnectionTest, FilterRules) {
    for (const char* name : {"DCIM", "dcim", "Dcim", ".trash", "Android", "system"})
        EXPECT_TRUE(Impl::isDirectoryBlacklisted(name)) << name;
    for (const char* name : {"DCIMs", "Music", "My Pictures"})
        EXPECT_FALSE(Impl::isDirectoryBlacklisted(name)) << name;
    for (const char* name : {"song.ogg", "SONG.OGG", "xogg"})
        EXPECT_TRUE(Impl::isExcludedFile(name)) << name;
    for (const char* name : {"ogg", "a.mp3", "ogg.mp3"})
        EXPECT_FALSE(Impl::isExcludedFile(name)) << name;
    EXPECT_TRUE(Impl::isHiddenFile("/Music/.hidden/a.mp3"));
    EXPECT_TRUE(Impl::isHiddenFile("/Music/.a.mp3"));
    EXPECT_FALSE(Impl::isHiddenFile("Phone/Music/a.b.mp3"));
}

// The folders of the tracks that can be indexed, each before its ancestors,
// in order of first appearance; a track in an unwalked folder (the top-level
// DCIM, listed first) is left out and the others still count.
TEST_F(MtpConnectionTest, FolderCacheOrderAndTrackLimits) {
    plugIn();
    ASSERT_TRUE(impl.crawlMtpDevice());
    t_playlist_items_list tracks, playlists;
    ASSERT_TRUE(impl.loadDeviceData(tracks, playlists));
    EXPECT_EQ(7u, tracks.count);
    Strings dirs;
    impl.MTPCreateDirCache(dirs, tracks);
    EXPECT_EQ(Strings({"Phone/Music", "Phone", "Phone/Music/DCIM", "Phone/Music/Gears",
                       "Phone/Music/Jazz"}),
              dirs);
    EXPECT_EQ(1, cap.count("- error while getting track path"));
    for (t_playlist_items_list* list : {&tracks, &playlists}) {
        for (unsigned i = 0; i < list->count; ++i)
            free(list->items[i].name);
        free(list->items);
    }

    t_playlist_items_list many = {
        16001, static_cast<t_playlist_item*>(calloc(16001, sizeof(t_playlist_item)))};
    impl.MTPCreateDirCache(dirs, many);
    EXPECT_TRUE(dirs.empty());
    EXPECT_EQ(1, cap.count("Invalid playlist size: 16001"));
    free(many.items);

    // A phone with 20000 tracks gives 16000.
    struct Crowded : SimulatedDevice {
        using SimulatedDevice::SimulatedDevice;
        t_status getNumElements(t_content_categories c, unsigned& n) override {
            n = c == CATEGORY_TRACKS ? 20000 : 0;
            return STATUS_OK;
        }
        t_status getPlaylistElements(t_content_categories, unsigned start, unsigned count,
                                     t_playlist_items_list& list) override {
            list.count = std::min(count, 20000 - start);
            list.items = static_cast<t_playlist_item*>(calloc(list.count, sizeof(t_playlist_item)));
            return STATUS_OK;
        }
    };
    phone.reset();
    const t_handle crowded = kHandle + 1;
    ASSERT_TRUE(portolan::DeviceTable::instance().attach(
        crowded,
        std::make_shared<Crowded>(crowded, "crowded", std::vector<SimulatedDevice::Storage>{},
                                  SimulatedDevice::Faults())));
    kestrow::MtpDevice::instance().setDeviceConnected(crowded);
    Impl crowdedImpl(crowded, deviceId);
    ASSERT_TRUE(crowdedImpl.loadDeviceData(tracks, playlists));
    EXPECT_EQ(16000u, tracks.count);
    free(tracks.items);
    portolan::DeviceTable::instance().unplug(crowded);
}

TEST_F(MtpConnectionTest, Records) {
    dir.copySample("blank-title.mp3", "phone/Music/blank.mp3");
    dir.copySample("random-bytes.m4a", "phone/Music/untagged.mp3");
    dir.write("phone/Music/None.m3u", "missing.mp3\n");
    SimulatedDevice::Faults faults;
    faults.noMetadata = {"Phone/Music/Jazz/blue.m4a"};
    faults.emptyTitles = {"Phone/Music/Gears/copper.mp3"};
    plugIn(faults);
    ASSERT_TRUE(impl.crawlMtpDevice());

    // Title, artist, album, genre, composer and track number, or "null".
    const std::vector<std::pair<std::string, std::string>> tracks = {
        {"Phone/Music/Gears/iron.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale|1"},
        {"Phone/Music/Gears/copper.mp3", "copper|The Rusty Gears|Steam and Steel|Rock|Tom Hale|2"},
        {"Phone/Music/Jazz/blue.m4a",
         "Blue Hour|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|0"},
        {"Phone/Music/blank.mp3", "blank|Lia Moreno|Postcards|Pop|Various Composers|3"},
        {"Phone/Music/untagged.mp3",
         "untagged|Various Artists|Various Albums|Various Genre|Various Composers|0"},
        {"Phone/Music/skip.ogg", "null"},
        {"Phone/Music/.secret.mp3", "null"},
        {"Phone/DCIM/motor.mp3", "null"},
    };
    for (const auto& [path, want] : tracks) {
        std::unique_ptr<MetaDataInfo> song(
            impl.generateTrack("ignored", "mtp-folder://phone", id(path), 42));
        if (!song) {
            EXPECT_EQ(want, "null") << path;
            continue;
        }
        EXPECT_EQ(want, song->title + "|" + song->artist + "|" + song->album + "|" + song->genre +
                            "|" + song->composer + "|" + std::to_string(song->trackNumber))
            << path;
        EXPECT_EQ(path, song->path);
        EXPECT_EQ(MtpUtils::getObjectIdForMtpTrack(id(path), "phone"), song->objectId);
        EXPECT_EQ(Md5(Md5::DIRECTORY, "mtp-folder://phone").toString(), song->partitionId);
        EXPECT_EQ(42, song->lastModified);
    }

    const t_track_id road = id("Phone/Music/Road.m3u");
    std::unique_ptr<kestrow::Playlist> playlist(
        impl.generatePlaylist("phone", "mtp-folder://phone", road));
    ASSERT_TRUE(playlist);
    const std::string uri = "mtp-playlist://" + std::to_string(road) + "/Road";
    EXPECT_EQ(uri, playlist->path);
    EXPECT_EQ("Road", playlist->name);
    EXPECT_EQ(Md5(Md5::PLAYLIST, uri), playlist->id);
    EXPECT_EQ(Md5(Md5::DIRECTORY, "mtp-folder://phone"), playlist->partitionId);
    Strings entries;
    for (const kestrow::PlaylistEntry* e : playlist->entries)
        entries.push_back(e->path + (e->isMtp == 1 ? "" : " not MTP"));
    EXPECT_EQ(Strings({MtpUtils::getObjectIdForMtpTrack(id("Phone/Music/Gears/iron.mp3"), "phone"),
                       MtpUtils::getObjectIdForMtpTrack(id("Phone/Music/Jazz/blue.m4a"), "phone"),
                       MtpUtils::getObjectIdForMtpTrack(id("Phone/Music/skip.ogg"), "phone"), ""}),
              entries);
    EXPECT_EQ(nullptr,
              impl.generatePlaylist("phone", "mtp-folder://phone", id("Phone/Music/None.m3u")));
    EXPECT_EQ(1, cap.count("[TQRA] Empty playlist or device error (playlist size 0)"));

    // Folders: a storage's own folder and one right under the root hang off the root.
    const std::vector<std::pair<std::string, std::string>> folders = {
        {"Phone/Music/Jazz", "Jazz|Phone/Music|0"},
        {"Phone", "Phone|phone|1"},
        {"/Music", "Music|phone|1"}};
    for (const auto& [path, want] : folders) {
        std::unique_ptr<kestrow::MtpDirectory> d(
            impl.generateDirectory(path, "mtp-folder://phone", "phone"));
        EXPECT_EQ(want, d->name + "|" + d->parentPath + "|" + std::to_string(d->topLevel));
        EXPECT_EQ(Md5(Md5::DIRECTORY, path), d->objectId);
        EXPECT_EQ(Md5(Md5::DIRECTORY, d->parentPath), d->parentId);
        EXPECT_EQ(Md5(Md5::DIRECTORY, "mtp-folder://phone"), d->partitionId);
    }
}

}  // namespace
