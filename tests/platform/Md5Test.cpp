// The ids that join the tables, and the texts of a song record.
#include "platform/common/Md5.h"

#include "msd/Directory.h"
#include "platform/common/MetaDataInfo.h"
#include "tests/support/Testing.h"

namespace {

MetaDataInfo song(const char* path, const char* artist = "", const char* album = "") {
    return MetaDataInfo(path, "/media/usb", "", artist, album, "", "", 0, 0, 0);
}

TEST(Md5Test, IdentityRulesThatJoinTheTables) {
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", Md5(Md5::DIRECTORY, "").toString());
    EXPECT_STREQ("900150983cd24fb0d6963f7d28e17f72", Md5(Md5::PLAYLIST, "abc").c_str());

    // Kind 0 ignores leading '/': "file:///media/usb/a.mp3" in a playlist names the song.
    const Md5 a(Md5::SONG, "/media/usb/a.mp3");
    EXPECT_EQ(a, Md5(Md5::SONG, "media/usb/a.mp3"));
    EXPECT_EQ(Md5(Md5::DIRECTORY, "media/usb/a.mp3"), a);

    // A song's DIRECTORYID is its directory's kind-1 id, its PARTITION_ID the mount point's.
    kestrow::Directory music("/media/usb/Music", "/media/usb", 0);
    EXPECT_EQ(music.objectId.toString(), song("/media/usb/Music/a.mp3").directoryId);
    EXPECT_EQ(music.partitionId.toString(), song("/media/usb/Music/a.mp3").partitionId);
    EXPECT_EQ(kestrow::Directory("/media/usb", "/media/usb", -1).objectId.toString(),
              song("/media/usb/b.mp3").directoryId);

    // Names are case-folded and NFC-normalised; albums belong to their artist.
    EXPECT_EQ(Md5(Md5::ARTIST, "Beyoncé"), Md5(Md5::ARTIST, "BEYONCE\u0301"));
    EXPECT_EQ(Md5(Md5::GENRE, "Straße"), Md5(Md5::GENRE, "STRASSE"));
    EXPECT_NE(song("/m/a.mp3", "ABBA", "Greatest Hits").albumId,
              song("/m/a.mp3", "Queen", "Greatest Hits").albumId);
    EXPECT_EQ(song("/m/a.mp3", "ABBA", "Gold").albumId, song("/m/b.mp3", "Abba", "GOLD").albumId);
    EXPECT_NE(song("/m/a.mp3", "B", "A").albumId, song("/m/a.mp3", "", "AB").albumId);

    // Texts are trimmed; Asian readings are made for CJK text only.
    MetaDataInfo info("/m/d/Song.MP3", "/m", trim("\u3000 さくら\t\u00a0"), trim("서울 "),
                      trim(" 東京"), trim(" Pop\t"), trim("サクラ\n"), 7, 2, 0);
    EXPECT_EQ("さくら", info.title);
    EXPECT_EQ(MetaDataInfo("/m/a.mp3", "/m", "", "서울", "東京", "", "", 0, 0, 0).albumId,
              info.albumId);
    info.setAsianFields();
    EXPECT_EQ((std::vector<std::string>{"sakura", "seoul", "dong jing", "", "sakura"}),
              (std::vector<std::string>{info.asianTitle, info.asianArtist, info.asianAlbum,
                                        info.asianGenre, info.asianComposer}));
    EXPECT_EQ("", MetaDataInfo::asianReading("Café") + MetaDataInfo::asianReading("\xff\xfe"));
}

}  // namespace
