#include "tools/MtpSimulation.h"

#include <map>
#include <sstream>

#include "mtp/MtpDevice.h"
#include "platform/portolan/DeviceTable.h"

using portolan::DeviceTable;
using portolan::SimulatedDevice;

namespace olvane {
namespace tool {

namespace {

bool toNumber(const std::string& text, unsigned& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 9)
        return false;
    out = unsigned(std::stoul(text));
    return true;
}

// "NAME:N" -> NAME and N, split at the last ':'.
bool splitCount(const std::string& text, std::string& name, unsigned& n) {
    const std::string::size_type colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    name = text.substr(0, colon);
    return toNumber(text.substr(colon + 1), n);
}

}  // namespace

std::string MtpSimulation::faultsGrammar() {
    return "FAULTS is a comma-separated list of faults of the simulated phone:\n"
           "  busy=CALL:N          the first N calls of CALL answer \"still processing\";\n"
           "                       CALL is one of num-elements, elements, reset, select,\n"
           "                       num-items, items, title, artist, album, genre,\n"
           "                       composer, file-name, date, size, track-index\n"
           "  page=N               at most N objects per folder listing\n"
           "  empty=FOLDER:N       N empty answers once FOLDER's listing goes past its start\n"
           "  first-count=FOLDER:N FOLDER's first count is N\n"
           "  bad-handle-after=N   every call after the first N answers a bad handle\n"
           "  unplug-after=N       the phone is unplugged at the call after the first N\n"
           "  no-metadata=PATH     the phone supplies no tags for the track at PATH\n"
           "  empty-title=PATH     the track at PATH has an empty title\n"
           "FOLDER and PATH are the phone's paths, such as Phone/Music/Jazz (no comma);\n"
           "e.g. --sim-faults page=2,busy=items:3,unplug-after=40\n";
}

bool MtpSimulation::parseFaults(const std::string& faults, SimulatedDevice::Faults& out,
                                std::string& error) {
    static const std::map<std::string, SimulatedDevice::Call> calls = {
        {"num-elements", SimulatedDevice::GET_NUM_ELEMENTS},
        {"elements", SimulatedDevice::GET_PLAYLIST_ELEMENTS},
        {"reset", SimulatedDevice::RESET_CATEGORY},
        {"select", SimulatedDevice::SELECT_CATEGORY},
        {"num-items", SimulatedDevice::GET_NUM_ITEMS},
        {"items", SimulatedDevice::GET_ITEMS},
        {"title", SimulatedDevice::GET_TRACK_TITLE},
        {"artist", SimulatedDevice::GET_TRACK_ARTIST},
        {"album", SimulatedDevice::GET_TRACK_ALBUM},
        {"genre", SimulatedDevice::GET_TRACK_GENRE},
        {"composer", SimulatedDevice::GET_TRACK_COMPOSER},
        {"file-name", SimulatedDevice::GET_TRACK_FILE_NAME},
        {"date", SimulatedDevice::GET_TRACK_DATE_MODIFIED},
        {"size", SimulatedDevice::GET_TRACK_FILE_SIZE},
        {"track-index", SimulatedDevice::GET_TRACK_ALBUM_TRACK_INDEX},
    };
    auto apply = [&](const std::string& key, const std::string& value) {
        std::string name;
        unsigned n = 0;
        if (key == "busy") {
            if (!splitCount(value, name, n) || !calls.count(name))
                return false;
            out.busyFirst[calls.at(name)] = n;
            return true;
        }
        if (key == "empty" || key == "first-count") {
            if (!splitCount(value, name, n))
                return false;
            (key == "empty" ? out.emptyLaterBatches : out.firstCount)[name] = n;
            return true;
        }
        if (key == "page")
            return toNumber(value, out.pageSize);
        if (key == "bad-handle-after")
            return toNumber(value, out.badHandleAfter);
        if (key == "unplug-after")
            return toNumber(value, out.unplugAfter);
        if (key == "no-metadata" || key == "empty-title") {
            (key == "no-metadata" ? out.noMetadata : out.emptyTitles).insert(value);
            return true;
        }
        return false;
    };
    std::stringstream in(faults);
    for (std::string fault; std::getline(in, fault, ',');) {
        const std::string::size_type equals = fault.find('=');
        if (equals == std::string::npos || equals + 1 == fault.size() ||
            !apply(fault.substr(0, equals), fault.substr(equals + 1))) {
            error = "--sim-faults: cannot read \"" + fault + "\"";
            return false;
        }
    }
    return true;
}

MtpSimulation::MtpSimulation(unsigned handle, const std::string& deviceId,
                             const std::string& folder, const SimulatedDevice::Faults& faults)
    : handle_(handle) {
    DeviceTable::instance().setUnplugHook(
        [](t_handle h) { kestrow::MtpDevice::instance().disconnectDevice(h); });
    device_ = SimulatedDevice::plugIn(handle, deviceId, {{"Phone", folder}}, faults);
}

MtpSimulation::~MtpSimulation() {
    unplug();
    DeviceTable::instance().setUnplugHook(nullptr);
}

void MtpSimulation::unplug() {
    if (device_)
        DeviceTable::instance().unplug(handle_);
}

}  // namespace tool
}  // namespace olvane
