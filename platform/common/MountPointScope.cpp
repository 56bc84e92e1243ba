#include "platform/common/MountPointScope.h"

std::string MountPointScope::sqlCondition(const std::string& column,
                                          const std::string& mountPoint) {
    return "(" + column + " = " + mountPoint + " OR (" + column + " >= " + mountPoint +
           " || '/' AND " + column + " < " + mountPoint + " || '0'))";
}

bool MountPointScope::contains(const std::string& folder, const std::string& path) {
    return path.compare(0, folder.size(), folder) == 0 &&
           (path.size() == folder.size() || path[folder.size()] == '/');
}
