#include "platform/codingdata/CodingData.h"

#include <glib.h>
#include <strings.h>
#include <uchardet/uchardet.h>
#include <unicode/ucsdet.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/log/ZQLog.h"

namespace {

enum Kind { UTF8, SINGLE, SJIS, GBK, BIG5, UHC };

struct Candidate {
    const char* charset;  // iconv name
    Kind kind;
};

// The priority list documented in the header, in order.
const Candidate kCandidates[] = {
    {"UTF-8", UTF8},          {"WINDOWS-1252", SINGLE},
    {"WINDOWS-1251", SINGLE}, {"WINDOWS-1250", SINGLE},
    {"WINDOWS-1253", SINGLE}, {"ISO-8859-7", SINGLE},
    {"WINDOWS-1254", SINGLE}, {"WINDOWS-1255", SINGLE},
    {"CP932", SJIS},          {"GBK", GBK},
    {"CP950", BIG5},          {"CP949", UHC},
};
const int kCandidateCount = int(sizeof(kCandidates) / sizeof(kCandidates[0]));
const int kLatin = 1;  // index of WINDOWS-1252

// Maps a detector's charset name onto the list; -1 when it is not there.
int candidateIndex(const char* name) {
    if (!name || !*name)
        return -1;
    struct Alias {
        const char* name;
        int index;
    } static const aliases[] = {
        {"UTF-8", 0},        {"WINDOWS-1252", 1}, {"ISO-8859-1", 1},   {"ASCII", 1},
        {"US-ASCII", 1},     {"WINDOWS-1251", 2}, {"WINDOWS-1250", 3}, {"WINDOWS-1253", 4},
        {"ISO-8859-2", 3},   {"ISO-8859-7", 5},   {"WINDOWS-1254", 6}, {"ISO-8859-9", 6},
        {"WINDOWS-1255", 7}, {"ISO-8859-8", 7},   {"ISO-8859-8-I", 7}, {"SHIFT_JIS", 8},
        {"CP932", 8},        {"GB18030", 9},      {"GB2312", 9},       {"GBK", 9},
        {"BIG5", 10},        {"CP950", 10},       {"EUC-KR", 11},      {"UHC", 11},
        {"CP949", 11},
    };
    for (const Alias& a : aliases)
        if (strcasecmp(name, a.name) == 0)
            return a.index;
    return -1;
}

bool isAscii(const std::string& bytes) {
    for (unsigned char c : bytes)
        if (c >= 0x80)
            return false;
    return true;
}

// Converts to UTF-8; false when the bytes are not valid in `charset`.
bool convert(const std::string& bytes, const char* charset, std::string& out) {
    if (strcasecmp(charset, "UTF-8") == 0) {
        if (!g_utf8_validate(bytes.data(), gssize(bytes.size()), nullptr))
            return false;
        out = bytes;
        return true;
    }
    gsize written = 0;
    GError* error = nullptr;
    gchar* text =
        g_convert(bytes.data(), gssize(bytes.size()), "UTF-8", charset, nullptr, &written, &error);
    if (!text) {
        if (error)
            g_error_free(error);
        return false;
    }
    out.assign(text, written);
    g_free(text);
    return g_utf8_validate(out.data(), gssize(out.size()), nullptr) &&
           out.find('\0') == std::string::npos;
}

// Valid UTF-8 in any case: invalid sequences become U+FFFD.
std::string makeValid(const std::string& bytes) {
    gchar* valid = g_utf8_make_valid(bytes.data(), gssize(bytes.size()));
    std::string out(valid);
    g_free(valid);
    return out;
}

// Frequent Hangul syllables and Han characters (simplified and traditional
// forms of the most used characters and family names). Titles and names in
// the matching language are mostly made of them; Korean bytes read as
// Chinese, or the other way round, mostly are not.
const char kFrequentHangul[] =
    "가각간갈감강개거건검게겨결경계고곡공과관광교구국군권귀규그극근글금기긴길김까꽃꿈"
    "나난날남내너널네녀년노논누눈느는늘니다단달담당대더데도독돌동두드들디따때떠또라락란"
    "람랑래러런럼레려력련령로록론롤루류륙르른를름리린림마막만말망매머먼메며면명모목몽무"
    "문물미민밀바박반발방배백버번범법베벨별병보복본볼봄봉부북분불브비빅빈빌빛뱅사산살삼"
    "상새색생서석선설섬성세셔소속손송쇼수숙순술숨스슬승시식신실심싸써쓰아악안알암앙애야"
    "약양어억언얼엄업없에엔여역연열염영예오옥온올와완왕외요용우욱운울움웅워원월위유육윤"
    "으은을음응의이익인일임입있자작잔잘장재저적전절점정제져조족존종좋주죽준줄중즈지직진"
    "질집짜차착찬찰참창채처천철청체초촌최추축춘출충취치친칠카커케코쿠크키타탄탈탑태터테"
    "토통투트특티파판팔패퍼페편평포표푸풀프플피필하학한할함합항해행향허헌험헤혀현협형혜"
    "호혼홍화확환활황회효후훈휘휴흐흑흥희히힘";
const char kFrequentHan[] =
    "的一是不了人我在有他这为之大来以个中上们到说国和地也子时道出而要于就下得可你年生自"
    "会那后能对着事其里所去行过家十用发天如然作方成者多日都三小军二无同么经法当起与好看"
    "学进种将还分此心前面又定见只主没公从已爱情歌曲月亮代表风花雪夜梦想回忆春秋海山水云"
    "光明星东南西北美丽青红白黑金木火土女男王李张刘陈杨黄赵吴周徐孙马朱胡郭何高林罗郑"
    "梁谢宋唐许韩冯邓曹彭曾萧田董袁潘于蒋蔡余杜叶程苏魏吕丁任沈姚卢姜崔钟谭陆汪范石廖"
    "贾夏韦方邹孟熊秦邱江尹薛段雷侯龙史陶黎贺顾毛郝龚邵万钱严武戴莫孔向汤杰伦君菲英健"
    "华伟强军平志明文辉德玉兰芳秀娟敏静丽艳红霞燕飞鹏涛宇浩俊凯思佳欣怡婷雨晨阳力宏依"
    "友学惠妹奕迅艷樹許張劉陳楊黃趙吳孫馬鄭謝韓馮鄧蕭葉蘇呂蔣盧鍾譚陸羅龍賀顧萬錢嚴湯"
    "傑倫麗華偉強軍誌輝玉蘭藝鵬濤凱學愛歌夢憶東雲風葉晴淚聲樂團隊個們這來說國會後對著"
    "經當與見從過時長間開關門問題號電話親親還";

bool inList(const char* list, gunichar c) {
    char buf[8];
    int n = g_unichar_to_utf8(c, buf);
    buf[n] = '\0';
    return std::strstr(list, buf) != nullptr;
}

enum Group { G_NONE, G_LATIN, G_CYRILLIC, G_GREEK, G_HEBREW, G_HANGUL, G_CJK, G_OTHER };

Group groupOf(gunichar c) {
    switch (g_unichar_get_script(c)) {
        case G_UNICODE_SCRIPT_COMMON:
        case G_UNICODE_SCRIPT_INHERITED:
            return G_NONE;
        case G_UNICODE_SCRIPT_LATIN:
            return G_LATIN;
        case G_UNICODE_SCRIPT_CYRILLIC:
            return G_CYRILLIC;
        case G_UNICODE_SCRIPT_GREEK:
            return G_GREEK;
        case G_UNICODE_SCRIPT_HEBREW:
            return G_HEBREW;
        case G_UNICODE_SCRIPT_HANGUL:
            return G_HANGUL;
        case G_UNICODE_SCRIPT_HAN:
        case G_UNICODE_SCRIPT_HIRAGANA:
        case G_UNICODE_SCRIPT_KATAKANA:
            return G_CJK;
        default:
            return G_OTHER;
    }
}

bool isVowel(gunichar c) {
    static const char* const vowels = "aeiouyаеёиоуыэюяєіїαεηιουωάέήίόύώϊϋΐΰ";
    gunichar lower = g_unichar_tolower(c);
    char buf[8];
    int n = g_unichar_to_utf8(lower, buf);
    buf[n] = '\0';
    return std::strstr(vowels, buf) != nullptr;
}

bool harmlessPunctuation(gunichar c) {
    return (c >= 0x2010 && c <= 0x2027) || c == 0x00A0 || c == 0x00AB || c == 0x00BB ||
           c == 0x00B7 || c == 0x00B4 || c == 0x05BE || c == 0x05F3 || c == 0x05F4 ||
           (c >= 0x3000 && c <= 0x303F) || (c >= 0xFF01 && c <= 0xFF5E) || c == 0x30FB ||
           c == 0x30FC;
}

// Penalty for one word of letters (all from one run between non-letters).
double wordPenalty(const std::vector<gunichar>& word) {
    if (word.empty())
        return 0;
    Group group = G_NONE;
    bool mixed = false;
    bool hangul = false, han = false;
    int nonAscii = 0, lowerToUpper = 0, vowels = 0, halfwidth = 0, icelandic = 0, igrave = 0;
    for (size_t i = 0; i < word.size(); ++i) {
        gunichar c = word[i];
        Group g = groupOf(c);
        if (g != G_NONE) {
            if (group == G_NONE)
                group = g;
            else if (g != group)
                mixed = true;
        }
        if (g == G_HANGUL)
            hangul = true;
        if (g_unichar_get_script(c) == G_UNICODE_SCRIPT_HAN)
            han = true;
        if (c >= 0x80)
            ++nonAscii;
        if (c >= 0xFF61 && c <= 0xFF9F)
            ++halfwidth;
        if ((c == 0xEC || c == 0xCC) && i + 1 < word.size())
            ++igrave;
        if (c == 0xDE || c == 0xFE || c == 0xD0 || c == 0xF0 || c == 0xDD || c == 0xFD)
            ++icelandic;
        if (g_unichar_isupper(c) && i > 0 && g_unichar_islower(word[i - 1]))
            ++lowerToUpper;
        if (isVowel(c))
            ++vowels;
    }
    double penalty = 0;
    if (mixed)
        penalty += 6;
    if (hangul && han)
        penalty += 3;
    penalty += 1.5 * halfwidth;
    // Thorn, eth and y-acute are rare outside Icelandic; in Turkish text read
    // as Latin-1 they stand for s-cedilla, g-breve and dotless i.
    penalty += 1.0 * icelandic;
    // Italian puts i-grave at the end of a word; inside one it is mostly
    // Czech e-caron read as Latin-1.
    penalty += 1.5 * igrave;
    if (group == G_OTHER)
        penalty += 3 * double(word.size());
    if (group == G_LATIN || group == G_CYRILLIC || group == G_GREEK) {
        const int n = int(word.size());
        // Mojibake reads as runs of accented capitals and odd case changes:
        // "ÊÈíî" (capitals running into small letters) or "aBcD".
        bool caseOk = lowerToUpper <= 1;
        for (int i = 1; i + 1 < n && caseOk; ++i)
            if (g_unichar_isupper(word[i]) && g_unichar_isupper(word[i - 1]) &&
                g_unichar_islower(word[i + 1]))
                caseOk = false;
        if (!caseOk)
            penalty += 3;
        if (group == G_LATIN && nonAscii >= 2 && 2 * nonAscii > n)
            penalty += 2.0 * nonAscii;
        bool allUpper = true;
        for (gunichar c : word)
            allUpper = allUpper && !g_unichar_islower(c);
        if (group != G_LATIN && n >= 3 && vowels == 0 && !(allUpper && n <= 4))
            penalty += 3;
        if (group == G_CYRILLIC) {
            gunichar first = g_unichar_toupper(word[0]);
            if (first == 0x042C || first == 0x042A || first == 0x042B)
                penalty += 3;
        }
        if (group == G_GREEK) {
            for (int i = 0; i + 1 < n; ++i)
                if (word[i] == 0x03C2)
                    penalty += 3;
        }
    }
    return penalty;
}

// How plausible a decoded text is: 0 for clean text, lower for each oddity;
// -1000 for text with control or unassigned characters.
double plausibility(const std::string& utf8) {
    double score = 0;
    std::vector<gunichar> word;
    int casedWords = 0, capitalised = 0;
    auto endWord = [&]() {
        score -= wordPenalty(word);
        if (!word.empty()) {
            Group g = groupOf(word[0]);
            if (g == G_CYRILLIC || g == G_GREEK) {
                ++casedWords;
                if (g_unichar_isupper(word[0]))
                    ++capitalised;
            }
        }
        word.clear();
    };
    gunichar previous = ' ';
    for (const char* p = utf8.c_str(); *p; previous = g_utf8_get_char(p), p = g_utf8_next_char(p)) {
        gunichar c = g_utf8_get_char(p);
        if (c < 0x80) {
            if (g_ascii_isalpha(char(c))) {
                word.push_back(c);
                continue;
            }
            endWord();
            if (c < 0x20 && c != '\n' && c != '\t')
                return -1000;
            continue;
        }
        GUnicodeType type = g_unichar_type(c);
        if (type == G_UNICODE_CONTROL || type == G_UNICODE_UNASSIGNED ||
            type == G_UNICODE_PRIVATE_USE || type == G_UNICODE_SURROGATE ||
            type == G_UNICODE_FORMAT)
            return -1000;
        if (g_unichar_ismark(c) && word.empty())
            score -= 3;  // a combining mark with nothing to combine with
        if (g_unichar_isalpha(c) || g_unichar_ismark(c)) {
            if (inList(kFrequentHangul, c) || inList(kFrequentHan, c))
                score += 0.75;
            word.push_back(c);
            continue;
        }
        const bool inWord = !word.empty();
        endWord();
        const char* next = g_utf8_next_char(p);
        const bool beforeLetter = *next && g_unichar_isalpha(g_utf8_get_char(next));
        if (c == 0x2019 && !g_unichar_isalpha(previous) && beforeLetter)
            score -= 1.5;  // a closing quote opening a word
        else if (harmlessPunctuation(c) || g_unichar_isspace(c))
            continue;
        else if (inWord && beforeLetter)
            score -= 4;  // a symbol inside a word: "Czes³aw", "D¿em"
        else if ((c == 0x00BF || c == 0x00A1) && !inWord)
            continue;  // opening "¿" and "¡"
        else
            score -= 2;
    }
    endWord();
    // Names and titles in cased scripts start with a capital somewhere.
    if (casedWords > 0 && capitalised == 0)
        score -= 3;
    return score;
}

// How common the double-byte characters of the pool are in the code page:
// per character +1 for the frequent block, 0 for the rare one, below zero for
// extensions and half-width forms that real titles hardly use.
double commonness(const std::string& bytes, Kind kind) {
    double score = 0;
    const size_t n = bytes.size();
    for (size_t i = 0; i < n; ++i) {
        unsigned char a = (unsigned char)bytes[i];
        if (a < 0x80)
            continue;
        unsigned char b = i + 1 < n ? (unsigned char)bytes[i + 1] : 0;
        switch (kind) {
            case SJIS:
                if (a >= 0xA1 && a <= 0xDF) {
                    score -= 1;  // half-width katakana, one byte
                    continue;
                }
                if ((a == 0x82 && b >= 0x9F) || (a == 0x83 && b <= 0x96))
                    score += 0.75;  // kana
                else if ((a > 0x88 || (a == 0x88 && b >= 0x9F)) &&
                         (a < 0x98 || (a == 0x98 && b <= 0x72)))
                    score += 0.5;  // JIS level 1 kanji
                else
                    score -= 1;  // level 2, symbols, vendor extensions
                break;
            case GBK:
                if (b < 0xA1 || a < 0xA1)
                    score -= 1.5;  // GBK extension
                else if (a >= 0xB0 && a <= 0xD7)
                    score += 0.5;  // GB2312 level 1
                else
                    score -= 1;  // level 2 and symbols
                break;
            case BIG5:
                if (a >= 0xA4 && a <= 0xC6)
                    score += 0.5;  // frequent hanzi
                else
                    score -= 1;
                break;
            case UHC:
                if (b < 0xA1)
                    score -= 1.5;  // Windows extension
                else if (a >= 0xB0 && a <= 0xC8)
                    score += 0.5;  // KS X 1001 hangul
                else
                    score -= 1;  // hanja and symbols
                break;
            default:
                break;
        }
        ++i;
    }
    return score;
}

int uchardetGuess(const std::string& bytes) {
    uchardet_t ud = uchardet_new();
    if (!ud)
        return -1;
    int index = -1;
    if (uchardet_handle_data(ud, bytes.data(), bytes.size()) == 0) {
        uchardet_data_end(ud);
        index = candidateIndex(uchardet_get_charset(ud));
    }
    uchardet_delete(ud);
    return index;
}

// ICU's detector: the confidence (0-100) of each candidate it names.
void icuGuess(const std::string& bytes, int confidence[]) {
    UErrorCode status = U_ZERO_ERROR;
    UCharsetDetector* det = ucsdet_open(&status);
    if (U_FAILURE(status))
        return;
    ucsdet_setText(det, bytes.data(), int32_t(bytes.size()), &status);
    int32_t found = 0;
    const UCharsetMatch** matches = ucsdet_detectAll(det, &found, &status);
    for (int32_t i = 0; U_SUCCESS(status) && matches && i < found; ++i) {
        UErrorCode s = U_ZERO_ERROR;
        int index = candidateIndex(ucsdet_getName(matches[i], &s));
        int conf = ucsdet_getConfidence(matches[i], &s);
        if (U_SUCCESS(s) && index >= 0 && conf > confidence[index])
            confidence[index] = conf;
    }
    ucsdet_close(det);
}

// Index of the best candidate for the pool, or -1 for "keep the default".
int guessPool(const std::string& pool) {
    double score[kCandidateCount];
    bool usable[kCandidateCount];
    for (int i = 0; i < kCandidateCount; ++i) {
        std::string text;
        usable[i] = convert(pool, kCandidates[i].charset, text);
        score[i] = usable[i] ? plausibility(text) + commonness(pool, kCandidates[i].kind) : 0;
    }
    // Valid UTF-8 with multi-byte sequences is UTF-8: no legacy text is.
    if (usable[0] && score[0] > -1000)
        return 0;
    int hint = uchardetGuess(pool);
    int confidence[kCandidateCount] = {};
    icuGuess(pool, confidence);
    int best = -1;
    double bestScore = 0;
    for (int i = 1; i < kCandidateCount; ++i) {
        if (!usable[i])
            continue;
        double s = score[i] + confidence[i] / 20.0;
        if (i == hint)
            s += 2;
        if (best < 0 || s > bestScore + 1e-9) {
            best = i;
            bestScore = s;
        }
    }
    if (best < 0)
        return -1;
    // A foreign reading must beat the Latin one clearly.
    if (best != kLatin && usable[kLatin]) {
        double latin = score[kLatin] + confidence[kLatin] / 20.0 + (hint == kLatin ? 2 : 0);
        if (bestScore < latin + 1.5)
            return kLatin;
    }
    return best;
}

std::string poolOf(const Track* track, bool (*wanted)(const TrackField&)) {
    const TrackField* fields[] = {&track->title, &track->album, &track->artist, &track->composer,
                                  &track->genre};
    std::string pool;
    for (const TrackField* f : fields) {
        if (!f->data || !wanted(*f))
            continue;
        if (!pool.empty())
            pool += '\n';
        pool.append(f->data, f->length);
    }
    return pool;
}

bool isLatin1Marked(const TrackField& f) {
    return !f.charset || strcasecmp(f.charset, "ISO-8859-1") == 0 ||
           strcasecmp(f.charset, "LATIN1") == 0 || strcasecmp(f.charset, "ISO8859-1") == 0;
}

int setField(TrackField* field, const char* data, size_t length, const char* charset) {
    if (!field || !data || !charset)
        return -1;
    char* copy = static_cast<char*>(malloc(length + 1));
    char* name = strdup(charset);
    if (!copy || !name) {
        free(copy);
        free(name);
        return -1;
    }
    memcpy(copy, data, length);
    copy[length] = '\0';
    free(field->data);
    free(field->charset);
    field->data = copy;
    field->length = length;
    field->charset = name;
    return 0;
}

// Converts one field with the pool's charset, falling back to the default.
std::string convertField(const TrackField& f, const char* poolCharset, const char* defaultCharset) {
    std::string bytes(f.data, f.length);
    std::string out;
    if (!isLatin1Marked(f)) {
        if (convert(bytes, f.charset, out))
            return out;
        ZQLOG_WARN("cannot convert from %s", f.charset);
        return makeValid(bytes);
    }
    if (isAscii(bytes))
        return bytes;
    if (poolCharset && convert(bytes, poolCharset, out))
        return out;
    if (convert(bytes, "WINDOWS-1252", out))
        return out;
    if (defaultCharset && convert(bytes, defaultCharset, out))
        return out;
    if (convert(bytes, "ISO-8859-1", out))
        return out;
    return makeValid(bytes);
}

}  // namespace

