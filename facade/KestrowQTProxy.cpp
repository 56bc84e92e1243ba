#include "facade/KestrowQTProxy.h"

#include <QMetaType>

#include "mtp/MtpDevice.h"
#include "orchestration/Kestrow.h"
#include "platform/log/ZQLog.h"

namespace {

const char kMtpPrefix[] = "mtp-folder://";

}  // namespace

KestrowQTProxy& KestrowQTProxy::instance() {
    static KestrowQTProxy proxy;
    return proxy;
}

KestrowQTProxy::KestrowQTProxy() : QObject(nullptr), scheduler(nullptr) {
    // Lets queued calls and connections name the handle type.
    qRegisterMetaType<t_device_handle>("t_device_handle");
}

void KestrowQTProxy::setScheduler(kestrow::Kestrow* s) {
    scheduler = s;
}

void KestrowQTProxy::startIndexing(QString device_id, QString mount_point, bool isFirstPartition) {
    scheduler->enqueueNewOperation(kestrow::MSD_OPERATION, device_id.toUtf8().toStdString(), 0,
                                   mount_point.toUtf8().toStdString(), isFirstPartition);
}

void KestrowQTProxy::startMtpIndexing(QString device_id, t_device_handle handle,
                                      bool isFirstPartition) {
    const std::string deviceId = device_id.toUtf8().toStdString();
    scheduler->enqueueNewOperation(kestrow::MTP_OPERATION, deviceId, handle, kMtpPrefix + deviceId,
                                   isFirstPartition);
}

void KestrowQTProxy::setDeviceReady(t_device_handle handle) {
    ZQLOG_INFO("KestrowQTProxy::setDeviceReady %u", unsigned(handle));
    kestrow::MtpDevice::instance().setDeviceReady(handle);
}

int KestrowQTProxy::indexingProgress(QString /*mount_point*/) const {
    return 0;
}

void KestrowQTProxy::prioritizeMsdDevice(QString device_id, QString mount_point) const {
    const std::string deviceId = device_id.toUtf8().toStdString();
    ZQLOG_INFO("%s", deviceId.c_str());
    scheduler->prioritizeOperation(kestrow::MSD_OPERATION, deviceId, 0,
                                   mount_point.toUtf8().toStdString());
}

void KestrowQTProxy::prioritizeMtpDevice(QString device_id, t_device_handle handle) const {
    const std::string deviceId = device_id.toUtf8().toStdString();
    ZQLOG_INFO("%s", deviceId.c_str());
    scheduler->prioritizeOperation(kestrow::MTP_OPERATION, deviceId, handle, kMtpPrefix + deviceId);
}
