// The scheduler and the facade in front of it, driving pipelines whose pace
// the test sets: a pipeline's one stage takes the root block and sends
// nothing on, and the test ends the operation with finish(), which sends the
// pipeline the completion blocks its three savers would send.
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
using olvane::LogCapture;

namespace {

// Where a pipeline's root block arrived; outlives the pipeline.
struct Arrival {
    kestrow::Operation operation;  // written before `arrived`
    std::atomic<bool> arrived{false};
};

class RootSink : public kestrow::Server<Block<kestrow::Directory*>, Block<void>> {
public:
    explicit RootSink(Arrival* arrival_) : Server("RootSink"), arrival(arrival_) {}
    boost::shared_ptr<Block<void>> doOperation(
        boost::shared_ptr<Block<kestrow::Directory*>> in) override {
        arrival->operation = in->operation;
        arrival->arrived = true;
        return boost::shared_ptr<Block<void>>();
    }
    Arrival* arrival;
};

class TestPipeline : public kestrow::SongDirectoryPipeline {
public:
    TestPipeline(kestrow::Kestrow* owner, kestrow::OperationType type, std::atomic<int>* destroyed_,
                 Arrival* arrival, bool throwOnEnqueue_)
        : SongDirectoryPipeline("TestPipeline", owner, type),
          sink(new RootSink(arrival)),
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
            created.push_back(
                new TestPipeline(owner, type, &destroyed[i], &arrivals[i], throwNext));
            throwNext = false;
            types.push_back(type);
            return created.back();
        });
        k->launch();
        k->start();
        KestrowQTProxy::instance().setScheduler(k);
    }
    void TearDown() override {
        if (!stopped)
            k->stop();
        k->join();
        KestrowQTProxy::instance().setScheduler(nullptr);
        delete k;
    }
    bool running(size_t i) { return !destroyed[i] && arrivals[i].arrived; }
    // Ends pipeline `i`'s operation once it runs, as its three savers do.
    void finish(size_t i) {
        ASSERT_TRUE(waitFor([&] { return running(i); })) << i;
        for (int n = 0; n < kestrow::SongDirectoryPipeline::kTerminalStages; ++n)
            created[i]->enqueue(makeToken(arrivals[i].operation));
    }

    TempDir tmp;
    kestrow::Kestrow* k = new kestrow::Kestrow();
    std::vector<TestPipeline*> created;
    std::vector<kestrow::OperationType> types;
    std::array<std::atomic<int>, 16> destroyed{};
    std::array<Arrival, 16> arrivals{};
    bool throwNext = false;
    bool stopped = false;
};

TEST(KestrowQTProxyTest, MetaObjectListsTheTenMethodsInOrder) {
    const QMetaObject* mo = KestrowQTProxy::instance().metaObject();
    EXPECT_STREQ(mo->className(), "KestrowQTProxy");
    const char* kinds[] = {"method", "signal", "slot", "constructor"};
    QStringList methods;
    for (int i = mo->methodOffset(); i < mo->methodCount(); ++i) {
        const QMetaMethod m = mo->method(i);
        methods << QString("%1 %2 %3 %4")
                       .arg(kinds[m.methodType()], m.typeName(), m.methodSignature(),
                            m.parameterNames().join(','));
    }
    EXPECT_EQ(QStringList({
                  "signal void crawlingFinished(QString) mountPoint",
                  "signal void indexingFinished(QString) mountPoint",
                  "signal void contentModified(QString) mountPoint",
                  "signal void databaseExists(QString,QString) deviceId,mountPoint",
                  "slot void startIndexing(QString,QString,bool) device_id,mount_point,"
                  "isFirstPartition",
                  "slot void startMtpIndexing(QString,t_device_handle,bool) device_id,handle,"
                  "isFirstPartition",
                  "slot void setDeviceReady(t_device_handle) handle",
                  "slot int indexingProgress(QString) mount_point",
                  "slot void prioritizeMsdDevice(QString,QString) device_id,mount_point",
                  "slot void prioritizeMtpDevice(QString,t_device_handle) device_id,handle",
              }),
              methods);
    EXPECT_EQ(KestrowQTProxy::instance().indexingProgress("/media/unknown"), 0);
}

