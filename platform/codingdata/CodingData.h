#pragma once
// libolvane-codingdata: reads tag texts that old tools wrote in a legacy code
// page but marked as Latin-1, and turns every text of a track into UTF-8.
//
// A track holds five texts. Each is kept as bytes, a length in bytes and the
// name of the character set the bytes claim to be in. Texts marked
// "ISO-8859-1" (or "LATIN1") are the ones guessed: their bytes are pooled,
// the whole pool is guessed at once (short texts alone say too little), and
// every such text of the track is converted with the one character set found.
// Texts marked "UTF-8" are passed through; invalid sequences are replaced by
// U+FFFD. Texts marked with any other iconv name are converted from it.
//
// The guess only ever picks from this default priority list, earlier
// entries winning ties:
//   UTF-8          bytes that are valid UTF-8 with multi-byte sequences
//   WINDOWS-1252   the Latin-1 default (Latin-1 plus 0x80-0x9F); when the
//                  pool does not fit it, plain ISO-8859-1
//   WINDOWS-1251, KOI8-R, KOI8-U, ISO-8859-5         Cyrillic
//   WINDOWS-1250, ISO-8859-2                         Central European
//   WINDOWS-1253, ISO-8859-7                         Greek
//   WINDOWS-1254, ISO-8859-9                         Turkish
//   WINDOWS-1255, ISO-8859-8                         Hebrew
//   WINDOWS-1256                                     Arabic, Persian
//   WINDOWS-1257, ISO-8859-13                        Baltic
//   WINDOWS-1258                                     Vietnamese
//   CP874          Thai (TIS-620, ISO-8859-11)
//   CP932          Japanese (Shift_JIS)
//   GB18030        simplified Chinese (GB2312, GBK)
//   CP950          traditional Chinese (Big5)
//   CP949          Korean (EUC-KR and its Windows extension)
//   EUC-JP         Japanese
// Each code page that decodes the pool is scored for plausibility (no
// controls, one script per word, sensible letter case, marks on letters of
// their script, Thai vowels and tones in their places, common letters and
// ideographs of its languages) and for what uchardet and ICU's detector say
// about the pool. A character cut at the end of a field (fixed-size ID3v1
// fields cut them) is dropped. Where the result is not clearly better than
// the first legacy code page of the list, that one wins: under the default
// list it is Latin-1, so Western names ("Motörhead", "Björk", "Sigur Rós")
// stay as they are. Hosts sold in markets whose Latin-script code pages
// (WINDOWS-1250, -1254, -1257, -1258, ISO-8859-2, -9, -13) read as plausible
// Latin-1 put them first with setMarketCodePages.
//
// All functions are thread-safe: the market list is swapped under a lock and
// each thread keeps its own converters. Every output text is valid UTF-8.

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TrackField {
    char* data;     // owned, NUL-terminated; NULL when unset
    size_t length;  // bytes, without the NUL
    char* charset;  // owned iconv name; NULL when unset
} TrackField;

typedef struct Track {
    TrackField title;
    TrackField album;
    TrackField artist;
    TrackField composer;
    TrackField genre;
} Track;

// Makes every field of `track` unset.
void initTrack(Track* track);

// Copies `length` bytes of `data` and the charset name into the field,
// replacing what it held. Return 0 on success, -1 on a NULL argument.
int setTrackTitle(Track* track, const char* data, size_t length, const char* charset);
int setTrackAlbum(Track* track, const char* data, size_t length, const char* charset);
int setTrackArtist(Track* track, const char* data, size_t length, const char* charset);
int setTrackComposer(Track* track, const char* data, size_t length, const char* charset);
int setTrackGenre(Track* track, const char* data, size_t length, const char* charset);

// Returns a new track (malloc'd; release with destroyTrack and free) whose
// set fields are the UTF-8 forms of `track`'s, charset "UTF-8". Unset fields
// stay unset. `defaultCharset` is used for the guessed texts when nothing in
// the list reads them better; NULL means "ISO-8859-1". Returns NULL when
// `track` is NULL or memory runs out.
Track* guess_and_convert_by_prio(const Track* track, const char* defaultCharset);

// Non-zero when `text` is NULL, empty or only Unicode white space.
int isMetadataEmptyUTF8(const char* text, size_t length);

// Releases the fields' memory and unsets them; not `track` itself.
void destroyTrack(Track* track);

// Tells the guess which code pages the host's markets use: `list` holds
// iconv names (or common aliases such as "SHIFT_JIS", "TIS-620", "EUC-KR")
// separated by commas or blanks, most likely first. They are tried before
// the rest of the default list, and the first of them takes the place of
// WINDOWS-1252 as the reading kept when no other is clearly better. NULL or
// "" restores the default list. Returns 0, or -1 (logged, list in force
// unchanged) when a name is not one of the code pages above. Safe to call
// from any thread at any time; a guess already running keeps the list it
// started with.
int setMarketCodePages(const char* list);

// The character set that guess_and_convert_by_prio would pick for these
// bytes taken as one pool (one of the list above, or ISO-8859-1 / ASCII).
// The returned text is static.
const char* guessCharset(const char* data, size_t length);

#ifdef __cplusplus
}
#endif
