#include "msd/ChangeFinder.h"

#include <gtest/gtest.h>

#include "platform/common/MountPointScope.h"
#include "tests/msd/MsdTestSupport.h"

using namespace olvane::test;

namespace {

class ChangeFinderTest : public DbTest {
protected:
    void SetUp() override {
        DbTest::SetUp();
        DatabaseMgr::instance().createDb("dev1", "/media/usb1", true);
        finder.start();
    }
    // Runs the finder on `names` (with their times) found below `mountPoint`;
    // returns what it passes on as "path@time".
    Strings find(const std::string& mountPoint,
                 const std::vector<std::pair<std::string, int>>& names, bool deviceGone = false) {
        FileBlock in(new kestrow::Block<FileInfo*>());
        in->operation = kestrow::Operation(3, 0, "dev1", mountPoint, true);
        in->operation.deviceGone = deviceGone;
        for (const auto& n : names)
            in->items.push_back(new FileInfo(mountPoint + "/" + n.first, 0, n.second));
        FileBlock out = finder.doOperation(in);
        Strings result;
        for (const FileInfo* f : out->items)
            result.push_back(*f->path + "@" + std::to_string(f->lastModified));
        return result;
    }
    void addSongs(const Strings& paths) {  // as the song saver stores them
        for (const std::string& p : paths)
            column("INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES ('" + p + "', 100)");
    }
    Strings songs() { return column("SELECT PATH FROM SONGS ORDER BY PATH"); }
    std::string status() { return DatabaseMgr::instance().getStatus("dev1", "/media/usb1"); }

    kestrow::ChangeFinder finder{"ChangeFinder-MSDSongs",
                                 "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE " +
                                     MountPointScope::sqlCondition("PATH") + ";",
                                 "DELETE FROM SONGS WHERE ID = ?;", false};
    QSignalSpy spy{&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified};
};

}  // namespace

TEST_F(ChangeFinderTest, PassesOnNewAndChangedFilesAndDeletesStaleRows) {
    EXPECT_EQ(Strings({"/media/usb1/a.mp3@1", "/media/usb1/b.mp3@1"}),
              find("/media/usb1", {{"b.mp3", 1}, {"a.mp3", 1}}));
    EXPECT_EQ("PROGRESS", status());
    EXPECT_EQ(1, spy.count());

    addSongs({"/media/usb1/a.mp3", "/media/usb1/b.mp3", "/media/usb1/c.mp3", "/media/usb1/old.mp3",
              "/media/usb2/z.mp3", "/media/usb10/p.mp3", "/media/usb1-2/q.mp3",
              "/media/usb1 (2)/r.mp3"});
    DatabaseMgr::instance().insertStatus("dev1", "/media/usb1", "OK");
    // Touched b and renamed old: deleted and passed on; removed c: deleted only.
    // /media/usb10, /media/usb1-2 and "/media/usb1 (2)" share the prefix
    // (the last two with a byte before '/'), but are other partitions.
    EXPECT_EQ(Strings({"/media/usb1/b.mp3@200", "/media/usb1/new.mp3@100"}),
              find("/media/usb1", {{"new.mp3", 100}, {"b.mp3", 200}, {"a.mp3", 100}}));
    EXPECT_EQ(Strings({"/media/usb1 (2)/r.mp3", "/media/usb1-2/q.mp3", "/media/usb1/a.mp3",
                       "/media/usb10/p.mp3", "/media/usb2/z.mp3"}),
              songs());
    EXPECT_EQ(2, spy.count());

    // A removal alone is deleted, but neither recorded nor signalled.
    DatabaseMgr::instance().insertStatus("dev1", "/media/usb1", "OK");
    addSongs({"/media/usb1/d.mp3"});
    EXPECT_TRUE(find("/media/usb1", {{"a.mp3", 100}}).empty());
    EXPECT_EQ(Strings({"/media/usb1 (2)/r.mp3", "/media/usb1-2/q.mp3", "/media/usb1/a.mp3",
                       "/media/usb10/p.mp3", "/media/usb2/z.mp3"}),
              songs());
    EXPECT_EQ("OK", status());
    EXPECT_EQ(2, spy.count());

    // A gone device's partial list is not compared, or it would delete the rest.
    EXPECT_TRUE(find("/media/usb1", {{"x.mp3", 1}}, true).empty());
    EXPECT_EQ(5u, songs().size());
    // Pasted into the text, this mount point would make the select cover every row.
    EXPECT_TRUE(find("/media/usb\" OR PATH LIKE \"", {}).empty());
    EXPECT_EQ(5u, songs().size());
}
