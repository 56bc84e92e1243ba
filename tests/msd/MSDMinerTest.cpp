// The tag miner's readers, run from the test's thread.

#include "msd/MSDMiner.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using namespace kestrow;

// Ten rounds of every kind of sample (tags in legacy code pages, files that
// cannot be parsed, one that cannot be read): four readers give the records
// one gives, in the block's order. Then the device goes while the 20th file
// is taken: each reader stops at its next file, and only the three other
// readers may hold an earlier one then; the hook sees the files in order,
// one call at a time. The operation's later blocks pass on empty.
TEST(MSDMinerTest, FourReadersReadAsOneInOrderAndAllStopWhenTheDeviceGoes) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    DatabaseMgr::instance().setDatabaseDirectory(t.mkdir("db"));
    Strings paths, hooked;
    for (int round = 0; round < 10; ++round)
        for (const std::string s :  // in byte order, as the records then are
             {"blank-title.mp3", "cp1251-id3v1.mp3", "cp1251-id3v23.mp3", "ferro-blue-hour.m4a",
              "ferro-cafe-noir.flac", "gears-iron-road.mp3", "gears-old-times.mp3", "missing.mp3",
              "moreno-rain-check.wma", "moreno-summer-tape.wav", "motorhead-style.mp3",
              "random-bytes.m4a", "truncated.flac"}) {
            const std::string path = "usb/" + std::to_string(round) + "/" + s;
            paths.push_back(s == "missing.mp3" ? t.file(path) : t.copySample(s, path));
        }
    boost::shared_ptr<Block<MetaDataInfo*>> out;
    auto read = [&](MSDMiner& miner, int op) {  // "path:tags@time" per record
        auto in = makeBlock<FileInfo>(testOperation(usb, true, op));
        for (const std::string& p : paths)
            in->items.push_back(new FileInfo(p, 0, 1234));
        out = miner.doOperation(in);
        Strings got;
        for (const MetaDataInfo* m : out->items)
            got.push_back(m->path + ":" + m->title + "|" + m->artist + "|" + m->album + "|" +
                          m->genre + "|" + m->composer + "@" + std::to_string(m->lastModified));
        return got;
    };
    MSDMiner one("MSDMiner", 1), four("MSDMiner", 4);
    const Strings want = read(one, 7);
    ASSERT_TRUE(want.size() == paths.size() && std::is_sorted(want.begin(), want.end()));
    EXPECT_EQ(want, read(four, 7));

    four.setFileHook([&](const std::string& path) {
        hooked.push_back(path);
        if (hooked.size() == 20)
            std::filesystem::rename(usb, t.file("away"));
    });
    const Strings got = read(four, 8);
    EXPECT_TRUE(out->operation.deviceGone && got.size() >= 16 &&
                std::includes(want.begin(), want.begin() + 19, got.begin(), got.end()));
    EXPECT_TRUE(hooked.size() >= 20 && hooked.size() <= 23 &&
                std::equal(paths.begin(), paths.begin() + 20, hooked.begin()));
    std::filesystem::rename(t.file("away"), usb);
    EXPECT_TRUE(read(four, 8).empty() && out->operation.deviceGone);
    EXPECT_EQ(want, read(four, 9));
}
