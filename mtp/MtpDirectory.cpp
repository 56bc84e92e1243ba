#include "mtp/MtpDirectory.h"

namespace kestrow {

MtpDirectory::MtpDirectory(const std::string& path_, const std::string& partition,
                           const std::string& root)
    : path(path_), partitionId(Md5::DIRECTORY, partition), topLevel(false) {
    const std::string::size_type slash = path.rfind('/');
    name = slash == std::string::npos ? path : path.substr(slash + 1);
    parentPath = slash == std::string::npos ? std::string() : path.substr(0, slash);
    // A path without '/' (a storage's own folder) lies directly under the root too.
    if (parentPath == "/" || parentPath.empty()) {
        parentPath = root;
        topLevel = true;
    }
    objectId = Md5(Md5::DIRECTORY, path);
    parentId = Md5(Md5::DIRECTORY, parentPath);
}

sqlstl::basic_sqlostream<char>& operator<<(sqlstl::basic_sqlostream<char>& stream,
                                           const MtpDirectory* directory) {
    return stream << directory->partitionId.toString() << directory->path << directory->name
                  << directory->objectId.toString() << directory->parentId.toString();
}

}  // namespace kestrow
