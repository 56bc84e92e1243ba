#include "msd/MountPointPattern.h"

namespace kestrow {

std::string mountPointPattern(const std::string& mountPoint) {
    std::string pattern;
    pattern.reserve(mountPoint.size() + 4);
    pattern += '"';
    for (char c : mountPoint) {
        pattern += c;
        if (c == '"')
            pattern += '"';
    }
    pattern += "%\"";
    return pattern;
}

}  // namespace kestrow
