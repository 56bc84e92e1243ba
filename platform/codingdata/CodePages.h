#pragma once
// The code pages the guess picks from, the priority list in force, and
// conversion of one text from a code page to UTF-8.
//
// The table is fixed. The priority list is UTF-8, then the market's code
// pages in the order given, then the rest of the default order; the first
// legacy code page of the list is the one kept when nothing reads clearly
// better (WINDOWS-1252 for the default list). The list is swapped whole under
// a mutex; readers keep the snapshot they took. Converters are kept per
// thread, opened on first use and closed when the thread ends.

#include <memory>
#include <string>
#include <vector>

namespace codingdata {

// How the bytes of a code page are laid out; the multi-byte kinds each have
// their own rules for common and rare characters.
enum class Kind { Utf8, Single, Sjis, EucJp, Gbk, Big5, Uhc };

struct CodePage {
    const char* name;  // iconv name
    Kind kind;
    int family;  // code pages that place the same letters alike share one
};

// The table, in the default priority order: 0 is UTF-8, 1 is WINDOWS-1252.
const CodePage* codePages();
int codePageCount();
const int kUtf8 = 0;
const int kLatin1 = 1;

// Index of the code page a name (or a common alias, any case) stands for;
// -1 when there is none.
int codePageIndex(const char* name);

struct Priority {
    std::vector<int> order;  // indexes into codePages(), UTF-8 first
    size_t market = 0;       // how many after UTF-8 the host's markets named
};

// The list in force; never null.
std::shared_ptr<const Priority> currentPriority();

// Puts the code pages of `list` (names separated by commas or blanks) first,
// in that order. NULL or an empty list restores the default order. False when
// a name is unknown; the list in force is then unchanged.
bool setPriority(const char* list);

// Converts `bytes` from code page `index` to valid UTF-8 with no NUL. For a
// multi-byte code page a character cut at the end is dropped and counted in
// `cut`. False when the bytes are not valid in the code page.
bool decode(const std::string& bytes, int index, std::string& out, int* cut = nullptr);

}  // namespace codingdata
