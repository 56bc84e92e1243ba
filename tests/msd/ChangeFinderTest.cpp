#include "msd/ChangeFinder.h"

#include <gtest/gtest.h>

#include <QSignalSpy>

#include "facade/KestrowQTProxy.h"
#include "platform/log/LogCapture.h"
#include "tests/msd/MsdTestSupport.h"
#include "tests/support/TempDir.h"

using namespace olvane::test;
using kestrow::FileInfo;
using Strings = std::vector<std::string>;

namespace {

class ChangeFinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        DatabaseMgr::instance().createDb("dev1", "/media/usb1", true);
        finder.start();
    }
    // Runs the finder on `names` (with their times) found below `mountPoint`.
    Strings find(const std::string& mountPoint,
                 const std::vector<std::pair<std::string, int>>& names, bool deviceGone = false) {
        FileBlock in(new kestrow::Block<FileInfo*>());
        in->operation = kestrow::Operation(3, 0, "dev1", mountPoint, true);
        in->operation.deviceGone = deviceGone;
        for (const auto& n : names)
            in->items.push_back(new FileInfo(mountPoint + "/" + n.first, 0, n.second));
        return paths(finder.doOperation(in));
    }
    static Strings paths(const FileBlock& block) {
        Strings result;
        for (const FileInfo* f : block->items)
            result.push_back(*f->path + "@" + std::to_string(f->lastModified));
        return result;
    }
    void addSong(const std::string& path, int lastModified) {
        column("INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES ('" + path + "', " +
               std::to_string(lastModified) + ")");
    }
    Strings songs() { return column("SELECT PATH FROM SONGS ORDER BY PATH"); }
    std::string status() { return DatabaseMgr::instance().getStatus("dev1", "/media/usb1"); }

    TempDir dbDir;
    kestrow::ChangeFinder finder{"ChangeFinder-MSDSongs",
                                 "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE PATH LIKE ",
                                 "DELETE FROM SONGS WHERE ID = ?;", false};
    QSignalSpy spy{&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified};
};

}  // namespace

TEST_F(ChangeFinderTest, PassesOnNewAndChangedFilesAndDeletesStaleRows) {
    EXPECT_EQ(Strings({"/media/usb1/a.mp3@1", "/media/usb1/b.mp3@1"}),
              find("/media/usb1", {{"b.mp3", 1}, {"a.mp3", 1}}));
    EXPECT_EQ("PROGRESS", status());
    EXPECT_EQ(1, spy.count());

    for (const char* p : {"usb1/a.mp3", "usb1/b.mp3", "usb1/c.mp3", "usb1/old.mp3", "usb1/Case.mp3",
                          "usb2/z.mp3", "usb10/p.mp3"})
        addSong(std::string("/media/") + p, 100);
    DatabaseMgr::instance().insertStatus("dev1", "/media/usb1", "OK");
    // Touched b and renamed old: deleted and passed on; removed c: deleted only.
    // Case matters; /media/usb10 shares the prefix and is read as this device's.
    EXPECT_EQ(
        Strings({"/media/usb1/b.mp3@200", "/media/usb1/case.mp3@100", "/media/usb1/new.mp3@100"}),
        find("/media/usb1", {{"new.mp3", 100}, {"case.mp3", 100}, {"b.mp3", 200}, {"a.mp3", 100}}));
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb2/z.mp3"}), songs());
    EXPECT_EQ("PROGRESS", status());
    EXPECT_EQ(2, spy.count());

    // Deletions alone record nothing and stay silent; an unchanged device does nothing.
    DatabaseMgr::instance().insertStatus("dev1", "/media/usb1", "OK");
    addSong("/media/usb1/d.mp3", 100);
    olvane::LogCapture cap;
    EXPECT_TRUE(find("/media/usb1", {{"a.mp3", 100}}).empty());
    EXPECT_EQ(1, cap.count("ChangeFinder-MSDSongs: db Objects To be Deleted count: 1 (op:3)"));
    EXPECT_TRUE(find("/media/usb1", {{"a.mp3", 100}}).empty());
    EXPECT_EQ(1, cap.count("ChangeFinder-MSDSongs: db Objects To be Deleted count: 0 (op:3)"));
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb2/z.mp3"}), songs());
    EXPECT_EQ("OK", status());
    EXPECT_EQ(2, spy.count());

    // A gone device's partial list is not compared, or it would delete the rest.
    EXPECT_TRUE(find("/media/usb1", {}, true).empty());
    EXPECT_EQ(2u, songs().size());
}

TEST_F(ChangeFinderTest, DoubleQuoteInMountPointCannotReachOtherRows) {
    // Unquoted, this label would make the select and delete cover every row.
    const std::string mountPoint = "/media/usb\" OR PATH LIKE \"";
    addSong(mountPoint + "/s.mp3", 100);
    addSong("/media/other/o.mp3", 100);
    EXPECT_TRUE(find(mountPoint, {{"s.mp3", 100}}).empty());
    EXPECT_EQ(2u, songs().size());
    EXPECT_TRUE(find(mountPoint, {}).empty());
    EXPECT_EQ(Strings({"/media/other/o.mp3"}), songs());
}

TEST_F(ChangeFinderTest, SecondCrawlOfAnUnchangedTreePassesNothing) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    for (int i = 0; i < 20; ++i)
        t.write("usb/d" + std::to_string(i % 4) + "/s" + std::to_string(i) + ".mp3", "");
    FileBlock out = finder.doOperation(crawl(usb).songs);
    ASSERT_EQ(20u, out->items.size());
    for (const FileInfo* f : out->items)  // as the song saver would store them
        addSong(*f->path, f->lastModified);

    EXPECT_TRUE(finder.doOperation(crawl(usb).songs)->items.empty());
    setMtime(t.file("usb/d1/s5.mp3"), 6000);
    EXPECT_EQ(Strings({t.file("usb/d1/s5.mp3") + "@6000"}),
              paths(finder.doOperation(crawl(usb).songs)));
    EXPECT_EQ(19u, songs().size());
}
