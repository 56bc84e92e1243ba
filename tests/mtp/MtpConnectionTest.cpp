// The connection to a phone through the device-access library, and the
// stages built on it: the miners and the folder saver.
#include "mtp/MtpConnection.h"

#include "facade/KestrowQTProxy.h"
#include "mtp/MtpConnectionImpl.h"
#include "mtp/MtpDirectory.h"
#include "mtp/MtpDirectorySaver.h"
#include "mtp/MtpMiner.h"
#include "mtp/MtpPlaylistMiner.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/mtputils/MtpUtils.h"
#include "playlist/Playlist.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Testing.h"

using kestrow::FileInfo;
using kestrow::MtpConnection;
using olvane::test::dbColumn;
using olvane::test::Strings;
using portolan::SimulatedDevice;
using Impl = kestrow::MtpConnection::Impl;

namespace {

const t_handle kHandle = 61;

std::vector<unsigned> gSleeps;  // every pause asked for, in microseconds
long pauses(unsigned us) {
    return std::count(gSleeps.begin(), gSleeps.end(), us);
}

// Object numbers of the phone: Phone 1, DCIM 2, Music 5, Music/DCIM 8, Gears 10, Jazz 13.
class MtpConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = olvane::test::makePhoneTree(dir);
        dir.copySample("gears-old-times.mp3", "phone/Music/DCIM/deep.mp3");
        dir.mkdir("phone/Empty");
    }
    void plugIn(const SimulatedDevice::Faults& faults = {}) {
        phone.reset();
        phone = std::make_unique<olvane::test::PluggedPhone>(kHandle, "phone", folder, faults);
        kestrow::MtpDevice::instance().setDeviceConnected(kHandle);
        MtpConnection::setSleepFunction([](unsigned us) { gSleeps.push_back(us); });
        gSleeps.clear();
        cap.clear();
    }
    t_track_id id(const std::string& rawPath) { return phone->device->objectId(rawPath); }
    std::string songId(const std::string& rawPath) {
        return MtpUtils::getObjectIdForMtpTrack(id(rawPath), "phone");
    }
    bool known(const std::string& rawPath) { return !phone->device->rawPath(id(rawPath)).empty(); }
    // A block of op `op` naming the objects at `paths`.
    boost::shared_ptr<kestrow::Block<FileInfo*>> files(int op, const Strings& paths) {
        auto in = olvane::test::makeBlock<FileInfo>(
            kestrow::Operation(op, kHandle, "phone", "mtp-folder://phone", true));
        for (const std::string& path : paths)
            in->items.push_back(new FileInfo(path, id(path), 0));
        return in;
    }
    // Mines copper, iron and blue, after one listing of Gears (Jazz is never
    // listed): each song then takes six calls. Titles, or "null", and "gone"
    // when the block says the phone is gone.
    std::string mine(const SimulatedDevice::Faults& faults) {
        plugIn(faults);
        olvane::test::ItemList list;
        Access_GetItems(kHandle, {2, int32_t(id("Phone/Music/Gears")), 1}, 8, 0, 9, list);
        auto out =
            kestrow::MtpMiner("MtpMiner")
                .doOperation(files(5, {"Phone/Music/Gears/copper.mp3", "Phone/Music/Gears/iron.mp3",
                                       "Phone/Music/Jazz/blue.m4a"}));
        std::string titles;
        for (const MetaDataInfo* song : out->items)
            titles += (song ? song->title : "null") + "|";
        return titles + (out->operation.deviceGone ? "gone" : "");
    }

    olvane::test::TempDir dir;
    std::string folder, deviceId = "phone";
    std::unique_ptr<olvane::test::PluggedPhone> phone;
    Impl impl{kHandle, deviceId};
    olvane::LogCapture cap;
};

TEST_F(MtpConnectionTest, BusyLibraryIsAskedAgainOnceASecondUpTo80Times) {
    SimulatedDevice::Faults faults;
    faults.busyFirst = {{SimulatedDevice::GET_NUM_ITEMS, 3},
                        {SimulatedDevice::GET_ITEMS, 1000},
                        {SimulatedDevice::GET_TRACK_TITLE, 81},
                        {SimulatedDevice::GET_TRACK_FILE_NAME, 80}};
    plugIn(faults);
    unsigned n = 0;
    EXPECT_EQ(STATUS_OK, impl.SafeGetNumItems(kHandle, {0, 0, 0}, 7, n));
    EXPECT_EQ((std::vector<unsigned>{10000, 1000000, 10000, 1000000, 10000, 1000000, 10000}),
              gSleeps);

    gSleeps.clear();
    t_mtp_item_list list;
    EXPECT_EQ(STATUS_PROCESSING, impl.SafeGetItems(kHandle, {0, 0, 0}, 7, 0, n, list));
    EXPECT_EQ(std::make_pair(81L, 80L), std::make_pair(pauses(10000), pauses(1000000)));

    // No 10 ms pauses here; a title still busy after 81 answers falls back to
    // the file name, found on its 81st try.
    gSleeps.clear();
    EXPECT_EQ("iron", impl.getTrackTitle(id("Phone/Music/Gears/iron.mp3")));
    EXPECT_EQ(std::make_pair(0L, 160L), std::make_pair(pauses(10000), pauses(1000000)));
}

