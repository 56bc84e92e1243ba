#pragma once
// The library's Qt interface to the media application. One process-wide
// object (instance()); any thread may emit its signals, and receivers in
// other threads get them through queued connections. Device ids and mount
// points cross between QString and the library's std::string as UTF-8.

#include <QObject>
#include <QString>

namespace kestrow {
class Kestrow;
}

typedef quint32 t_device_handle;

class KestrowQTProxy : public QObject {
    Q_OBJECT
public:
    static KestrowQTProxy& instance();

    // Set by the host before the first slot call; not owned. Slot calls
    // before that are not guarded.
    void setScheduler(kestrow::Kestrow* scheduler);
    kestrow::Kestrow* getScheduler() const { return scheduler; }

signals:
    void crawlingFinished(QString mountPoint);
    void indexingFinished(QString mountPoint);
    void contentModified(QString mountPoint);
    void databaseExists(QString deviceId, QString mountPoint);

public slots:
    void startIndexing(QString device_id, QString mount_point, bool isFirstPartition);
    void startMtpIndexing(QString device_id, t_device_handle handle, bool isFirstPartition);
    void setDeviceReady(t_device_handle handle);
    int indexingProgress(QString mount_point) const;
    void prioritizeMsdDevice(QString device_id, QString mount_point) const;
    void prioritizeMtpDevice(QString device_id, t_device_handle handle) const;

private:
    KestrowQTProxy();

    kestrow::Kestrow* scheduler;
};
