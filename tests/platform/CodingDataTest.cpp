#include "platform/codingdata/CodingData.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

struct Name {
    const char* language;
    const char* codePage;
    const char* text;  // UTF-8
};

// Real artist names and titles, each as old tools stored them: bytes of the
// language's legacy code page in a field marked Latin-1.
const Name kNames[] = {
    {"Russian", "WINDOWS-1251", "Кино"},
    {"Russian", "WINDOWS-1251", "Группа крови"},
    {"Russian", "WINDOWS-1251", "Виктор Цой"},
    {"Russian", "WINDOWS-1251", "Алла Пугачёва"},
    {"Russian", "WINDOWS-1251", "Миллион алых роз"},
    {"Russian", "WINDOWS-1251", "Земфира"},
    {"Russian", "WINDOWS-1251", "Машина времени"},
    {"Russian", "WINDOWS-1251", "Сплин"},
    {"Russian", "WINDOWS-1251", "ДДТ"},
    {"Russian", "WINDOWS-1251", "Високосный год"},
    {"Russian", "WINDOWS-1251", "Звезда по имени Солнце"},
    {"Ukrainian", "WINDOWS-1251", "Океан Ельзи"},
    {"Ukrainian", "WINDOWS-1251", "Обійми"},
    {"Ukrainian", "WINDOWS-1251", "Скрябін"},
    {"Ukrainian", "WINDOWS-1251", "Тіна Кароль"},
    {"Ukrainian", "WINDOWS-1251", "Дикі танці"},
    {"Ukrainian", "WINDOWS-1251", "Руслана"},
    {"Bulgarian", "WINDOWS-1251", "Лили Иванова"},
    {"Bulgarian", "WINDOWS-1251", "Щурците"},
    {"Bulgarian", "WINDOWS-1251", "Васил Найденов"},
    {"Bulgarian", "WINDOWS-1251", "Тоника"},
    {"Greek", "WINDOWS-1253", "Μίκης Θεοδωράκης"},
    {"Greek", "WINDOWS-1253", "Άννα Βίσση"},
    {"Greek", "WINDOWS-1253", "Διονύσης Σαββόπουλος"},
    {"Greek", "WINDOWS-1253", "Χάρις Αλεξίου"},
    {"Greek", "WINDOWS-1253", "Νίκος Παπάζογλου"},
    {"Greek", "ISO-8859-7", "Έλενα Παπαρίζου"},
    {"Greek", "ISO-8859-7", "Γιάννης Πάριος"},
    {"Greek", "ISO-8859-7", "Σωκράτης Μάλαμας"},
    {"Greek", "ISO-8859-7", "Τα παιδιά του Πειραιά"},
    {"Japanese", "SHIFT_JIS", "宇多田ヒカル"},
    {"Japanese", "SHIFT_JIS", "浜崎あゆみ"},
    {"Japanese", "SHIFT_JIS", "椎名林檎"},
    {"Japanese", "SHIFT_JIS", "久石譲"},
    {"Japanese", "SHIFT_JIS", "坂本龍一"},
    {"Japanese", "SHIFT_JIS", "美空ひばり"},
    {"Japanese", "SHIFT_JIS", "中島みゆき"},
    {"Japanese", "SHIFT_JIS", "安室奈美恵"},
    {"Japanese", "SHIFT_JIS", "いきものがかり"},
    {"Japanese", "SHIFT_JIS", "千と千尋の神隠し"},
    {"Japanese", "SHIFT_JIS", "スピッツ"},
    {"Japanese", "SHIFT_JIS", "サザンオールスターズ"},
    {"Chinese", "GBK", "周杰伦"},
    {"Chinese", "GBK", "王菲"},
    {"Chinese", "GBK", "邓丽君"},
    {"Chinese", "GBK", "月亮代表我的心"},
    {"Chinese", "GBK", "刀郎"},
    {"Chinese", "GBK", "崔健"},
    {"Chinese", "GBK", "一无所有"},
    {"Chinese", "GBK", "许巍"},
    {"Chinese", "GBK", "朴树"},
    {"Chinese", "GBK", "那英"},
    {"Chinese (Big5)", "BIG5", "張學友"},
    {"Chinese (Big5)", "BIG5", "鄧麗君"},
    {"Chinese (Big5)", "BIG5", "羅大佑"},
    {"Chinese (Big5)", "BIG5", "五月天"},
    {"Chinese (Big5)", "BIG5", "蔡依林"},
    {"Chinese (Big5)", "BIG5", "周杰倫"},
    {"Chinese (Big5)", "BIG5", "張惠妹"},
    {"Chinese (Big5)", "BIG5", "王力宏"},
    {"Chinese (Big5)", "BIG5", "陳奕迅"},
    {"Chinese (Big5)", "BIG5", "梅艷芳"},
    {"Korean", "EUC-KR", "소녀시대"},
    {"Korean", "EUC-KR", "빅뱅"},
    {"Korean", "EUC-KR", "아이유"},
    {"Korean", "EUC-KR", "조용필"},
    {"Korean", "EUC-KR", "서태지와 아이들"},
    {"Korean", "EUC-KR", "방탄소년단"},
    {"Korean", "EUC-KR", "이선희"},
    {"Korean", "EUC-KR", "신승훈"},
    {"Korean", "EUC-KR", "김건모"},
    {"Korean", "EUC-KR", "강남스타일"},
    {"Hebrew", "WINDOWS-1255", "עומר אדם"},
    {"Hebrew", "WINDOWS-1255", "אריק איינשטיין"},
    {"Hebrew", "WINDOWS-1255", "שלמה ארצי"},
    {"Hebrew", "WINDOWS-1255", "עפרה חזה"},
    {"Hebrew", "WINDOWS-1255", "הדג נחש"},
    {"Hebrew", "WINDOWS-1255", "נועה קירל"},
    {"Turkish", "WINDOWS-1254", "Şımarık"},
    {"Turkish", "WINDOWS-1254", "Barış Manço"},
    {"Turkish", "WINDOWS-1254", "Müslüm Gürses"},
    {"Turkish", "WINDOWS-1254", "Zülfü Livaneli"},
    {"Turkish", "WINDOWS-1254", "Gülşen"},
    {"Polish", "WINDOWS-1250", "Czesław Niemen"},
    {"Polish", "WINDOWS-1250", "Dżem"},
    {"Polish", "WINDOWS-1250", "Krzysztof Krawczyk"},
    {"Polish", "WINDOWS-1250", "Maryla Rodowicz"},
    {"Polish", "WINDOWS-1250", "Wehikuł czasu"},
    {"Czech", "WINDOWS-1250", "Lucie Bílá"},
    {"Czech", "WINDOWS-1250", "Jaromír Nohavica"},
    {"Czech", "WINDOWS-1250", "Čechomor"},
    {"Czech", "WINDOWS-1250", "Hana Zagorová"},
    {"Czech", "WINDOWS-1250", "Věra Špinarová"},
    {"Western", "WINDOWS-1252", "Motörhead"},
    {"Western", "WINDOWS-1252", "Björk"},
    {"Western", "WINDOWS-1252", "Björk Guðmundsdóttir"},
    {"Western", "WINDOWS-1252", "Beyoncé"},
    {"Western", "WINDOWS-1252", "Sigur Rós"},
    {"Western", "WINDOWS-1252", "Mötley Crüe"},
    {"Western", "WINDOWS-1252", "Café del Mar"},
    {"Western", "WINDOWS-1252", "Blue Öyster Cult"},
    {"Western", "WINDOWS-1252", "Hüsker Dü"},
    {"Western", "WINDOWS-1252", "Françoise Hardy"},
    {"Western", "WINDOWS-1252", "Édith Piaf"},
    {"Western", "WINDOWS-1252", "Die Ärzte"},
    {"Western", "WINDOWS-1252", "Queensrÿche"},
    {"Western", "WINDOWS-1252", "Röyksopp"},
    {"Western", "WINDOWS-1252", "Joaquín Sabina"},
    {"Western", "WINDOWS-1252", "Déjà Vu"},
    {"Western", "WINDOWS-1252", "Für Elise"},
    {"Western", "WINDOWS-1252", "Maná"},
    {"Western", "WINDOWS-1252", "¿Dónde Están Mis Amigos?"},
    {"Western", "WINDOWS-1252", "Über den Wolken"},
    {"Western", "WINDOWS-1252", "Sinéad O’Connor"},
    {"Western", "WINDOWS-1252", "Jean-Michel Jarre – Oxygène"},
    {"Western", "WINDOWS-1252", "Naïve"},
    {"Western", "WINDOWS-1252", "Kaizers Orchestra – Kontroll på kontinentet"},
    {"Western", "WINDOWS-1252", "Æther Realm"},
};

