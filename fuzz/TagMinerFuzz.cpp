// The tag miner's per-file path on arbitrary bytes. The first byte picks the
// file's extension, the rest is the file; the miner must yield exactly one
// song record whose texts are valid UTF-8, whatever the bytes.
#include <glib.h>

#include <cstdlib>

#include "fuzz/FuzzFile.h"
#include "msd/MSDMiner.h"
#include "platform/common/DatabaseMgr.h"

namespace {

const char* const kExtensions[] = {".mp3",  ".m4b", ".m4a", ".wma",  ".aac", ".wav", ".mpg",
                                   ".mpeg", ".asf", ".m4p", ".flac", ".m4r", ".mp4"};
const size_t kCount = sizeof(kExtensions) / sizeof(kExtensions[0]);

void checkText(const std::string& text) {
    if (!olvane::fuzz::isUtf8(text.data(), text.size()))
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string& mountPoint = olvane::fuzz::scratchFolder();
    static kestrow::MSDMiner* miner = [] {
        DatabaseMgr::instance().setDatabaseDirectory(mountPoint + "/db");
        return new kestrow::MSDMiner("MSDMiner");
    }();
    if (size == 0)
        return 0;
    const std::string path = mountPoint + "/song" + kExtensions[data[0] % kCount];
    olvane::fuzz::writeFile(path, data + 1, size - 1);

    boost::shared_ptr<kestrow::Block<kestrow::FileInfo*>> in(
        new kestrow::Block<kestrow::FileInfo*>());
    in->operation = kestrow::Operation(1, 0, "fuzz", mountPoint, true);
    in->items.push_back(new kestrow::FileInfo(path, 0, 1));
    boost::shared_ptr<kestrow::Block<MetaDataInfo*>> out = miner->doOperation(in);
    if (!out || out->items.size() > 1)
        abort();
    for (const MetaDataInfo* song : out->items) {
        checkText(song->title);
        checkText(song->artist);
        checkText(song->album);
        checkText(song->genre);
        checkText(song->composer);
    }
    std::remove(path.c_str());
    return 0;
}
