#include "orchestration/Kestrow.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "orchestration/MSDPipeline.h"
#include "orchestration/MtpPipeline.h"
#include "orchestration/SongDirectoryPipeline.h"
#include "platform/common/DatabaseMgr.h"

namespace kestrow {

namespace {

unsigned addr(const void* p) {
    return unsigned(reinterpret_cast<uintptr_t>(p));
}

}  // namespace

Kestrow::Kestrow() : Server<Block<void>, Block<void>>("Kestrow"), operationCounter(0) {
    pthread_mutex_init(&mutex, nullptr);
}

Kestrow::~Kestrow() {
    pthread_mutex_lock(&mutex);
    ZQLOG_INFO("Kestrow::~Kestrow");
    for (auto& entry : operations) {
        delete entry.second;
        DatabaseMgr::instance().releaseDevice(entry.first.deviceId);
    }
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    operations.clear();
}

void Kestrow::setPipelineFactory(PipelineFactory f) {
    pthread_mutex_lock(&mutex);
    factory = f;
    pthread_mutex_unlock(&mutex);
}

bool Kestrow::anyRunning() const {
    for (const auto& entry : operations)
        if (entry.second && entry.second->getState() == Runnable::kRunning)
            return true;
    return false;
}

size_t Kestrow::registeredCount() {
    pthread_mutex_lock(&mutex);
    size_t n = operations.size();
    pthread_mutex_unlock(&mutex);
    return n;
}

SongDirectoryPipeline* Kestrow::createPipeline(OperationType type) {
    if (factory)
        return factory(type, this);
    if (type == MSD_OPERATION)
        return new MSDPipeline(this);
    return new MtpPipeline(this);
}

void Kestrow::enqueueNewOperation(OperationType type, const std::string& deviceId, size_t handle,
                                  const std::string& mountPoint, bool isFirstPartition) {
    pthread_mutex_lock(&mutex);
    ZQLOG_INFO("enqueueNewOperation %s type %d handle %u mp %s", deviceId.c_str(), int(type),
               unsigned(handle), mountPoint.c_str());

    std::vector<KestrowOperation> toErase;
    bool replacedRunning = false;
    for (auto& entry : operations) {
        if (entry.first.deviceId == deviceId && entry.first.mountPoint == mountPoint) {
            ZQLOG_INFO("Stopping %s type %d handle %u mp %s pipe %x", deviceId.c_str(), int(type),
                       unsigned(handle), mountPoint.c_str(), addr(entry.second));
            if (entry.second) {
                replacedRunning = replacedRunning || entry.second->getState() == Runnable::kRunning;
                entry.second->stop();
                entry.second->join();
                delete entry.second;
            }
            entry.second = nullptr;
            DatabaseMgr::instance().releaseDevice(deviceId);
            toErase.push_back(entry.first);
        } else {
            ZQLOG_INFO("RNC NOTHING TO DO %s", entry.first.deviceId.c_str());
        }
    }
    for (const KestrowOperation& key : toErase) {
        ZQLOG_INFO("Erasing %x", addr(&key));
        operations.erase(key);
    }

    ++operationCounter;
    SongDirectoryPipeline* pipeline = createPipeline(type);
    if (!pipeline) {
        ZQLOG_ERROR("no pipeline for type %d: request of %s dropped", int(type), deviceId.c_str());
        pthread_mutex_unlock(&mutex);
        return;
    }
    pipeline->launch();
    if (operations.empty()) {
        ZQLOG_INFO("START IT");
        pipeline->start();
    }
    ZQLOG_INFO("Kestrow New Operation pipe: %x op id: %d", addr(pipeline), operationCounter);

    KestrowOperation operation(unsigned(handle), deviceId, mountPoint, operationCounter);
    operations[operation] = pipeline;
    // Housekeeping spares the database of every registered request.
    DatabaseMgr::instance().holdDevice(deviceId);
    if (replacedRunning && !anyRunning()) {
        // The replaced request was the one running: go on with the first in
        // the map, as after a completion, rather than wait for a prioritisation.
        SongDirectoryPipeline* first = operations.begin()->second;
        ZQLOG_INFO("replaced the running request: go on %x", addr(first));
        if (first)
            first->start();
    }
    try {
        pipeline->enqueueNewOperation(operation, isFirstPartition);
    } catch (const std::exception& e) {
        ZQLOG_WARN("Error  %s", e.what());
        // Only a file that is not a database goes: one that could not be
        // written (a full or read-only disk) keeps what it holds.
        DatabaseMgr::instance().deleteInvalidDb(deviceId);
        boost::shared_ptr<Block<void>> retire(new Block<void>());
        retire->operation = Operation(operation.id, unsigned(handle), deviceId, mountPoint, true);
        enqueue(retire);
    }
    pthread_mutex_unlock(&mutex);
}

boost::shared_ptr<Block<void>> Kestrow::doOperation(boost::shared_ptr<Block<void>> block) {
    pthread_mutex_lock(&mutex);
    const Operation& op = block->operation;
    if (state == Runnable::kStopping) {
        ZQLOG_WARN("Kestrow is stopped  we not waiting for this pipeline %d", op.id);
        pthread_mutex_unlock(&mutex);
        return boost::shared_ptr<Block<void>>();
    }
    ZQLOG_INFO("Kestrow finished operation %s hanlde %u mp %s opid: %d", op.deviceId.c_str(),
               op.handle, op.mountPoint.c_str(), op.id);
    KestrowOperation key(op.handle, op.deviceId, op.mountPoint, op.id);
    SongDirectoryPipeline*& pipeline = operations[key];
    if (pipeline) {
        ZQLOG_INFO("Kestrow END FOR for %x id: %d", addr(pipeline), op.id);
        pipeline->stop();
        pipeline->join();
        ZQLOG_INFO("Kestrow delete pipeline: %x op id: %d", addr(pipeline), op.id);
        delete pipeline;
        DatabaseMgr::instance().releaseDevice(op.deviceId);
    }
    operations.erase(key);
    if (!operations.empty()) {
        SongDirectoryPipeline* first = operations.begin()->second;
        ZQLOG_INFO("queue is not empty: go on %x", addr(first));
        if (first)
            first->start();
    }
    pthread_mutex_unlock(&mutex);
    return boost::shared_ptr<Block<void>>();
}

void Kestrow::prioritizeOperation(OperationType type, const std::string& deviceId, size_t handle,
                                  const std::string& mountPoint) {
    pthread_mutex_lock(&mutex);
    ZQLOG_INFO("Kestrow::prioritizeOperation %s %s %d", deviceId.c_str(), mountPoint.c_str(),
               int(type));
    KestrowOperation key(unsigned(handle), deviceId, mountPoint, -1);
    auto matches = [&key](const KestrowOperation& k) {
        return k.handle == key.handle && k.deviceId == key.deviceId &&
               k.mountPoint == key.mountPoint && (key.id == -1 || k.id == key.id);
    };
    // A device with no request holds nothing, rather than pausing every
    // pipeline with none to run: the scheduler would stay idle for good.
    if (std::none_of(operations.begin(), operations.end(),
                     [&](const auto& entry) { return entry.second && matches(entry.first); })) {
        ZQLOG_INFO("Kestrow::prioritizeOperation no request of %s %s: nothing held",
                   deviceId.c_str(), mountPoint.c_str());
        pthread_mutex_unlock(&mutex);
        return;
    }
    for (auto& entry : operations) {
        const KestrowOperation& k = entry.first;
        const bool match = matches(k);
        if (!entry.second)
            continue;
        if (match) {
            ZQLOG_INFO("Kestrow::prioritizeOperation Starting %s %s %d", k.deviceId.c_str(),
                       k.mountPoint.c_str(), int(type));
            entry.second->start();
        } else {
            entry.second->pause();
        }
    }
    pthread_mutex_unlock(&mutex);
}

void Kestrow::stop() {
    ZQLOG_INFO("Kestrow::stop");
    pthread_mutex_lock(&mutex);
    for (auto& entry : operations) {
        ZQLOG_INFO("Kestrow stopping pipeline: %x ", addr(entry.second));
        if (entry.second)
            entry.second->stop();
    }
    Server<Block<void>, Block<void>>::stop();
    pthread_mutex_unlock(&mutex);
}

void Kestrow::join() {
    ZQLOG_INFO("Kestrow::join");
    Server<Block<void>, Block<void>>::join();
    pthread_mutex_lock(&mutex);
    for (auto& entry : operations)
        if (entry.second)
            entry.second->join();
    pthread_mutex_unlock(&mutex);
}

}  // namespace kestrow