// Requests run one at a time. Waiting ones are paused and run in map order
// (device id, then handle), MTP behind mass storage, each as the last ends.
TEST_F(KestrowTest, RequestsRunOneAtATimeInMapOrderWithMtpBehindMassStorage) {
    LogCapture cap;
    SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "devC", 0, "/media/c", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    k->enqueueNewOperation(MTP_OPERATION, "devA", 5, "mtp-folder://devA", true);
    k->enqueueNewOperation(MSD_OPERATION, "devZ", 0, "/media/z", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    EXPECT_EQ(types[1], MTP_OPERATION);
    EXPECT_EQ(cap.count("START IT"), 1);
    EXPECT_EQ(created[3]->getState(), kestrow::Runnable::kPaused);
    // devB (handle 0) comes first in the map, though it arrived last.
    const size_t order[] = {0, 3, 2, 1};
    for (size_t n = 0; n < 4; ++n) {
        ASSERT_TRUE(waitFor([&] { return running(order[n]); })) << order[n];
        for (size_t later = n + 1; later < 4; ++later)
            EXPECT_FALSE(arrivals[order[later]].arrived) << order[later];
        finish(order[n]);
    }
    EXPECT_TRUE(waitFor([&] {
        return k->registeredCount() == 0 &&
               sigs.entries.filter("indexingFinished ") ==
                   QStringList({"indexingFinished /media/c", "indexingFinished /media/b",
                                "indexingFinished /media/z", "indexingFinished mtp-folder://devA"});
    }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("devC", "/media/c"), "OK");
}

TEST_F(KestrowTest, ANewRequestReplacesTheOldOneAndTheNextRunsOn) {
    LogCapture cap;
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    EXPECT_EQ(created[0]->getCurrentOperation().id, 1);

    // Same device and mount point, another handle: still a replacement.
    k->enqueueNewOperation(MSD_OPERATION, "devA", 7, "/media/a", true);
    EXPECT_EQ(destroyed[0], 1);  // stopped, joined and deleted synchronously
    EXPECT_EQ(cap.count("START IT"), 2);
    EXPECT_EQ(created[1]->getCurrentOperation().id, 2);
    ASSERT_TRUE(waitFor([&] { return running(1); }));

    // Replacing the running request while another waits: the scheduler goes
    // on with the first in the map; the replaced one finishes nothing.
    SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    EXPECT_EQ(destroyed[1], 1);
    EXPECT_EQ(created[3]->getCurrentOperation().id, 4);
    finish(3);
    finish(2);
    EXPECT_TRUE(waitFor([&] {
        return k->registeredCount() == 0 &&
               sigs.entries.filter("indexingFinished ") ==
                   QStringList({"indexingFinished /media/a", "indexingFinished /media/b"});
    }));
}

// Calls by name, queued as a host makes them, reach the scheduler through the
// facade. Prioritising pauses every other pipeline and runs the match; the
// handle is part of the match, and a device with no request holds nothing.
// When the prioritised request ends, the first in the map resumes.
TEST_F(KestrowTest, PrioritizingPausesEveryOtherPipelineAndStartsTheMatch) {
    LogCapture cap;
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    ASSERT_TRUE(QMetaObject::invokeMethod(&proxy, "startIndexing", Qt::QueuedConnection,
                                          Q_ARG(QString, "usb1"), Q_ARG(QString, "/media/usb"),
                                          Q_ARG(bool, true)));
    ASSERT_TRUE(QMetaObject::invokeMethod(&proxy, "startMtpIndexing", Qt::QueuedConnection,
                                          Q_ARG(QString, "1234"), Q_ARG(t_device_handle, 7),
                                          Q_ARG(bool, true)));
    ASSERT_TRUE(waitFor([&] { return created.size() == 2 && running(0); }));
    std::string ops;
    for (TestPipeline* p : created) {
        const kestrow::KestrowOperation& op = p->getCurrentOperation();
        ops += std::to_string(op.handle) + " " + op.deviceId + " " + op.mountPoint + "|";
    }
    EXPECT_EQ(ops, "0 usb1 /media/usb|7 1234 mtp-folder://1234|");
    EXPECT_EQ(types, std::vector({MSD_OPERATION, MTP_OPERATION}));
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
    finish(0);
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1; }));
}

