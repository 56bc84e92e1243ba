#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

namespace olvane::test {

// Waits until `condition()` holds, processing Qt events meanwhile, for at
// most `timeoutMs`. Returns whether it held. Tests wait on conditions this
// way, never on fixed sleeps.
template <class Condition>
bool waitFor(Condition condition, int timeoutMs = 20000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::usleep(500);
    }
    return true;
}

}  // namespace olvane::test
