#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <set>
#include <string>
#include <vector>

#include "tools/IndexerOptions.h"

namespace kestrow {
class Kestrow;
}

namespace olvane {
namespace tool {

// One indexing run of olvane-indexer on the Qt main thread: owns the
// scheduler, asks for each mount point, prints the facade's signals (which
// arrive through queued connections) and quits the event loop when every
// mount point has finished or on Ctrl-C.
class IndexerRun : public QObject {
public:
    IndexerRun(const IndexerOptions& options, const std::vector<std::string>& mountPoints,
               const std::string& deviceId);
    ~IndexerRun() override;

    // Starts the scheduler and queues the requests; returns at once.
    void begin();
    // The exit status once the event loop has returned.
    int exitStatus() const { return exitStatus_; }

    // Installs the SIGINT handler that makes a run stop cleanly.
    static void installInterruptHandler();

private:
    void print(const std::string& signal, const std::vector<std::string>& args);
    void onIndexingFinished(const std::string& mountPoint);
    void poll();
    void finish(int status);
    void drawProgress();
    void clearProgress();

    IndexerOptions options_;
    std::vector<std::string> mountPoints_;
    std::string deviceId_;
    kestrow::Kestrow* scheduler_ = nullptr;
    std::set<std::string> finished_;
    bool allFinished_ = false;
    bool progressShown_ = false;
    int exitStatus_ = 1;
    int idlePolls_ = 0;
    QElapsedTimer clock_;
    QTimer pollTimer_;
    qint64 lastProgressMs_ = -1000;
};

}  // namespace tool
}  // namespace olvane
