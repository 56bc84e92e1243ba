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
// The guess only ever picks from this priority list, earlier entries winning
// ties:
//   1. UTF-8         bytes that are valid UTF-8 with multi-byte sequences
//   2. WINDOWS-1252  the Latin-1 default (Latin-1 plus 0x80-0x9F); when the
//                    pool does not fit it, plain ISO-8859-1
//   3. WINDOWS-1251  Cyrillic (Russian, Ukrainian, Bulgarian, Serbian)
//   4. WINDOWS-1250  Central European (Polish, Czech, Slovak, Hungarian)
//   5. WINDOWS-1253  Greek
//   6. ISO-8859-7    Greek
//   7. WINDOWS-1254  Turkish
//   8. WINDOWS-1255  Hebrew
//   9. CP932         Japanese (Shift_JIS)
//  10. GBK           simplified Chinese (GB2312 and GBK)
//  11. CP950         traditional Chinese (Big5)
//  12. CP949         Korean (EUC-KR and its Windows extension)
// Each candidate that decodes the pool is scored for plausibility (no
// controls, one script per word, sensible letter case, common characters of
// its code page) and for what uchardet and ICU's detector say about the pool.
// Where the result is not clearly better than the Latin-1 reading, Latin-1
// wins, so Western names ("Motörhead", "Björk", "Sigur Rós") stay as they are.
//
// All functions are thread-safe (no shared state). Every output text is valid
// UTF-8.

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

// The character set that guess_and_convert_by_prio would pick for these
// bytes taken as one pool (one of the list above, or ISO-8859-1 / ASCII).
// The returned text is static.
const char* guessCharset(const char* data, size_t length);

#ifdef __cplusplus
}
#endif
