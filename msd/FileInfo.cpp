#include "msd/FileInfo.h"

namespace kestrow {

FileInfo::FileInfo(const std::string& path_, unsigned reserved_, int64_t lastModified_)
    : path(new std::string(path_)), reserved(reserved_), lastModified(lastModified_) {}

}  // namespace kestrow
