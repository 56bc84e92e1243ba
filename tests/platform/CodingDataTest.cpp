#include "platform/codingdata/CodingData.h"

#include <glib.h>

#include "tests/support/Testing.h"

namespace {

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

// What a perfect reader makes of `bytes`: a character cut at the end is dropped.
std::string decode(std::string bytes, const char* codePage) {
    for (int cut = 0; cut < 4 && cut <= int(bytes.size()); ++cut) {
        g_autofree gchar* text = g_convert(bytes.data(), gssize(bytes.size() - cut), "UTF-8",
                                           codePage, nullptr, nullptr, nullptr);
        if (text)
            return text;
    }
    return "<undecodable>";
}

// tests/data/codepage-names.tsv: real names in each code page, as old taggers
// stored them (legacy bytes marked Latin-1), with the markets' code pages.
// Every track of every code page reads right, as ID3v1 (cut to 30 bytes) and
// as ID3v2, but two short kanji-only EUC-JP tracks that read as GBK.
TEST(CodingDataTest, EveryMarketsCodePagesReadRightAndWesternNamesStay) {
    olvane::test::TempDir dir;
    g_autofree gchar* tsv = nullptr;
    ASSERT_TRUE(g_file_get_contents(dir.copySample("codepage-names.tsv", "names.tsv").c_str(), &tsv,
                                    nullptr, nullptr));
    std::map<std::string, std::array<int, 3>> tally;  // right as v1, as v2, total
    g_auto(GStrv) lines = g_strsplit(tsv, "\n", -1);
    for (gchar** line = lines; *line; ++line) {
        g_auto(GStrv) col = g_strsplit(*line, "\t", -1);
        if (**line == '#' || g_strv_length(col) != 4)
            continue;
        const std::string codePage = col[0];
        ASSERT_EQ(0, setMarketCodePages(std::string(col[1]) == "-" ? nullptr : col[1]));
        auto& [v1, v2, total] = tally[codePage];
        ++total;
        for (int* right : {&v1, &v2}) {
            Texts want;
            Fields track;
            for (const char* text : {col[3], col[2]}) {  // title, artist
                std::string bytes = encode(text, codePage.c_str());
                ASSERT_FALSE(bytes.empty()) << text;
                if (right == &v1)  // an ID3v1 field: 30 bytes, trailing blanks stripped
                    bytes.erase(bytes.find_last_not_of(' ', 29) + 1);
                want.push_back(decode(bytes, codePage.c_str()));
                track.push_back({bytes, "ISO-8859-1"});
            }
            const Texts got = convert(track, "ISO-8859-1");
            *right += got[0] == want[0] && got[1] == want[1];
            for (size_t k = 0; k < 2 && codePage == "WINDOWS-1252"; ++k)
                EXPECT_EQ(want[k], convert({track[k]}, nullptr)[0]) << "alone";
        }
    }
    setMarketCodePages(nullptr);
    EXPECT_EQ(27u, tally.size());
    for (const auto& [codePage, n] : tally)
        EXPECT_GE(std::min(n[0], n[1]), n[2] - (codePage == "EUC-JP" ? 2 : 0)) << codePage;
}

TEST(CodingDataTest, UnknownMarketCodePageKeepsTheListInForce) {
    const Fields baltic = {{encode("Ziemeļmeita", "WINDOWS-1257"), "ISO-8859-1"}};
    ASSERT_EQ(0, setMarketCodePages("cp1257"));
    EXPECT_EQ(-1, setMarketCodePages("WINDOWS-1250, KLINGON"));
    EXPECT_EQ("Ziemeļmeita", convert(baltic, nullptr)[0]);
    ASSERT_EQ(0, setMarketCodePages(""));
    EXPECT_EQ("Ziemeïmeita", convert(baltic, nullptr)[0]) << "the default list is back";
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
    // ... cut inside a character by a 30-byte ID3v1 field.
    EXPECT_EQ("Sigur Rós – Ág", convert({{utf8.substr(0, 19), "ISO-8859-1"}}, nullptr)[0]);
    // A lone lead byte at the end is no cut character when nothing else is.
    EXPECT_EQ("Beyoncé", convert({{encode("Beyoncé", "ISO-8859-1"), "ISO-8859-1"}}, nullptr)[0]);
    EXPECT_EQ(Texts(5, "<unset>"), convert({}, nullptr));
    EXPECT_EQ(nullptr, guess_and_convert_by_prio(nullptr, nullptr));

    EXPECT_TRUE(isMetadataEmptyUTF8(nullptr, 0) && isMetadataEmptyUTF8("\xE3\x80\x80 \t", 5));
    EXPECT_FALSE(isMetadataEmptyUTF8(" \xD0\x9A", 3) || isMetadataEmptyUTF8("\xFF", 1));
}

}  // namespace
