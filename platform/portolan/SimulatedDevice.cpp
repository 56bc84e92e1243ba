#include "platform/portolan/SimulatedDevice.h"

#include <sys/stat.h>
#include <taglib/fileref.h>
#include <taglib/tag.h>
#include <taglib/tfile.h>
#include <taglib/tpropertymap.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "platform/portolan/DeviceTable.h"

namespace fs = std::filesystem;

namespace portolan {

namespace {

std::string lowerExtension(const std::string& name) {
    const std::string::size_type dot = name.rfind('.');
    std::string ext = dot == std::string::npos ? "" : name.substr(dot + 1);
    for (char& c : ext)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

int32_t typeOfFile(const std::string& name) {
    static const std::set<std::string> audio = {"mp3", "m4a", "m4b", "aac", "flac",
                                                "wma", "wav", "ogg", "oga", "opus"};
    const std::string ext = lowerExtension(name);
    if (audio.count(ext))
        return OBJECT_TRACK;
    return ext == "m3u" ? OBJECT_PLAYLIST : OBJECT_FILE;
}

// Copies `text` into a text buffer, cut to fit, never inside a UTF-8 character.
void copyText(const std::string& text, char* buffer) {
    std::string::size_type n =
        std::min<std::string::size_type>(text.size(), PORTOLAN_TEXT_SIZE - 1);
    while (n > 0 && n < text.size() && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        --n;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

// "Thu Jan  5 10:00:00 2020", in local time and English whatever the locale.
std::string dateText(time_t when) {
    static const char* days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm t;
    localtime_r(&when, &t);
    char text[64];
    std::snprintf(text, sizeof text, "%s %s %2d %02d:%02d:%02d %d", days[t.tm_wday],
                  months[t.tm_mon], t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_year + 1900);
    return text;
}

// "a/./b/../c" -> "a/c"; "" when ".." climbs above the start.
std::string normalise(const std::string& path) {
    std::vector<std::string> parts;
    std::stringstream in(path);
    std::string part;
    while (std::getline(in, part, '/')) {
        if (part.empty() || part == ".")
            continue;
        if (part == "..") {
            if (parts.empty())
                return "";
            parts.pop_back();
        } else {
            parts.push_back(part);
        }
    }
    std::string out;
    for (const std::string& p : parts)
        out += (out.empty() ? "" : "/") + p;
    return out;
}

char* duplicate(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy)
        std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

}  // namespace

std::shared_ptr<SimulatedDevice> SimulatedDevice::plugIn(t_handle handle,
                                                         const std::string& deviceId,
                                                         const std::vector<Storage>& storages,
                                                         const Faults& faults) {
    auto device = std::make_shared<SimulatedDevice>(handle, deviceId, storages, faults);
    return DeviceTable::instance().attach(handle, device) ? device : nullptr;
}

SimulatedDevice::SimulatedDevice(t_handle handle, const std::string& deviceId,
                                 const std::vector<Storage>& storages, const Faults& faults)
    : handle_(handle), deviceId_(deviceId), faults_(faults), objects_(1) {
    for (const Storage& s : storages) {
        Object storage;
        storage.type = OBJECT_STORAGE;
        storage.storage = int32_t(objects_.size());
        storage.name = storage.rawPath = s.name;
        storage.file = s.folder;
        storages_.push_back(t_track_id(objects_.size()));
        byRawPath_[s.name] = storages_.back();
        objects_.push_back(storage);
    }
    for (t_track_id id : storages_)
        scan(id, objects_[id].file);
    for (t_track_id id : playlists_)
        readPlaylist(objects_[id]);

    for (const auto& f : faults_.emptyLaterBatches)
        if (t_track_id id = objectId(f.first))
            emptyLeft_[id] = f.second;
    for (const auto& f : faults_.firstCount)
        if (t_track_id id = objectId(f.first))
            firstCount_[id] = f.second;
}

void SimulatedDevice::scan(t_track_id folder, std::string dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        const std::string path = dir + "/" + name;
        const bool link = fs::is_symlink(fs::symlink_status(path, ec));
        const fs::file_status status = fs::status(path, ec);
        Object o;
        if (fs::is_directory(status) && !link)  // a linked folder could make a loop
            o.type = OBJECT_FOLDER;
        else if (fs::is_regular_file(status))
            o.type = typeOfFile(name);
        else
            continue;
        o.storage = objects_[folder].storage;
        o.name = name;
        o.rawPath = objects_[folder].rawPath + "/" + name;
        o.file = path;
        const t_track_id id = t_track_id(objects_.size());
        objects_[folder].children.push_back(id);
        byRawPath_[o.rawPath] = id;
        objects_.push_back(o);
        if (o.type == OBJECT_FOLDER)
            scan(id, path);
        else if (o.type == OBJECT_TRACK)
            tracks_.push_back(id);
        else if (o.type == OBJECT_PLAYLIST)
            playlists_.push_back(id);
    }
}

void SimulatedDevice::readPlaylist(Object& playlist) {
    const std::string storage = objects_[playlist.storage].rawPath;
    const std::string folder = playlist.rawPath.substr(0, playlist.rawPath.rfind('/'));
    std::ifstream in(playlist.file);
    std::string line;
    while (std::getline(in, line)) {
        std::replace(line.begin(), line.end(), '\\', '/');
        const auto first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#')
            continue;
        line = line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
        const std::string relative =
            normalise(line[0] == '/' ? line : folder.substr(storage.size()) + "/" + line);
        const auto it = byRawPath_.find(storage + "/" + relative);
        if (!relative.empty() && it != byRawPath_.end() &&
            objects_[it->second].type == OBJECT_TRACK)
            playlist.entries.push_back(it->second);
    }
}

t_track_id SimulatedDevice::objectId(const std::string& rawPath) const {
    const auto it = byRawPath_.find(rawPath);
    return it == byRawPath_.end() ? 0 : it->second;
}

t_status SimulatedDevice::admit(Call kind, std::unique_lock<std::mutex>& lock) {
    if (unplugged_)
        return STATUS_BAD_HANDLE;
    ++calls_;
    const unsigned ofKind = ++callsOf_[kind];
    if (faults_.unplugAfter && calls_ > faults_.unplugAfter) {
        unplugged_ = true;
        lock.unlock();
        DeviceTable& table = DeviceTable::instance();
        if (table.find(handle_).get() == this)
            table.unplug(handle_);
        return STATUS_BAD_HANDLE;
    }
    if (faults_.badHandleAfter && calls_ > faults_.badHandleAfter)
        return STATUS_BAD_HANDLE;
    const auto busy = faults_.busyFirst.find(kind);
    if (busy != faults_.busyFirst.end() && ofKind <= busy->second)
        return STATUS_PROCESSING;
    return STATUS_OK;
}

t_status SimulatedDevice::getNumElements(t_content_categories category, unsigned& count) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(GET_NUM_ELEMENTS, lock))
        return s;
    if (category == CATEGORY_PLAYLISTS)
        count = unsigned(playlists_.size());
    else if (category == CATEGORY_TRACKS)
        count = unsigned(selected_ ? objects_[selected_].entries.size() : tracks_.size());
    else
        return STATUS_NOT_SUPPORTED;
    return STATUS_OK;
}

t_status SimulatedDevice::getPlaylistElements(t_content_categories category, unsigned start,
                                              unsigned count, t_playlist_items_list& list) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(GET_PLAYLIST_ELEMENTS, lock))
        return s;
    const std::vector<t_track_id>* source;
    if (category == CATEGORY_PLAYLISTS)
        source = &playlists_;
    else if (category == CATEGORY_TRACKS)
        source = selected_ ? &objects_[selected_].entries : &tracks_;
    else
        return STATUS_NOT_SUPPORTED;
    if (start >= source->size() || count == 0)
        return STATUS_OK;
    const unsigned n = std::min<unsigned>(count, unsigned(source->size()) - start);
    list.items = static_cast<t_playlist_item*>(std::malloc(n * sizeof(t_playlist_item)));
    if (!list.items)
        return STATUS_GENERIC_PLUGIN_ERROR;
    list.count = n;
    for (unsigned i = 0; i < n; ++i) {
        const t_track_id id = (*source)[start + i];
        list.items[i].name = duplicate(objects_[id].name);
        list.items[i].id = id;
        list.items[i].type = uint32_t(objects_[id].type);
    }
    return STATUS_OK;
}

