#include "platform/common/MetaDataInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(MetaDataInfoTest, TrimmedTextsAndAsianReadingsForCjkTextOnly) {
    MetaDataInfo info("/m/d/Song.MP3", "/m", trim("\u3000 さくら\t\u00a0"), trim("서울 "),
                      trim(" 東京"), trim(" Pop\t"), trim("サクラ\n"), 7, 2, 0);
    EXPECT_EQ("さくら", info.title);
    EXPECT_EQ(MetaDataInfo("/m/a.mp3", "/m", "", "서울", "東京", "", "", 0, 0, 0).albumId,
              info.albumId);
    info.setAsianFields();
    EXPECT_EQ((std::vector<std::string>{"sakura", "seoul", "dong jing", "", "sakura"}),
              (std::vector<std::string>{info.asianTitle, info.asianArtist, info.asianAlbum,
                                        info.asianGenre, info.asianComposer}));
    EXPECT_EQ("", MetaDataInfo::asianReading("Café"));
    EXPECT_EQ("", MetaDataInfo::asianReading("\xff\xfe"));
}

}  // namespace
