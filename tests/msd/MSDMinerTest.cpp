#include "msd/MSDMiner.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "tests/msd/MsdTestSupport.h"

using namespace olvane::test;

namespace {

class MSDMinerTest : public DbTest {
protected:
    // Mines the files at `paths`, found below `mountPoint`.
    boost::shared_ptr<kestrow::Block<MetaDataInfo*>> mine(const std::string& mountPoint,
                                                          const Strings& paths) {
        return mine(miner, mountPoint, paths);
    }
    static boost::shared_ptr<kestrow::Block<MetaDataInfo*>> mine(kestrow::MSDMiner& miner,
                                                                 const std::string& mountPoint,
                                                                 const Strings& paths) {
        FileBlock in(new kestrow::Block<FileInfo*>());
        in->operation = kestrow::Operation(7, 0, "dev1", mountPoint, true);
        for (const std::string& p : paths)
            in->items.push_back(new FileInfo(p, 0, 1234));
        return miner.doOperation(in);
    }
    TempDir mount;
    kestrow::MSDMiner miner{"MSDMiner"};
    olvane::LogCapture cap;
};

}  // namespace

TEST_F(MSDMinerTest, TagsComeBackAsWrittenAndUnreadableFilesGiveEmptyRecords) {
    // title|artist|album|genre|composer|track|disc
    const std::pair<std::string, std::string> expected[] = {
        {"gears-iron-road.mp3", "Iron Road|The Rusty Gears|Steam and Steel|Rock|Tom Hale|1|1"},
        {"gears-copper-sky.mp3", "Copper Sky|The Rusty Gears|Steam and Steel|Rock|Tom Hale|2|1"},
        {"gears-old-times.mp3", "Old Times|The Rusty Gears|Vinyl Days|Country||4|0"},
        {"ferro-blue-hour.m4a", "Blue Hour|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|5|2"},
        {"ferro-cafe-noir.flac", "Café Noir|Nina Ferro Quartet|Late Sessions|Jazz|Nina Ferro|6|2"},
        {"moreno-summer-tape.wav", "Summer Tape|Lia Moreno|Postcards|Pop|Lia Moreno|1|1"},
        {"moreno-rain-check.wma", "Rain Check|Lia Moreno|Postcards|Pop|Lia Moreno|2|1"},
        {"motorhead-style.mp3", "Ace of Spadës|Motörhead|Björk Café|Metal|Lemmy|3|1"},
        {"cp1251-id3v1.mp3", "Группа крови|Кино|Группа крови|Rock||1|0"},
        {"cp1251-id3v23.mp3",
         "Звезда по имени Солнце|Кино|Звезда по имени Солнце|Рок|Виктор Цой|2|1"},
        {"blank-title.mp3", "|Lia Moreno|Postcards|Pop||3|0"},
        // Unreadable: the last three.
        {"truncated.flac", "|||||1|1"},
        {"random-bytes.m4a", "|||||1|1"},
        {"missing.mp3", "|||||1|1"},
    };
    Strings paths;
    for (const auto& e : expected)
        paths.push_back(e.first == "missing.mp3" ? mount.file(e.first)
                                                 : mount.copySample(e.first, "Music/" + e.first));
    auto out = mine(mount.path(), paths);
    ASSERT_EQ(paths.size(), out->items.size());
    for (size_t i = 0; i < paths.size(); ++i) {
        const MetaDataInfo* m = out->items[i];
        SCOPED_TRACE(paths[i]);
        EXPECT_EQ(paths[i], m->path);
        EXPECT_EQ(expected[i].second, m->title + "|" + m->artist + "|" + m->album + "|" + m->genre +
                                          "|" + m->composer + "|" + std::to_string(m->trackNumber) +
                                          "|" + std::to_string(m->discNumber));
        // Read, with no usable tag: the empty row is final. Not read at all
        // (the file vanished): the row is to be read again.
        const bool broken = i + 3 >= paths.size() && i + 1 < paths.size();
        const bool missing = i + 1 == paths.size();
        EXPECT_EQ(broken, cap.count("NULL file for track: " + paths[i]));
        EXPECT_EQ(broken, cap.count("insert empty: " + paths[i]));
        EXPECT_EQ(missing,
                  cap.count("cannot read track: " + paths[i] + ": No such file or directory"));
        EXPECT_EQ(missing ? FileInfo::kUnreadTime : 1234, m->lastModified);
    }
}