std::string encode(const char* text, const char* codePage) {
    gsize written = 0;
    gchar* bytes = g_convert(text, -1, codePage, "UTF-8", nullptr, &written, nullptr);
    EXPECT_NE(bytes, nullptr) << text << " in " << codePage;
    std::string out = bytes ? std::string(bytes, written) : std::string();
    g_free(bytes);
    return out;
}

std::string field(const TrackField& f) {
    return f.data ? std::string(f.data, f.length) : std::string("<unset>");
}

struct Tally {
    int right = 0;
    int total = 0;
    std::map<std::string, std::pair<int, int>> byLanguage;
    void add(const std::string& language, bool ok) {
        ++total;
        right += ok;
        byLanguage[language].first += ok;
        ++byLanguage[language].second;
    }
    double percent() const { return total ? 100.0 * right / total : 0; }
};

TEST(CodingDataTest, LegacyCodePagesAreReadRightAndWesternNamesStay) {
    const int count = int(sizeof(kNames) / sizeof(kNames[0]));
    std::map<std::string, int> languages;
    for (const Name& n : kNames)
        ++languages[n.language];
    ASSERT_GE(count, 80);
    ASSERT_GE(languages.size(), 8u);

    // Single fields: every name alone as a title.
    Tally single;
    for (const Name& n : kNames) {
        const std::string bytes = encode(n.text, n.codePage);
        Track in;
        initTrack(&in);
        ASSERT_EQ(0, setTrackTitle(&in, bytes.data(), bytes.size(), "ISO-8859-1"));
        Track* out = guess_and_convert_by_prio(&in, "ISO-8859-1");
        ASSERT_NE(out, nullptr);
        const std::string got = field(out->title);
        EXPECT_TRUE(g_utf8_validate(got.data(), gssize(got.size()), nullptr));
        EXPECT_EQ(out->artist.data, nullptr);
        const bool ok = got == n.text;
        single.add(n.language, ok);
        if (std::string(n.language) == "Western")
            EXPECT_EQ(n.text, got) << "a Western name must stay as it is";
        else if (!ok)
            std::printf("  single miss (%s, %s): %s -> %s [%s]\n", n.language, n.codePage, n.text,
                        got.c_str(), guessCharset(bytes.data(), bytes.size()));
        destroyTrack(out);
        free(out);
        destroyTrack(&in);
    }

    // Whole tracks: three names of one code page as title, artist and album
    // (a language's remainder goes into a shorter track).
    Tally tracks;
    for (int i = 0; i < count;) {
        int j = i;
        std::vector<const Name*> group;
        while (j < count && group.size() < 3 &&
               std::string(kNames[j].codePage) == kNames[i].codePage &&
               std::string(kNames[j].language) == kNames[i].language)
            group.push_back(&kNames[j++]);
        Track in;
        initTrack(&in);
        std::vector<std::string> bytes;
        for (const Name* n : group)
            bytes.push_back(encode(n->text, n->codePage));
        setTrackTitle(&in, bytes[0].data(), bytes[0].size(), "ISO-8859-1");
        if (bytes.size() > 1)
            setTrackArtist(&in, bytes[1].data(), bytes[1].size(), "ISO-8859-1");
        if (bytes.size() > 2)
            setTrackAlbum(&in, bytes[2].data(), bytes[2].size(), "ISO-8859-1");
        Track* out = guess_and_convert_by_prio(&in, nullptr);
        ASSERT_NE(out, nullptr);
        const TrackField* got[] = {&out->title, &out->artist, &out->album};
        for (size_t k = 0; k < group.size(); ++k) {
            bool ok = field(*got[k]) == group[k]->text;
            tracks.add(group[k]->language, ok);
            if (std::string(group[k]->language) == "Western")
                EXPECT_EQ(group[k]->text, field(*got[k]));
            else if (!ok)
                std::printf("  track miss (%s): %s -> %s\n", group[k]->language, group[k]->text,
                            field(*got[k]).c_str());
        }
        destroyTrack(out);
        free(out);
        destroyTrack(&in);
        i = j;
    }

    for (const auto& l : single.byLanguage)
        std::printf("  %-16s single %d/%d  in tracks %d/%d\n", l.first.c_str(), l.second.first,
                    l.second.second, tracks.byLanguage[l.first].first,
                    tracks.byLanguage[l.first].second);
    std::printf(
        "names: %d in %zu languages; right as single fields: %d (%.1f%%), "
        "in whole tracks: %d (%.1f%%)\n",
        count, languages.size(), single.right, single.percent(), tracks.right, tracks.percent());
    EXPECT_GE(single.percent(), 95.0);
    EXPECT_GE(tracks.percent(), 95.0);
}

