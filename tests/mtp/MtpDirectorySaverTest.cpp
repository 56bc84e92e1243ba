#include "mtp/MtpDirectorySaver.h"

#include <gtest/gtest.h>

#include <QSignalSpy>
#include <string>
#include <vector>

#include "facade/KestrowQTProxy.h"
#include "platform/common/DatabaseMgr.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"

using olvane::test::dbColumn;
using Strings = std::vector<std::string>;

namespace {

TEST(MtpDirectorySaverTest, AChangedFolderSetRewritesTheTableUnlessTheDeviceIsGone) {
    olvane::test::TempDir dbDir;
    DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
    DatabaseMgr::instance().createDb("phone", "mtp-folder://phone", true);
    dbColumn("phone", "INSERT INTO DIRECTORIES (PATH) VALUES ('/media/usb/a');");
    QSignalSpy modified(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);
    kestrow::MtpDirectorySaver saver("MtpDirectorySaver");
    saver.start();
    auto save = [&](bool gone) {
        boost::shared_ptr<kestrow::Block<kestrow::MtpDirectory*>> in(
            new kestrow::Block<kestrow::MtpDirectory*>());
        in->operation = kestrow::Operation(4, 9, "phone", "mtp-folder://phone", true);
        in->operation.deviceGone = gone;
        for (const char* path : {"Phone/Music", "Phone"})
            in->items.push_back(new kestrow::MtpDirectory(path, "mtp-folder://phone", "phone"));
        EXPECT_EQ(gone, saver.doOperation(in)->operation.deviceGone);
    };
    const std::string all = "SELECT PATH || '|' || NAME FROM DIRECTORIES ORDER BY PATH;";

    save(false);
    EXPECT_EQ(Strings({"Phone|Phone", "Phone/Music|Music"}), dbColumn("phone", all));
    EXPECT_EQ(1, modified.count());
    dbColumn("phone", "DELETE FROM DIRECTORIES WHERE PATH = 'Phone';");
    save(true);
    EXPECT_EQ(Strings({"Phone/Music|Music"}), dbColumn("phone", all));
    EXPECT_EQ(1, modified.count());
}

}  // namespace