extern "C" {

void initTrack(Track* track) {
    if (track)
        memset(track, 0, sizeof(*track));
}

int setTrackTitle(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->title, data, length, charset) : -1;
}
int setTrackAlbum(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->album, data, length, charset) : -1;
}
int setTrackArtist(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->artist, data, length, charset) : -1;
}
int setTrackComposer(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->composer, data, length, charset) : -1;
}
int setTrackGenre(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->genre, data, length, charset) : -1;
}

const char* guessCharset(const char* data, size_t length) {
    if (!data)
        return "ASCII";
    std::string pool(data, length);
    if (isAscii(pool))
        return "ASCII";
    int index = guessPool(pool);
    if (index < 0)
        return "ISO-8859-1";
    if (index == kLatin) {
        std::string out;
        return convert(pool, "WINDOWS-1252", out) ? "WINDOWS-1252" : "ISO-8859-1";
    }
    return kCandidates[index].charset;
}

Track* guess_and_convert_by_prio(const Track* track, const char* defaultCharset) {
    if (!track)
        return nullptr;
    if (!defaultCharset)
        defaultCharset = "ISO-8859-1";
    std::string pool = poolOf(track, isLatin1Marked);
    const char* poolCharset = nullptr;
    if (!pool.empty() && !isAscii(pool)) {
        int index = guessPool(pool);
        poolCharset = index < 0 ? defaultCharset : kCandidates[index].charset;
    }
    Track* out = static_cast<Track*>(malloc(sizeof(Track)));
    if (!out)
        return nullptr;
    initTrack(out);
    const TrackField* in[] = {&track->title, &track->album, &track->artist, &track->composer,
                              &track->genre};
    TrackField* to[] = {&out->title, &out->album, &out->artist, &out->composer, &out->genre};
    for (int i = 0; i < 5; ++i) {
        if (!in[i]->data)
            continue;
        std::string text = convertField(*in[i], poolCharset, defaultCharset);
        if (setField(to[i], text.data(), text.size(), "UTF-8") != 0) {
            destroyTrack(out);
            free(out);
            return nullptr;
        }
    }
    return out;
}

int isMetadataEmptyUTF8(const char* text, size_t length) {
    if (!text || length == 0)
        return 1;
    const char* end = text + length;
    for (const char* p = text; p < end;) {
        const char* next = g_utf8_find_next_char(p, end);
        gunichar c = g_utf8_get_char_validated(p, gssize((next ? next : end) - p));
        if (c == gunichar(-1) || c == gunichar(-2) || (!g_unichar_isspace(c) && c != 0))
            return 0;
        if (!next)
            break;
        p = next;
    }
    return 1;
}

void destroyTrack(Track* track) {
    if (!track)
        return;
    TrackField* fields[] = {&track->title, &track->album, &track->artist, &track->composer,
                            &track->genre};
    for (TrackField* f : fields) {
        free(f->data);
        free(f->charset);
    }
    initTrack(track);
}

}  // extern "C"
