#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <memory>
#include <string>
#include <vector>

#include "tools/FailureReason.h"
#include "tools/IndexerOptions.h"
#include "tools/MtpSimulation.h"

namespace kestrow {
class Kestrow;
}

namespace olvane {
namespace tool {

// One indexing run of olvane-indexer on the Qt main thread: owns the
// scheduler, asks for one mount point at a time in the order given (the next
// once the previous has finished), prints the facade's signals (which arrive
// through queued connections) and quits the event loop when every mount point
// has finished, when a request fails (after printing the reason the library
// logged) or on Ctrl-C. With options.mtpSim, the one "mount point" is the
// simulated phone's ("mtp-folder://" and the device id): the run plugs the
// phone in, requests it as an MTP device and announces it ready.
class IndexerRun : public QObject {
public:
    // `mountPoints` are absolute and valid UTF-8.
    IndexerRun(const IndexerOptions& options, const std::vector<std::string>& mountPoints,
               const std::string& deviceId);
    ~IndexerRun() override;

    // Starts the scheduler and asks for the first mount point; returns at once.
    void begin();
    // The exit status once the event loop has returned.
    int exitStatus() const { return exitStatus_; }

    // Installs the SIGINT handler that makes a run stop cleanly.
    static void installInterruptHandler();

private:
    void print(const QString& signal, const QStringList& args);
    void requestNext();
    void announceReady();
    void poll();
    void finish(int status);
    void drawProgress();
    void clearProgress();

    IndexerOptions options_;
    std::vector<std::string> mountPoints_;
    std::string deviceId_;
    kestrow::Kestrow* scheduler_ = nullptr;
    FailureReason failure_;  // of the request asked for last
    int current_ = -1;       // the mount point asked for
    bool currentFinished_ = false;
    bool progressShown_ = false;
    int exitStatus_ = 1;
    QElapsedTimer clock_;
    QTimer pollTimer_;
    std::unique_ptr<MtpSimulation> phone_;  // with options.mtpSim
    QTimer readyTimer_;                     // announces the phone until its crawl has finished
    qint64 lastProgressMs_ = -1000;
};

}  // namespace tool
}  // namespace olvane
