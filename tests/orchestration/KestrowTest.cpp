// The scheduler and the facade in front of it, driving pipelines whose pace
// the test sets (tests/support/TestPipeline.h).
#include "orchestration/Kestrow.h"

#include <unistd.h>

#include <QMetaMethod>
#include <QMetaObject>

#include "facade/KestrowQTProxy.h"
#include "tests/support/SignalLog.h"
#include "tests/support/TestPipeline.h"
#include "tests/support/Testing.h"

using kestrow::MSD_OPERATION;
using kestrow::MTP_OPERATION;
using olvane::LogCapture;
using olvane::test::waitFor;

namespace {

using KestrowTest = olvane::test::SchedulerTest;

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
    olvane::test::SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "devC", 0, "/media/c", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    k->enqueueNewOperation(MTP_OPERATION, "devA", 5, "mtp-folder://devA", true);
    k->enqueueNewOperation(MSD_OPERATION, "devZ", 0, "/media/z", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    EXPECT_EQ(types[1], MTP_OPERATION);
    EXPECT_EQ(cap.count("START IT"), 1);
    EXPECT_EQ(created[3]->runState(), 2);
    const std::string goOn = "queue is not empty: go on " +
                             QString::number(uintptr_t(created[3]) & 0xffffffffu, 16).toStdString();

    gate.open("devC");
    // devB (handle 0) comes first in the map, though it arrived last.
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1 && running(3); }));
    EXPECT_EQ(cap.count(goOn), 1);
    EXPECT_FALSE(started[1]);
    EXPECT_FALSE(started[2]);
    gate.open("devB");
    ASSERT_TRUE(waitFor([&] { return running(2); }));
    EXPECT_FALSE(started[1]);  // MTP still waits behind devZ
    gate.open("devZ");
    ASSERT_TRUE(waitFor([&] { return running(1); }));
    gate.open("devA");
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
    olvane::test::SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    EXPECT_EQ(destroyed[1], 1);
    EXPECT_EQ(created[3]->getCurrentOperation().id, 4);
    gate.open("devA");
    gate.open("devB");
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
    EXPECT_EQ(cap.count("enqueueNewOperation usb1 type 0 handle 0 mp /media/usb"), 1);
    EXPECT_EQ(cap.count("enqueueNewOperation 1234 type 1 handle 7 mp mtp-folder://1234"), 1);
    const kestrow::KestrowOperation& mtp = created[1]->getCurrentOperation();
    EXPECT_EQ(std::to_string(mtp.handle) + " " + mtp.deviceId + " " + mtp.mountPoint,
              "7 1234 mtp-folder://1234");
    auto states = [&] {
        return std::to_string(created[0]->runState()) + std::to_string(created[1]->runState());
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

    gate.open("1234");
    ASSERT_TRUE(waitFor([&] { return destroyed[1] == 1 && created[0]->runState() == 0; }));
    gate.open("usb1");
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1; }));
}

// A set-up that fails (say, on a full or read-only disk) deletes the
// device's database only when the file is not a database.
TEST_F(KestrowTest, AFailedSetUpDeletesOnlyAnInvalidDatabaseAndRetiresThePipeline) {
    LogCapture cap;
    DatabaseMgr::instance().createDb("devA", "/media/a", true);
    olvane::test::TempDir other;
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
        olvane::test::setMtime(db, devId[3] == 'B' ? 100 : 200);  // devB's is the oldest
    }
    gate.open("devA");
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1; }));
    EXPECT_TRUE(exists("devB"));
    EXPECT_FALSE(exists("devC"));

    // Retired, devB is no longer spared.
    gate.open("devB");
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

    auto late = olvane::test::makeToken(kestrow::Operation(1, 0, "devA", "/media/a", true));
    k->enqueue(late);
    EXPECT_EQ(cap.count("1: enqueue skipped block for op 1"), 1);
    k->doOperation(late);
    EXPECT_EQ(cap.count("Kestrow is stopped  we not waiting for this pipeline 1"), 1);
    EXPECT_EQ(destroyed[0], 0);  // left for the destructor
}

TEST_F(KestrowTest, APipelineFinishesOnThreeCompletionBlocksOfItsOwnOperation) {
    LogCapture cap;
    olvane::test::SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "dev", 0, "/media/usb", true);  // gate stays shut
    auto send = [&](int id, bool isLast = true, bool gone = false) {
        auto b = olvane::test::makeToken(kestrow::Operation(id, 0, "dev", "/media/usb", isLast));
        b->operation.deviceGone = gone;
        created[0]->enqueue(b);
    };
    send(1);
    send(1);
    send(0);         // another operation
    send(1, false);  // not a completing block
    ASSERT_TRUE(waitFor(
        [&] { return cap.count("Received a non LAST block! WE SHOULD NEVER BE HERE") == 1; }));
    EXPECT_EQ(cap.count("OPERATION MISMATCH!!"), 1);
    EXPECT_EQ(cap.count("Result for id 1: 2"), 1);
    EXPECT_EQ(DatabaseMgr::instance().getStatus("dev", "/media/usb"), "");
    EXPECT_EQ(destroyed[0], 0);

    send(1, true, true);  // the device went away in one branch
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1; }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("dev", "/media/usb"), "PROGRESS");
    EXPECT_TRUE(waitFor([&] { return sigs.entries.count("indexingFinished /media/usb") == 1; }));
}

}  // namespace
