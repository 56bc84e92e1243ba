#include "platform/common/MetaDataInfo.h"

#include <gtest/gtest.h>

#include "platform/common/DatabaseMgr.h"
#include "platform/common/Md5.h"
#include "tests/support/TempDir.h"

namespace {

class MetaDataInfoTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dir.path()); }
    olvane::test::TempDir dir;
};

TEST_F(MetaDataInfoTest, ConstructorsTrimmedTextsAndAudioType) {
    const std::string kSpace = "\xe3\x80\x80";  // ideographic space
    MetaDataInfo info("/m/d/Song.MP3", "/m", trim(kSpace + " Title\t\xc2\xa0"), trim("ABBA "),
                      trim(" Gold"), trim(" \t\n"), trim("Benny\n"), 7, 2, 1700000000L);
    EXPECT_EQ("Title", info.title);
    EXPECT_EQ("", info.genre);
    EXPECT_EQ("Song.MP3", info.name);
    EXPECT_EQ(MetaDataInfo::AUDIO_MP3, info.audioType);
    MetaDataInfo plain("/m/d/Song.MP3", "/m", "Title", "ABBA", "Gold", "", "Benny", 7, 2, 0);
    EXPECT_EQ(info.albumId, plain.albumId);
    EXPECT_EQ(info.composerId, plain.composerId);
    EXPECT_EQ(MetaDataInfo::AUDIO_UNKNOWN, MetaDataInfo::audioTypeFromPath("/m/a.mp3.x"));

    MetaDataInfo mtp("/Music/a.wma", "mtp-folder://dev", "t", "a", "b", "g", "c", 1, 1, 5,
                     "mtp-song-42");
    EXPECT_EQ("mtp-song-42", mtp.objectId);
    EXPECT_EQ(Md5(Md5::DIRECTORY, "mtp-folder://dev").toString(), mtp.partitionId);
    EXPECT_EQ(MetaDataInfo::AUDIO_WMA, mtp.audioType);
}

TEST_F(MetaDataInfoTest, AsianReadingsForCjkTextOnly) {
    MetaDataInfo info("/m/a.mp3", "/m", "\xe3\x81\x95\xe3\x81\x8f\xe3\x82\x89",  // さくら
                      "\xec\x84\x9c\xec\x9a\xb8",                                // 서울
                      "\xe6\x9d\xb1\xe4\xba\xac",                                // 東京
                      "Pop", "\xe3\x82\xb5\xe3\x82\xaf\xe3\x83\xa9",             // サクラ
                      1, 1, 0);
    info.setAsianFields();
    EXPECT_EQ("sakura", info.asianTitle);
    EXPECT_EQ("seoul", info.asianArtist);
    EXPECT_EQ("dong jing", info.asianAlbum);
    EXPECT_EQ("", info.asianGenre);
    EXPECT_EQ("sakura", info.asianComposer);
    EXPECT_EQ("", MetaDataInfo::asianReading("Caf\xc3\xa9"));
    EXPECT_EQ("", MetaDataInfo::asianReading("\xff\xfe"));
}

}  // namespace
