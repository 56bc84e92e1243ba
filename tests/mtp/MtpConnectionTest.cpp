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

using namespace kestrow;
using namespace olvane::test;
using Sim = portolan::SimulatedDevice;
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
        folder = makePhoneTree(dir);
        dir.copySample("gears-old-times.mp3", "phone/Music/DCIM/deep.mp3");
        dir.mkdir("phone/Empty");
    }
    void plugIn(const Sim::Faults& faults = {}) {
        phone.reset();
        phone = std::make_unique<PluggedPhone>(kHandle, "phone", folder, faults);
        MtpDevice::instance().setDeviceConnected(kHandle);
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
    boost::shared_ptr<Block<FileInfo*>> files(int op, const Strings& paths) {
        auto in = makeBlock<FileInfo>(Operation(op, kHandle, "phone", "mtp-folder://phone", true));
        for (const std::string& path : paths)
            in->items.push_back(new FileInfo(path, id(path), 0));
        return in;
    }
    // Mines copper, iron and blue, after one listing of Gears (Jazz is never
    // listed): each song then takes six calls. Titles, or "null", and "gone"
    // when the block says the phone is gone.
    std::string mine(const Sim::Faults& faults) {
        plugIn(faults);
        ItemList list;
        Access_GetItems(kHandle, {2, int32_t(id("Phone/Music/Gears")), 1}, 8, 0, 9, list);
        auto out = MtpMiner("MtpMiner").doOperation(files(5, {copper, iron, blue}));
        std::string titles;
        for (const MetaDataInfo* song : out->items)
            titles += (song ? song->title : "null") + "|";
        return titles + (out->operation.deviceGone ? "gone" : "");
    }

    const std::string iron = "Phone/Music/Gears/iron.mp3", copper = "Phone/Music/Gears/copper.mp3",
                      blue = "Phone/Music/Jazz/blue.m4a";
    TempDir dir;
    std::string folder, deviceId = "phone";
    std::unique_ptr<PluggedPhone> phone;
    Impl impl{kHandle, deviceId};
    olvane::LogCapture cap;
};

TEST_F(MtpConnectionTest, BusyLibraryIsAskedAgainOnceASecondUpTo80Times) {
    Sim::Faults faults;
    faults.busyFirst = {
        {Sim::GET_NUM_ITEMS, 3}, {Sim::GET_ITEMS, 1000}, {Sim::GET_TRACK_TITLE, 81}};
    faults.busyFirst[Sim::GET_TRACK_FILE_NAME] = 80;
    plugIn(faults);
    unsigned n = 0;
    EXPECT_EQ(STATUS_OK, impl.SafeGetNumItems(kHandle, {0, 0, 0}, 7, n));
    EXPECT_EQ((std::vector<unsigned>{10000, 1000000, 10000, 1000000, 10000, 1000000, 10000}),
              std::exchange(gSleeps, {}));
    t_mtp_item_list list;
    EXPECT_EQ(STATUS_PROCESSING, impl.SafeGetItems(kHandle, {0, 0, 0}, 7, 0, n, list));
    EXPECT_EQ(std::make_pair(81L, 80L), std::make_pair(pauses(10000), pauses(1000000)));

    // No 10 ms pauses here; a title still busy after 81 answers falls back to
    // the file name, found on its 81st try.
    gSleeps.clear();
    EXPECT_EQ("iron", impl.getTrackTitle(id(iron)));
    EXPECT_EQ(std::make_pair(0L, 160L), std::make_pair(pauses(10000), pauses(1000000)));
}

