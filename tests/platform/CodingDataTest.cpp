#include "platform/codingdata/CodingData.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

// Real artist names and titles ('|' between them) by language, each as old
// tools stored it: bytes of a legacy code page in a field marked Latin-1.
// Within a row, every three names also make one track.
const struct {
    const char *language, *codePage, *names;
} kRows[] = {
    {"ru", "WINDOWS-1251", "Кино|Группа крови|Виктор Цой|Алла Пугачёва|Миллион алых роз|Земфира"},
    {"uk", "WINDOWS-1251", "Океан Ельзи|Обійми|Скрябін|Тіна Кароль|Дикі танці|Руслана"},
    {"el", "WINDOWS-1253", "Μίκης Θεοδωράκης|Άννα Βίσση|Διονύσης Σαββόπουλος"},
    {"el", "ISO-8859-7", "Έλενα Παπαρίζου|Γιάννης Πάριος|Σωκράτης Μάλαμας|Τα παιδιά του Πειραιά"},
    {"ja", "SHIFT_JIS", "宇多田ヒカル|浜崎あゆみ|椎名林檎|久石譲|坂本龍一|美空ひばり|中島みゆき"},
    {"zh", "GBK", "周杰伦|王菲|邓丽君|月亮代表我的心|刀郎|崔健|一无所有|许巍|朴树|那英"},
    {"zh-TW", "BIG5", "張學友|鄧麗君|羅大佑|五月天|蔡依林|周杰倫|張惠妹|王力宏|陳奕迅|梅艷芳"},
    {"ko", "EUC-KR", "소녀시대|빅뱅|아이유|조용필|서태지와 아이들|방탄소년단"},
    {"he", "WINDOWS-1255", "עומר אדם|אריק איינשטיין|שלמה ארצי|עפרה חזה|הדג נחש|נועה קירל"},
    {"tr", "WINDOWS-1254", "Şımarık|Barış Manço|Müslüm Gürses|Zülfü Livaneli|Gülşen"},
    {"pl", "WINDOWS-1250", "Czesław Niemen|Dżem|Krzysztof Krawczyk|Maryla Rodowicz|Wehikuł czasu"},
    {"cs", "WINDOWS-1250", "Lucie Bílá|Jaromír Nohavica|Čechomor|Hana Zagorová|Věra Špinarová"},
    {"Western", "WINDOWS-1252", "Motörhead|Björk|Beyoncé|Sigur Rós|Mötley Crüe|Café del Mar"},
    {"Western", "WINDOWS-1252", "Blue Öyster Cult|Hüsker Dü|Françoise Hardy|Édith Piaf|Die Ärzte"},
    {"Western", "WINDOWS-1252", "Queensrÿche|Röyksopp|Déjà Vu|Für Elise|Über den Wolken"},
    {"Western", "WINDOWS-1252", "Sinéad O’Connor|Jean-Michel Jarre – Oxygène|Æther Realm"},
};

using Texts = std::vector<std::string>;
using Fields = std::vector<std::pair<std::string, const char*>>;  // bytes, charset

std::string encode(const std::string& text, const char* codePage) {
    gsize n = 0;
    g_autofree gchar* bytes = g_convert(text.c_str(), -1, codePage, "UTF-8", nullptr, &n, nullptr);
    return bytes ? std::string(bytes, n) : std::string();
}

// Sets `in` as title, artist, album, genre and composer, converts the track
// and returns its five fields ("<unset>" for none); each must be valid UTF-8.
Texts convert(const Fields& in, const char* defaultCharset) {
    auto set = {setTrackTitle, setTrackArtist, setTrackAlbum, setTrackGenre, setTrackComposer};
    Track track;
    initTrack(&track);
    for (size_t i = 0; i < in.size(); ++i)
        set.begin()[i](&track, in[i].first.data(), in[i].first.size(), in[i].second);
    Track* out = guess_and_convert_by_prio(&track, defaultCharset);
    destroyTrack(&track);
    if (!out)
        return Texts(5, "<no track>");
    Texts got;
    for (auto* f : {&out->title, &out->artist, &out->album, &out->genre, &out->composer}) {
        got.push_back(f->data ? std::string(f->data, f->length) : "<unset>");
        EXPECT_TRUE(!f->data || (g_utf8_validate(f->data, gssize(f->length), nullptr) &&
                                 std::string("UTF-8") == f->charset));
    }
    destroyTrack(out);
    free(out);
    return got;
}

TEST(CodingDataTest, LegacyCodePagesAreReadRightAndWesternNamesStay) {
    int count = 0, single = 0, inTracks = 0;
    for (const auto& row : kRows) {
        g_auto(GStrv) names = g_strsplit(row.names, "|", -1);
        auto check = [&](const std::string& want, const std::string& got, int& right) {
            EXPECT_TRUE(got == want || std::string(row.language) != "Western") << want << got;
            right += got == want;
        };
        for (size_t i = 0; i < g_strv_length(names); i += 3) {
            Fields track;  // up to three names as title, artist and album
            for (size_t k = i; names[k] && k < i + 3; ++k)
                track.push_back({encode(names[k], row.codePage), "ISO-8859-1"});
            const Texts all = convert(track, nullptr);
            for (size_t k = 0; k < track.size(); ++k, ++count) {
                check(names[i + k], all[k], inTracks);
                check(names[i + k], convert({track[k]}, "ISO-8859-1")[0], single);
            }
        }
    }
    ASSERT_GE(count, 80);  // in 12 languages
    EXPECT_GE(100.0 * single / count, 95.0) << single << " of " << count;
    EXPECT_GE(100.0 * inTracks / count, 95.0) << inTracks << " of " << count;
}

TEST(CodingDataTest, MarkedTextsPassAndOutputIsAlwaysUtf8) {
    const Texts got = convert({{"Кино", "UTF-8"},
                               {"ab\xC3\x28 cd\xFF", "UTF-8"},
                               {encode("Motörhead", "ISO-8859-1"), "ISO-8859-1"},
                               {"Rock", "ISO-8859-1"},
                               {encode("Ария", "UTF-16LE"), "UTF-16LE"}},
                              "ISO-8859-1");
    EXPECT_EQ((Texts{"Кино", got[1], "Motörhead", "Rock", "Ария"}), got);
    EXPECT_EQ(0u, got[1].find("ab")) << "the valid part of a broken text is kept";
    // A Latin-1 field that is really UTF-8 (a common tagger mistake).
    const std::string utf8 = "Sigur Rós – Ágætis byrjun";
    EXPECT_EQ(utf8, convert({{utf8, "ISO-8859-1"}}, "ISO-8859-1")[0]);
    EXPECT_EQ(Texts(5, "<unset>"), convert({}, nullptr));
    EXPECT_EQ(nullptr, guess_and_convert_by_prio(nullptr, nullptr));

    EXPECT_TRUE(isMetadataEmptyUTF8(nullptr, 0) && isMetadataEmptyUTF8("\xE3\x80\x80 \t", 5));
    EXPECT_FALSE(isMetadataEmptyUTF8(" \xD0\x9A", 3) || isMetadataEmptyUTF8("\xFF", 1));
}

}  // namespace
