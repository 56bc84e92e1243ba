#pragma once

#include <string>
#include <vector>

namespace olvane {
namespace tool {

// The command line of olvane-indexer.
struct IndexerOptions {
    enum Command { INDEX, SHOW, HELP };

    Command command = INDEX;
    std::string dbDir;
    std::string deviceId;  // INDEX: empty means derived from the first mount point
    bool json = false;
    std::string logLevel;
    bool progress = true;
    std::string codepages;  // INDEX: the market's code pages, most likely first; empty: default
    std::vector<std::string> mountPoints;  // INDEX
    // INDEX of a simulated phone instead of mount points: its storage
    // folder, its device handle, when it is announced ready, its faults.
    std::string mtpSim;
    unsigned handle = 1;
    int readyAfterMs = 0;
    std::string simFaults;

    // Fills `out` from argv; on a usage error returns false with `error` set.
    // Arguments are read as UTF-8 (see isUtf8).
    static bool parse(int argc, char** argv, IndexerOptions& out, std::string& error);
    // Whether a name is valid UTF-8, and so can cross the library's Qt
    // interface as a QString unchanged.
    static bool isUtf8(const std::string& bytes);
    static std::string usage();
    // A stable device id for a mount point: its last component, reduced to
    // letters, digits, '.', '_' and '-', and 8 hex digits of the MD5 of the
    // absolute path, e.g. "Music-1f3a9c07".
    static std::string deriveDeviceId(const std::string& absoluteMountPoint);
};

}  // namespace tool
}  // namespace olvane
