// A minimal head-unit host: indexes one folder through libolvane-core's Qt
// facade and prints each signal as it arrives.
//   olvane-host FOLDER [DEVICE_ID]
// The databases go to $OLVANE_DB_DIR, else ~/.local/share/olvane.

#include <QCoreApplication>
#include <QDir>
#include <QTimer>
#include <cstdio>

#include "facade/KestrowQTProxy.h"
#include "orchestration/Kestrow.h"

static void say(const char* signal, const QString& args) {
    std::printf("%s %s\n", signal, args.toUtf8().constData());
    std::fflush(stdout);
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2 || !QDir(args[1]).exists()) {
        std::fprintf(stderr, "usage: olvane-host FOLDER [DEVICE_ID]\n");
        return 2;
    }
    const QString folder = QDir(args[1]).absolutePath();
    const QString deviceId = args.size() > 2 ? args[2] : QStringLiteral("olvane-host");

    // One scheduler per process, on its own thread; the facade does not own it.
    kestrow::Kestrow scheduler;
    scheduler.launch();
    scheduler.start();
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    proxy.setScheduler(&scheduler);

    // The library emits from its own threads; with `app` as the context the
    // lambdas run queued, on this thread.
    QObject::connect(&proxy, &KestrowQTProxy::databaseExists, &app,
                     [](QString id, QString mp) { say("databaseExists", id + ' ' + mp); });
    QObject::connect(&proxy, &KestrowQTProxy::crawlingFinished, &app,
                     [](QString mp) { say("crawlingFinished", mp); });
    QObject::connect(&proxy, &KestrowQTProxy::contentModified, &app,
                     [](QString mp) { say("contentModified", mp); });
    QObject::connect(&proxy, &KestrowQTProxy::indexingFinished, &app,
                     [](QString mp) { say("indexingFinished", mp); });

    // The request is retired once the database is flushed after
    // indexingFinished; a request retired without it failed (see the log).
    bool finished = false;
    QObject::connect(&proxy, &KestrowQTProxy::indexingFinished, &app,
                     [&](QString mp) { finished = finished || mp == folder; });
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &app, [&] {
        if (scheduler.registeredCount() != 0)
            return;
        QCoreApplication::sendPostedEvents();
        app.exit(finished ? 0 : 1);
    });
    proxy.startIndexing(deviceId, folder, true);
    poll.start(20);
    const int status = app.exec();

    scheduler.stop();
    scheduler.join();
    proxy.setScheduler(nullptr);
    return status;
}
