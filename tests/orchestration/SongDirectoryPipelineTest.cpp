#include "orchestration/SongDirectoryPipeline.h"

#include <gtest/gtest.h>

#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestPipeline.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using olvane::test::waitFor;

namespace {

class SongDirectoryPipelineTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(tmp.path()); }

    boost::shared_ptr<Block<void>> last(int id, bool isLast = true) {
        boost::shared_ptr<Block<void>> b(new Block<void>());
        b->operation = Operation(id, 0, "dev", "/media/usb", isLast);
        return b;
    }

    olvane::test::TempDir tmp;
    olvane::test::Gate gate;  // never opened: the test sends the completion blocks itself
    Kestrow owner;            // not launched: finished operations just queue up in it
};

TEST_F(SongDirectoryPipelineTest, FinishesOnlyOnThreeCompletionBlocksOfItsOwnOperation) {
    olvane::LogCapture cap;
    olvane::test::SignalLog sigs;
    olvane::test::TestPipeline p(&owner, MSD_OPERATION, &gate);
    p.launch();
    p.start();
    KestrowOperation op(0, "dev", "/media/usb", 5);
    p.enqueueNewOperation(op, true);

    p.enqueue(last(5));
    p.enqueue(last(5));
    p.enqueue(last(4));         // an older operation
    p.enqueue(last(5, false));  // not a completing block
    ASSERT_TRUE(waitFor(
        [&] { return cap.count("Received a non LAST block! WE SHOULD NEVER BE HERE") == 1; }));
    EXPECT_EQ(cap.count("OPERATION MISMATCH!!"), 1);
    EXPECT_EQ(cap.count("Result for id 5: 2"), 1);
    EXPECT_EQ(owner.queued(), 0);
    EXPECT_EQ(DatabaseMgr::instance().getStatus("dev", "/media/usb"), "");

    boost::shared_ptr<Block<void>> third = last(5);
    third->operation.deviceGone = true;
    p.enqueue(third);
    ASSERT_TRUE(waitFor([&] { return owner.queued() == 1; }));
    EXPECT_EQ(DatabaseMgr::instance().getStatus("dev", "/media/usb"), "PROGRESS");
    ASSERT_TRUE(waitFor([&] { return sigs.count("indexingFinished /media/usb") == 1; }));
    p.stop();
    p.join();
}

}  // namespace
