#include "tools/IndexerRun.h"

#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <atomic>
#include <cstdio>

#include "facade/KestrowQTProxy.h"
#include "mtp/MtpDevice.h"
#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "tools/DatabaseSummary.h"

namespace olvane {
namespace tool {

namespace {

std::atomic<bool> gInterrupted{false};

void onSigint(int) {
    gInterrupted = true;
    // A second Ctrl-C ends the program at once.
    signal(SIGINT, SIG_DFL);
}

}  // namespace

void IndexerRun::installInterruptHandler() {
    struct sigaction sa = {};
    sa.sa_handler = onSigint;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

IndexerRun::IndexerRun(const IndexerOptions& options, const std::vector<std::string>& mountPoints,
                       const std::string& deviceId)
    : options_(options), mountPoints_(mountPoints), deviceId_(deviceId) {
    options_.progress = options_.progress && isatty(STDERR_FILENO);
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    connect(
        &proxy, &KestrowQTProxy::crawlingFinished, this,
        [this](QString m) {
            print("crawlingFinished", {m});
            readyTimer_.stop();
        },
        Qt::QueuedConnection);
    connect(
        &proxy, &KestrowQTProxy::contentModified, this,
        [this](QString m) { print("contentModified", {m}); }, Qt::QueuedConnection);
    connect(
        &proxy, &KestrowQTProxy::databaseExists, this,
        [this](QString id, QString m) {
            print("databaseExists", {id, m});
        },
        Qt::QueuedConnection);
    connect(
        &proxy, &KestrowQTProxy::indexingFinished, this,
        [this](QString m) {
            print("indexingFinished", {m});
            if (current_ >= 0 && QFile::encodeName(m).toStdString() == mountPoints_[current_])
                currentFinished_ = true;
        },
        Qt::QueuedConnection);
    pollTimer_.setInterval(50);
    connect(&pollTimer_, &QTimer::timeout, this, [this] { poll(); });
    readyTimer_.setSingleShot(true);
    connect(&readyTimer_, &QTimer::timeout, this, [this] { announceReady(); });
}

IndexerRun::~IndexerRun() {
    if (scheduler_) {
        scheduler_->stop();
        scheduler_->join();
        KestrowQTProxy::instance().setScheduler(nullptr);
        delete scheduler_;
    }
}

void IndexerRun::begin() {
    clock_.start();
    if (!options_.mtpSim.empty()) {
        portolan::SimulatedDevice::Faults faults;
        std::string error;
        MtpSimulation::parseFaults(options_.simFaults, faults, error);  // checked by the parser
        phone_.reset(new MtpSimulation(options_.handle, deviceId_, options_.mtpSim, faults));
        if (!phone_->attached()) {
            std::fprintf(stderr, "olvane-indexer: %s: the simulated phone cannot be attached\n",
                         options_.mtpSim.c_str());
            QTimer::singleShot(0, this, [this] { finish(1); });  // once the event loop runs
            return;
        }
    }
    scheduler_ = new kestrow::Kestrow();
    scheduler_->launch();
    scheduler_->start();
    KestrowQTProxy::instance().setScheduler(scheduler_);
    requestNext();
    pollTimer_.start();
}

void IndexerRun::requestNext() {
    ++current_;
    currentFinished_ = false;
    failure_.clear();
    if (phone_) {
        KestrowQTProxy::instance().startMtpIndexing(QString::fromStdString(deviceId_),
                                                    options_.handle, true);
        readyTimer_.start(options_.readyAfterMs);
        return;
    }
    if (current_ == 0) {
        // A new attach of the device forgets, at the end of each indexing, the
        // partitions not seen in it. The mount points are asked for one at a
        // time, so the attach is begun here with all of them seen before any
        // indexing can end; each request then only adds its own partition.
        for (size_t i = 0; i < mountPoints_.size(); ++i) {
            try {
                DatabaseMgr::instance().createDb(deviceId_, mountPoints_[i], i == 0);
            } catch (const std::exception&) {
                // Its own request reports the failure.
            }
        }
    }
    KestrowQTProxy::instance().startIndexing(QString::fromStdString(deviceId_),
                                             QFile::decodeName(mountPoints_[current_].c_str()),
                                             false);
}

// Announces again until the crawl has finished: an announcement made before
// the crawler connects the phone is cleared by the connection.
void IndexerRun::announceReady() {
    KestrowQTProxy::instance().setDeviceReady(options_.handle);
    readyTimer_.start(250);
}

void IndexerRun::print(const QString& signal, const QStringList& args) {
    clearProgress();
    QByteArray line;
    if (options_.json) {
        const QJsonObject o{{"signal", signal},
                            {"args", QJsonArray::fromStringList(args)},
                            {"ms", clock_.elapsed()}};
        line = QJsonDocument(o).toJson(QJsonDocument::Compact);
    } else {
        line = (QStringList{signal} + args).join(' ').toUtf8();
    }
    std::fprintf(stdout, "%s\n", line.constData());
    std::fflush(stdout);
}

void IndexerRun::poll() {
    if (gInterrupted) {
        clearProgress();
        std::fprintf(stderr, "olvane-indexer: interrupted, stopping\n");
        finish(130);
        return;
    }
    // The scheduler retires a request after its pipeline has emitted
    // indexingFinished; a request retired without it failed or was refused.
    if (scheduler_->registeredCount() == 0) {
        // Signals queued before the request was retired are handled first.
        QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
        if (!currentFinished_) {
            clearProgress();
            std::string reason = failure_.text();
            if (reason.empty())
                reason = "the indexer refused the request";
            std::fprintf(stderr, "olvane-indexer: %s: %s\n", mountPoints_[current_].c_str(),
                         reason.c_str());
            finish(1);
            return;
        }
        if (size_t(current_) + 1 == mountPoints_.size()) {
            clearProgress();
            finish(0);
            return;
        }
        requestNext();
    }
    if (options_.progress && clock_.elapsed() - lastProgressMs_ >= 250)
        drawProgress();
}

void IndexerRun::finish(int status) {
    pollTimer_.stop();
    readyTimer_.stop();
    if (phone_ && scheduler_) {
        // Unplugged, every call about the phone fails at once, and a crawler
        // waiting for the announcement is woken: the stop does not wait for them.
        phone_->unplug();
        kestrow::MtpDevice::instance().setDeviceReady(options_.handle);
    }
    if (scheduler_) {
        scheduler_->stop();
        scheduler_->join();
        KestrowQTProxy::instance().setScheduler(nullptr);
        delete scheduler_;
        scheduler_ = nullptr;
    }
    exitStatus_ = status;
    QCoreApplication::exit(status);
}

void IndexerRun::drawProgress() {
    lastProgressMs_ = clock_.elapsed();
    const std::string& current = mountPoints_[current_];
    long long songs = DatabaseSummary::songsUnder(deviceId_, current);
    std::fprintf(stderr, "\r\x1b[K%s: %lld songs, %.1f s", current.c_str(), songs < 0 ? 0 : songs,
                 double(clock_.elapsed()) / 1000.0);
    std::fflush(stderr);
    progressShown_ = true;
}

void IndexerRun::clearProgress() {
    if (!progressShown_)
        return;
    std::fprintf(stderr, "\r\x1b[K");
    std::fflush(stderr);
    progressShown_ = false;
}

}  // namespace tool
}  // namespace olvane
