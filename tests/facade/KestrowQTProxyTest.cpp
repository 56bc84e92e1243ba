#include "facade/KestrowQTProxy.h"

#include <gtest/gtest.h>

#include <QMetaMethod>
#include <QMetaObject>

#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/Sql.h"
#include "tests/support/TestPipeline.h"
#include "tests/support/Wait.h"

using olvane::test::waitFor;

namespace {

TEST(KestrowQTProxyTest, MetaObjectListsTheTenMethodsInOrder) {
    const QMetaObject* mo = KestrowQTProxy::instance().metaObject();
    EXPECT_STREQ(mo->className(), "KestrowQTProxy");
    // Signature, then the registered parameter names; the first four are signals.
    const char* expected[] = {
        "crawlingFinished(QString) mountPoint",
        "indexingFinished(QString) mountPoint",
        "contentModified(QString) mountPoint",
        "databaseExists(QString,QString) deviceId,mountPoint",
        "startIndexing(QString,QString,bool) device_id,mount_point,isFirstPartition",
        "startMtpIndexing(QString,t_device_handle,bool) device_id,handle,isFirstPartition",
        "setDeviceReady(t_device_handle) handle",
        "indexingProgress(QString) mount_point",
        "prioritizeMsdDevice(QString,QString) device_id,mount_point",
        "prioritizeMtpDevice(QString,t_device_handle) device_id,handle",
    };
    ASSERT_EQ(mo->methodCount() - mo->methodOffset(), 10);
    for (int i = 0; i < 10; ++i) {
        QMetaMethod m = mo->method(mo->methodOffset() + i);
        EXPECT_EQ(m.methodSignature() + " " + m.parameterNames().join(','), expected[i]);
        EXPECT_EQ(m.methodType(), i < 4 ? QMetaMethod::Signal : QMetaMethod::Slot) << i;
        EXPECT_STREQ(m.typeName(), i == 7 ? "int" : "void") << i;
    }
    EXPECT_EQ(KestrowQTProxy::instance().indexingProgress("/media/unknown"), 0);
}

using ProxySlotsTest = olvane::test::SchedulerTest;

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
    EXPECT_EQ(std::to_string(mtp.handle) + " " + mtp.deviceId + " " + mtp.mountPoint,
              "7 1234 mtp-folder://1234");

    // Another handle matches nothing: nothing is held.
    proxy.prioritizeMtpDevice("1234", 8);
    EXPECT_EQ(created[0]->runState(), 0);
    EXPECT_EQ(created[1]->runState(), 2);
    proxy.prioritizeMtpDevice("1234", 7);
    EXPECT_EQ(created[0]->runState(), 2);
    EXPECT_EQ(created[1]->runState(), 0);
    proxy.prioritizeMsdDevice("usb1", "/media/usb");
    EXPECT_EQ(created[0]->runState(), 0);
    EXPECT_EQ(created[1]->runState(), 2);
}

// Volume labels in any script reach the crawler as they are, and come back
// unchanged in every signal; so does the device id.
TEST_F(ProxySlotsTest, NonAsciiNamesCrossBothWays) {
    k->setPipelineFactory(nullptr);  // the real device pipelines
    olvane::test::TempDir tree;
    for (int round = 0; round < 2; ++round) {
        for (const std::string name : {"Música", "Музыка", "音楽 USB"}) {
            SCOPED_TRACE(name + " round " + std::to_string(round));
            const std::string root = tree.file(name);
            if (round == 0)
                tree.copySample("gears-iron-road.mp3", name + "/a.mp3");
            const QString id = QString::fromUtf8(name.c_str()),
                          mp = QString::fromUtf8(root.c_str());
            olvane::test::SignalLog sigs;
            KestrowQTProxy::instance().startIndexing(id, mp, true);
            ASSERT_TRUE(waitFor([&] {
                return k->registeredCount() == 0 &&
                       !sigs.entries.filter("indexingFinished ").isEmpty();
            }));
            QStringList expected = {
                "crawlingFinished " + mp, "indexingFinished " + mp,
                round == 0 ? "contentModified " + mp : "databaseExists " + id + " " + mp};
            // Branches report on their own threads, and may each report a change.
            sigs.entries.removeDuplicates();
            sigs.entries.sort();
            expected.sort();
            EXPECT_EQ(sigs.entries.join(", ").toStdString(), expected.join(", ").toStdString());
            EXPECT_EQ(olvane::test::dbColumn(name, "SELECT PATH FROM SONGS;"),
                      std::vector<std::string>{root + "/a.mp3"});
        }
    }
}

}  // namespace
