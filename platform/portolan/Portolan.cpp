#include "platform/portolan/Portolan.h"

#include "platform/portolan/DeviceTable.h"

using portolan::Backend;
using portolan::DeviceTable;

namespace {

template <class Call>
t_status forward(t_handle handle, Call call) {
    std::shared_ptr<Backend> backend = DeviceTable::instance().find(handle);
    return backend ? call(*backend) : STATUS_BAD_HANDLE;
}

void clear(t_playlist_items_list& list) {
    list.count = 0;
    list.items = nullptr;
}

void clear(t_mtp_item_list& list) {
    list.count = 0;
    list.items = nullptr;
}

t_status text(t_handle handle, Backend::Text which, t_track_id id, char* buffer) {
    buffer[0] = '\0';
    return forward(handle, [&](Backend& b) { return b.getTrackText(which, id, buffer); });
}

}  // namespace

t_status Access_GetNumElements(t_handle handle, t_content_categories category, unsigned& count) {
    return forward(handle, [&](Backend& b) { return b.getNumElements(category, count); });
}

t_status Access_GetPlaylistElements(t_handle handle, t_content_categories category, unsigned start,
                                    unsigned count, t_playlist_items_list& list) {
    clear(list);
    return forward(handle,
                   [&](Backend& b) { return b.getPlaylistElements(category, start, count, list); });
}

t_status Command_ResetCategory(t_handle handle) {
    return forward(handle, [&](Backend& b) { return b.resetCategory(); });
}

t_status Command_SelectCategory(t_handle handle, t_content_categories category, int index) {
    return forward(handle, [&](Backend& b) { return b.selectCategory(category, index); });
}

t_status Access_GetNumItems(t_handle handle, const t_mtp_container& container,
                            const t_mtp_item_type& type, unsigned& count) {
    return forward(handle, [&](Backend& b) { return b.getNumItems(container, type, count); });
}

t_status Access_GetItems(t_handle handle, const t_mtp_container& container,
                         const t_mtp_item_type& type, const unsigned& start, const unsigned& count,
                         t_mtp_item_list& list) {
    clear(list);
    return forward(handle,
                   [&](Backend& b) { return b.getItems(container, type, start, count, list); });
}

t_status Access_GetTrackTitle(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::TITLE, id, buffer);
}

t_status Access_GetTrackArtist(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::ARTIST, id, buffer);
}

t_status Access_GetTrackAlbum(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::ALBUM, id, buffer);
}

t_status Access_GetTrackGenre(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::GENRE, id, buffer);
}

t_status Access_GetTrackComposer(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::COMPOSER, id, buffer);
}

t_status Access_GetTrackFileName(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::FILE_NAME, id, buffer);
}

t_status Access_GetTrackDateModified(t_handle handle, t_track_id id, char* buffer) {
    return text(handle, Backend::DATE_MODIFIED, id, buffer);
}

t_status Access_GetTrackFileSize(t_handle handle, t_track_id id, unsigned long long& size) {
    return forward(handle, [&](Backend& b) { return b.getTrackFileSize(id, size); });
}

t_status Access_GetTrackAlbumTrackIndex(t_handle handle, t_track_id id, unsigned short& index) {
    return forward(handle, [&](Backend& b) { return b.getTrackAlbumTrackIndex(id, index); });
}
