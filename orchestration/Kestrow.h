#pragma once

#include <pthread.h>

#include <functional>
#include <map>
#include <string>

#include "framework/Block.h"
#include "framework/KestrowOperation.h"
#include "framework/OperationType.h"
#include "framework/Server.h"

namespace kestrow {

class SongDirectoryPipeline;

// The scheduler: registers indexing requests, runs one pipeline at a time in
// map order, retires a pipeline when its completion block arrives, and lets
// the host move a device to the front (a device with no request moves
// nothing). When a new request replaces the running one, the first request
// of the map runs next.
//
// `mutex` guards `operations` and `operationCounter`; it is taken before any
// pipeline or stage lock, and stage threads never wait for it.
class Kestrow : public Server<Block<void>, Block<void>> {
public:
    // Builds the pipeline for a request; the scheduler takes ownership.
    typedef std::function<SongDirectoryPipeline*(OperationType, Kestrow*)> PipelineFactory;

    Kestrow();
    ~Kestrow() override;

    void enqueueNewOperation(OperationType type, const std::string& deviceId, size_t handle,
                             const std::string& mountPoint, bool isFirstPartition);
    void prioritizeOperation(OperationType type, const std::string& deviceId, size_t handle,
                             const std::string& mountPoint);

    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<Block<void>> block) override;
    void stop() override;
    void join() override;

    // Replaces the default factory (device pipelines by request type). For
    // hosts that bring their own pipelines, and for tests.
    void setPipelineFactory(PipelineFactory factory);

    // Requests now registered, read under `mutex`.
    size_t registeredCount();

private:
    SongDirectoryPipeline* createPipeline(OperationType type);
    // Whether a registered pipeline is running; under `mutex`.
    bool anyRunning() const;

    pthread_mutex_t mutex;
    int operationCounter;
    std::map<KestrowOperation, SongDirectoryPipeline*> operations;
    PipelineFactory factory;
};

}  // namespace kestrow
