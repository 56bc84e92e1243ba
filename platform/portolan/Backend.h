#pragma once
// What answers the calls of Portolan.h for one attached device. The calls
// keep the meaning, ownership and output rules stated there; the handle is
// already resolved. Implementations are called from any thread, several at
// once, and lock for themselves.

#include <string>

#include "platform/portolan/Portolan.h"

namespace portolan {

class Backend {
public:
    enum Text { TITLE, ARTIST, ALBUM, GENRE, COMPOSER, FILE_NAME, DATE_MODIFIED };

    virtual ~Backend();

    virtual t_status getNumElements(t_content_categories category, unsigned& count) = 0;
    virtual t_status getPlaylistElements(t_content_categories category, unsigned start,
                                         unsigned count, t_playlist_items_list& list) = 0;
    virtual t_status resetCategory() = 0;
    virtual t_status selectCategory(t_content_categories category, int index) = 0;
    virtual t_status getNumItems(const t_mtp_container& container, t_mtp_item_type type,
                                 unsigned& count) = 0;
    virtual t_status getItems(const t_mtp_container& container, t_mtp_item_type type,
                              unsigned start, unsigned count, t_mtp_item_list& list) = 0;
    // `buffer` holds PORTOLAN_TEXT_SIZE bytes.
    virtual t_status getTrackText(Text text, t_track_id id, char* buffer) = 0;
    virtual t_status getTrackFileSize(t_track_id id, unsigned long long& size) = 0;
    virtual t_status getTrackAlbumTrackIndex(t_track_id id, unsigned short& index) = 0;

    // For MtpUtils. The device's identifying string, as the head unit names it.
    virtual const std::string& deviceId() const = 0;
    // "<storage>/<folders>/<name>" of an object a listing has answered; "" otherwise.
    virtual std::string rawPath(t_track_id id) = 0;
    // Whether the device supplies the track's tags itself.
    virtual bool hasMetadata(t_track_id id) = 0;
    // At most the first `maxBytes` of a file object's content into `bytes`
    // (a partial read, as a phone's protocol allows); false if there is none.
    virtual bool readContent(t_track_id id, std::string& bytes, size_t maxBytes) = 0;
};

}  // namespace portolan
