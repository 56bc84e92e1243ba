#include "platform/codingdata/CodingData.h"

#include <glib.h>

#include "tests/support/Testing.h"

namespace {

using Texts = std::vector<std::string>;
using Fields = std::vector<std::pair<std::string, const char*>>;  // bytes, charset

// `text` converted from one charset to another; "" when it cannot be.
std::string conv(const std::string& text, const char* to, const char* from = "UTF-8") {
    gsize n = 0;
    g_autofree gchar* out =
        g_convert(text.data(), gssize(text.size()), to, from, nullptr, &n, nullptr);
    return out ? std::string(out, n) : std::string();
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

// tests/data/codepage-names.tsv: real names in each code page, as old taggers
// stored them (legacy bytes marked Latin-1), with the markets' code pages.
// Every track of every code page reads right, as ID3v1 (cut to 30 bytes) and
// as ID3v2, but two short kanji-only EUC-JP tracks that read as GBK. An
// unknown code page leaves the list in force; "" brings the default back.
TEST(CodingDataTest, EveryMarketsCodePagesReadRightAndTheOutputIsUtf8) {
    std::ifstream tsv(OLVANE_TEST_DATA_DIR "/codepage-names.tsv");
    std::map<std::string, std::array<int, 3>> tally;  // right as v1, as v2, total
    for (std::string line; std::getline(tsv, line);) {
        g_auto(GStrv) col = g_strsplit(line.c_str(), "\t", -1);
        if (line[0] == '#' || g_strv_length(col) != 4)
            continue;
        const std::string codePage = col[0];
        ASSERT_EQ(0, setMarketCodePages(std::string(col[1]) == "-" ? nullptr : col[1]));
        auto& [v1, v2, total] = tally[codePage];
        ++total;
        for (int* right : {&v1, &v2}) {
            Texts want;
            Fields track;
            for (const char* text : {col[3], col[2]}) {  // title, artist
                std::string bytes = conv(text, codePage.c_str());
                ASSERT_FALSE(bytes.empty()) << text;
                if (right == &v1)  // an ID3v1 field: 30 bytes, trailing blanks stripped
                    bytes.erase(bytes.find_last_not_of(' ', 29) + 1);
                want.push_back("");  // as a perfect reader: a character cut at the end is dropped
                for (size_t cut = 0; want.back().empty() && cut < 4; ++cut)
                    want.back() =
                        conv(bytes.substr(0, bytes.size() - cut), "UTF-8", codePage.c_str());
                track.push_back({bytes, "ISO-8859-1"});
            }
            const Texts got = convert(track, "ISO-8859-1");
            *right += got[0] == want[0] && got[1] == want[1];
            for (size_t k = 0; k < 2 && codePage == "WINDOWS-1252"; ++k)
                EXPECT_EQ(want[k], convert({track[k]}, nullptr)[0]) << "alone";
        }
    }
    EXPECT_EQ(27u, tally.size());
    for (const auto& [codePage, n] : tally)
        EXPECT_GE(std::min(n[0], n[1]), n[2] - (codePage == "EUC-JP" ? 2 : 0)) << codePage;

    const Fields baltic = {{conv("Ziemeļmeita", "WINDOWS-1257"), "ISO-8859-1"}};
    ASSERT_EQ(0, setMarketCodePages("cp1257"));
    EXPECT_EQ(-1, setMarketCodePages("WINDOWS-1250, KLINGON"));
    EXPECT_EQ("Ziemeļmeita", convert(baltic, nullptr)[0]);
    ASSERT_EQ(0, setMarketCodePages(""));
    EXPECT_EQ("Ziemeïmeita", convert(baltic, nullptr)[0]) << "the default list is back";

    // Texts marked UTF-8, Latin-1 or UTF-16 pass; the output is always UTF-8.
    const Texts got = convert({{"Кино", "UTF-8"},
                               {"ab\xC3\x28 cd\xFF", "UTF-8"},
                               {conv("Motörhead", "ISO-8859-1"), "ISO-8859-1"},
                               {"Rock", "ISO-8859-1"},
                               {conv("Ария", "UTF-16LE"), "UTF-16LE"}},
                              "ISO-8859-1");
    EXPECT_EQ((Texts{"Кино", got[1], "Motörhead", "Rock", "Ария"}), got);
    EXPECT_EQ(0u, got[1].find("ab")) << "the valid start of a broken text is kept";
    // A Latin-1 field that is really UTF-8 (a common tagger mistake).
    const std::string utf8 = "Sigur Rós – Ágætis byrjun";
    EXPECT_EQ(utf8, convert({{utf8, "ISO-8859-1"}}, "ISO-8859-1")[0]);
    // ... cut inside a character by a 30-byte ID3v1 field.
    EXPECT_EQ("Sigur Rós – Ág", convert({{utf8.substr(0, 19), "ISO-8859-1"}}, nullptr)[0]);
    // A lone lead byte at the end is no cut character when nothing else is.
    EXPECT_EQ("Beyoncé", convert({{conv("Beyoncé", "ISO-8859-1"), "ISO-8859-1"}}, nullptr)[0]);
    EXPECT_EQ(Texts(5, "<unset>"), convert({}, nullptr));
    EXPECT_EQ(nullptr, guess_and_convert_by_prio(nullptr, nullptr));

    EXPECT_TRUE(isMetadataEmptyUTF8(nullptr, 0) && isMetadataEmptyUTF8("\xE3\x80\x80 \t", 5));
    EXPECT_FALSE(isMetadataEmptyUTF8(" \xD0\x9A", 3) || isMetadataEmptyUTF8("\xFF", 1));
}

}  // namespace