TEST_F(MtpConnectionTest, TreeWalkPagesRetriesEmptyBatchesAndSkipsTopLevelFolders) {
    const std::string deep = "Phone/Music/DCIM/deep.mp3", blue = "Phone/Music/Jazz/blue.m4a",
                      iron = "Phone/Music/Gears/iron.mp3", secret = "Phone/Music/.secret.mp3";
    const std::string more =
        "Could not fetch more items for container 5 of storage 1. Got 2 / 7. Checking if number "
        "of elements changed";
    const std::string recount = "New number of elements for container 5 of storage 1 is 7";
    const std::string all = "Could not fetch all items for container 5 of storage 1. Got 2 / 7";
    const std::string given = "Folder 4 of storage 1 answered no items 81 times: given up";
    struct Case {
        unsigned pageSize, emptyLater, firstCount, badHandleAfter;
        bool result;
        std::string known, unknown;
        Strings warnings;
    } cases[] = {
        {2, 0, 0, 0, true, deep, "Phone/DCIM/motor.mp3", {}},
        {2, 1, 0, 0, true, "Phone/Music/skip.ogg", "", {more, recount}},
        {2, 2, 0, 0, true, secret, iron, {more, recount, all}},
        {0, 0, 2, 0, true, blue, "", {given}},  // a folder said to hold 2, but empty
        {0, 0, 0, 6, false, "", blue, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.known + c.unknown);
        SimulatedDevice::Faults faults;
        faults.pageSize = c.pageSize;
        if (c.emptyLater)
            faults.emptyLaterBatches["Phone/Music"] = c.emptyLater;
        if (c.firstCount)
            faults.firstCount["Phone/Empty"] = c.firstCount;
        faults.badHandleAfter = c.badHandleAfter;
        plugIn(faults);
        EXPECT_EQ(c.result, impl.crawlMtpDevice());
        EXPECT_TRUE((c.known.empty() || known(c.known)) &&
                    (c.unknown.empty() || !known(c.unknown)));
        Strings warnings;
        for (const olvane::LogLine& line : cap.lines())
            if (line.level == DLT_LOG_WARN)
                warnings.push_back(line.message);
        EXPECT_EQ(c.warnings, warnings);
    }
}

// The folders of the tracks that can be indexed, each before its ancestors,
// in order of first appearance; a track in an unwalked folder (the top-level
// DCIM, listed first) is left out and the others still count.
TEST_F(MtpConnectionTest, FolderCache) {
    plugIn();
    ASSERT_TRUE(impl.crawlMtpDevice());
    olvane::test::ElementList tracks, playlists;
    ASSERT_TRUE(impl.loadDeviceData(tracks, playlists));
    Strings dirs;
    impl.MTPCreateDirCache(dirs, tracks);
    EXPECT_EQ(Strings({"Phone/Music", "Phone", "Phone/Music/DCIM", "Phone/Music/Gears",
                       "Phone/Music/Jazz"}),
              dirs);

    olvane::test::ElementList many;
    many.items = static_cast<t_playlist_item*>(calloc(16001, sizeof(t_playlist_item)));
    many.count = 16001;
    impl.MTPCreateDirCache(dirs, many);
    EXPECT_TRUE(dirs.empty());
}

