#pragma once
// A simulated phone for the MTP tests: sample files attached to the
// device-access library under a handle, whose unplug reaches the MtpDevice
// registry as on the head unit, with no real pause between the tries of a
// busy library.

#include "mtp/MtpConnection.h"
#include "mtp/MtpDevice.h"
#include "platform/portolan/DeviceTable.h"
#include "platform/portolan/SimulatedDevice.h"
#include "tests/support/Testing.h"

namespace olvane::test {

// Owns a list the device-access library handed to its receiver (a
// t_mtp_item_list or t_playlist_items_list): frees every name and the array.
// Passes as the library's list type.
template <class List>
struct OwnedList : List {
    OwnedList() : List{0, nullptr} {}
    ~OwnedList() {
        for (unsigned i = 0; i < this->count; ++i)
            std::free(this->items[i].name);
        std::free(this->items);
    }
    OwnedList(const OwnedList&) = delete;
    OwnedList& operator=(const OwnedList&) = delete;
};
using ItemList = OwnedList<t_mtp_item_list>;
using ElementList = OwnedList<t_playlist_items_list>;

// Makes the storage folder `relative` in `dir`; raw paths are "Phone/...".
// Indexable: Music/Gears/iron.mp3, Music/Gears/copper.mp3, Music/Jazz/blue.m4a.
// Never indexed: Music/skip.ogg, Music/.secret.mp3 and DCIM/motor.mp3 (a
// top-level DCIM, listed before Music). Playlists: Music/Road.m3u (iron, blue,
// skip.ogg, the DCIM song), Music/Best.m3u (copper).
inline std::string makePhoneTree(const TempDir& dir, const std::string& relative = "phone") {
    dir.copySample("gears-iron-road.mp3", relative + "/Music/Gears/iron.mp3");
    dir.copySample("gears-copper-sky.mp3", relative + "/Music/Gears/copper.mp3");
    dir.copySample("ferro-blue-hour.m4a", relative + "/Music/Jazz/blue.m4a");
    dir.copySample("gears-old-times.mp3", relative + "/Music/skip.ogg");
    dir.copySample("gears-old-times.mp3", relative + "/Music/.secret.mp3");
    dir.copySample("motorhead-style.mp3", relative + "/DCIM/motor.mp3");
    dir.write(relative + "/Music/Road.m3u",
              "Gears/iron.mp3\nJazz/blue.m4a\nskip.ogg\n/DCIM/motor.mp3\n");
    dir.write(relative + "/Music/Best.m3u", "Gears/copper.mp3\n");
    return dir.file(relative);
}

// Attaches `folder` as the storage "Phone" for the object's life, with the
// unplug hook wired to the registry (or to `hook`).
struct PluggedPhone {
    PluggedPhone(t_handle handle_, const std::string& deviceId, const std::string& folder,
                 const portolan::SimulatedDevice::Faults& faults = {},
                 portolan::DeviceTable::UnplugHook hook = nullptr)
        : handle(handle_) {
        kestrow::MtpConnection::setSleepFunction([](unsigned) {});
        portolan::DeviceTable::instance().setUnplugHook(
            hook ? hook : [](t_handle h) { kestrow::MtpDevice::instance().disconnectDevice(h); });
        device = portolan::SimulatedDevice::plugIn(handle, deviceId, {{"Phone", folder}}, faults);
        EXPECT_TRUE(device) << "handle " << handle << " is in use";
    }
    ~PluggedPhone() {
        portolan::DeviceTable::instance().unplug(handle);
        portolan::DeviceTable::instance().setUnplugHook(nullptr);
        kestrow::MtpConnection::setSleepFunction(nullptr);
    }

    const t_handle handle;
    std::shared_ptr<portolan::SimulatedDevice> device;
};

}  // namespace olvane::test
