#include "platform/codingdata/Plausibility.h"

#include <glib.h>

#include <cstring>
#include <vector>

namespace codingdata {

namespace {

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

// Frequent kanji of Japanese text, with those of names and song titles.
const char kFrequentKanji[] =
    "日一国人年大十二本中長出三同時政事自行社見月分議後前民生連五発間対上部東者党地合市業"
    "内相方四定今回新場金員九入選立開手米力学問高代明実円関決子動京全目表戦経通外最言氏現"
    "理調体化田当八六約主題下首意法不来作性的要用制治度務強気小七成期公持野協取都和統以機"
    "平総加山思家話世受区領多県続進正安設保改数記院女初北午指権心界支第産結百派点教報済書"
    "府活原先共得解名交資予川向際査勝面委告軍文反元重近千考判認画海参売利組知案道信策集在"
    "件団別物側任引使求所次水半品昨論計死官増係感特情投示変打男基私各始島直両朝革価式確村"
    "提運終挙果西勢減台広容必応演電歳住争談能無再位置企真流格有疑口過局少放税検藤町常校料"
    "沢裁状工建語球営空職証土与急止送援供可役構木割聞身費付施切由説転食比難防補車優夫研収"
    "断井何南石足違消境神番規術護展態導鮮備宅害配副算視条幹独警宮究育席輸訪楽起万着乗店述"
    "残想線率病農州武声質念待試族象銀域助労例衛然早張映限親額監環験追審商葉義伝働形景落欧"
    "担好退準賞訴辺造英被株頭技低毎医復仕去姿味負閣韓渡失移差衆個恋夢涙笑雪星雨雲桜君僕冬";

bool inList(const char* list, gunichar c) {
    char buf[8];
    int n = g_unichar_to_utf8(c, buf);
    buf[n] = '\0';
    return std::strstr(list, buf) != nullptr;
}

enum Group {
    G_NONE,
    G_LATIN,
    G_CYRILLIC,
    G_GREEK,
    G_HEBREW,
    G_ARABIC,
    G_THAI,
    G_HANGUL,
    G_CJK,
    G_OTHER
};

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
        case G_UNICODE_SCRIPT_ARABIC:
            return G_ARABIC;
        case G_UNICODE_SCRIPT_THAI:
            return G_THAI;
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
           c == 0x00B4 || c == 0x05BE || c == 0x05F3 || c == 0x05F4 ||
           (c >= 0x3000 && c <= 0x303F) || (c >= 0xFF01 && c <= 0xFF5E) || c == 0x30FB ||
           c == 0x30FC || c == 0x200E || c == 0x200F;
}

// The letters that make up most words of a script (lower case); a reading in
// the right code page is mostly made of them, a wrong one mostly is not.
const char* frequentLetters(Group group) {
    switch (group) {
        case G_CYRILLIC:
            return "оеаинтсрвлкмдпуяі";
        case G_GREEK:
            return "αοιετσςνηυρπκμλάέίόή";
        case G_HEBREW:
            return "יוהאלמרבנתשדעכק";
        case G_ARABIC:
            return "الميونهربتعدسةكفحق";
        case G_THAI:
            return "นรกงมอยวดทลสบคตหจปพาเแไใโะัิีุู่้";
        default:
            return "";
    }
}

bool isThaiConsonant(gunichar c) {
    return c >= 0x0E01 && c <= 0x0E2E;
}

// Thai marks sit on a consonant (tone marks also on a vowel mark); leading
// vowels come before one. A Thai reading of other bytes breaks these rules.
int thaiFaults(const std::vector<gunichar>& word) {
    int faults = 0;
    for (size_t i = 0; i < word.size(); ++i) {
        gunichar c = word[i], before = i ? word[i - 1] : 0;
        const bool vowelMark = c == 0x0E31 || (c >= 0x0E34 && c <= 0x0E3A) || c == 0x0E47;
        const bool toneMark = c >= 0x0E48 && c <= 0x0E4E;
        if (vowelMark && !isThaiConsonant(before))
            ++faults;
        if (toneMark && !isThaiConsonant(before) &&
            !(before == 0x0E31 || (before >= 0x0E34 && before <= 0x0E39)))
            ++faults;
        if ((c == 0x0E30 || c == 0x0E32 || c == 0x0E33) && !isThaiConsonant(before) &&
            !(before >= 0x0E48 && before <= 0x0E4B) && before != 0x0E31)
            ++faults;
        if (c >= 0x0E40 && c <= 0x0E44 && (i + 1 == word.size() || !isThaiConsonant(word[i + 1])))
            ++faults;
        if ((c >= 0x0E2F && c <= 0x0E2F) || (c >= 0x0E4F && c <= 0x0E5B) || c == 0x0E3F)
            ++faults;  // Thai signs and digits hardly seen in titles
    }
    return faults;
}

// The script a combining mark belongs with; G_NONE for the generic accents
// that any alphabet takes.
Group markGroup(gunichar c) {
    if ((c >= 0x0610 && c <= 0x061A) || (c >= 0x064B && c <= 0x065F) || c == 0x0670)
        return G_ARABIC;
    if (c >= 0x0591 && c <= 0x05C7)
        return G_HEBREW;
    if (c >= 0x0E31 && c <= 0x0E4E)
        return G_THAI;
    return G_NONE;
}

bool isIdeographic(gunichar c) {
    switch (g_unichar_get_script(c)) {
        case G_UNICODE_SCRIPT_HAN:
        case G_UNICODE_SCRIPT_HIRAGANA:
        case G_UNICODE_SCRIPT_KATAKANA:
        case G_UNICODE_SCRIPT_HANGUL:
            return true;
        default:
            return false;
    }
}

// What one word of letters holds, counted in one pass.
struct WordCounts {
    Group group = G_NONE;  // of its first letter
    bool mixed = false;    // letters of another group follow
    bool hangul = false, han = false;
    int nonAscii = 0, lowerToUpper = 0, vowels = 0, halfwidth = 0, icelandic = 0, igrave = 0;
    int strayMarks = 0;  // combining marks on a letter of another script
};

WordCounts countWord(const std::vector<gunichar>& word) {
    WordCounts n;
    for (size_t i = 0; i < word.size(); ++i) {
        gunichar c = word[i];
        Group g = groupOf(c);
        if (g_unichar_ismark(c)) {
            Group home = markGroup(c);
            Group base = i ? groupOf(word[i - 1]) : G_NONE;
            if (home != G_NONE && base != G_NONE && base != home)
                ++n.strayMarks;
            if (home == G_NONE && base != G_LATIN && base != G_CYRILLIC && base != G_GREEK)
                ++n.strayMarks;
            g = G_NONE;
        }
        if (g != G_NONE) {
            if (n.group == G_NONE)
                n.group = g;
            else if (g != n.group)
                n.mixed = true;
        }
        n.hangul = n.hangul || g == G_HANGUL;
        n.han = n.han || g_unichar_get_script(c) == G_UNICODE_SCRIPT_HAN;
        n.nonAscii += c >= 0x80;
        n.halfwidth += c >= 0xFF61 && c <= 0xFF9F;
        n.igrave += (c == 0xEC || c == 0xCC) && i + 1 < word.size();
        n.icelandic += c == 0xDE || c == 0xFE || c == 0xD0 || c == 0xF0 || c == 0xDD || c == 0xFD;
        n.lowerToUpper += g_unichar_isupper(c) && i > 0 && g_unichar_islower(word[i - 1]);
        n.vowels += isVowel(c);
    }
    return n;
}

// Penalty for the case, accents and letter order of a Latin, Cyrillic or
// Greek word.
double alphabetPenalty(const std::vector<gunichar>& word, const WordCounts& counts) {
    const Group group = counts.group;
    const int n = int(word.size());
    double penalty = 0;
    // Mojibake reads as runs of accented capitals and odd case changes:
    // "ÊÈíî" (capitals running into small letters) or "aBcD".
    bool caseOk = counts.lowerToUpper <= 1;
    for (int i = 1; i + 1 < n && caseOk; ++i)
        if (g_unichar_isupper(word[i]) && g_unichar_isupper(word[i - 1]) &&
            g_unichar_islower(word[i + 1]))
            caseOk = false;
    if (!caseOk)
        penalty += 3;
    if (group == G_LATIN && counts.nonAscii >= 2 && 2 * counts.nonAscii > n)
        penalty += 2.0 * counts.nonAscii;
    // Czech writes e-caron only after b, p, v, f, m, d, t and n; elsewhere
    // it is mostly Italian i-grave read as Central European.
    for (int i = 0; i < n; ++i)
        if (g_unichar_tolower(word[i]) == 0x011B &&
            (i == 0 || !std::strchr("bpvfmdtn", int(g_unichar_tolower(word[i - 1])))))
            penalty += 2;
    bool allUpper = true;
    for (gunichar c : word)
        allUpper = allUpper && !g_unichar_islower(c);
    if (group != G_LATIN && n >= 3 && counts.vowels == 0 && !(allUpper && n <= 4))
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
        // Words in capitals drop the accents: "ΉΘ" is mojibake.
        // and only a word's first letter is an accented capital.
        for (int i = 0; i < n; ++i)
            if (word[i] >= 0x0386 && word[i] <= 0x038F && (i > 0 || (allUpper && n >= 2)))
                penalty += 2;
    }
    return penalty;
}