// Whatever a file holds and however big it is, reading it costs a few small
// reads and a few MiB. Here 4 GiB of zeros (sparse) named as songs of each
// kind, which TagLib would scan to the end: they are read, hold no tag, and
// keep their empty rows.
TEST_F(MSDMinerTest, AHugeFileCostsAFewSmallReads) {
    auto counter = [](const char* file, const std::string& key) {  // from /proc/self
        std::ifstream in(std::string("/proc/self/") + file);
        for (std::string k; in >> k;) {
            long long v = 0;
            if (k == key && in >> v)
                return v;
        }
        return -1LL;
    };
    Strings paths;
    for (const char* name : {"big.mp3", "big.flac", "big.m4a", "big.wav", "big.wma", "big.mpg"}) {
        paths.push_back(mount.write(name, ""));
        ASSERT_EQ(0, ::truncate(paths.back().c_str(), 4LL << 30));
    }
    const long long read = counter("io", "rchar:"), peakKb = counter("status", "VmHWM:");
    auto out = mine(mount.path(), paths);
    EXPECT_LT(counter("io", "rchar:") - read, 32LL << 20);
    EXPECT_LT(counter("status", "VmHWM:") - peakKb, 64LL << 10);
    ASSERT_EQ(paths.size(), out->items.size());
    for (const MetaDataInfo* m : out->items)
        EXPECT_EQ(1234, m->lastModified) << m->path;
}

TEST_F(MSDMinerTest, VanishedMountPointMarksTheDeviceGone) {
    const std::string usb = mount.file("usb");
    mount.copySample("gears-iron-road.mp3", "usb/a.mp3");
    ASSERT_EQ(0, rename(usb.c_str(), mount.file("elsewhere").c_str()));
    auto out = mine(usb, {usb + "/a.mp3", usb + "/b.mp3"});
    EXPECT_TRUE(out->operation.deviceGone);
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(1, cap.count("MOUNT POINT IS NOT PRESENT ANYMORE " + usb + ": 2"));
    EXPECT_EQ(0, cap.countContaining("insert empty"));
}

TEST_F(MSDMinerTest, FullDatabaseSkipsTheBlock) {
    DatabaseMgr::instance().createDb("dev1", mount.path(), true);
    ASSERT_EQ(0, ::truncate(DatabaseMgr::instance().getDbNameFromDevId("dev1").c_str(),
                            DatabaseMgr::kSizeLimit));  // sparse
    auto out = mine(mount.path(), {mount.copySample("gears-iron-road.mp3", "x.mp3")});
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(1, cap.count("MSDMiner SKIPPED db size limit reached (op: 7)"));
    EXPECT_EQ(1, cap.countContaining("SKIPPED"));
}

// Two miners overlap (as when another device is prioritised): neither may
// touch the host's std::cerr, and TagLib's complaints about broken files
// stay off the process's stderr.
TEST_F(MSDMinerTest, OverlappingMinersLeaveTheHostsStderrAlone) {
    Strings paths;
    for (int i = 0; i < 200; ++i)
        paths.push_back(i % 2
                            ? mount.copySample("truncated.flac", std::to_string(i) + ".flac")
                            : mount.copySample("gears-iron-road.mp3", std::to_string(i) + ".mp3"));
    std::streambuf* host = std::cerr.rdbuf();
    const std::string errFile = mount.file("stderr.txt");
    std::fflush(stderr);
    const int savedErr = ::dup(2);
    const int errFd = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(savedErr >= 0 && errFd >= 0);
    ::dup2(errFd, 2);

    std::atomic<bool> mining{true};
    std::atomic<int> swapped{0};
    std::thread watcher([&] {
        while (mining)
            swapped += std::cerr.rdbuf() != host;
    });
    kestrow::MSDMiner other("MSDMiner");
    std::thread second([&] { mine(other, mount.path(), paths); });
    mine(mount.path(), paths);
    second.join();
    mining = false;
    watcher.join();

    std::fflush(stderr);
    ::dup2(savedErr, 2);
    ::close(savedErr);
    ::close(errFd);
    EXPECT_EQ(0, swapped);
    EXPECT_TRUE(std::cerr.rdbuf() == host);
    std::stringstream written;
    written << std::ifstream(errFile).rdbuf();
    EXPECT_EQ("", written.str());
}
