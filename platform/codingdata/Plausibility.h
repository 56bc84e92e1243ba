#pragma once
// Scores for one reading of a pool of tag texts: how much it looks like
// names and titles, and how common its characters are in the code page.
// Pure functions, safe on any thread.

#include <string>

#include "platform/codingdata/CodePages.h"

namespace codingdata {

// How plausible a decoded UTF-8 text is: 0 for clean text, lower for each
// oddity (mixed scripts in a word, odd letter case, symbols inside words);
// -1000 for text with control, unassigned or private-use characters. The
// frequent ideographs of the code page's language (`kind`) count in favour.
double plausibility(const std::string& utf8, Kind kind);

// How common the multi-byte characters of `bytes` are in a code page of
// `kind`: per character +1 for the frequent block, 0 for the rare one, below
// zero for extensions and half-width forms that real titles hardly use.
// 0 for single-byte kinds.
double commonness(const std::string& bytes, Kind kind);

}  // namespace codingdata
