#pragma once

#include <memory>
#include <string>

#include "platform/portolan/SimulatedDevice.h"

namespace olvane {
namespace tool {

// The simulated phone of `olvane-indexer --mtp-sim`: a folder attached to the
// device-access library as the storage "Phone" of a device, for the object's
// life, with the library's unplug reported to the MtpDevice registry as the
// head unit's system does. Main thread only.
class MtpSimulation {
public:
    // Reads a --sim-faults text (grammar in faultsGrammar()) into `out`;
    // false with `error` set when it is not understood.
    static bool parseFaults(const std::string& faults, portolan::SimulatedDevice::Faults& out,
                            std::string& error);
    static std::string faultsGrammar();

    MtpSimulation(unsigned handle, const std::string& deviceId, const std::string& folder,
                  const portolan::SimulatedDevice::Faults& faults);
    // Unplugs the phone if it is still attached.
    ~MtpSimulation();
    MtpSimulation(const MtpSimulation&) = delete;
    MtpSimulation& operator=(const MtpSimulation&) = delete;

    // Whether the library took the phone (it refuses a handle in use).
    bool attached() const { return device_ != nullptr; }
    // Unplugs the phone now: every later call about it fails at once.
    void unplug();

private:
    const unsigned handle_;
    std::shared_ptr<portolan::SimulatedDevice> device_;
};

}  // namespace tool
}  // namespace olvane
