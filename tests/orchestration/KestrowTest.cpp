#include "orchestration/Kestrow.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/TestPipeline.h"
#include "tests/support/Wait.h"

using kestrow::MSD_OPERATION;
using kestrow::MTP_OPERATION;
using olvane::LogCapture;
using olvane::test::waitFor;

namespace {

using KestrowTest = olvane::test::SchedulerTest;

TEST_F(KestrowTest, RequestsRunOneAtATimeAndTheNextStartsWhenOneEnds) {
    LogCapture cap;
    olvane::test::SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    ASSERT_EQ(created.size(), 2u);
    EXPECT_EQ(cap.count("START IT"), 1);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    EXPECT_EQ(created[1]->runState(), 2);
    EXPECT_FALSE(created[1]->gated()->started);

    const std::string goOn = "queue is not empty: go on " +
                             QString::number(uintptr_t(created[1]) & 0xffffffffu, 16).toStdString();
    gate.open("devA");
    ASSERT_TRUE(waitFor([&] { return destroyed[0] == 1 && running(1); }));
    EXPECT_EQ(cap.count(goOn), 1);

    gate.open("devB");
    EXPECT_TRUE(waitFor([&] { return destroyed[1] == 1 && k->registeredCount() == 0; }));
    EXPECT_TRUE(waitFor([&] {
        return sigs.entries.filter("indexingFinished ") ==
               QStringList({"indexingFinished /media/a", "indexingFinished /media/b"});
    }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("devA", "/media/a"), "OK");
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

TEST_F(KestrowTest, WaitingRequestsRunInMapOrderWithMtpBehindMassStorage) {
    k->enqueueNewOperation(MSD_OPERATION, "devC", 0, "/media/c", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));
    k->enqueueNewOperation(MTP_OPERATION, "devA", 5, "mtp-folder://devA", true);
    k->enqueueNewOperation(MSD_OPERATION, "devZ", 0, "/media/z", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    EXPECT_EQ(types[1], MTP_OPERATION);

    gate.open("devC");
    // devB (handle 0) comes first in the map, though it arrived last.
    ASSERT_TRUE(waitFor([&] { return running(3); }));
    EXPECT_FALSE(created[1]->gated()->started);
    EXPECT_FALSE(created[2]->gated()->started);

    gate.open("devB");
    ASSERT_TRUE(waitFor([&] { return running(2); }));
    EXPECT_FALSE(created[1]->gated()->started);  // MTP still waits behind devZ
    gate.open("devZ");
    ASSERT_TRUE(waitFor([&] { return running(1); }));
    gate.open("devA");
    EXPECT_TRUE(waitFor([&] { return destroyed[1] == 1 && k->registeredCount() == 0; }));
}

TEST_F(KestrowTest, PrioritizingPausesEveryOtherPipelineAndStartsTheMatch) {
    k->enqueueNewOperation(MSD_OPERATION, "devA", 0, "/media/a", true);
    k->enqueueNewOperation(MSD_OPERATION, "devB", 0, "/media/b", true);
    ASSERT_TRUE(waitFor([&] { return running(0); }));

    k->prioritizeOperation(MSD_OPERATION, "devB", 0, "/media/b");
    EXPECT_EQ(created[0]->runState(), 2);
    EXPECT_EQ(created[1]->runState(), 0);
    ASSERT_TRUE(waitFor([&] { return running(1); }));

    // The handle is part of the match. A device with no request (say, one
    // that has just finished) holds nothing: devB runs on.
    k->prioritizeOperation(MSD_OPERATION, "devB", 3, "/media/b");
    EXPECT_EQ(created[0]->runState(), 2);
    EXPECT_EQ(created[1]->runState(), 0);

    // When the prioritised request ends, the first in the map resumes.
    k->prioritizeOperation(MSD_OPERATION, "devB", 0, "/media/b");
    gate.open("devB");
    ASSERT_TRUE(waitFor([&] { return destroyed[1] == 1 && created[0]->runState() == 0; }));
    gate.open("devA");
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

    boost::shared_ptr<kestrow::Block<void>> late(new kestrow::Block<void>());
    late->operation = kestrow::Operation(1, 0, "devA", "/media/a", true);
    k->enqueue(late);
    EXPECT_EQ(cap.count("1: enqueue skipped block for op 1"), 1);
    k->doOperation(late);
    EXPECT_EQ(cap.count("Kestrow is stopped  we not waiting for this pipeline 1"), 1);
    EXPECT_EQ(destroyed[0], 0);  // left for the destructor
}

}  // namespace

TEST_F(KestrowTest, APipelineFinishesOnThreeCompletionBlocksOfItsOwnOperation) {
    LogCapture cap;
    olvane::test::SignalLog sigs;
    k->enqueueNewOperation(MSD_OPERATION, "dev", 0, "/media/usb", true);  // gate stays shut
    auto send = [&](int id, bool isLast = true, bool gone = false) {
        boost::shared_ptr<kestrow::Block<void>> b(new kestrow::Block<void>());
        b->operation = kestrow::Operation(id, 0, "dev", "/media/usb", isLast);
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
