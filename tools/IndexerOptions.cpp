#include "tools/IndexerOptions.h"

#include <QCommandLineParser>
#include <QFile>
#include <QStringList>

#include "platform/common/Md5.h"
#include "tools/MtpSimulation.h"

namespace olvane {
namespace tool {

std::string IndexerOptions::usage() {
    return "usage: olvane-indexer [--db-dir DIR] [--device-id ID] [--json] [--log LEVEL]\n"
           "                      [--codepages LIST] [--no-progress] MOUNT_POINT...\n"
           "       olvane-indexer --mtp-sim DIR [--handle N] [--device-id ID] [--ready-after MS]\n"
           "                      [--sim-faults FAULTS] [--db-dir DIR] [--json] [--log LEVEL]\n"
           "       olvane-indexer show [--db-dir DIR] [--json] DEVICE_ID\n"
           "\n"
           "Indexes each MOUNT_POINT as one partition of one device, one after the other\n"
           "in the order given, and prints the library's signals as they arrive, one line\n"
           "each. Options also take their value as --opt=VALUE.\n"
           "\n"
           "  --db-dir DIR     where the device databases live (default: $OLVANE_DB_DIR,\n"
           "                   else $XDG_DATA_HOME/olvane, else ~/.local/share/olvane)\n"
           "  --device-id ID   the device the mount points belong to; without it the id is\n"
           "                   derived from the first mount point: its last component and\n"
           "                   8 hex digits of the MD5 of its absolute path (Music-1f3a9c07),\n"
           "                   so the same folder always maps to the same database\n"
           "  --json           one JSON object per line: {\"args\":[..],\"ms\":..,\"signal\":..}\n"
           "  --log LEVEL      mirror the library's log lines of LEVEL or above to stderr:\n"
           "                   error, warning, info, debug or verbose\n"
           "  --codepages LIST the legacy code pages of the markets the tags come from, most\n"
           "                   likely first, e.g. WINDOWS-1257,ISO-8859-13: they are tried\n"
           "                   first, and the first is kept when no reading is clearly better\n"
           "  --no-progress    no status line on stderr\n"
           "\n"
           "With --mtp-sim, indexes a phone simulated over the folder DIR (its storage\n"
           "\"Phone\") as an MTP device, whose signals carry mtp-folder://ID; without\n"
           "--device-id the id is derived from DIR as from a mount point.\n"
           "  --handle N       the phone's device handle (default 1)\n"
           "  --ready-after MS announce the phone ready MS milliseconds after the request\n"
           "                   (default 0), then every 250 ms until its crawl has finished\n"
           "  --sim-faults FAULTS faults of the simulated phone\n"
           "\n" +
           MtpSimulation::faultsGrammar() +
           "\n"
           "show prints the counts of songs, artists, albums, genres, composers, playlists\n"
           "and directories in a device's database, and the status of each mount point.\n"
           "\n"
           "Exit status: 0 done; 1 a request failed or was refused (the reason is printed);\n"
           "2 usage error, or a mount point that is not a directory or not valid UTF-8;\n"
           "130 interrupted (what was committed stays in the database).\n";
}

bool IndexerOptions::parse(int argc, char** argv, IndexerOptions& out, std::string& error) {
    QStringList args;
    for (int i = 0; i < argc; ++i)
        args << QFile::decodeName(argv[i]);
    if (args.size() > 1 && args[1] == "show") {
        out.command = SHOW;
        args.removeAt(1);
    }
    const QCommandLineOption help(QStringList{"h", "help"});
    const QCommandLineOption dbDir("db-dir", QString(), "DIR");
    const QCommandLineOption json("json");
    const QCommandLineOption deviceId("device-id", QString(), "ID");
    const QCommandLineOption log("log", QString(), "LEVEL");
    const QCommandLineOption noProgress("no-progress");
    const QCommandLineOption codepages("codepages", QString(), "LIST");
    const QCommandLineOption mtpSim("mtp-sim", QString(), "DIR");
    const QCommandLineOption handle("handle", QString(), "N");
    const QCommandLineOption readyAfter("ready-after", QString(), "MS");
    const QCommandLineOption simFaults("sim-faults", QString(), "FAULTS");
    QCommandLineParser parser;
    parser.addOptions({help, dbDir, json});
    if (out.command == INDEX)
        parser.addOptions(
            {deviceId, log, noProgress, codepages, mtpSim, handle, readyAfter, simFaults});
    if (!parser.parse(args)) {
        error = parser.errorText().toStdString();
        return false;
    }
    if (parser.isSet(help)) {
        out.command = HELP;
        return true;
    }
    out.dbDir = QFile::encodeName(parser.value(dbDir)).toStdString();
    out.json = parser.isSet(json);
    const QStringList positional = parser.positionalArguments();
    if (out.command == SHOW) {
        if (positional.size() != 1) {
            error = "show takes one DEVICE_ID";
            return false;
        }
        out.deviceId = positional[0].toStdString();
        return true;
    }
    out.deviceId = parser.value(deviceId).toStdString();
    out.logLevel = parser.value(log).toStdString();
    out.progress = !parser.isSet(noProgress);
    out.codepages = parser.value(codepages).toStdString();
    const QStringList levels = {"error", "warning", "info", "debug", "verbose"};
    if (parser.isSet(log) && !levels.contains(parser.value(log))) {
        error = "unknown log level: " + out.logLevel;
        return false;
    }
    out.mtpSim = QFile::encodeName(parser.value(mtpSim)).toStdString();
    out.simFaults = parser.value(simFaults).toStdString();
    if (out.mtpSim.empty()) {
        for (const QCommandLineOption* o : {&handle, &readyAfter, &simFaults}) {
            if (parser.isSet(*o)) {
                error = "--" + o->names()[0].toStdString() + " needs --mtp-sim";
                return false;
            }
        }
    } else {
        bool ok = true;
        if (parser.isSet(handle))
            out.handle = parser.value(handle).toUInt(&ok);
        if (!ok || out.handle == 0) {
            error = "--handle takes a number above 0";
            return false;
        }
        if (parser.isSet(readyAfter))
            out.readyAfterMs = parser.value(readyAfter).toInt(&ok);
        if (!ok || out.readyAfterMs < 0) {
            error = "--ready-after takes milliseconds";
            return false;
        }
        portolan::SimulatedDevice::Faults faults;
        if (!MtpSimulation::parseFaults(out.simFaults, faults, error))
            return false;
        if (!positional.empty()) {
            error = "--mtp-sim takes no mount point";
            return false;
        }
        return true;
    }
    if (positional.empty()) {
        error = "no mount point given";
        return false;
    }
    for (const QString& m : positional)
        out.mountPoints.push_back(QFile::encodeName(m).toStdString());
    return true;
}

bool IndexerOptions::isUtf8(const std::string& bytes) {
    const QByteArray raw = QByteArray::fromStdString(bytes);
    return QFile::encodeName(QFile::decodeName(raw)) == raw;
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