t_status SimulatedDevice::resetCategory() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(RESET_CATEGORY, lock))
        return s;
    selected_ = 0;
    return STATUS_OK;
}

t_status SimulatedDevice::selectCategory(t_content_categories category, int index) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(SELECT_CATEGORY, lock))
        return s;
    if (category != CATEGORY_PLAYLISTS)
        return STATUS_NOT_SUPPORTED;
    if (index <= 0 || size_t(index) >= objects_.size() || objects_[index].type != OBJECT_PLAYLIST)
        return STATUS_NOT_OK;
    selected_ = t_track_id(index);
    return STATUS_OK;
}

t_track_id SimulatedDevice::folderOf(const t_mtp_container& c) const {
    const auto isStorage = [&](int32_t id) {
        return id > 0 && size_t(id) < objects_.size() && objects_[id].type == OBJECT_STORAGE;
    };
    if (c.parent == 0)
        return isStorage(c.storage) ? t_track_id(c.storage) : 0;
    const bool folder = c.parent > 0 && size_t(c.parent) < objects_.size() &&
                        objects_[c.parent].type == OBJECT_FOLDER &&
                        objects_[c.parent].storage == c.storage;
    return folder ? t_track_id(c.parent) : 0;
}

t_status SimulatedDevice::getNumItems(const t_mtp_container& container, t_mtp_item_type type,
                                      unsigned& count) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(GET_NUM_ITEMS, lock))
        return s;
    if (container.type == CONTAINER_STORAGES && type == ITEM_TYPE_STORAGE) {
        count = unsigned(storages_.size());
    } else if (container.type == CONTAINER_CLOSE && type == ITEM_TYPE_CLOSE) {
        count = 0;
    } else if (container.type == CONTAINER_FOLDER && type == ITEM_TYPE_OBJECT) {
        const t_track_id folder = folderOf(container);
        if (!folder)
            return STATUS_NOT_OK;
        count = unsigned(objects_[folder].children.size());
        const auto first = firstCount_.find(folder);
        if (first != firstCount_.end()) {
            count = first->second;
            firstCount_.erase(first);
        }
    } else {
        return STATUS_NOT_SUPPORTED;
    }
    return STATUS_OK;
}

