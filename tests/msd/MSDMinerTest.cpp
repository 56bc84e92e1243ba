#include "msd/MSDMiner.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <string>

#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using kestrow::Block;
using kestrow::FileInfo;
using kestrow::MSDMiner;
using kestrow::Operation;
using olvane::test::TempDir;

namespace {

typedef boost::shared_ptr<Block<FileInfo*>> FilesPtr;
typedef boost::shared_ptr<Block<MetaDataInfo*>> SongsPtr;

class Sink : public kestrow::BaseServer<Block<MetaDataInfo*>> {
public:
    Sink() : BaseServer("Sink") {}
    void runLoop() override {}
    void enqueue(SongsPtr block) override {
        std::lock_guard<std::mutex> lock(m);
        blocks.push_back(block);
        ++received;
    }
    void join() override {}
    void launch() override {}
    std::mutex m;
    std::vector<SongsPtr> blocks;
    std::atomic<int> received{0};
};

struct Fixture : ::testing::Test {
    TempDir dbDir, mount;
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dbDir.path()); }

    FilesPtr block(const std::vector<std::string>& paths) {
        FilesPtr in(new Block<FileInfo*>());
        in->operation = Operation(7, 0, "minerdev", mount.path(), true);
        for (const std::string& p : paths)
            in->items.push_back(new FileInfo(p, 0, 1234));
        return in;
    }
    // Runs the block through a live stage and returns what it emitted.
    SongsPtr run(FilesPtr in) {
        MSDMiner miner("MSDMiner");
        Sink sink;
        miner.next = &sink;
        miner.launch();
        miner.start();
        miner.enqueue(in);
        EXPECT_TRUE(olvane::test::waitFor([&] { return sink.received.load() == 1; }));
        miner.stop();
        miner.join();
        return sink.blocks.empty() ? SongsPtr() : sink.blocks[0];
    }
};

const MetaDataInfo* byName(const SongsPtr& out, const std::string& name) {
    for (const MetaDataInfo* m : out->items)
        if (m->name == name)
            return m;
    return nullptr;
}

TEST_F(Fixture, TagsComeBackAsWrittenInEveryFormat) {
    struct Expect {
        const char* file;
        const char* title;
        const char* artist;
        const char* album;
        const char* genre;
        const char* composer;  // ID3v1 has none
        int track;
        int disc;  // ID3v1 has none
    } const expected[] = {
        {"gears-iron-road.mp3", "Iron Road", "The Rusty Gears", "Steam and Steel", "Rock",
         "Tom Hale", 1, 1},
        {"gears-copper-sky.mp3", "Copper Sky", "The Rusty Gears", "Steam and Steel", "Rock",
         "Tom Hale", 2, 1},
        {"gears-old-times.mp3", "Old Times", "The Rusty Gears", "Vinyl Days", "Country", "", 4, 0},
        {"ferro-blue-hour.m4a", "Blue Hour", "Nina Ferro Quartet", "Late Sessions", "Jazz",
         "Nina Ferro", 5, 2},
        {"ferro-cafe-noir.flac", "Café Noir", "Nina Ferro Quartet", "Late Sessions", "Jazz",
         "Nina Ferro", 6, 2},
        {"moreno-summer-tape.wav", "Summer Tape", "Lia Moreno", "Postcards", "Pop", "Lia Moreno", 1,
         1},
        {"moreno-rain-check.wma", "Rain Check", "Lia Moreno", "Postcards", "Pop", "Lia Moreno", 2,
         1},
        {"motorhead-style.mp3", "Ace of Spadës", "Motörhead", "Björk Café", "Metal", "Lemmy", 3, 1},
        // Cyrillic stored as CP1251 bytes in Latin-1 fields.
        {"cp1251-id3v1.mp3", "Группа крови", "Кино", "Группа крови", "Rock", "", 1, 0},
        {"cp1251-id3v23.mp3", "Звезда по имени Солнце", "Кино", "Звезда по имени Солнце", "Рок",
         "Виктор Цой", 2, 1},
    };
    std::vector<std::string> paths;
    for (const Expect& e : expected)
        paths.push_back(mount.copySample(e.file, std::string("Music/") + e.file));
    SongsPtr out = run(block(paths));
    ASSERT_TRUE(out);
    ASSERT_EQ(sizeof(expected) / sizeof(expected[0]), out->items.size());
    EXPECT_EQ(7, out->operation.id);
    EXPECT_TRUE(out->operation.lastBlock);
    for (const Expect& e : expected) {
        SCOPED_TRACE(e.file);
        const MetaDataInfo* m = byName(out, e.file);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(e.title, m->title);
        EXPECT_EQ(e.artist, m->artist);
        EXPECT_EQ(e.album, m->album);
        EXPECT_EQ(e.genre, m->genre);
        EXPECT_EQ(e.composer, m->composer);
        EXPECT_EQ(e.track, m->trackNumber);
        EXPECT_EQ(e.disc, m->discNumber);
        EXPECT_EQ(1234, m->lastModified);
        EXPECT_EQ(mount.path(), m->mountPoint);
    }
}