// Penalty for one word of letters (all from one run between non-letters).
double wordPenalty(const std::vector<gunichar>& word) {
    if (word.empty())
        return 0;
    const WordCounts counts = countWord(word);
    const Group group = counts.group;
    int frequent = 0;
    const char* letters = frequentLetters(group);
    for (gunichar c : word)
        frequent += *letters && inList(letters, g_unichar_tolower(c));
    double penalty = 3.0 * counts.strayMarks;
    if (counts.mixed)
        penalty += 6;
    else
        penalty -= 0.25 * frequent;
    if (group == G_THAI)
        penalty += 3.0 * thaiFaults(word);
    if (counts.hangul && counts.han)
        penalty += 3;
    penalty += 1.5 * counts.halfwidth;
    // Thorn, eth and y-acute are rare outside Icelandic; in Turkish text read
    // as Latin-1 they stand for s-cedilla, g-breve and dotless i.
    penalty += 1.0 * counts.icelandic;
    // Italian puts i-grave at the end of a word; inside one it is mostly
    // Czech e-caron read as Latin-1.
    penalty += 1.5 * counts.igrave;
    if (group == G_OTHER)
        penalty += 3 * double(word.size());
    if (group == G_LATIN || group == G_CYRILLIC || group == G_GREEK)
        penalty += alphabetPenalty(word, counts);
    return penalty;
}

}  // namespace