t_status SimulatedDevice::getItems(const t_mtp_container& container, t_mtp_item_type type,
                                   unsigned start, unsigned count, t_mtp_item_list& list) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(GET_ITEMS, lock))
        return s;
    const std::vector<t_track_id>* source;
    if (container.type == CONTAINER_STORAGES && type == ITEM_TYPE_STORAGE) {
        source = &storages_;
    } else if (container.type == CONTAINER_CLOSE && type == ITEM_TYPE_CLOSE) {
        return STATUS_OK;
    } else if (container.type == CONTAINER_FOLDER && type == ITEM_TYPE_OBJECT) {
        const t_track_id folder = folderOf(container);
        if (!folder)
            return STATUS_NOT_OK;
        unsigned& empty = emptyLeft_[folder];
        if (start > 0 && empty > 0) {
            --empty;
            return STATUS_OK;
        }
        source = &objects_[folder].children;
    } else {
        return STATUS_NOT_SUPPORTED;
    }
    if (start >= source->size() || count == 0)
        return STATUS_OK;
    unsigned n = std::min<unsigned>(count, unsigned(source->size()) - start);
    if (faults_.pageSize)
        n = std::min(n, faults_.pageSize);
    list.items = static_cast<t_mtp_item*>(std::malloc(n * sizeof(t_mtp_item)));
    if (!list.items)
        return STATUS_GENERIC_PLUGIN_ERROR;
    list.count = n;
    for (unsigned i = 0; i < n; ++i) {
        Object& o = objects_[(*source)[start + i]];
        o.listed = true;
        list.items[i].name = duplicate(o.name);
        list.items[i].id = int32_t((*source)[start + i]);
        list.items[i].type = o.type;
    }
    return STATUS_OK;
}

