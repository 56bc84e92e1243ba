#include "platform/common/Md5.h"

#include <gtest/gtest.h>

#include "msd/Directory.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/common/MetaDataInfo.h"
#include "tests/support/TempDir.h"

namespace {

TEST(Md5Test, IdentityRulesThatJoinTheTables) {
    olvane::test::TempDir dir;
    DatabaseMgr::instance().setDatabaseDirectory(dir.path());
    // RFC 1321 vectors: kinds 1 and 6 digest the text as given.
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", Md5(Md5::DIRECTORY, "").toString());
    EXPECT_STREQ("900150983cd24fb0d6963f7d28e17f72", Md5(Md5::PLAYLIST, "abc").c_str());

    // A playlist entry parsed from "file:///media/usb/a.mp3" names the song.
    const Md5 song(Md5::SONG, "/media/usb/a.mp3");
    EXPECT_EQ(song, Md5(Md5::SONG, "media/usb/a.mp3"));
    EXPECT_EQ(song, Md5(Md5::SONG, "//media/usb/a.mp3"));
    EXPECT_EQ(Md5(Md5::DIRECTORY, "media/usb/a.mp3"), song);
    EXPECT_NE(Md5(Md5::DIRECTORY, "/a"), Md5(Md5::DIRECTORY, "a"));

    // A song's directory id is its directory's object id; the partition id
    // is the mount point's.
    MetaDataInfo info("/media/usb/Music/a.mp3", "/media/usb", "", "", "", "", "", 1, 1, 0);
    kestrow::Directory music("/media/usb/Music", "/media/usb", 0);
    EXPECT_EQ(music.objectId.toString(), info.directoryId);
    EXPECT_EQ(music.partitionId.toString(), info.partitionId);
    EXPECT_EQ(Md5(Md5::SONG, "media/usb/Music/a.mp3").toString(), info.objectId);
    MetaDataInfo top("/media/usb/b.mp3", "/media/usb", "", "", "", "", "", 0, 0, 0);
    EXPECT_EQ(kestrow::Directory("/media/usb", "/media/usb", -1).objectId.toString(),
              top.directoryId);

    // Names are case-folded and NFC-normalised; albums belong to their artist.
    EXPECT_EQ(Md5(Md5::ARTIST, "ABBA"), Md5(Md5::ARTIST, "Abba"));
    EXPECT_EQ(Md5(Md5::ARTIST, "Beyonc\xc3\xa9"), Md5(Md5::ARTIST, "BEYONCE\xcc\x81"));
    EXPECT_EQ(Md5(Md5::GENRE,
                  "Stra\xc3\x9f"
                  "e"),
              Md5(Md5::GENRE, "STRASSE"));
    auto album = [](const char* name, const char* artist) {
        return MetaDataInfo("/m/a.mp3", "/m", "", artist, name, "", "", 0, 0, 0).albumId;
    };
    EXPECT_NE(album("Greatest Hits", "ABBA"), album("Greatest Hits", "Queen"));
    EXPECT_EQ(album("Gold", "ABBA"), album("GOLD", "Abba"));
    EXPECT_NE(album("A", "B"), album("AB", ""));
}

}  // namespace