TEST(CodingDataTest, MarkedTextsPassAndOutputIsAlwaysUtf8) {
    Track in;
    initTrack(&in);
    const std::string cyrillic = "Кино";
    const std::string broken = "ab\xC3\x28 cd\xFF";
    const std::string latin1 = encode("Motörhead", "ISO-8859-1");
    setTrackTitle(&in, cyrillic.data(), cyrillic.size(), "UTF-8");
    setTrackArtist(&in, broken.data(), broken.size(), "UTF-8");
    setTrackAlbum(&in, latin1.data(), latin1.size(), "ISO-8859-1");
    setTrackGenre(&in, "Rock", 4, "ISO-8859-1");
    const std::string utf16 = encode("Ария", "UTF-16LE");
    setTrackComposer(&in, utf16.data(), utf16.size(), "UTF-16LE");
    Track* out = guess_and_convert_by_prio(&in, "ISO-8859-1");
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(cyrillic, field(out->title));
    const std::string artist = field(out->artist);
    EXPECT_TRUE(g_utf8_validate(artist.data(), gssize(artist.size()), nullptr));
    EXPECT_EQ(0u, artist.find("ab")) << "the valid part of a broken text is kept";
    EXPECT_EQ("Motörhead", field(out->album));
    EXPECT_EQ("Rock", field(out->genre));
    EXPECT_EQ("Ария", field(out->composer));
    EXPECT_STREQ("UTF-8", out->title.charset);
    destroyTrack(out);
    free(out);

    // A Latin-1 field that is really UTF-8 (a common tagger mistake) is read
    // as UTF-8; replacing a field frees the old one (checked by the sanitizer).
    const std::string utf8 = "Sigur Rós – Ágætis byrjun";
    setTrackAlbum(&in, utf8.data(), utf8.size(), "ISO-8859-1");
    out = guess_and_convert_by_prio(&in, "ISO-8859-1");
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(utf8, field(out->album));
    destroyTrack(out);
    free(out);
    destroyTrack(&in);
    EXPECT_EQ(nullptr, in.title.data);

    // An empty track converts to an empty track; bad arguments are refused.
    out = guess_and_convert_by_prio(&in, nullptr);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(nullptr, out->title.data);
    destroyTrack(out);
    free(out);
    EXPECT_EQ(nullptr, guess_and_convert_by_prio(nullptr, nullptr));
    EXPECT_EQ(-1, setTrackTitle(&in, nullptr, 3, "UTF-8"));
    EXPECT_EQ(-1, setTrackTitle(nullptr, "abc", 3, "UTF-8"));
}

TEST(CodingDataTest, EmptyMeansNothingButWhiteSpace) {
    EXPECT_TRUE(isMetadataEmptyUTF8(nullptr, 0));
    EXPECT_TRUE(isMetadataEmptyUTF8("", 0));
    EXPECT_TRUE(isMetadataEmptyUTF8("   \t ", 5));
    EXPECT_TRUE(isMetadataEmptyUTF8("\xE3\x80\x80 ", 4));  // ideographic space
    EXPECT_FALSE(isMetadataEmptyUTF8(" a ", 3));
    EXPECT_FALSE(isMetadataEmptyUTF8("  \xD0\x9A", 4));
    EXPECT_FALSE(isMetadataEmptyUTF8("\xFF", 1));
}

}  // namespace
