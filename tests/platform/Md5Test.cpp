#include "platform/common/Md5.h"

#include <gtest/gtest.h>

#include <regex>

#include "msd/Directory.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/common/MetaDataInfo.h"
#include "tests/support/TempDir.h"

namespace {

class Md5Test : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dir.path()); }
    olvane::test::TempDir dir;
};

TEST_F(Md5Test, DigestsAreLowercaseHexOfMd5) {
    // RFC 1321 test vectors; kind 1 digests the text as given.
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", Md5(Md5::DIRECTORY, "").toString());
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", Md5(Md5::DIRECTORY, "abc").toString());
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", Md5(Md5::PLAYLIST, "abc").toString());
    const std::string id = Md5(Md5::SONG, "/media/usb/\xff\xfe").toString();
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{32}"))) << id;
    EXPECT_STREQ(id.c_str(), Md5(Md5::SONG, "/media/usb/\xff\xfe").c_str());
}

TEST_F(Md5Test, IdentityRulesThatJoinTheTables) {
    // A playlist entry parsed from "file:///media/usb/a.mp3" names the song.
    const Md5 song(Md5::SONG, "/media/usb/a.mp3");
    EXPECT_EQ(song, Md5(Md5::SONG, "media/usb/a.mp3"));
    EXPECT_EQ(song, Md5(Md5::SONG, "//media/usb/a.mp3"));
    EXPECT_EQ(Md5(Md5::DIRECTORY, "media/usb/a.mp3"), song);
    EXPECT_NE(Md5(Md5::DIRECTORY, "/a"), Md5(Md5::DIRECTORY, "a"));
    EXPECT_NE(Md5(Md5::SONG, "/media/usb/A.mp3"), song);

    // A song's directory id is its directory's object id; the partition id
    // is the mount point's.
    MetaDataInfo info("/media/usb/Music/a.mp3", "/media/usb", "t", "ABBA", "Gold", "Pop", "Benny",
                      1, 1, 0);
    kestrow::Directory music("/media/usb/Music", "/media/usb", 0);
    EXPECT_EQ(music.objectId.toString(), info.directoryId);
    EXPECT_EQ(music.partitionId.toString(), info.partitionId);
    EXPECT_EQ(Md5(Md5::SONG, "media/usb/Music/a.mp3").toString(), info.objectId);
    MetaDataInfo top("/media/usb/b.mp3", "/media/usb", "", "", "", "", "", 0, 0, 0);
    EXPECT_EQ(kestrow::Directory("/media/usb", "/media/usb", -1).objectId.toString(),
              top.directoryId);

    // Names are case-folded and NFC-normalised.
    EXPECT_EQ(Md5(Md5::ARTIST, "ABBA"), Md5(Md5::ARTIST, "Abba"));
    EXPECT_EQ(Md5(Md5::ARTIST, "Beyonc\xc3\xa9"), Md5(Md5::ARTIST, "BEYONCE\xcc\x81"));
    EXPECT_EQ(Md5(Md5::GENRE,
                  "Stra\xc3\x9f"
                  "e"),
              Md5(Md5::GENRE, "STRASSE"));
    EXPECT_NE(Md5(Md5::COMPOSER, "Bach"), Md5(Md5::COMPOSER, "Bach "));
}

}  // namespace
