#include "platform/portolan/DeviceTable.h"

namespace portolan {

DeviceTable& DeviceTable::instance() {
    static DeviceTable table;
    return table;
}

bool DeviceTable::attach(t_handle handle, std::shared_ptr<Backend> backend) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (handle == 0 || !backend || devices_.count(handle))
        return false;
    for (const auto& d : devices_)
        if (d.second->deviceId() == backend->deviceId())
            return false;
    devices_[handle] = std::move(backend);
    return true;
}

bool DeviceTable::unplug(t_handle handle) {
    UnplugHook hook;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!devices_.erase(handle))
            return false;
        hook = hook_;
    }
    if (hook)
        hook(handle);
    return true;
}

std::shared_ptr<Backend> DeviceTable::find(t_handle handle) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = devices_.find(handle);
    return it == devices_.end() ? nullptr : it->second;
}

std::shared_ptr<Backend> DeviceTable::findByDeviceId(const std::string& deviceId) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& d : devices_)
        if (d.second->deviceId() == deviceId)
            return d.second;
    return nullptr;
}

void DeviceTable::setUnplugHook(UnplugHook hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
}

}  // namespace portolan
