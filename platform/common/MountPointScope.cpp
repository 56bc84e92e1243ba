#include "platform/common/MountPointScope.h"

std::string MountPointScope::sqlCondition(const std::string& column,
                                          const std::string& mountPoint) {
    // One range of the column's index, [mount point, mount point + '0'), holds
    // the mount point itself and every path below it, and also the paths that
    // go on with a byte before '/' ("/media/usb-2"): the last term drops
    // those. Written as one range, not as an OR of two, so that SQLite walks
    // the index once, in path order, instead of collecting row ids.
    return "(" + column + " >= " + mountPoint + " AND " + column + " < " + mountPoint +
           " || '0' AND (" + column + " = " + mountPoint + " OR " + column + " >= " + mountPoint +
           " || '/'))";
}

bool MountPointScope::contains(const std::string& folder, const std::string& path) {
    return path.compare(0, folder.size(), folder) == 0 &&
           (path.size() == folder.size() || path[folder.size()] == '/');
}
