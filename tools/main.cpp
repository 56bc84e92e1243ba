// olvane-indexer: indexes mount points with libolvane-core and prints the
// library's signals; `show` summarises a device's database.
#include <stdlib.h>

#include <sys/stat.h>
#include <QCoreApplication>
#include <climits>
#include <cstdio>

#include "platform/codingdata/CodingData.h"
#include "platform/common/DatabaseMgr.h"
#include "tools/DatabaseSummary.h"
#include "tools/IndexerOptions.h"
#include "tools/IndexerRun.h"

using olvane::tool::DatabaseSummary;
using olvane::tool::IndexerOptions;
using olvane::tool::IndexerRun;

namespace {

int show(const IndexerOptions& options) {
    DatabaseSummary summary;
    std::string error;
    if (!DatabaseSummary::load(options.deviceId, summary, error)) {
        std::fprintf(stderr, "olvane-indexer: %s\n", error.c_str());
        return 1;
    }
    std::fputs(options.json ? (summary.json() + "\n").c_str() : summary.plain().c_str(), stdout);
    return 0;
}

void refuseNonUtf8(const std::string& name) {
    std::fprintf(stderr,
                 "olvane-indexer: %s: not valid UTF-8 (the indexer takes UTF-8 names only)\n",
                 name.c_str());
}

// Absolute, resolved mount points; false (after a message) when one is not a
// directory or resolves to a name that is not UTF-8.
bool resolveMountPoints(const std::vector<std::string>& given, std::vector<std::string>& out) {
    for (const std::string& m : given) {
        struct stat st;
        char resolved[PATH_MAX];
        if (::stat(m.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || !realpath(m.c_str(), resolved)) {
            std::fprintf(stderr, "olvane-indexer: %s is not a directory\n", m.c_str());
            return false;
        }
        if (!IndexerOptions::isUtf8(resolved)) {
            refuseNonUtf8(resolved);
            return false;
        }
        out.push_back(resolved);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!IndexerOptions::isUtf8(argv[i])) {
            refuseNonUtf8(argv[i]);
            return 2;
        }
    }
    IndexerOptions options;
    std::string error;
    if (!IndexerOptions::parse(argc, argv, options, error)) {
        std::fprintf(stderr, "olvane-indexer: %s\n\n%s", error.c_str(),
                     IndexerOptions::usage().c_str());
        return 2;
    }
    if (options.command == IndexerOptions::HELP) {
        std::fputs(IndexerOptions::usage().c_str(), stdout);
        return 0;
    }
    if (!options.dbDir.empty())
        DatabaseMgr::instance().setDatabaseDirectory(options.dbDir);
    if (options.command == IndexerOptions::SHOW)
        return show(options);

    // A simulated phone is one folder, resolved as a mount point is.
    std::vector<std::string> mountPoints;
    if (!resolveMountPoints(
            options.mtpSim.empty() ? options.mountPoints : std::vector<std::string>{options.mtpSim},
            mountPoints))
        return 2;
    // Before the library logs anything: the level is read once.
    if (!options.logLevel.empty())
        setenv("OLVANE_LOG", options.logLevel.c_str(), 1);
    if (!options.codepages.empty() && setMarketCodePages(options.codepages.c_str()) != 0) {
        std::fprintf(stderr, "olvane-indexer: unknown code page in %s\n",
                     options.codepages.c_str());
        return 2;
    }
    const std::string deviceId = options.deviceId.empty()
                                     ? IndexerOptions::deriveDeviceId(mountPoints.front())
                                     : options.deviceId;
    if (!options.mtpSim.empty()) {
        options.mtpSim = mountPoints.front();
        mountPoints = {"mtp-folder://" + deviceId};
    }

    QCoreApplication app(argc, argv);
    IndexerRun::installInterruptHandler();
    IndexerRun run(options, mountPoints, deviceId);
    run.begin();
    app.exec();
    return run.exitStatus();
}