TEST_F(MtpConnectionTest, TreeWalkPagesAndRetriesEmptyBatches) {
    const std::string at = " items for container 5 of storage 1. Got 2 / 7",
                      all = "Could not fetch all" + at,
                      given = "Folder 4 of storage 1 answered no items 81 times: given up";
    const Strings more = {"Could not fetch more" + at + ". Checking if number of elements changed",
                          "New number of elements for container 5 of storage 1 is 7"};
    struct Case {
        unsigned pageSize, emptyLater, firstCount, badHandleAfter;
        bool result;
        std::string known, unknown;
        Strings warnings;
    } cases[] = {
        {2, 1, 0, 0, true, "Phone/Music/skip.ogg", "", more},
        {2, 2, 0, 0, true, "Phone/Music/.secret.mp3", iron, {more[0], more[1], all}},
        {0, 0, 2, 0, true, blue, "", {given}},  // a folder said to hold 2, but empty
        {0, 0, 0, 6, false, "Phone/Music", blue, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.known + c.unknown);
        Sim::Faults faults;
        faults.pageSize = c.pageSize;
        faults.emptyLaterBatches["Phone/Music"] = c.emptyLater;
        faults.firstCount["Phone/Empty"] = c.firstCount;
        faults.badHandleAfter = c.badHandleAfter;
        plugIn(faults);
        EXPECT_TRUE(impl.crawlMtpDevice() == c.result && known(c.known) && !known(c.unknown));
        Strings warnings;
        for (const olvane::LogLine& line : cap.lines())
            if (line.level == DLT_LOG_WARN)
                warnings.push_back(line.message);
        EXPECT_EQ(c.warnings, warnings);
    }
}

// Tracks, playlists and folders as the stages store them. The folders of the
// tracks that can be indexed come each before its ancestors, in order of first
// appearance; a track in an unwalked folder (the top-level DCIM, listed first;
// a DCIM below Music is walked) is left out and the others still count; past
// 16000 tracks there are none.
// The device's date text of a playlist gives back its file's time (a day
// below 10 is written with two blanks).
TEST_F(MtpConnectionTest, Records) {
    dir.copySample("blank-title.mp3", "phone/Music/blank.mp3");
    dir.copySample("random-bytes.m4a", "phone/Music/untagged.mp3");
    dir.write("phone/Music/None.m3u", "missing.mp3\n");
    const long long t = 1578225600;  // Sun Jan  5 2020
    setMtime(dir.file("phone/Music/Road.m3u"), t);
    Sim::Faults faults;
    faults.noMetadata = {blue};
    faults.emptyTitles = {copper};
    plugIn(faults);
    ASSERT_TRUE(impl.crawlMtpDevice());
    ElementList tracks, playlists;
    ASSERT_TRUE(impl.loadDeviceData(tracks, playlists));
    Strings dirs;
    impl.MTPCreateDirCache(dirs, tracks);
    EXPECT_EQ(dirs, Strings({"Phone/Music", "Phone", "Phone/Music/DCIM", "Phone/Music/Gears",
                             "Phone/Music/Jazz"}));
    std::vector<t_playlist_item> many(16001, {nullptr, id(iron), 0});
    t_playlist_items_list list{16001, many.data()};
    impl.MTPCreateDirCache(dirs, list);
    EXPECT_TRUE(dirs.empty());

    // Title, artist, album, genre, composer and track number, or nothing.
    const std::pair<std::string, std::string> songs[] = {
        {iron, "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale|1"},
        {copper, "copper|The Rusty Gears|Steam and Steel|Rock|Tom Hale|2"},
        {blue, "Blue Hour|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|0"},
        {"Phone/Music/blank.mp3", "blank|Lia Moreno|Postcards|Pop|Various Composers|3"},
        {"Phone/Music/untagged.mp3",
         "untagged|Various Artists|Various Albums|Various Genre|Various Composers|0"},
        {"Phone/Music/skip.ogg", ""},
        {"Phone/Music/.secret.mp3", ""},
        {"Phone/DCIM/motor.mp3", ""},
    };
    for (const auto& [path, want] : songs) {
        std::unique_ptr<MetaDataInfo> s(impl.generateTrack("", "mtp-folder://phone", id(path), 42));
        EXPECT_EQ(want, !s ? ""
                           : s->title + "|" + s->artist + "|" + s->album + "|" + s->genre + "|" +
                                 s->composer + "|" + std::to_string(s->trackNumber));
    }

    // A playlist's entries name their songs, also those never indexed; an
    // empty playlist is none.
    const t_track_id road = id("Phone/Music/Road.m3u");
    std::unique_ptr<Playlist> p(impl.generatePlaylist("phone", "mtp-folder://phone", road));
    ASSERT_TRUE(p);
    Strings entries = {p->path + " " + std::to_string(p->modified)};
    for (const PlaylistEntry* e : p->entries)
        entries.push_back(e->path);
    EXPECT_EQ(entries,
              Strings({"mtp-playlist://" + std::to_string(road) + "/Road " + std::to_string(t),
                       songId(iron), songId(blue), songId("Phone/Music/skip.ogg"), ""}));
    EXPECT_EQ(nullptr, impl.generatePlaylist("phone", "", id("Phone/Music/None.m3u")));

    // A storage's own folder and one right under the root hang off the root.
    Strings folders;
    for (const char* path : {"Phone/Music/Jazz", "Phone", "/Music"}) {
        const MtpDirectory d(path, "mtp-folder://phone", "phone");
        folders.push_back(d.name + "|" + d.parentPath +
                          (d.parentId == Md5(Md5::DIRECTORY, d.parentPath) ? "" : " (bad id)"));
    }
    EXPECT_EQ(Strings({"Jazz|Phone/Music", "Phone|phone", "Music|phone"}), folders);
}

