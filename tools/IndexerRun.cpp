#include "tools/IndexerRun.h"

#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <atomic>
#include <cstdio>

#include "facade/KestrowQTProxy.h"
#include "orchestration/Kestrow.h"
#include "tools/DatabaseSummary.h"
#include "tools/JsonLine.h"

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
    auto mp = [](const QString& s) { return s.toStdString(); };
    connect(
        &proxy, &KestrowQTProxy::crawlingFinished, this,
        [this, mp](QString m) { print("crawlingFinished", {mp(m)}); }, Qt::QueuedConnection);
    connect(
        &proxy, &KestrowQTProxy::contentModified, this,
        [this, mp](QString m) { print("contentModified", {mp(m)}); }, Qt::QueuedConnection);
    connect(
        &proxy, &KestrowQTProxy::databaseExists, this,
        [this, mp](QString id, QString m) {
            print("databaseExists", {mp(id), mp(m)});
        },
        Qt::QueuedConnection);
    connect(
        &proxy, &KestrowQTProxy::indexingFinished, this,
        [this, mp](QString m) {
            print("indexingFinished", {mp(m)});
            onIndexingFinished(mp(m));
        },
        Qt::QueuedConnection);
    pollTimer_.setInterval(50);
    connect(&pollTimer_, &QTimer::timeout, this, [this] { poll(); });
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
    scheduler_ = new kestrow::Kestrow();
    scheduler_->launch();
    scheduler_->start();
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    proxy.setScheduler(scheduler_);
    for (size_t i = 0; i < mountPoints_.size(); ++i) {
        proxy.startIndexing(QString::fromStdString(deviceId_),
                            QString::fromStdString(mountPoints_[i]), i == 0);
    }
    pollTimer_.start();
}

void IndexerRun::print(const std::string& signal, const std::vector<std::string>& args) {
    clearProgress();
    std::string line;
    if (options_.json) {
        line = jsonSignalLine(signal, args, clock_.elapsed());
    } else {
        line = signal;
        for (const std::string& a : args)
            line += " " + a;
    }
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

void IndexerRun::onIndexingFinished(const std::string& mountPoint) {
    finished_.insert(mountPoint);
    bool all = true;
    for (const std::string& m : mountPoints_)
        all = all && finished_.count(m) > 0;
    allFinished_ = all;
}

void IndexerRun::poll() {
    if (gInterrupted) {
        clearProgress();
        std::fprintf(stderr, "olvane-indexer: interrupted, stopping\n");
        finish(130);
        return;
    }
    // After the last indexingFinished, let the scheduler retire the pipeline
    // through its normal path before stopping it.
    if (allFinished_ && scheduler_->registeredCount() == 0) {
        clearProgress();
        finish(0);
        return;
    }
    // Nothing registered and not all done: a request was refused (its reason
    // is in the log). Checked on two polls in a row, so that an indexingFinished
    // already on its way is printed first.
    if (!allFinished_ && scheduler_->registeredCount() == 0) {
        if (++idlePolls_ >= 2) {
            clearProgress();
            std::fprintf(stderr, "olvane-indexer: the indexer refused the request\n");
            finish(1);
            return;
        }
    } else {
        idlePolls_ = 0;
    }
    if (options_.progress && clock_.elapsed() - lastProgressMs_ >= 250)
        drawProgress();
}

void IndexerRun::finish(int status) {
    pollTimer_.stop();
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
    std::string current;
    for (const std::string& m : mountPoints_)
        if (!finished_.count(m)) {
            current = m;
            break;
        }
    if (current.empty())
        return;
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