const SimulatedDevice::Object* SimulatedDevice::file(t_track_id id) const {
    if (id == 0 || id >= objects_.size())
        return nullptr;
    const Object& o = objects_[id];
    return o.type == OBJECT_FOLDER || o.type == OBJECT_STORAGE ? nullptr : &o;
}

const SimulatedDevice::Tags& SimulatedDevice::tagsOf(Object& track) {
    if (track.tagsRead)
        return track.tags;
    track.tagsRead = true;
    TagLib::FileRef ref(track.file.c_str(), false);
    if (ref.isNull() || !ref.tag())
        return track.tags;
    const TagLib::Tag* tag = ref.tag();
    const TagLib::StringList composers = ref.file()->properties()["COMPOSER"];
    const TagLib::String texts[5] = {tag->title(), tag->artist(), tag->album(), tag->genre(),
                                     composers.isEmpty() ? TagLib::String() : composers.front()};
    for (int i = 0; i < 5; ++i)
        track.tags.texts[i] = texts[i].to8Bit(true);
    track.tags.track = static_cast<unsigned short>(tag->track());
    return track.tags;
}

t_status SimulatedDevice::getTrackText(Text text, t_track_id id, char* buffer) {
    static const Call calls[] = {GET_TRACK_TITLE,        GET_TRACK_ARTIST,   GET_TRACK_ALBUM,
                                 GET_TRACK_GENRE,        GET_TRACK_COMPOSER, GET_TRACK_FILE_NAME,
                                 GET_TRACK_DATE_MODIFIED};
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(calls[text], lock))
        return s;
    const Object* o = file(id);
    if (!o)
        return STATUS_NOT_OK;
    if (text == FILE_NAME) {
        copyText(o->name, buffer);
    } else if (text == DATE_MODIFIED) {
        struct stat st;
        if (stat(o->file.c_str(), &st) != 0)
            return STATUS_NOT_OK;
        copyText(dateText(st.st_mtime), buffer);
    } else if (text == TITLE && o->type == OBJECT_PLAYLIST) {
        copyText(o->name.substr(0, o->name.rfind('.')), buffer);
    } else if (o->type != OBJECT_TRACK || faults_.noMetadata.count(o->rawPath)) {
        return STATUS_NOT_SUPPORTED;
    } else if (!(text == TITLE && faults_.emptyTitles.count(o->rawPath))) {
        copyText(tagsOf(objects_[id]).texts[text], buffer);
    }
    return STATUS_OK;
}

t_status SimulatedDevice::getTrackFileSize(t_track_id id, unsigned long long& size) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(GET_TRACK_FILE_SIZE, lock))
        return s;
    const Object* o = file(id);
    struct stat st;
    if (!o || stat(o->file.c_str(), &st) != 0)
        return STATUS_NOT_OK;
    size = static_cast<unsigned long long>(st.st_size);
    return STATUS_OK;
}

t_status SimulatedDevice::getTrackAlbumTrackIndex(t_track_id id, unsigned short& index) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (t_status s = admit(GET_TRACK_ALBUM_TRACK_INDEX, lock))
        return s;
    const Object* o = file(id);
    if (!o)
        return STATUS_NOT_OK;
    if (o->type != OBJECT_TRACK || faults_.noMetadata.count(o->rawPath))
        return STATUS_NOT_SUPPORTED;
    index = tagsOf(objects_[id]).track;
    return STATUS_OK;
}

std::string SimulatedDevice::rawPath(t_track_id id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return id > 0 && id < objects_.size() && objects_[id].listed ? objects_[id].rawPath : "";
}

bool SimulatedDevice::hasMetadata(t_track_id id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Object* o = file(id);
    return o && o->type == OBJECT_TRACK && !faults_.noMetadata.count(o->rawPath);
}

bool SimulatedDevice::readContent(t_track_id id, std::string& bytes, size_t maxBytes) {
    std::string path;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const Object* o = file(id);
        if (!o)
            return false;
        path = o->file;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes.resize(maxBytes);
    in.read(&bytes[0], std::streamsize(maxBytes));
    bytes.resize(size_t(in.gcount()));
    return !in.bad();
}

}  // namespace portolan