double plausibility(const std::string& utf8, Kind kind) {
    const char* frequentIdeographs = kind == Kind::Uhc                           ? kFrequentHangul
                                     : kind == Kind::Sjis || kind == Kind::EucJp ? kFrequentKanji
                                     : kind == Kind::Gbk || kind == Kind::Big5   ? kFrequentHan
                                                                                 : "";
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
        if (c == 0x200C || c == 0x200D) {
            word.push_back(c);  // joiners inside Persian and Indic words
            continue;
        }
        GUnicodeType type = g_unichar_type(c);
        if (type == G_UNICODE_CONTROL || type == G_UNICODE_UNASSIGNED ||
            type == G_UNICODE_PRIVATE_USE || type == G_UNICODE_SURROGATE ||
            (type == G_UNICODE_FORMAT && c != 0x200E && c != 0x200F))
            return -1000;
        if (g_unichar_ismark(c) && word.empty())
            score -= 3;  // a combining mark with nothing to combine with
        if (g_unichar_isalpha(c) || g_unichar_ismark(c)) {
            if (*frequentIdeographs && inList(frequentIdeographs, c))
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
        else if (c < 0x3000 && isIdeographic(previous) && *next &&
                 isIdeographic(g_utf8_get_char(next)))
            score -= 2;  // Western punctuation between ideographs or kana
        else if (c == 0x00B7 && (previous == 'l' || previous == 'L'))
            continue;  // Catalan "l·l"
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
            case Kind::Sjis:
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
            case Kind::Gbk:
                if (b < 0xA1 || a < 0xA1)
                    score -= 1.5;  // GBK extension
                else if (a >= 0xB0 && a <= 0xD7)
                    score += 0.5;  // GB2312 level 1
                else
                    score -= 1;  // level 2 and symbols
                break;
            case Kind::EucJp:
                if (a == 0x8E) {
                    score -= 1;  // half-width katakana
                } else if (a == 0x8F) {
                    score -= 1.5;  // JIS X 0212, three bytes
                    ++i;
                } else if (a == 0xA4 || a == 0xA5) {
                    score += 0.75;  // kana
                } else if (a == 0xA1) {
                    // punctuation and the long vowel mark
                } else if (a >= 0xB0 && a <= 0xCF) {
                    score += 0.5;  // JIS level 1 kanji
                } else {
                    score -= 1;  // level 2, symbols, vendor extensions
                }
                break;
            case Kind::Big5:
                if (a >= 0xA4 && a <= 0xC6)
                    score += 0.5;  // frequent hanzi
                else
                    score -= 1;
                break;
            case Kind::Uhc:
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

}  // namespace codingdata