TEST_F(Fixture, BlankTitleIsEmptyAndBrokenFilesGiveEmptyRecords) {
    olvane::LogCapture cap;
    const std::string blank = mount.copySample("blank-title.mp3", "a/blank-title.mp3");
    const std::string truncated = mount.copySample("truncated.flac", "a/truncated.flac");
    const std::string random = mount.copySample("random-bytes.m4a", "a/random-bytes.m4a");
    const std::string text = mount.write("a/notes.mp3", "not audio at all");
    SongsPtr out = run(block({blank, truncated, random, text, mount.file("a/missing.mp3")}));
    ASSERT_TRUE(out);
    ASSERT_EQ(5u, out->items.size());
    const MetaDataInfo* b = byName(out, "blank-title.mp3");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ("", b->title);
    EXPECT_EQ("Lia Moreno", b->artist);
    // TagLib takes a text file named .mp3 for an MPEG file with no tag: it
    // gets a record with empty texts, and nothing breaks.
    ASSERT_NE(byName(out, "notes.mp3"), nullptr);
    EXPECT_EQ("", byName(out, "notes.mp3")->title);
    for (const std::string& p : {truncated, random, mount.file("a/missing.mp3")}) {
        SCOPED_TRACE(p);
        EXPECT_EQ(1, cap.count("NULL file for track: " + p));
        EXPECT_EQ(1, cap.count("insert empty: " + p));
        const MetaDataInfo* m = byName(out, p.substr(p.rfind('/') + 1));
        ASSERT_NE(m, nullptr);
        EXPECT_EQ("", m->title);
        EXPECT_EQ("", m->artist);
        EXPECT_EQ("", m->album);
        EXPECT_EQ(1, m->trackNumber);
        EXPECT_EQ(1, m->discNumber);
    }
    EXPECT_FALSE(out->operation.deviceGone);
    EXPECT_EQ(1, cap.count("MSDMiner for: 5 (op: 7)"));
    EXPECT_EQ(1, cap.countContaining("MSDMiner timer: "));
}

TEST_F(Fixture, VanishedMountPointEndsTheBlockAndMarksTheDeviceGone) {
    olvane::LogCapture cap;
    TempDir gone;
    FilesPtr in(new Block<FileInfo*>());
    const std::string mountPoint = gone.path() + "/usb";
    in->operation = Operation(3, 0, "minerdev", mountPoint, true);
    gone.copySample("gears-iron-road.mp3", "usb/a.mp3");
    in->items.push_back(new FileInfo(mountPoint + "/a.mp3", 0, 1));
    in->items.push_back(new FileInfo(mountPoint + "/b.mp3", 0, 1));
    // The device is pulled before the block is read.
    ASSERT_EQ(0, rename(mountPoint.c_str(), (gone.path() + "/elsewhere").c_str()));
    MSDMiner miner("MSDMiner");
    SongsPtr out = miner.doOperation(in);
    ASSERT_TRUE(out);
    EXPECT_TRUE(out->operation.deviceGone);
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(1, cap.countContaining("MOUNT POINT IS NOT PRESENT ANYMORE " + mountPoint));
    EXPECT_EQ(0, cap.countContaining("insert empty"));
    EXPECT_EQ(1, cap.countContaining("NULL file for track: "));
}

TEST_F(Fixture, FullDatabaseSkipsTheBlock) {
    olvane::LogCapture cap;
    const std::string dbName = DatabaseMgr::instance().getDbNameFromDevId("minerdev");
    FILE* f = fopen(dbName.c_str(), "w");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(0, ftruncate(fileno(f), DatabaseMgr::kSizeLimit));  // sparse
    fclose(f);
    SongsPtr out = run(block({mount.copySample("gears-iron-road.mp3", "x.mp3")}));
    ASSERT_TRUE(out);
    EXPECT_TRUE(out->items.empty());
    EXPECT_TRUE(out->operation.lastBlock);
    EXPECT_EQ(1, cap.count("MSDMiner SKIPPED db size limit reached (op: 7)"));
    EXPECT_EQ(1, cap.countContaining("SKIPPED"));
}

}  // namespace