// The folder saver rewrites a changed folder set (announced once), and keeps
// it when the device is gone. The miners leave the slots of the songs and
// playlists a gone phone did not give empty, and mark the block; a database
// at its size limit gets no songs.
TEST_F(MtpConnectionTest, StagesOfAGonePhone) {
    TempDir dbDir;
    DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
    DatabaseMgr::instance().createDb("phone", "mtp-folder://phone", true);
    dbColumn("phone", "INSERT INTO DIRECTORIES (PATH) VALUES ('/media/usb/a');");
    QSignalSpy modified(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);
    MtpDirectorySaver saver("MtpDirectorySaver");
    saver.start();
    for (bool gone : {false, true}) {
        auto in = makeBlock<MtpDirectory>(Operation(4, 9, "phone", "mtp-folder://phone", true));
        in->operation.deviceGone = gone;
        for (const char* path : {"Phone/Music", "Phone"})
            in->items.push_back(new MtpDirectory(path, "mtp-folder://phone", "phone"));
        EXPECT_EQ(gone, saver.doOperation(in)->operation.deviceGone);
        EXPECT_EQ(
            gone ? Strings({"Phone/Music|Music"}) : Strings({"Phone|Phone", "Phone/Music|Music"}),
            dbColumn("phone", "SELECT PATH || '|' || NAME FROM DIRECTORIES ORDER BY PATH;"));
        EXPECT_EQ(1, modified.count());
        dbColumn("phone", "DELETE FROM DIRECTORIES WHERE PATH = 'Phone';");
    }

    EXPECT_EQ("Copper Sky|Iron Road|null|", mine({}));
    Sim::Faults faults;
    faults.unplugAfter = 1 + 6 + 2;
    EXPECT_EQ("Copper Sky|null|null|gone", mine(faults));
    // Each playlist takes five calls: the second is read while the phone is unplugged.
    faults.unplugAfter = 5 + 2;
    plugIn(faults);
    auto lists = MtpPlaylistMiner("MtpPlaylistMiner")
                     .doOperation(files(6, {"Phone/Music/Best.m3u", "Phone/Music/Road.m3u"}));
    ASSERT_EQ(1u, lists->items.size());
    EXPECT_EQ("Best gone", lists->items[0]->name + (lists->operation.deviceGone ? " gone" : ""));
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("phone").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    EXPECT_EQ("null|null|null|", mine({}));
}

}  // namespace