// A set-up that fails (say, on a full or read-only disk) deletes the
// device's database only when the file is not a database.
TEST_F(KestrowTest, AFailedSetUpDeletesOnlyAnInvalidDatabaseAndRetiresThePipeline) {
    LogCapture cap;
    DatabaseMgr::instance().createDb("devA", "/media/a", true);
    TempDir other;
    other.write("devB.db", std::string(8192, 'x'));
    for (const char* dev : {"devA", "devB"}) {
        if (dev[3] == 'B')
            DatabaseMgr::instance().setDatabaseDirectory(other.path());
        const std::string db = DatabaseMgr::instance().getDbNameFromDevId(dev);
        throwNext = true;
        k->enqueueNewOperation(MSD_OPERATION, dev, 0, "/media/a", true);
        EXPECT_EQ(access(db.c_str(), F_OK) == 0, dev[3] == 'A') << dev;
    }
    EXPECT_EQ(cap.count("Error  cannot set up the operation"), 2);
    EXPECT_TRUE(waitFor([&] { return destroyed[1] == 1 && k->registeredCount() == 0; }));
}

TEST_F(KestrowTest, HousekeepingSparesTheDatabasesOfRegisteredRequests) {
    // Three databases over the size limit: devA's is indexed, devB's waits, devC's is idle.
    DatabaseMgr& mgr = DatabaseMgr::instance();
    auto exists = [&](const char* devId) {
        return access(mgr.getDbNameFromDevId(devId).c_str(), F_OK) == 0;
    };
    mgr.createDb("devC", "/media/c", true);
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    for (const char* devId : {"devB", "devC"}) {
        const std::string db = mgr.getDbNameFromDevId(devId);
        ASSERT_EQ(0, truncate(db.c_str(), DatabaseMgr::kSizeLimit / 2 + 1));  // sparse
        setMtime(db, devId[3] == 'B' ? 100 : 200);  // devB's is the oldest
    }
    finish(0);
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1; }));
    EXPECT_TRUE(exists("devB"));
    EXPECT_FALSE(exists("devC"));

    // Retired, devB is no longer spared.
    finish(1);
    ASSERT_TRUE(waitFor([&] { return destroyed[1] == 1 && k->registeredCount() == 0; }));
    mgr.checkAndDelete("devA", 0);
    EXPECT_FALSE(exists("devB"));
}

TEST_F(KestrowTest, BlocksArrivingAfterStopAreIgnored) {
    LogCapture cap;
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    k->stop();
    stopped = true;  // TearDown must not stop it again

    auto late = makeToken(kestrow::Operation(1, 0, "devA", "/media/a", true));
    k->enqueue(late);
    EXPECT_EQ(cap.count("1: enqueue skipped block for op 1"), 1);
    k->doOperation(late);
    EXPECT_EQ(cap.count("Kestrow is stopped  we not waiting for this pipeline 1"), 1);
    EXPECT_EQ(destroyed[0], 0);  // left for the destructor
}

TEST_F(KestrowTest, APipelineFinishesOnThreeCompletionBlocksOfItsOwnOperation) {
    LogCapture cap;
    SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "dev", 0, "/media/usb", true);
    auto send = [&](int id, bool isLast = true, bool gone = false) {
        auto b = makeToken(kestrow::Operation(id, 0, "dev", "/media/usb", isLast));
        b->operation.deviceGone = gone;
        created[0]->enqueue(b);
    };
    send(1);
    send(1);
    send(0);         // another operation
    send(1, false);  // not a completing block
    // Counting the other operation's block or the non-completing one would
    // end the operation: it would have a status.
    ASSERT_TRUE(waitFor(
        [&] { return cap.count("Received a non LAST block! WE SHOULD NEVER BE HERE") == 1; }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("dev", "/media/usb"), "");
    EXPECT_EQ(destroyed[0], 0);

    send(1, true, true);  // the device went away in one branch
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1; }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("dev", "/media/usb"), "PROGRESS");
    EXPECT_TRUE(waitFor([&] { return sigs.entries.count("indexingFinished /media/usb") == 1; }));
}

}  // namespace
