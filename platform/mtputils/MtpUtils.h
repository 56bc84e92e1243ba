#pragma once
// Paths, ids and metadata of the objects of an attached MTP device, asked of
// the device-access library (libportolan). Stateless; every function may be
// called from any thread. Unknown handles, device ids and objects give the
// empty result ("" or false); nothing throws.

#include <string>

#include "platform/mtputils/CTrackInfo.h"

class MtpUtils {
public:
    // The object's raw path "<storage>/<folders>/<name>" (no leading '/').
    // Known only once a folder listing of the library has answered the
    // object: "" before that, and for an unknown object or handle.
    static std::string getRawPathForMtpObject(unsigned handle, unsigned objectId);

    // The stable text that names a track of the device attached with the
    // identifying string `deviceId`: 32 hex digits made from the device id and
    // the track's raw path, not its object number, so it names the same track
    // after a reconnect and after other files were added. "" when the raw
    // path is not known (see above).
    static std::string getObjectIdForMtpTrack(unsigned trackId, const std::string& deviceId);

    // Whether the device supplies the track's tags itself (the Access_GetTrack*
    // texts); false for an unknown track or handle.
    static bool deviceHasMetadata(unsigned trackId, unsigned handle);

    // Reads the tags from the track's content with TagLib into `info`.
    // False, with `info` untouched, when the content cannot be had or TagLib
    // cannot read it as an audio file.
    static bool getMetadataFromMTPFile(unsigned trackId, CTrackInfo& info, unsigned handle);

    // The path under which a track is indexed: `rawPath` unchanged, so that
    // the song's stored path and the crawler's path are the same text.
    static std::string getPathForMtpTrack(unsigned id, const std::string& deviceId,
                                          const std::string& rawPath);
};
