// TagLib reading files through the bounded stream.

#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include "msd/BoundedFileStream.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using kestrow::BoundedFileStream;

// Each sample as it is, with 100 KB of lyrics, and one of those with 4 MiB
// between its tag and its end: TagLib reads the same tags through the stream
// as through its own FileStream. A file that fits in the head piece costs one
// read of the file; one with a larger tag three: the head, the rest of the
// tag (with what follows it), and the tail. Nor are many more bytes read than
// the file holds. 4 GiB of zeros, which TagLib scans for a frame to the end,
// costs what it did before the pieces (kMaxReads small reads); an ID3v2 header
// claiming 256 MiB, the byte bound. Reads that fail (a sysfs attribute that
// refuses them, named as a song) report the error.
TEST(BoundedFileStreamTest, TagLibReadsTheSameTagsFromFewReadsWithinTheBounds) {
    TempDir t;
    struct Case {
        std::string path;
        unsigned maxReads;
        unsigned long maxBytes;  // 0: the file's size and kMaxAhead
        bool cut;
        int error;
    };
    std::vector<Case> cases;
    for (const std::string s :
         {"gears-iron-road.mp3", "cp1251-id3v23.mp3", "gears-old-times.mp3", "ferro-blue-hour.m4a",
          "ferro-cafe-noir.flac", "moreno-rain-check.wma", "moreno-summer-tape.wav",
          "random-bytes.m4a", "truncated.flac"}) {
        cases.push_back({t.copySample(s, s), 1, 0, false, 0});
        if (s == "random-bytes.m4a" || s == "truncated.flac")
            continue;  // no tag to grow
        cases.push_back({t.copySample(s, "long-" + s), 3, 0, false, 0});
        TagLib::FileRef ref(cases.back().path.c_str(), false);
        TagLib::PropertyMap lyrics = ref.file()->properties();
        lyrics.replace("LYRICS", TagLib::String(std::string(100000, 'l')));
        ref.file()->setProperties(lyrics);
        ASSERT_TRUE(ref.save()) << s;
    }
    std::ifstream in(t.file("long-gears-old-times.mp3"), std::ios::binary);
    const std::string mp3(std::istreambuf_iterator<char>(in), {});
    const size_t tagEnd = 10 + (mp3[6] << 21 | mp3[7] << 14 | mp3[8] << 7 | mp3[9]);
    std::ofstream far(t.file("far.mp3"), std::ios::binary);
    far << mp3.substr(0, tagEnd);
    far.seekp(4 << 20, std::ios::cur) << mp3.substr(tagEnd);  // a hole
    far.close();
    cases.push_back({t.file("far.mp3"), 3, 0, false, 0});
    for (const std::string& header :
         {std::string(10, '\0'), std::string("ID3\4\0\0\x7f\x7f\x7f\x7f", 10)}) {
        cases.push_back({t.write("huge-" + std::to_string(cases.size()) + ".mp3", header),
                         BoundedFileStream::kMaxReads,
                         header[0] ? BoundedFileStream::kMaxBytes : 1ul << 20, true, 0});
        ASSERT_EQ(0, ::truncate(cases.back().path.c_str(), 4LL << 30));
    }
    if (::access("/sys/class/net/lo/speed", R_OK) == 0 &&
        ::symlink("/sys/class/net/lo/speed", t.file("failing.mp3").c_str()) == 0)
        cases.push_back({t.file("failing.mp3"), 2, 0, false, EINVAL});
    auto tags = [](const TagLib::FileRef& ref) {
        return ref.isNull() ? "null" : ref.file()->properties().toString().to8Bit(true);
    };
    for (const Case& c : cases) {
        BoundedFileStream stream(c.path);
        const std::string got = tags(TagLib::FileRef(&stream, false));
        if (!c.cut && !c.error) {
            EXPECT_EQ(tags(TagLib::FileRef(c.path.c_str(), false)), got) << c.path;
        }
        const unsigned long maxBytes =
            c.maxBytes ? c.maxBytes
                       : std::filesystem::file_size(c.path) + BoundedFileStream::kMaxAhead;
        EXPECT_TRUE(stream.reads() >= 1 && stream.reads() <= c.maxReads &&
                    stream.bytesRead() <= maxBytes && stream.cutShort() == c.cut &&
                    stream.error() == c.error)
            << c.path << ": " << stream.reads() << " reads, " << stream.bytesRead() << " bytes";
    }
}
