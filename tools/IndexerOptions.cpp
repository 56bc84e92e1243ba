#include "tools/IndexerOptions.h"

#include "platform/common/Md5.h"

namespace olvane {
namespace tool {

std::string IndexerOptions::usage() {
    return "usage: olvane-indexer [--db-dir DIR] [--device-id ID] [--json] [--log LEVEL]\n"
           "                      [--no-progress] MOUNT_POINT...\n"
           "       olvane-indexer show [--db-dir DIR] [--json] DEVICE_ID\n"
           "\n"
           "Indexes each MOUNT_POINT as one partition of one device, in the order given,\n"
           "and prints the library's signals as they arrive, one line each.\n"
           "\n"
           "  --db-dir DIR     where the device databases live (default: $OLVANE_DB_DIR,\n"
           "                   else $XDG_DATA_HOME/olvane, else ~/.local/share/olvane)\n"
           "  --device-id ID   the device the mount points belong to; without it the id is\n"
           "                   derived from the first mount point: its last component and\n"
           "                   8 hex digits of the MD5 of its absolute path (Music-1f3a9c07),\n"
           "                   so the same folder always maps to the same database\n"
           "  --json           one JSON object per line: {\"signal\":..,\"args\":[..],\"ms\":..}\n"
           "  --log LEVEL      mirror the library's log lines of LEVEL or above to stderr:\n"
           "                   error, warning, info, debug or verbose\n"
           "  --no-progress    no status line on stderr\n"
           "\n"
           "show prints the counts of songs, artists, albums, genres, composers, playlists\n"
           "and directories in a device's database, and the status of each mount point.\n"
           "\n"
           "Exit status: 0 done, 1 failure, 2 usage error or a mount point that is not a\n"
           "directory, 130 interrupted (what was committed stays in the database).\n";
}

bool IndexerOptions::parse(int argc, char** argv, IndexerOptions& out, std::string& error) {
    int i = 1;
    if (argc > 1 && std::string(argv[1]) == "show") {
        out.command = SHOW;
        ++i;
    }
    std::vector<std::string> positional;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& target) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            target = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            out.command = HELP;
            return true;
        } else if (arg == "--db-dir") {
            if (!value(out.dbDir))
                return false;
        } else if (arg == "--device-id" && out.command == INDEX) {
            if (!value(out.deviceId))
                return false;
        } else if (arg == "--json") {
            out.json = true;
        } else if (arg == "--log" && out.command == INDEX) {
            if (!value(out.logLevel))
                return false;
            static const char* levels[] = {"error", "warning", "info", "debug", "verbose"};
            bool known = false;
            for (const char* l : levels)
                known = known || out.logLevel == l;
            if (!known) {
                error = "unknown log level: " + out.logLevel;
                return false;
            }
        } else if (arg == "--no-progress" && out.command == INDEX) {
            out.progress = false;
        } else if (arg == "--") {
            for (++i; i < argc; ++i)
                positional.push_back(argv[i]);
        } else if (!arg.empty() && arg[0] == '-') {
            error = "unknown option: " + arg;
            return false;
        } else {
            positional.push_back(arg);
        }
    }
    if (out.command == SHOW) {
        if (positional.size() != 1) {
            error = "show takes one DEVICE_ID";
            return false;
        }
        out.deviceId = positional[0];
        return true;
    }
    if (positional.empty()) {
        error = "no mount point given";
        return false;
    }
    out.mountPoints = positional;
    return true;
}

std::string IndexerOptions::deriveDeviceId(const std::string& absoluteMountPoint) {
    std::string base = absoluteMountPoint.substr(absoluteMountPoint.rfind('/') + 1);
    std::string clean;
    for (unsigned char c : base) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-';
        if (ok)
            clean += char(c);
    }
    while (!clean.empty() && clean[0] == '.')
        clean.erase(0, 1);
    if (clean.size() > 32)
        clean.resize(32);
    if (clean.empty())
        clean = "device";
    return clean + "-" + Md5(Md5::DIRECTORY, absoluteMountPoint).toString().substr(0, 8);
}

}  // namespace tool
}  // namespace olvane
