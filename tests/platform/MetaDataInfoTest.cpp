#include "platform/common/MetaDataInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/common/DatabaseMgr.h"
#include "platform/common/Md5.h"
#include "platform/common/StrippedValue.h"
#include "tests/support/TempDir.h"

namespace {

class MetaDataInfoTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dir.path()); }
    olvane::test::TempDir dir;
};

MetaDataInfo song(const std::string& path, const std::string& artist, const std::string& album) {
    return MetaDataInfo(path, "/m", "t", artist, album, "g", "c", 3, 2, 1700000000L);
}

TEST_F(MetaDataInfoTest, ConstructorsFillWhatTheSongSaverReads) {
    const std::string kSpace = "\xe3\x80\x80";  // ideographic space
    MetaDataInfo info("/m/d/Song.MP3", "/m", trim(kSpace + " Title\t\xc2\xa0"), trim("ABBA "),
                      trim(" Gold"), trim(""), trim("Benny\n"), 7, 2, 1700000000L);
    EXPECT_EQ("Title", info.title);
    EXPECT_EQ("ABBA", info.artist);
    EXPECT_EQ("", info.genre);
    EXPECT_EQ("Benny", info.composer);
    EXPECT_EQ("Song.MP3", info.name);
    EXPECT_EQ(MetaDataInfo::AUDIO_MP3, info.audioType);
    EXPECT_EQ(0, info.bookmark);
    EXPECT_EQ(1700000000LL, info.lastModified);
    EXPECT_EQ(7, info.trackNumber);
    EXPECT_EQ(2, info.discNumber);
    EXPECT_EQ(Md5(Md5::ARTIST, "abba").toString(), info.artistId);
    EXPECT_EQ(Md5(Md5::GENRE, "").toString(), info.genreId);
    EXPECT_EQ(Md5(Md5::COMPOSER, "BENNY").toString(), info.composerId);
    EXPECT_EQ("", trim(" \t\n").str());

    MetaDataInfo plain("/m/d/Song.MP3", "/m", "Title", "ABBA", "Gold", "", "Benny", 7, 2,
                       1700000000L);
    EXPECT_EQ(info.objectId, plain.objectId);
    EXPECT_EQ(info.albumId, plain.albumId);

    MetaDataInfo mtp("/Music/a.wma", "mtp-folder://dev", "t", "a", "b", "g", "c", 1, 1, 5,
                     "mtp-song-42");
    EXPECT_EQ("mtp-song-42", mtp.objectId);
    EXPECT_EQ(Md5(Md5::DIRECTORY, "mtp-folder://dev").toString(), mtp.partitionId);
    EXPECT_EQ(Md5(Md5::DIRECTORY, "/Music").toString(), mtp.directoryId);
    EXPECT_EQ(MetaDataInfo::AUDIO_WMA, mtp.audioType);
}

TEST_F(MetaDataInfoTest, AlbumsBelongToTheirArtist) {
    EXPECT_NE(song("/m/1.mp3", "ABBA", "Greatest Hits").albumId,
              song("/m/2.mp3", "Queen", "Greatest Hits").albumId);
    EXPECT_EQ(song("/m/1.mp3", "ABBA", "Gold").albumId, song("/m/2.mp3", "Abba", "GOLD").albumId);
    // The separator keeps album and artist apart.
    EXPECT_NE(song("/m/1.mp3", "B", "A").albumId, song("/m/2.mp3", "", "AB").albumId);
}

TEST_F(MetaDataInfoTest, AudioTypeFromExtension) {
    const std::pair<const char*, int> cases[] = {
        {"/m/a.flac", MetaDataInfo::AUDIO_FLAC},    {"/m/a.M4A", MetaDataInfo::AUDIO_AAC},
        {"/m/a.m4b", MetaDataInfo::AUDIO_AAC},      {"/m/a.wav", MetaDataInfo::AUDIO_WAV},
        {"/m/a.mpeg", MetaDataInfo::AUDIO_MPEG},    {"/m/a.asf", MetaDataInfo::AUDIO_WMA},
        {"/m/a.ogg", MetaDataInfo::AUDIO_UNKNOWN},  {"/m/mp3", MetaDataInfo::AUDIO_UNKNOWN},
        {"/m/a.mp3.x", MetaDataInfo::AUDIO_UNKNOWN}};
    for (const auto& c : cases)
        EXPECT_EQ(c.second, MetaDataInfo::audioTypeFromPath(c.first)) << c.first;
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

    // One transliterator serves all threads.
    std::vector<std::string> readings(4);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < readings.size(); ++i)
        threads.emplace_back([&readings, i] {
            for (int n = 0; n < 50; ++n)
                readings[i] = MetaDataInfo::asianReading("\xe6\x9d\xb1\xe4\xba\xac");
        });
    for (std::thread& t : threads)
        t.join();
    for (const std::string& r : readings)
        EXPECT_EQ("dong jing", r);
}

}  // namespace
