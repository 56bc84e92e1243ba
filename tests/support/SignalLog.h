#pragma once
// Records the facade's signals in arrival order through queued connections,
// so that signals emitted on stage threads are read on the test's thread.

#include <QObject>
#include <QStringList>

#include "facade/KestrowQTProxy.h"

namespace olvane::test {

class SignalLog : public QObject {
public:
    SignalLog() {
        record(&KestrowQTProxy::crawlingFinished, "crawlingFinished");
        record(&KestrowQTProxy::indexingFinished, "indexingFinished");
        record(&KestrowQTProxy::contentModified, "contentModified");
        record(&KestrowQTProxy::databaseExists, "databaseExists");
    }

    QStringList entries;  // "<signal> <args...>", read and written on the test's thread

private:
    template <class... Args>
    void record(void (KestrowQTProxy::*signal)(Args...), const QString& name) {
        connect(
            &KestrowQTProxy::instance(), signal, this,
            [this, name](Args... args) { entries << (QStringList{name} << ... << args).join(' '); },
            Qt::QueuedConnection);
    }
};

}  // namespace olvane::test
