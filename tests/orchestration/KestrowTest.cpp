// The scheduler and the facade in front of it, driving pipelines whose pace
// the test sets: a pipeline's one stage takes the root block and sends
// nothing on, and the test ends the operation with finish(), which sends the
// pipeline the completion blocks its three savers would send, among others.
#include "orchestration/Kestrow.h"

#include <QMetaMethod>

#include "facade/KestrowQTProxy.h"
#include "framework/Server.h"
#include "msd/Directory.h"
#include "orchestration/SongDirectoryPipeline.h"
#include "tests/support/SignalLog.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using kestrow::Block;
using kestrow::MSD_OPERATION;
using kestrow::MTP_OPERATION;

namespace {

class RootSink : public kestrow::Server<Block<kestrow::Directory*>, Block<void>> {
public:
    explicit RootSink(std::atomic<bool>* arrived_) : Server("RootSink"), arrived(arrived_) {}
    boost::shared_ptr<Block<void>> doOperation(
        boost::shared_ptr<Block<kestrow::Directory*>>) override {
        *arrived = true;
        return nullptr;
    }
    std::atomic<bool>* arrived;  // outlives the pipeline
};

class TestPipeline : public kestrow::SongDirectoryPipeline {
public:
    TestPipeline(kestrow::Kestrow* owner, kestrow::OperationType type, std::atomic<int>* destroyed_,
                 std::atomic<bool>* arrived, bool throwOnEnqueue_)
        : SongDirectoryPipeline("TestPipeline", owner, type),
          sink(new RootSink(arrived)),
          destroyed(destroyed_),
          throwOnEnqueue(throwOnEnqueue_) {
        children.push_back(sink);
    }
    ~TestPipeline() override { ++*destroyed; }
    void enqueueNewOperation(kestrow::KestrowOperation& operation, bool isFirstPartition) override {
        if (throwOnEnqueue)
            throw std::runtime_error("cannot set up the operation");
        SongDirectoryPipeline::enqueueNewOperation(operation, isFirstPartition);
    }
    kestrow::BaseServer<Block<kestrow::Directory*>>* crawler() override { return sink; }

    RootSink* sink;
    std::atomic<int>* destroyed;  // outlives the pipeline, which the scheduler's thread deletes
    const bool throwOnEnqueue;
};

// A launched and started scheduler, handed to the facade, that builds
// TestPipelines. Pipelines die with the scheduler: look at `destroyed`.
class KestrowTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.path());
        k->setPipelineFactory([this](kestrow::OperationType type, kestrow::Kestrow* owner) {
            const size_t i = created.size();
            created.push_back(new TestPipeline(owner, type, &destroyed[i], &arrived[i], throwNext));
            throwNext = false;
            return created.back();
        });
        k->launch();
        k->start();
        KestrowQTProxy::instance().setScheduler(k);
    }
    void TearDown() override {
        k->stop();  // a second stop(), when the test stopped it, does no harm
        k->join();
        KestrowQTProxy::instance().setScheduler(nullptr);
        delete k;
    }
    bool running(size_t i) { return !destroyed[i] && arrived[i]; }
    // Ends pipeline `i`'s operation once it runs, as its three savers do: the
    // second block (of another operation) and the third (not completing) count
    // for nothing, and the last finds the device gone when `gone`.
    void finish(size_t i, bool gone = false) {
        ASSERT_TRUE(waitFor([&] { return running(i); })) << i;
        const kestrow::KestrowOperation& op = created[i]->getCurrentOperation();
        for (int n = 0; n < 5; ++n) {
            auto b = makeToken(kestrow::Operation(op.id - (n == 1), op.handle, op.deviceId,
                                                  op.mountPoint, n != 2));
            b->operation.deviceGone = gone && n == 4;
            created[i]->enqueue(b);
        }
    }

    TempDir tmp;
    kestrow::Kestrow* k = new kestrow::Kestrow();
    std::vector<TestPipeline*> created;
    std::array<std::atomic<int>, 16> destroyed{};
    std::array<std::atomic<bool>, 16> arrived{};
    bool throwNext = false;
};

