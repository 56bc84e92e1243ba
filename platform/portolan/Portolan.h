#pragma once
// The device-access library of the head unit's platform (libportolan):
// C-style calls over the storages, folders, tracks and playlists of an
// attached MTP device, named by its device handle. The calls are answered by
// the backend attached under that handle (DeviceTable); a handle with no
// backend answers STATUS_BAD_HANDLE.
//
// Threads: every call may be made from any thread, several at once, also for
// the same handle. The category selection (Command_SelectCategory) is state
// of the device, shared by all callers of that handle.
//
// Ownership: every list array (t_playlist_items_list::items,
// t_mtp_item_list::items), every element's word-0 pointer
// (t_playlist_item::name) and every item name (t_mtp_item::name) is allocated
// by the library with malloc and belongs to the receiver, who releases each
// with free. A list call always overwrites the list it is given, without
// freeing what it held; an empty or failed answer is {count 0, items null}.
// Counts, sizes and indexes are written only on success. Text calls always
// write a NUL-terminated text into the caller's buffer of
// PORTOLAN_TEXT_SIZE bytes ("" on failure); longer texts are cut to
// PORTOLAN_TEXT_SIZE - 1 bytes, never inside a UTF-8 character.

#include <cstddef>
#include <cstdint>

typedef uint32_t t_handle;
typedef uint32_t t_track_id;  // object number of a track, playlist or folder

// Result of every call.
typedef int32_t t_status;
enum {
    STATUS_OK = 0,
    STATUS_NOT_OK = -1,                  // e.g. an unknown object or container
    STATUS_NOT_SUPPORTED = -2,           // a category, container or item type not served
    STATUS_BAD_HANDLE = -3,              // no device under the handle, or it is gone
    STATUS_GENERIC_PLUGIN_ERROR = -4,    // e.g. out of memory
    STATUS_PLUGIN_NOT_INITIALIZED = -5,  // the device's plug-in is not up yet
    STATUS_PROCESSING = -7,              // still busy: repeat the call later
};

typedef int32_t t_content_categories;
enum {
    CATEGORY_PLAYLISTS = 1,
    CATEGORY_TRACKS = 5,
};

// What a folder listing or storage listing names.
typedef int32_t t_mtp_item_type;
enum {
    ITEM_TYPE_STORAGE = 7,  // with CONTAINER_STORAGES: the device's storages
    ITEM_TYPE_OBJECT = 8,   // with CONTAINER_FOLDER: the objects of a folder
    ITEM_TYPE_CLOSE = 9,    // with CONTAINER_CLOSE: the closing call of a crawl
};

// Object types in t_mtp_item::type and t_playlist_item::type.
enum {
    OBJECT_FILE = 0,      // any other file
    OBJECT_PLAYLIST = 1,  // a device playlist
    OBJECT_TRACK = 5,     // an audio file
    OBJECT_FOLDER = 6,
    OBJECT_STORAGE = 7,
};

enum {
    CONTAINER_STORAGES = 0,  // the device's storages; parent and storage are 0
    CONTAINER_FOLDER = 2,    // the children of `parent` (0: the top) of `storage`
    CONTAINER_CLOSE = 10,    // the closing call of a crawl; parent and storage are 0
};

struct t_mtp_container {
    int32_t type;     // CONTAINER_*
    int32_t parent;   // object id of the folder listed; 0 for the top of a storage
    int32_t storage;  // storage id
};

// One element of a catalogue listing. Word 0 holds a whole pointer on every
// host, so the element is a pointer and two 32-bit words.
struct t_playlist_item {
    char* name;     // word 0: the object's file name (malloc'ed, freed by the receiver)
    t_track_id id;  // word 1: the track's or playlist's object number
    uint32_t type;  // word 2: OBJECT_TRACK or OBJECT_PLAYLIST
};

struct t_playlist_items_list {
    uint32_t count;
    t_playlist_item* items;  // malloc'ed array of `count`, freed by the receiver
};

// One object of a folder listing, or one storage.
struct t_mtp_item {
    char* name;    // file, folder or storage name (malloc'ed, freed by the receiver)
    int32_t id;    // object id, or storage id
    int32_t type;  // OBJECT_*
};

struct t_mtp_item_list {
    uint32_t count;
    t_mtp_item* items;  // malloc'ed array of `count`, freed by the receiver
};

// On a 32-bit target every element is exactly three 32-bit words.
static_assert(sizeof(void*) != 4 ||
                  (sizeof(t_playlist_item) == 12 && offsetof(t_playlist_item, id) == 4 &&
                   offsetof(t_playlist_item, type) == 8 && sizeof(t_mtp_item) == 12 &&
                   offsetof(t_mtp_item, id) == 4 && offsetof(t_mtp_item, type) == 8),
              "list elements are three 32-bit words on a 32-bit target");
static_assert(sizeof(t_mtp_container) == 12, "a container is three 32-bit words");

const unsigned PORTOLAN_TEXT_SIZE = 256;

// Catalogue. Category CATEGORY_PLAYLISTS lists the device's playlists.
// Category CATEGORY_TRACKS lists every track of the device while no playlist
// is selected, and the tracks of the selected playlist, in playlist order,
// after Command_SelectCategory(handle, CATEGORY_PLAYLISTS, playlistId), until
// Command_ResetCategory.
t_status Access_GetNumElements(t_handle handle, t_content_categories category, unsigned& count);
// Up to `count` elements from `start` (fewer at the end of the list).
t_status Access_GetPlaylistElements(t_handle handle, t_content_categories category, unsigned start,
                                    unsigned count, t_playlist_items_list& list);
t_status Command_ResetCategory(t_handle handle);
// Only CATEGORY_PLAYLISTS can be selected; `index` is the playlist's object
// number. STATUS_NOT_OK for an unknown playlist (the selection is kept).
t_status Command_SelectCategory(t_handle handle, t_content_categories category, int index);

// Folders. CONTAINER_STORAGES with ITEM_TYPE_STORAGE lists the storages;
// CONTAINER_FOLDER with ITEM_TYPE_OBJECT lists a folder's files and folders
// by name; CONTAINER_CLOSE with ITEM_TYPE_CLOSE ends a crawl (count 0).
// Access_GetItems answers up to `count` objects from `start` and may answer
// fewer than there are, even none: the caller asks again from where the
// answer ended. An object's raw path becomes known to MtpUtils once a folder
// listing has answered it.
t_status Access_GetNumItems(t_handle handle, const t_mtp_container& container,
                            const t_mtp_item_type& type, unsigned& count);
t_status Access_GetItems(t_handle handle, const t_mtp_container& container,
                         const t_mtp_item_type& type, const unsigned& start, const unsigned& count,
                         t_mtp_item_list& list);

// Texts of a track, into a buffer of PORTOLAN_TEXT_SIZE bytes. Title, artist,
// album, genre and composer come from the device's own metadata: a track the
// device has none for answers STATUS_NOT_SUPPORTED, a missing tag "". The
// title of a playlist is its name. The date is the file's modification time
// in local time, as "Thu Jan  5 10:00:00 2020" (day padded with a blank).
t_status Access_GetTrackTitle(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackArtist(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackAlbum(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackGenre(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackComposer(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackFileName(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackDateModified(t_handle handle, t_track_id id, char* buffer);
t_status Access_GetTrackFileSize(t_handle handle, t_track_id id, unsigned long long& size);
// The track number within the album, from the device's metadata (as the title).
t_status Access_GetTrackAlbumTrackIndex(t_handle handle, t_track_id id, unsigned short& index);
