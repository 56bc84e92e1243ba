#pragma once
// The process-wide registry of MTP devices, by device handle: whether an
// indexing operation has begun for a device (connected) and whether the
// surrounding system has announced that the device-access library may be
// queried for it (ready). One instance (instance()), created on first use and
// destroyed at process exit. Every member is thread-safe: the map is guarded
// by one mutex, paired with one condition variable on the monotonic clock,
// broadcast with the mutex held whenever a device becomes ready. Any member
// that names an unknown handle adds it as {not connected, not ready};
// entries are never removed. Nothing throws.

#include <pthread.h>

#include <map>

namespace kestrow {

class MtpDevice {
public:
    static MtpDevice& instance();
    ~MtpDevice();
    MtpDevice(const MtpDevice&) = delete;
    MtpDevice& operator=(const MtpDevice&) = delete;

    // Connected, and not ready: a new connection waits for a new announcement.
    void setDeviceConnected(unsigned int handle);
    // Ready, then wakes every waiter. May come before setDeviceConnected,
    // which then clears it.
    void setDeviceReady(unsigned int handle);
    bool isDeviceConnected(unsigned int handle);
    bool isDeviceReady(unsigned int handle);
    // False at once for a device not connected. Otherwise returns as soon as
    // the device is ready (at once if it already is), as soon as it is
    // disconnected, or after 25 seconds on the monotonic clock; returns
    // whether it is ready.
    bool waitDeviceReady(unsigned int handle);
    // Not ready, not connected: the device's running operations stop at their
    // next check, and a wait for it ends. Called by the surrounding system on
    // an unplug.
    void disconnectDevice(unsigned int handle);

private:
    struct Device {
        bool connected = false;
        bool ready = false;
    };

    MtpDevice();

    pthread_mutex_t mutex;
    pthread_condattr_t condAttr;
    pthread_cond_t cond;
    std::map<unsigned int, Device> devices;  // guarded by mutex
};

}  // namespace kestrow
