#pragma once
// The devices attached to the library, by handle. One process-wide table
// (instance()); every member is thread-safe. The table shares ownership of
// each backend with the calls that are answering through it, so a device
// unplugged during a call stays alive until that call returns.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/portolan/Backend.h"

namespace portolan {

class DeviceTable {
public:
    // Called with the handle of a device that was unplugged, on the thread
    // that unplugged it, with no lock of the library held. The surrounding
    // system wires it to MtpDevice::instance().disconnectDevice(handle).
    typedef std::function<void(t_handle)> UnplugHook;

    static DeviceTable& instance();

    // False (and nothing attached) for handle 0, a handle in use, or a device
    // id already attached under another handle.
    bool attach(t_handle handle, std::shared_ptr<Backend> backend);
    // Removes the device, then calls the unplug hook with its handle. False
    // if no device was attached under the handle.
    bool unplug(t_handle handle);
    // Null when nothing is attached under the handle / device id.
    std::shared_ptr<Backend> find(t_handle handle) const;
    std::shared_ptr<Backend> findByDeviceId(const std::string& deviceId) const;
    // Replaces the hook; an empty function removes it.
    void setUnplugHook(UnplugHook hook);

private:
    DeviceTable() = default;

    mutable std::mutex mutex_;
    std::map<t_handle, std::shared_ptr<Backend>> devices_;  // guarded by mutex_
    UnplugHook hook_;                                       // guarded by mutex_
};

}  // namespace portolan
