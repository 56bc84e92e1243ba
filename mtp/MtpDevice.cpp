#include "mtp/MtpDevice.h"

#include <cerrno>
#include <ctime>

#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

const time_t kReadyTimeoutSeconds = 25;

}  // namespace

MtpDevice& MtpDevice::instance() {
    static MtpDevice registry;
    return registry;
}

MtpDevice::MtpDevice() {
    pthread_mutex_init(&mutex, nullptr);
    pthread_condattr_init(&condAttr);
    if (int error = pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC))
        ZQLOG_WARN("Error setting clock %d", error);
    pthread_cond_init(&cond, &condAttr);
}

MtpDevice::~MtpDevice() {
    pthread_cond_destroy(&cond);
    pthread_condattr_destroy(&condAttr);
    pthread_mutex_destroy(&mutex);
}

void MtpDevice::setDeviceConnected(unsigned int handle) {
    ZQLOG_INFO("setDeviceConnected %u", handle);
    pthread_mutex_lock(&mutex);
    Device& d = devices[handle];
    d.connected = true;
    d.ready = false;
    pthread_mutex_unlock(&mutex);
    ZQLOG_INFO("setDeviceConnected DONE");
}

void MtpDevice::setDeviceReady(unsigned int handle) {
    ZQLOG_INFO("setDeviceReady %u", handle);
    pthread_mutex_lock(&mutex);
    devices[handle].ready = true;
    pthread_cond_broadcast(&cond);
    pthread_mutex_unlock(&mutex);
    ZQLOG_INFO("setDeviceReady DONE");
}

bool MtpDevice::isDeviceConnected(unsigned int handle) {
    pthread_mutex_lock(&mutex);
    const bool connected = devices[handle].connected;
    pthread_mutex_unlock(&mutex);
    return connected;
}

bool MtpDevice::isDeviceReady(unsigned int handle) {
    pthread_mutex_lock(&mutex);
    const bool ready = devices[handle].ready;
    pthread_mutex_unlock(&mutex);
    return ready;
}

bool MtpDevice::waitDeviceReady(unsigned int handle) {
    if (!isDeviceConnected(handle))
        return false;
    ZQLOG_INFO("%s", "");
    pthread_mutex_lock(&mutex);
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += kReadyTimeoutSeconds;
    // Loops on the flag: an earlier announcement returns at once, another
    // device's is ignored, and an unplug ends the wait.
    while (!devices[handle].ready && devices[handle].connected) {
        if (pthread_cond_timedwait(&cond, &mutex, &deadline) == ETIMEDOUT)
            break;
    }
    const bool ready = devices[handle].ready;
    pthread_mutex_unlock(&mutex);
    ZQLOG_INFO("finished");
    return ready;
}

void MtpDevice::disconnectDevice(unsigned int handle) {
    ZQLOG_INFO("disconnectDevice");
    pthread_mutex_lock(&mutex);
    Device& d = devices[handle];
    d.ready = false;
    d.connected = false;
    pthread_cond_broadcast(&cond);
    pthread_mutex_unlock(&mutex);
}

}  // namespace kestrow
