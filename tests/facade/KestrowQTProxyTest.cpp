#include "facade/KestrowQTProxy.h"

#include <gtest/gtest.h>

#include <QMetaMethod>
#include <QMetaObject>
#include <vector>

#include "orchestration/Kestrow.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestPipeline.h"
#include "tests/support/Wait.h"

using olvane::test::waitFor;

namespace {

TEST(KestrowQTProxyTest, MetaObjectListsTheTenMethodsInOrder) {
    const QMetaObject* mo = KestrowQTProxy::instance().metaObject();
    EXPECT_STREQ(mo->className(), "KestrowQTProxy");
    ASSERT_EQ(mo->methodCount() - mo->methodOffset(), 10);
    struct Expected {
        const char* signature;
        QMetaMethod::MethodType type;
        const char* returnType;
        QList<QByteArray> names;
    };
    const std::vector<Expected> expected = {
        {"crawlingFinished(QString)", QMetaMethod::Signal, "void", {"mountPoint"}},
        {"indexingFinished(QString)", QMetaMethod::Signal, "void", {"mountPoint"}},
        {"contentModified(QString)", QMetaMethod::Signal, "void", {"mountPoint"}},
        {"databaseExists(QString,QString)",
         QMetaMethod::Signal,
         "void",
         {"deviceId", "mountPoint"}},
        {"startIndexing(QString,QString,bool)",
         QMetaMethod::Slot,
         "void",
         {"device_id", "mount_point", "isFirstPartition"}},
        {"startMtpIndexing(QString,t_device_handle,bool)",
         QMetaMethod::Slot,
         "void",
         {"device_id", "handle", "isFirstPartition"}},
        {"setDeviceReady(t_device_handle)", QMetaMethod::Slot, "void", {"handle"}},
        {"indexingProgress(QString)", QMetaMethod::Slot, "int", {"mount_point"}},
        {"prioritizeMsdDevice(QString,QString)",
         QMetaMethod::Slot,
         "void",
         {"device_id", "mount_point"}},
        {"prioritizeMtpDevice(QString,t_device_handle)",
         QMetaMethod::Slot,
         "void",
         {"device_id", "handle"}},
    };
    for (int i = 0; i < 10; ++i) {
        QMetaMethod m = mo->method(mo->methodOffset() + i);
        SCOPED_TRACE(expected[size_t(i)].signature);
        EXPECT_EQ(m.methodSignature(), QByteArray(expected[size_t(i)].signature));
        EXPECT_EQ(m.methodType(), expected[size_t(i)].type);
        EXPECT_EQ(QByteArray(m.typeName()), QByteArray(expected[size_t(i)].returnType));
        EXPECT_EQ(m.parameterNames(), expected[size_t(i)].names);
    }
    EXPECT_EQ(KestrowQTProxy::instance().indexingProgress("/media/unknown"), 0);
}

class ProxySlotsTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.path());
        scheduler.setPipelineFactory([this](kestrow::OperationType type, kestrow::Kestrow* owner) {
            auto* p = new olvane::test::TestPipeline(owner, type, &gate);
            created.push_back(p);
            return p;
        });
        scheduler.launch();
        scheduler.start();
        KestrowQTProxy::instance().setScheduler(&scheduler);
    }
    void TearDown() override {
        scheduler.stop();
        scheduler.join();
        KestrowQTProxy::instance().setScheduler(nullptr);
    }

    olvane::test::TempDir tmp;
    olvane::test::Gate gate;
    kestrow::Kestrow scheduler;
    std::vector<olvane::test::TestPipeline*> created;
};

TEST_F(ProxySlotsTest, QueuedCallsByNameReachTheScheduler) {
    olvane::LogCapture cap;
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    ASSERT_TRUE(QMetaObject::invokeMethod(&proxy, "startIndexing", Qt::QueuedConnection,
                                          Q_ARG(QString, "usb1"), Q_ARG(QString, "/media/usb"),
                                          Q_ARG(bool, true)));
    ASSERT_TRUE(QMetaObject::invokeMethod(&proxy, "startMtpIndexing", Qt::QueuedConnection,
                                          Q_ARG(QString, "1234"), Q_ARG(t_device_handle, 7),
                                          Q_ARG(bool, true)));
    ASSERT_TRUE(waitFor([&] { return created.size() == 2; }));
    EXPECT_EQ(cap.count("enqueueNewOperation usb1 type 0 handle 0 mp /media/usb"), 1);
    EXPECT_EQ(cap.count("enqueueNewOperation 1234 type 1 handle 7 mp mtp-folder://1234"), 1);
    const kestrow::KestrowOperation& mtp = created[1]->getCurrentOperation();
    EXPECT_EQ(mtp.handle, 7u);
    EXPECT_EQ(mtp.deviceId, "1234");
    EXPECT_EQ(mtp.mountPoint, "mtp-folder://1234");

    // Another handle matches nothing: every pipeline is paused.
    proxy.prioritizeMtpDevice("1234", 8);
    EXPECT_EQ(created[0]->runState(), 2);
    EXPECT_EQ(created[1]->runState(), 2);
    proxy.prioritizeMtpDevice("1234", 7);
    EXPECT_EQ(created[0]->runState(), 2);
    EXPECT_EQ(created[1]->runState(), 0);
    proxy.prioritizeMsdDevice("usb1", "/media/usb");
    EXPECT_EQ(created[0]->runState(), 0);
    EXPECT_EQ(created[1]->runState(), 2);
    EXPECT_EQ(proxy.indexingProgress("/media/usb"), 0);
}

}  // namespace