// Tracks, playlists and folders as the stages store them. The device's date
// text of a track or playlist gives back its file's time (a day below 10 is
// written with two blanks).
TEST_F(MtpConnectionTest, Records) {
    dir.copySample("blank-title.mp3", "phone/Music/blank.mp3");
    dir.copySample("random-bytes.m4a", "phone/Music/untagged.mp3");
    dir.write("phone/Music/None.m3u", "missing.mp3\n");
    const long long t = 1578225600;  // Sun Jan  5 2020
    for (const char* file : {"phone/Music/Gears/iron.mp3", "phone/Music/Road.m3u"})
        olvane::test::setMtime(dir.file(file), t);
    SimulatedDevice::Faults faults;
    faults.noMetadata = {"Phone/Music/Jazz/blue.m4a"};
    faults.emptyTitles = {"Phone/Music/Gears/copper.mp3"};
    plugIn(faults);
    ASSERT_TRUE(impl.crawlMtpDevice());

    // Title, artist, album, genre, composer and track number, or nothing.
    const std::pair<std::string, std::string> tracks[] = {
        {"Phone/Music/Gears/iron.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale|1"},
        {"Phone/Music/Gears/copper.mp3", "copper|The Rusty Gears|Steam and Steel|Rock|Tom Hale|2"},
        {"Phone/Music/Jazz/blue.m4a",
         "Blue Hour|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|0"},
        {"Phone/Music/blank.mp3", "blank|Lia Moreno|Postcards|Pop|Various Composers|3"},
        {"Phone/Music/untagged.mp3",
         "untagged|Various Artists|Various Albums|Various Genre|Various Composers|0"},
        {"Phone/Music/skip.ogg", ""},
        {"Phone/Music/.secret.mp3", ""},
        {"Phone/DCIM/motor.mp3", ""},
    };
    for (const auto& [path, want] : tracks) {
        std::unique_ptr<MetaDataInfo> s(impl.generateTrack("", "mtp-folder://phone", id(path), 42));
        EXPECT_EQ(want.empty() ? "" : want + "|" + path + songId(path) + "42",
                  !s ? ""
                     : s->title + "|" + s->artist + "|" + s->album + "|" + s->genre + "|" +
                           s->composer + "|" + std::to_string(s->trackNumber) + "|" + s->path +
                           s->objectId + std::to_string(s->lastModified));
    }
    EXPECT_EQ(t, impl.getTrackDateModifiedEpoch(id("Phone/Music/Gears/iron.mp3")));

    // A playlist's entries name their songs, also those never indexed; an
    // empty playlist is none.
    const t_track_id road = id("Phone/Music/Road.m3u");
    std::unique_ptr<kestrow::Playlist> p(
        impl.generatePlaylist("phone", "mtp-folder://phone", road));
    ASSERT_TRUE(p);
    Strings entries = {p->path + " " + std::to_string(p->modified)};
    for (const kestrow::PlaylistEntry* e : p->entries)
        entries.push_back(e->path);
    EXPECT_EQ(Strings({"mtp-playlist://" + std::to_string(road) + "/Road " + std::to_string(t),
                       songId("Phone/Music/Gears/iron.mp3"), songId("Phone/Music/Jazz/blue.m4a"),
                       songId("Phone/Music/skip.ogg"), ""}),
              entries);
    EXPECT_EQ(nullptr, impl.generatePlaylist("phone", "", id("Phone/Music/None.m3u")));

    // A storage's own folder and one right under the root hang off the root.
    const std::pair<std::string, std::string> folders[] = {
        {"Phone/Music/Jazz", "Jazz|Phone/Music|0"},
        {"Phone", "Phone|phone|1"},
        {"/Music", "Music|phone|1"}};
    for (const auto& [path, want] : folders) {
        std::unique_ptr<kestrow::MtpDirectory> d(
            impl.generateDirectory(path, "mtp-folder://phone", "phone"));
        EXPECT_EQ(want, d->name + "|" + d->parentPath + "|" + std::to_string(d->topLevel));
        EXPECT_EQ(Md5(Md5::DIRECTORY, d->parentPath), d->parentId);
    }
}

TEST_F(MtpConnectionTest, MinersLeaveTheSlotsOfAGonePhoneEmpty) {
    olvane::test::TempDir dbDir;
    DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
    EXPECT_EQ("Copper Sky|Iron Road|null|", mine({}));
    SimulatedDevice::Faults faults;
    faults.unplugAfter = 1 + 6 + 2;
    EXPECT_EQ("Copper Sky|null|null|gone", mine(faults));

    // Each playlist takes five calls: the second is read while the phone is unplugged.
    faults.unplugAfter = 5 + 2;
    plugIn(faults);
    auto lists = kestrow::MtpPlaylistMiner("MtpPlaylistMiner")
                     .doOperation(files(6, {"Phone/Music/Best.m3u", "Phone/Music/Road.m3u"}));
    ASSERT_EQ(1u, lists->items.size());
    EXPECT_EQ("Best gone", lists->items[0]->name + (lists->operation.deviceGone ? " gone" : ""));

    DatabaseMgr::instance().createDb("phone", "mtp-folder://phone", true);
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("phone").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    EXPECT_EQ("null|null|null|", mine({}));
}

TEST(MtpDirectorySaverTest, AChangedFolderSetRewritesTheTableUnlessTheDeviceIsGone) {
    olvane::test::TempDir dbDir;
    DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
    DatabaseMgr::instance().createDb("phone", "mtp-folder://phone", true);
    dbColumn("phone", "INSERT INTO DIRECTORIES (PATH) VALUES ('/media/usb/a');");
    QSignalSpy modified(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);
    kestrow::MtpDirectorySaver saver("MtpDirectorySaver");
    saver.start();
    const std::string all = "SELECT PATH || '|' || NAME FROM DIRECTORIES ORDER BY PATH;";
    for (bool gone : {false, true}) {
        auto in = olvane::test::makeBlock<kestrow::MtpDirectory>(
            kestrow::Operation(4, 9, "phone", "mtp-folder://phone", true));
        in->operation.deviceGone = gone;
        for (const char* path : {"Phone/Music", "Phone"})
            in->items.push_back(new kestrow::MtpDirectory(path, "mtp-folder://phone", "phone"));
        EXPECT_EQ(gone, saver.doOperation(in)->operation.deviceGone);
        EXPECT_EQ(
            gone ? Strings({"Phone/Music|Music"}) : Strings({"Phone|Phone", "Phone/Music|Music"}),
            dbColumn("phone", all));
        EXPECT_EQ(1, modified.count());
        dbColumn("phone", "DELETE FROM DIRECTORIES WHERE PATH = 'Phone';");
    }
}

}  // namespace
