#pragma once
// Records the facade's signals in arrival order through queued connections,
// so that signals emitted on stage threads are read on the test's thread.

#include <QObject>
#include <QString>
#include <QStringList>

#include "facade/KestrowQTProxy.h"

namespace olvane {
namespace test {

class SignalLog : public QObject {
public:
    SignalLog() {
        KestrowQTProxy& p = KestrowQTProxy::instance();
        connect(
            &p, &KestrowQTProxy::crawlingFinished, this,
            [this](QString mp) { entries << "crawlingFinished " + mp; }, Qt::QueuedConnection);
        connect(
            &p, &KestrowQTProxy::indexingFinished, this,
            [this](QString mp) { entries << "indexingFinished " + mp; }, Qt::QueuedConnection);
        connect(
            &p, &KestrowQTProxy::contentModified, this,
            [this](QString mp) { entries << "contentModified " + mp; }, Qt::QueuedConnection);
        connect(
            &p, &KestrowQTProxy::databaseExists, this,
            [this](QString id, QString mp) { entries << "databaseExists " + id + " " + mp; },
            Qt::QueuedConnection);
    }

    QStringList entries;  // "<signal> <args...>", read and written on the test's thread
};

}  // namespace test
}  // namespace olvane