// Requests run one at a time. Waiting ones are paused and run in map order
// (handle, then device id): MTP behind mass storage, each as the last ends. A
// new request for a device and mount point replaces the old one (whatever its
// handle), stopped and deleted at once; when the replaced one was running,
// the first in the map goes on, and the replaced one finishes nothing. A
// device gone in one branch ends its operation as incomplete.
TEST_F(KestrowTest, RequestsRunOneAtATimeInMapOrderAndANewOneReplacesTheOld) {
    SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "devC", 0, "/media/c", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    k->enqueueNewOperation(MSD_OPERATION, "devC", 7, "/media/c", true);
    EXPECT_EQ(destroyed[0], 1);
    ASSERT_TRUE(waitFor([&] { return running(1); }));
    k->enqueueNewOperation(MTP_OPERATION, "devA", 5, "mtp-folder://devA", true);
    k->enqueueNewOperation(MSD_OPERATION, "devZ", 0, "/media/z", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    k->enqueueNewOperation(MSD_OPERATION, "devC", 0, "/media/c", true);
    EXPECT_EQ(destroyed[1], 1);
    EXPECT_EQ(created[5]->getCurrentOperation().id, 6);
    // devB comes first in the map, though devZ arrived before it.
    const size_t order[] = {4, 5, 3, 2};
    for (size_t n = 0; n < 4; ++n) {
        ASSERT_TRUE(waitFor([&] { return running(order[n]); })) << order[n];
        for (size_t later = n + 1; later < 4; ++later)
            EXPECT_FALSE(arrived[order[later]]) << order[later];
        finish(order[n], n == 3);
    }
    EXPECT_TRUE(waitFor([&] {
        return k->registeredCount() == 0 &&
               sigs.entries.filter("indexingFinished ") ==
                   QStringList({"indexingFinished /media/b", "indexingFinished /media/c",
                                "indexingFinished /media/z", "indexingFinished mtp-folder://devA"});
    }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("devC", "/media/c"), "OK");
    EXPECT_EQ(DatabaseMgr::instance().getStatus("devA", "mtp-folder://devA"), "PROGRESS");
}

// The host connects to the facade and calls it by these signatures; calls by
// name, queued as a host makes them, reach the scheduler (the ids, handles,
// mount points and request types they carry are EndToEndTest's, where a wrong
// one indexes nothing). Prioritising pauses every other pipeline and runs the
// match; the handle must match too, and a device with no request holds
// nothing. When the prioritised request ends, the first in the map resumes.
TEST_F(KestrowTest, FacadeCallsReachTheSchedulerAndPrioritizingPausesTheOthers) {
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    const QMetaObject* mo = proxy.metaObject();
    QStringList methods;
    for (int i = mo->methodOffset(); i < mo->methodCount(); ++i)
        methods
            << QString("method signal slot constructor").split(' ')[mo->method(i).methodType()] +
                   " " + mo->method(i).methodSignature();
    EXPECT_EQ(QString("signal crawlingFinished(QString);signal indexingFinished(QString);signal "
                      "contentModified(QString);signal databaseExists(QString,QString);slot "
                      "startIndexing(QString,QString,bool);slot "
                      "startMtpIndexing(QString,t_device_handle,bool);slot "
                      "setDeviceReady(t_device_handle);slot indexingProgress(QString);slot "
                      "prioritizeMsdDevice(QString,QString);slot "
                      "prioritizeMtpDevice(QString,t_device_handle)")
                  .split(';'),
              methods);
    ASSERT_TRUE(QMetaObject::invokeMethod(&proxy, "startIndexing", Qt::QueuedConnection,
                                          Q_ARG(QString, "usb1"), Q_ARG(QString, "/media/usb"),
                                          Q_ARG(bool, true)));
    ASSERT_TRUE(QMetaObject::invokeMethod(&proxy, "startMtpIndexing", Qt::QueuedConnection,
                                          Q_ARG(QString, "1234"), Q_ARG(t_device_handle, 7),
                                          Q_ARG(bool, true)));
    ASSERT_TRUE(waitFor([&] { return created.size() == 2 && running(0); }));
    auto states = [&] {
        return std::to_string(created[0]->getState()) + std::to_string(created[1]->getState());
    };

    proxy.prioritizeMtpDevice("1234", 8);
    EXPECT_EQ(states(), "02");
    proxy.prioritizeMtpDevice("1234", 7);
    EXPECT_EQ(states(), "20");
    ASSERT_TRUE(waitFor([&] { return running(1); }));
    proxy.prioritizeMsdDevice("usb1", "/media/usb");
    EXPECT_EQ(states(), "02");
    proxy.prioritizeMtpDevice("1234", 7);
    proxy.prioritizeMsdDevice("usb1", "/media/other");
    EXPECT_EQ(states(), "20");

    finish(1);
    ASSERT_TRUE(waitFor([&] {
        return destroyed[1] == 1 && created[0]->getState() == kestrow::Runnable::kRunning;
    }));
    // Stopped, the scheduler leaves its pipelines to its destructor: a late
    // completion ends nothing.
    k->stop();
    k->doOperation(makeToken(kestrow::Operation(1, 0, "usb1", "/media/usb", true)));
    EXPECT_EQ(destroyed[0], 0);
}

// A set-up that fails (say, on a full or read-only disk) deletes the
// device's database only when the file is not a database, and retires the
// pipeline. Housekeeping spares the databases of registered requests.
TEST_F(KestrowTest, FailedSetUpsAndHousekeepingDeleteOnlyDatabasesNoneNeeds) {
    DatabaseMgr& mgr = DatabaseMgr::instance();
    auto exists = [&](const char* devId) {
        return access(mgr.getDbNameFromDevId(devId).c_str(), F_OK) == 0;
    };
    mgr.createDb("devX", "/media/x", true);
    tmp.write("devY.db", std::string(8192, 'x'));
    for (const char* dev : {"devX", "devY"}) {
        throwNext = true;
        k->enqueueNewOperation(MSD_OPERATION, dev, 0, "/media/x", true);
        EXPECT_EQ(exists(dev), dev[3] == 'X') << dev;
    }
    ASSERT_TRUE(waitFor([&] { return destroyed[1] == 1 && k->registeredCount() == 0; }));

    // Three databases over the size limit: devA's is indexed, devB's waits, devC's is idle.
    mgr.createDb("devC", "/media/c", true);
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    for (const char* devId : {"devB", "devC"}) {
        const std::string db = mgr.getDbNameFromDevId(devId);
        ASSERT_EQ(0, truncate(db.c_str(), DatabaseMgr::kSizeLimit / 2 + 1));  // sparse
        setMtime(db, devId[3] == 'B' ? 100 : 200);  // devB's is the oldest
    }
    finish(2);
    ASSERT_TRUE(waitFor([&] { return destroyed[2] == 1; }));
    EXPECT_TRUE(exists("devB") && !exists("devC"));

    // Retired, devB is no longer spared.
    finish(3);
    ASSERT_TRUE(waitFor([&] { return destroyed[3] == 1 && k->registeredCount() == 0; }));
    mgr.checkAndDelete("devA", 0);
    EXPECT_FALSE(exists("devB"));
}

}  // namespace
