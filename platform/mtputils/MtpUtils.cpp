#include "platform/mtputils/MtpUtils.h"

#include <taglib/fileref.h>
#include <taglib/tag.h>
#include <taglib/tbytevectorstream.h>
#include <taglib/tfile.h>
#include <taglib/tpropertymap.h>

#include "platform/common/Md5.h"
#include "platform/portolan/DeviceTable.h"

using portolan::DeviceTable;

std::string MtpUtils::getRawPathForMtpObject(unsigned handle, unsigned objectId) {
    const auto device = DeviceTable::instance().find(handle);
    return device ? device->rawPath(objectId) : "";
}

std::string MtpUtils::getObjectIdForMtpTrack(unsigned trackId, const std::string& deviceId) {
    const auto device = DeviceTable::instance().findByDeviceId(deviceId);
    const std::string rawPath = device ? device->rawPath(trackId) : "";
    return rawPath.empty() ? "" : Md5(Md5::SONG, deviceId + "/" + rawPath).toString();
}

bool MtpUtils::deviceHasMetadata(unsigned trackId, unsigned handle) {
    const auto device = DeviceTable::instance().find(handle);
    return device && device->hasMetadata(trackId);
}

bool MtpUtils::getMetadataFromMTPFile(unsigned trackId, CTrackInfo& info, unsigned handle) {
    const auto device = DeviceTable::instance().find(handle);
    std::string content;
    // Tags sit in the first few MiB; a huge file costs no more than that.
    static const size_t kMaxTagBytes = 16u << 20;
    if (!device || !device->readContent(trackId, content, kMaxTagBytes))
        return false;
    TagLib::ByteVector bytes(content.data(), static_cast<unsigned>(content.size()));
    TagLib::ByteVectorStream stream(bytes);
    TagLib::FileRef ref(&stream, false);
    if (ref.isNull() || !ref.tag())
        return false;
    const TagLib::Tag* tag = ref.tag();
    const TagLib::StringList composers = ref.file()->properties()["COMPOSER"];
    info.setTitle(tag->title().to8Bit(true));
    info.setArtist(tag->artist().to8Bit(true));
    info.setAlbum(tag->album().to8Bit(true));
    info.setGenre(tag->genre().to8Bit(true));
    info.setComposer(composers.isEmpty() ? "" : composers.front().to8Bit(true));
    return true;
}

std::string MtpUtils::getPathForMtpTrack(unsigned /*id*/, const std::string& /*deviceId*/,
                                         const std::string& rawPath) {
    return rawPath;
}
