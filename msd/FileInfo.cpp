#include "msd/FileInfo.h"

namespace kestrow {

FileInfo::FileInfo(const std::string& path_, unsigned reserved_, int lastModified_)
    : path(new std::string(path_)), reserved(reserved_), lastModified(lastModified_) {}

FileInfo::~FileInfo() {
    delete path;
}

}  // namespace kestrow
