#include "mtp/MtpConnectionImpl.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <unordered_set>

#include "mtp/MtpDevice.h"
#include "mtp/MtpDirectory.h"
#include "mtp/MtpItemList.h"
#include "platform/common/MetaDataInfo.h"
#include "platform/log/ZQLog.h"
#include "platform/mtputils/MtpUtils.h"
#include "playlist/Playlist.h"

namespace kestrow {

namespace {

// Whether a later empty batch of a folder listing may be retried against a
// fresh count; shared by every walk.
std::atomic<bool> retryAllowed{true};

std::atomic<MtpConnection::SleepFunction> gSleep{nullptr};

void freeNames(t_playlist_items_list& list, unsigned from) {
    for (unsigned i = from; i < list.count; ++i)
        std::free(list.items[i].name);
}

std::string trimSpaces(const std::string& text) {
    const std::string::size_type first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string upper(std::string text) {
    for (char& c : text)
        c = char(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

bool connected(t_handle handle) {
    return MtpDevice::instance().isDeviceConnected(handle);
}

}  // namespace

void MtpConnection::Impl::setSleepFunction(SleepFunction sleep) {
    gSleep = sleep;
}

void MtpConnection::Impl::sleep(unsigned microseconds) {
    if (SleepFunction f = gSleep.load())
        f(microseconds);
    else
        usleep(microseconds);
}

MtpConnection::Impl::Impl(unsigned handle_, const std::string& deviceId_)
    : handle(handle_), deviceId(deviceId_) {}

void MtpConnection::Impl::checkStatus(const std::string& method, t_status status) {
    const char* m = method.c_str();
    switch (status) {
        case STATUS_NOT_OK:
            ZQLOG_INFO(" - Fail to invoke method: %s . - STATUS NOT OK!", m);
            break;
        case STATUS_NOT_SUPPORTED:
            ZQLOG_INFO(" - Fail to invoke method: %s . - STATUS NOT SUPPORTED!", m);
            break;
        case STATUS_BAD_HANDLE:
            ZQLOG_INFO(" - Fail to invoke method: %s . - STATUS NOT OK BAD HANDLE!", m);
            break;
        case STATUS_GENERIC_PLUGIN_ERROR:
            ZQLOG_INFO(" - Fail to invoke method: %s . - %s", m,
                       ": STATUS NOT OK GENERIC PLUGIN ERROR!");
            break;
        case STATUS_PLUGIN_NOT_INITIALIZED:
            ZQLOG_INFO(" - Fail to invoke method: %s . - STATUS NOT OK PLUGIN NOT INITIALIZED!", m);
            break;
        default:
            ZQLOG_INFO(" - Fail to invoke method: %s . - UNKNOWN ERROR!", m);
            break;
    }
}

namespace {

// Calls `call` until the library is no longer busy, at most 1 + 80 times,
// one second apart; with `pause`, waits 10 ms after every call. Returns the
// last status.
template <class Call>
t_status whileBusy(Call call, bool pause) {
    for (int counter = 0;; ++counter) {
        const t_status status = call();
        if (pause)
            MtpConnection::Impl::sleep(10000);
        if (status != STATUS_PROCESSING || counter == MtpConnection::Impl::kBusyRetries)
            return status;
        ZQLOG_INFO(" Processing from portolan API. count = %d", counter + 1);
        MtpConnection::Impl::sleep(1000000);
    }
}

}  // namespace

t_status MtpConnection::Impl::SafeGetNumItems(t_handle handle_, const t_mtp_container& container,
                                              const t_mtp_item_type& type, unsigned& count) {
    return whileBusy([&] { return Access_GetNumItems(handle_, container, type, count); }, true);
}

t_status MtpConnection::Impl::SafeGetItems(t_handle handle_, const t_mtp_container& container,
                                           const t_mtp_item_type& type, const unsigned& start,
                                           const unsigned& count, t_mtp_item_list& list) {
    return whileBusy([&] { return Access_GetItems(handle_, container, type, start, count, list); },
                     true);
}

unsigned MtpConnection::Impl::getNumElements(t_content_categories category) {
    ZQLOG_DEBUG("category:%d", category);
    if (handle == 0) {
        ZQLOG_INFO(" - No device inserted");
        return 0;
    }
    unsigned count = 0;
    if (t_status status = Access_GetNumElements(handle, category, count))
        checkStatus("Access_GetNumElements", status);
    return count;
}

t_playlist_items_list MtpConnection::Impl::getPlaylistElements(t_content_categories category,
                                                               int count) {
    ZQLOG_DEBUG("category:%d", category);
    t_playlist_items_list list = {0, nullptr};
    if (t_status status = Command_ResetCategory(handle))
        checkStatus("Command_ResetCategory", status);
    if (handle == 0) {
        ZQLOG_INFO(" - No device inserted");
        return list;
    }
    if (count == 0)
        count = int(getNumElements(category));
    if (count <= 0)
        return list;
    if (t_status status = Access_GetPlaylistElements(handle, category, 0, unsigned(count), list))
        checkStatus("Access_GetPlaylistElements", status);
    return list;
}

t_playlist_items_list MtpConnection::Impl::getPlaylistContent(unsigned playlistId) {
    t_playlist_items_list list = {0, nullptr};
    if (t_status status = Command_ResetCategory(handle))
        checkStatus("Command_ResetCategory - Playlist", status);
    if (t_status status = Command_SelectCategory(handle, CATEGORY_PLAYLISTS, int(playlistId)))
        checkStatus("Command_SelectCategory - Playlist", status);
    const unsigned n = getNumElements(CATEGORY_TRACKS);
    if (t_status status = Access_GetPlaylistElements(handle, CATEGORY_TRACKS, 0, n, list))
        checkStatus("Access_GetPlaylistElements", status);
    return list;
}

bool MtpConnection::Impl::loadDeviceData(t_playlist_items_list& tracks,
                                         t_playlist_items_list& playlists) {
    ZQLOG_VERBOSE("loadDeviceData");
    if (!connected(handle)) {
        ZQLOG_ERROR("Device with handle %d disconnected or not found", int(handle));
        return false;
    }
    // Counts from no selection: a playlist left selected by the last playlist
    // reading would make the track count that playlist's, and cut the tracks.
    if (t_status status = Command_ResetCategory(handle))
        checkStatus("Command_ResetCategory", status);
    unsigned nTracks = 0, nPlaylists = 0;
    if (Access_GetNumElements(handle, CATEGORY_TRACKS, nTracks) != STATUS_OK ||
        Access_GetNumElements(handle, CATEGORY_PLAYLISTS, nPlaylists) != STATUS_OK) {
        ZQLOG_ERROR(" - Error while getting num elements");
        return false;
    }
    // No more tracks than this are ever taken from one device; the rest are left out.
    tracks = getPlaylistElements(CATEGORY_TRACKS, int(std::min(nTracks, kTrackLimit)));
    playlists = getPlaylistElements(CATEGORY_PLAYLISTS, int(nPlaylists));
    ZQLOG_INFO("Content for device(%u | handle %d) loaded from Portolan",
               tracks.count + playlists.count, int(handle));
    return true;
}

bool MtpConnection::Impl::isHiddenFile(std::string path) {
    return path.find("/.") != std::string::npos;
}

bool MtpConnection::Impl::isExcludedFile(const std::string& name) {
    return name.size() >= 4 && upper(name.substr(name.size() - 3)) == "OGG";
}

bool MtpConnection::Impl::isDirectoryBlacklisted(std::string name) {
    static const char* const kBlacklist[] = {".TRASH",  "DCIM",          "SAMSUNG",  "RINGTONES",
                                             "ALARMS",  "NOTIFICATIONS", "PICTURES", "MOVIES",
                                             "ANDROID", "VIDEOS",        "TEXTS",    "SYSTEM"};
    name = upper(name);
    for (const char* entry : kBlacklist)
        if (name == entry)
            return true;
    return false;
}

bool MtpConnection::Impl::MTPFileTree(int handle_, const int& storage, const int& parent,
                                      bool isRoot) {
    if (isRoot)
        ZQLOG_INFO("Root folder");
    const t_mtp_container container = {CONTAINER_FOLDER, parent, storage};
    const t_mtp_item_type type = ITEM_TYPE_OBJECT;
    unsigned total = 0;
    t_status status = SafeGetNumItems(t_handle(handle_), container, type, total);
    if (status != STATUS_OK || total == 0) {
        ZQLOG_DEBUG("Emtpy folder or error for Access_GetNumItems");
        if (status == STATUS_BAD_HANDLE) {
            checkStatus("MTPFileTree", status);
            return false;
        }
        if (total == 0) {
            ZQLOG_DEBUG("Folder %d is reported as empty", parent);
            return true;
        }
    }

    unsigned offset = 0, got = 0;
    int answersAtStart = 0;
    for (;;) {
        offset += got;
        MtpItemList list;
        status = SafeGetItems(t_handle(handle_), container, type, offset, total, list.get());
        if (status != STATUS_OK) {
            ZQLOG_INFO("Access_GetItems returns error");
            if (status == STATUS_BAD_HANDLE) {
                checkStatus("MTPFileTree", status);
                return false;
            }
        } else {
            got = list.size();
            if (offset == 0 || got != 0 || total == 0) {
                retryAllowed = true;
            } else if (!retryAllowed) {
                ZQLOG_WARN("Could not fetch all items for container %d of storage %d. Got %d / %d",
                           parent, storage, int(offset), int(total));
                retryAllowed = true;
                return true;
            } else {
                retryAllowed = false;
                ZQLOG_WARN(
                    "Could not fetch more items for container %d of storage %d. Got %d / %d. "
                    "Checking if number of elements changed",
                    parent, storage, int(offset), int(total));
                SafeGetNumItems(t_handle(handle_), container, type, total);
                ZQLOG_WARN("New number of elements for container %d of storage %d is %d", parent,
                           storage, int(total));
            }
            for (unsigned i = 0; i < list.size(); ++i) {
                if (!connected(t_handle(handle_)))
                    return false;
                t_mtp_item& item = list[i];
                const std::string name = item.name ? item.name : "";
                if (item.type == OBJECT_FOLDER) {
                    if (isRoot && isDirectoryBlacklisted(name)) {
                        ZQLOG_INFO("Ignoring folder:%s - id:%d", name.c_str(), item.id);
                    } else {
                        ZQLOG_DEBUG("Checking folder:%s - id:%d", name.c_str(), item.id);
                        if (!MTPFileTree(handle_, storage, item.id, false)) {
                            ZQLOG_INFO("MTPFileTree fail");
                            return false;
                        }
                    }
                }
                // Each name goes once read: a deep walk holds one name per level.
                std::free(item.name);
                item.name = nullptr;
            }
        }
        // Gives up a folder that keeps answering nothing at its start, instead
        // of asking it for ever.
        if (offset == 0 && got == 0 && ++answersAtStart > kBusyRetries) {
            ZQLOG_WARN("Folder %d of storage %d answered no items %d times: given up", parent,
                       storage, answersAtStart);
            return true;
        }
        if (offset + got >= total)
            return true;
        if (!connected(t_handle(handle_)))
            return true;
    }
}

bool MtpConnection::Impl::crawlMtpDevice() {
    ZQLOG_INFO("crawlMtpDevice");
    const t_mtp_container container = {CONTAINER_STORAGES, 0, 0};
    const t_mtp_item_type type = ITEM_TYPE_STORAGE;
    unsigned n = 0;
    t_status status = SafeGetNumItems(handle, container, type, n);
    ZQLOG_INFO("%d elements of TYPE_STORAGE are present in this device", int(n));
    if (status != STATUS_OK || n == 0)
        return false;
    MtpItemList storages;
    status = SafeGetItems(handle, container, type, 0, n, storages.get());
    if (status != STATUS_OK) {
        ZQLOG_ERROR("- error while getting MTP partitions");
        return false;
    }
    ZQLOG_INFO("Index   -   Name of Storage");
    for (unsigned i = 0; i < storages.size(); ++i)
        ZQLOG_INFO("[%d] - %s of type %d", storages[i].id, storages[i].name ? storages[i].name : "",
                   storages[i].type);
    for (unsigned i = 0; i < storages.size(); ++i) {
        if (!MTPFileTree(int(handle), storages[i].id, 0, true)) {
            ZQLOG_ERROR("MTPFileTree fail");
            return false;
        }
    }
    MtpItemList closing;
    Access_GetItems(handle, {CONTAINER_CLOSE, 0, 0}, ITEM_TYPE_CLOSE, 0, 0, closing.get());
    return true;
}

void MtpConnection::Impl::MTPCreateDirCache(std::vector<std::string>& dirs,
                                            t_playlist_items_list& tracks) {
    ZQLOG_INFO("MTPCreateDirCache");
    dirs.clear();
    if (tracks.count > kTrackLimit) {
        ZQLOG_INFO("Invalid playlist size: %d", int(tracks.count));
        return;
    }
    std::unordered_set<std::string> known;
    for (unsigned i = 0; i < tracks.count; ++i) {
        if (!connected(handle))
            return;
        std::string path = MtpUtils::getRawPathForMtpObject(handle, tracks.items[i].id);
        if (path.empty()) {
            // Left out, instead of ending the cache: its folder was not walked
            // (such as a top-level DCIM), and the tracks after it still count.
            ZQLOG_WARN("- error while getting track path");
            continue;
        }
        if (isExcludedFile(path))
            continue;
        for (std::string::size_type slash; (slash = path.rfind('/')) != std::string::npos;) {
            path.erase(slash);
            if (!known.insert(path).second)
                break;
            dirs.push_back(path);
            ZQLOG_DEBUG("- inserting path %s", path.c_str());
        }
    }
}

MtpDirectory* MtpConnection::Impl::generateDirectory(const std::string& path,
                                                     const std::string& partition,
                                                     const std::string& root) {
    return new MtpDirectory(path, partition, root);
}

std::string MtpConnection::Impl::getTrackFilePath(unsigned trackId) {
    return MtpUtils::getRawPathForMtpObject(handle, trackId);
}

std::string MtpConnection::Impl::trackText(t_status (*call)(t_handle, t_track_id, char*),
                                           const char* name, unsigned trackId,
                                           const char* fallback) {
    char buffer[PORTOLAN_TEXT_SIZE] = "";
    if (t_status status = call(handle, trackId, buffer)) {
        checkStatus(name, status);
        return fallback;
    }
    const std::string text = trimSpaces(buffer);
    return text.empty() ? fallback : text;
}

std::string MtpConnection::Impl::getTrackGenre(unsigned trackId) {
    return trackText(Access_GetTrackGenre, "Access_GetTrackGenre", trackId, "Various Genre");
}

std::string MtpConnection::Impl::getTrackArtist(unsigned trackId) {
    return trackText(Access_GetTrackArtist, "Access_GetTrackArtist", trackId, "Various Artists");
}

std::string MtpConnection::Impl::getTrackAlbum(unsigned trackId) {
    return trackText(Access_GetTrackAlbum, "Access_GetTrackAlbum", trackId, "Various Albums");
}

std::string MtpConnection::Impl::getTrackComposer(unsigned trackId) {
    return trackText(Access_GetTrackComposer, "Access_GetTrackComposer", trackId,
                     "Various Composers");
}

std::string MtpConnection::Impl::getTrackFileName(unsigned trackId) {
    char buffer[PORTOLAN_TEXT_SIZE] = "";
    const t_status status =
        whileBusy([&] { return Access_GetTrackFileName(handle, trackId, buffer); }, false);
    if (status != STATUS_OK) {
        checkStatus("Access_GetTrackFileName", status);
        return "Various FileName";
    }
    const std::string text = trimSpaces(buffer);
    return text.empty() ? "Various FileName" : text;
}

std::string MtpConnection::Impl::getTrackTitle(unsigned trackId) {
    char buffer[PORTOLAN_TEXT_SIZE] = "";
    const t_status status =
        whileBusy([&] { return Access_GetTrackTitle(handle, trackId, buffer); }, false);
    if (status == STATUS_OK) {
        const std::string title = trimSpaces(buffer);
        if (!title.empty())
            return title;
    } else {
        checkStatus("Access_GetTrackTitle", status);
    }
    const std::string fileName = getTrackFileName(trackId);
    return fileName.substr(0, fileName.rfind('.'));
}

unsigned long long MtpConnection::Impl::getTrackFileSize(unsigned trackId) {
    unsigned long long size = 0;
    if (t_status status = Access_GetTrackFileSize(handle, trackId, size))
        checkStatus("Access_GetTrackFileSize", status);
    return size;
}

unsigned short MtpConnection::Impl::getTrackNumber(unsigned trackId) {
    unsigned short number = 0;
    if (t_status status = Access_GetTrackAlbumTrackIndex(handle, trackId, number))
        checkStatus("Access_GetTrackAlbumTrackIndex", status);
    return number;
}

std::string MtpConnection::Impl::getTrackDateModified(unsigned trackId) {
    std::string date = "THU JAN 1 00:00:00 1970";
    char buffer[PORTOLAN_TEXT_SIZE] = "";
    if (t_status status = Access_GetTrackDateModified(handle, trackId, buffer)) {
        checkStatus("Access_GetTrackDateModified", status);
        return date;
    }
    if (std::strcmp(buffer, "Thu Jan  1 00:00:00 1970") == 0)
        return date;
    if (std::strlen(buffer) > 8 && buffer[8] == ' ')
        buffer[8] = '0';
    return buffer;
}

time_t MtpConnection::Impl::getTrackDateModifiedEpoch(unsigned trackId) {
    // Parsed with plain blanks, where the format kept apostrophes that no
    // date text holds: every date read as 1899-12-31, and phones were never
    // read again when a track changed.
    struct tm when = {};
    when.tm_isdst = -1;
    const std::string text = getTrackDateModified(trackId);
    const char* end = strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &when);
    if (!end || *end)
        return 0;
    return mktime(&when);
}

std::string MtpConnection::Impl::getPlaylistPath(unsigned playlistId) {
    char name[PORTOLAN_TEXT_SIZE] = "";
    Access_GetTrackTitle(handle, t_track_id(playlistId), name);
    return "mtp-playlist://" + std::to_string(playlistId) + "/" + name;
}

std::string MtpConnection::Impl::getMTPTrackId(unsigned trackId, const std::string& device) {
    return MtpUtils::getObjectIdForMtpTrack(trackId, device);
}

MetaDataInfo* MtpConnection::Impl::generateTrack(const std::string& /*unused*/,
                                                 const std::string& parent, t_track_id id,
                                                 time_t modified) {
    const std::string path = MtpUtils::getRawPathForMtpObject(handle, id);
    if (path.empty()) {
        // No song without a path: the track's folder was not walked.
        ZQLOG_WARN("- error while getting track path");
        return nullptr;
    }
    if (isHiddenFile(path)) {
        ZQLOG_INFO("[TQRA] Excluding hidden file");
        return nullptr;
    }
    if (isExcludedFile(path)) {
        ZQLOG_INFO("[TQRA] Excluding file with unsupported extension");
        return nullptr;
    }
    std::string texts[5];  // title, artist, album, genre, composer
    if (MtpUtils::deviceHasMetadata(id, handle)) {
        texts[0] = getTrackTitle(id);
        texts[1] = getTrackArtist(id);
        texts[2] = getTrackAlbum(id);
        texts[3] = getTrackGenre(id);
        texts[4] = getTrackComposer(id);
    } else {
        ZQLOG_INFO("Track with ID %d is unsupported. Device handle: %d", int(id), int(handle));
        CTrackInfo info;
        if (!MtpUtils::getMetadataFromMTPFile(id, info, handle))
            ZQLOG_INFO("Couldn't get metadata using Taglib for trackID %d", int(id));
        texts[0] = info.getTitle();
        texts[1] = info.getArtist();
        texts[2] = info.getAlbum();
        texts[3] = info.getGenre();
        texts[4] = info.getComposer();
    }
    const int trackNumber = getTrackNumber(id);
    for (std::string& text : texts) {
        const std::string::size_type lineFeed = text.find('\n');
        if (lineFeed != std::string::npos)
            text.erase(lineFeed, 1);
        text = trimSpaces(text);
    }
    if (!connected(handle)) {
        ZQLOG_INFO("Indexing of track stopped or device removed");
        return nullptr;
    }
    return new MetaDataInfo(path, parent, texts[0], texts[1], texts[2], texts[3], texts[4],
                            trackNumber, 1, int64_t(modified), getMTPTrackId(id, deviceId));
}

Playlist* MtpConnection::Impl::generatePlaylist(const std::string& device,
                                                const std::string& partition, size_t playlistId) {
    ZQLOG_INFO("[TQRA] Playlist %d", int(playlistId));
    const std::string uri = getPlaylistPath(unsigned(playlistId));
    // Stored under the device's time of the playlist, as the crawler reads
    // it, rather than 0: an unchanged playlist is not written again, and a
    // changed one is.
    Playlist* playlist =
        new Playlist(uri, partition, getTrackDateModifiedEpoch(unsigned(playlistId)));

    t_playlist_items_list list = getPlaylistContent(unsigned(playlistId));
    for (unsigned i = 0; i < list.count; ++i) {
        if (!connected(handle)) {
            freeNames(list, i);  // the elements not read are freed too
            break;
        }
        playlist->entries.push_back(new PlaylistEntry(getMTPTrackId(list.items[i].id, device), 1));
        std::free(list.items[i].name);
    }
    std::free(list.items);
    if (list.count == 0) {
        ZQLOG_INFO("[TQRA] Empty playlist or device error (playlist size %d)", int(list.count));
        delete playlist;
        return nullptr;
    }
    ZQLOG_INFO("[TQRA] Saving playlist %d: %s", int(playlistId), uri.c_str());
    return playlist;
}

}  // namespace kestrow
