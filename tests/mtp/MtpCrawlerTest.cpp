#include "mtp/MtpCrawler.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "tests/msd/MsdTestSupport.h"
#include "tests/support/SimulatedPhone.h"

using kestrow::Block;
using kestrow::FileInfo;
using kestrow::MtpDirectory;
using olvane::test::StageCollector;

namespace {

const t_handle kHandle = 71;

struct Crawl {
    boost::shared_ptr<Block<FileInfo*>> tracks, playlists;
    boost::shared_ptr<Block<MtpDirectory*>> folders;
};

class MtpCrawlerTest : public ::testing::Test {
protected:
    // One operation of a running crawler on the test's phone; with
    // `announce`, the device is announced ready once the crawler connects it.
    Crawl crawl(bool announce) {
        kestrow::MtpCrawler crawler("MtpCrawler");
        StageCollector<Block<FileInfo*>> playlists;
        StageCollector<Block<MtpDirectory*>> folders;
        crawler.setPlaylistTarget(&playlists);
        crawler.setFolderTarget(&folders);
        crawler.start();
        boost::shared_ptr<Block<kestrow::Directory*>> root(new Block<kestrow::Directory*>());
        root->operation = kestrow::Operation(3, kHandle, "phone", "mtp-folder://phone", true);
        root->items.push_back(
            new kestrow::Directory("mtp-folder://phone", "mtp-folder://phone", -1));
        auto tracks = std::async(std::launch::async, [&] { return crawler.doOperation(root); });
        if (announce) {
            EXPECT_TRUE(olvane::test::announceWhenConnected(cap, kHandle));
        }
        Crawl c;
        c.tracks = tracks.get();
        c.playlists = playlists.blocks.at(0);
        c.folders = folders.blocks.at(0);
        return c;
    }
    static std::string gone(const Crawl& c) {
        return std::to_string(c.tracks->operation.deviceGone) +
               std::to_string(c.playlists->operation.deviceGone) +
               std::to_string(c.folders->operation.deviceGone);
    }

    olvane::test::TempDir dir;
    olvane::LogCapture cap;
};

TEST_F(MtpCrawlerTest, PlaylistsWithoutTracks) {
    dir.write("phone/Lists/A.m3u", "none.mp3\n");
    dir.write("phone/Lists/B.m3u", "");
    olvane::test::PluggedPhone phone(kHandle, "phone", dir.file("phone"));
    const Crawl c = crawl(true);
    EXPECT_TRUE(c.tracks->items.empty());
    EXPECT_TRUE(c.folders->items.empty());
    ASSERT_EQ(2u, c.playlists->items.size());
    for (const char* name : {"A", "B"}) {
        const t_track_id id = phone.device->objectId(std::string("Phone/Lists/") + name + ".m3u");
        const FileInfo* file = c.playlists->items[name[0] - 'A'];
        EXPECT_EQ("mtp-playlist://" + std::to_string(id), *file->path);
        EXPECT_EQ(id, file->reserved);
        EXPECT_EQ(0, file->lastModified);
    }
    EXPECT_EQ("000", gone(c));
    EXPECT_TRUE(c.playlists->operation.lastBlock && c.folders->operation.lastBlock);
}

// The library answers the catalogue only once the device is announced ready.
TEST_F(MtpCrawlerTest, ADeviceThatIsNotThereMarksAllThreeBlocksGone) {
    olvane::test::makePhoneTree(dir);
    {
        portolan::SimulatedDevice::Faults faults;
        faults.busyFirst[portolan::SimulatedDevice::GET_NUM_ELEMENTS] = 1;
        olvane::test::PluggedPhone phone(kHandle, "phone", dir.file("phone"), faults);
        const Crawl c = crawl(true);
        EXPECT_EQ(1, cap.count("loadData Failed"));
        EXPECT_EQ("111", gone(c));
        EXPECT_TRUE(c.tracks->items.empty() && c.playlists->items.empty() &&
                    c.folders->items.empty());
    }
    // Unplugged in the middle of the folder walk, and announced ready just
    // after (an announcement late for the unplug).
    portolan::SimulatedDevice::Faults faults;
    faults.unplugAfter = 5;
    olvane::test::PluggedPhone phone(kHandle, "phone", dir.file("phone"), faults, [](t_handle h) {
        kestrow::MtpDevice::instance().disconnectDevice(h);
        kestrow::MtpDevice::instance().setDeviceReady(h);
    });
    cap.clear();
    const Crawl c = crawl(false);
    EXPECT_EQ(1, cap.count("wait returned false"));
    EXPECT_EQ("111", gone(c));
}

}  // namespace
