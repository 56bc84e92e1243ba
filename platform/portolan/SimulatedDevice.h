#pragma once
// A phone simulated over folders on disk, answering the calls of Portolan.h
// for tests and for the host program on a PC.
//
// Each storage is a folder shown under a storage name; raw paths are
// "<storage name>/<folders>/<file>", with no leading '/'. The folders are
// read once, when the device is made: object numbers (storages first, then
// the objects of each storage depth-first, by name) stay the same for the
// life of the device, and files added on disk later are not seen. Tracks
// are the audio files (.mp3 .m4a .m4b .aac .flac .wma .wav .ogg .oga .opus,
// any case), in that walk order; playlists are the .m3u files, whose lines
// name tracks relative to the playlist's folder, or to the storage with a
// leading '/' (lines naming no track of the device are left out). Titles,
// artists, albums, genres, composers and track numbers are the files' tags
// (TagLib), read on first use.
//
// Faults are injected through Faults; every call of Portolan.h counts as one
// call. Thread-safe: one mutex guards the device's state; the unplug hook is
// called with it released.

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/portolan/Backend.h"

namespace portolan {

class SimulatedDevice : public Backend {
public:
    struct Storage {
        std::string name;    // first component of raw paths; no '/'
        std::string folder;  // the folder on disk
    };

    // One kind per call of Portolan.h.
    enum Call {
        GET_NUM_ELEMENTS,
        GET_PLAYLIST_ELEMENTS,
        RESET_CATEGORY,
        SELECT_CATEGORY,
        GET_NUM_ITEMS,
        GET_ITEMS,
        GET_TRACK_TITLE,
        GET_TRACK_ARTIST,
        GET_TRACK_ALBUM,
        GET_TRACK_GENRE,
        GET_TRACK_COMPOSER,
        GET_TRACK_FILE_NAME,
        GET_TRACK_DATE_MODIFIED,
        GET_TRACK_FILE_SIZE,
        GET_TRACK_ALBUM_TRACK_INDEX,
        CALL_KINDS
    };

    // Folders are named by raw path; the top of a storage by its name.
    struct Faults {
        // STATUS_PROCESSING for the first N calls of a kind.
        std::map<Call, unsigned> busyFirst;
        // At most this many objects per Access_GetItems answer; 0: no cap.
        unsigned pageSize = 0;
        // Folder -> how many listing answers at a non-zero start come back
        // empty before the folder's remaining objects do (a later batch only
        // exists when pageSize or firstCount cut the first one short).
        std::map<std::string, unsigned> emptyLaterBatches;
        // Folder -> the count its first Access_GetNumItems answers; later
        // calls answer the real count.
        std::map<std::string, unsigned> firstCount;
        // Every call after the first N answers STATUS_BAD_HANDLE; the device
        // stays attached. 0: never.
        unsigned badHandleAfter = 0;
        // The call after the first N unplugs the device: it is removed from
        // the DeviceTable (whose unplug hook runs) and answers
        // STATUS_BAD_HANDLE, as every later call does. 0: never.
        unsigned unplugAfter = 0;
        // Raw paths of tracks the device has no metadata for: their tag
        // texts and track number answer STATUS_NOT_SUPPORTED.
        std::set<std::string> noMetadata;
        // Raw paths of tracks whose title is "".
        std::set<std::string> emptyTitles;
    };

    // Reads the storages' folders and attaches the device to the DeviceTable
    // under `handle`. Null, and nothing attached, when the table refuses the
    // handle or the device id. The table and the caller share the device.
    static std::shared_ptr<SimulatedDevice> plugIn(t_handle handle, const std::string& deviceId,
                                                   const std::vector<Storage>& storages,
                                                   const Faults& faults);
    static std::shared_ptr<SimulatedDevice> plugIn(t_handle handle, const std::string& deviceId,
                                                   const std::vector<Storage>& storages) {
        return plugIn(handle, deviceId, storages, Faults());
    }

    SimulatedDevice(t_handle handle, const std::string& deviceId,
                    const std::vector<Storage>& storages, const Faults& faults);

    // The object number at a raw path, listed or not; 0 if there is none.
    t_track_id objectId(const std::string& rawPath) const;

    t_status getNumElements(t_content_categories category, unsigned& count) override;
    t_status getPlaylistElements(t_content_categories category, unsigned start, unsigned count,
                                 t_playlist_items_list& list) override;
    t_status resetCategory() override;
    t_status selectCategory(t_content_categories category, int index) override;
    t_status getNumItems(const t_mtp_container& container, t_mtp_item_type type,
                         unsigned& count) override;
    t_status getItems(const t_mtp_container& container, t_mtp_item_type type, unsigned start,
                      unsigned count, t_mtp_item_list& list) override;
    t_status getTrackText(Text text, t_track_id id, char* buffer) override;
    t_status getTrackFileSize(t_track_id id, unsigned long long& size) override;
    t_status getTrackAlbumTrackIndex(t_track_id id, unsigned short& index) override;

    const std::string& deviceId() const override { return deviceId_; }
    std::string rawPath(t_track_id id) override;
    bool hasMetadata(t_track_id id) override;
    bool readContent(t_track_id id, std::string& bytes, size_t maxBytes) override;

private:
    struct Tags {
        std::string texts[5];  // title, artist, album, genre, composer
        unsigned short track = 0;
    };
    struct Object {
        int32_t type = OBJECT_FILE;
        int32_t storage = 0;  // storage id; a storage's own id
        std::string name;
        std::string rawPath;
        std::string file;                  // on disk
        std::vector<t_track_id> children;  // folders and storages, by name
        std::vector<t_track_id> entries;   // playlists: their tracks, in order
        bool listed = false;               // a listing has answered it
        bool tagsRead = false;
        Tags tags;
    };

    void scan(t_track_id folder, std::string dir);
    void readPlaylist(Object& playlist);
    t_track_id folderOf(const t_mtp_container& container) const;
    const Object* file(t_track_id id) const;
    const Tags& tagsOf(Object& track);
    // Counts the call and answers the injected faults; STATUS_OK lets the
    // call go on. May release `lock` (unplug): callers return at once then.
    t_status admit(Call kind, std::unique_lock<std::mutex>& lock);

    const t_handle handle_;
    const std::string deviceId_;
    Faults faults_;
    std::vector<t_track_id> storages_;
    std::vector<t_track_id> tracks_;
    std::vector<t_track_id> playlists_;
    std::map<std::string, t_track_id> byRawPath_;

    mutable std::mutex mutex_;
    std::vector<Object> objects_;                // by object number; [0] unused; guarded by mutex_
    t_track_id selected_ = 0;                    // the selected playlist; guarded by mutex_
    unsigned calls_ = 0;                         // guarded by mutex_
    unsigned callsOf_[CALL_KINDS] = {};          // guarded by mutex_
    std::map<t_track_id, unsigned> emptyLeft_;   // guarded by mutex_
    std::map<t_track_id, unsigned> firstCount_;  // not asked yet; guarded by mutex_
    bool unplugged_ = false;                     // guarded by mutex_
};

}  // namespace portolan
