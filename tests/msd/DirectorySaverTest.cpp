#include "msd/DirectorySaver.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QSignalSpy>

#include "facade/KestrowQTProxy.h"
#include "msd/MountPointPattern.h"
#include "platform/log/LogCapture.h"
#include "tests/msd/MsdTestSupport.h"
#include "tests/support/TempDir.h"

using namespace olvane::test;
using Strings = std::vector<std::string>;

namespace {

class DirectorySaverTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dbDir.path()); }
    // Rows of the mount point as "path|parent path", and another partition's row.
    void prepare(const std::string& mountPoint) {
        DatabaseMgr::instance().createDb("dev1", mountPoint, true);
        column("INSERT INTO DIRECTORIES VALUES ('p', '/media/other/x', 'x', 'o', '')");
    }
    Strings stored(const std::string& mountPoint) {
        return column(
            "SELECT d.PATH || '|' || ifnull(p.PATH, d.PARENT_ID) FROM DIRECTORIES d "
            "LEFT JOIN DIRECTORIES p ON p.OBJECTID = d.PARENT_ID WHERE d.PATH <> "
            "'/media/other/x' AND d.PARTITION_ID = '" +
            Md5(Md5::DIRECTORY, mountPoint).toString() + "' ORDER BY d.PATH");
    }
    size_t others() {
        return column("SELECT PATH FROM DIRECTORIES WHERE PARTITION_ID = 'p'").size();
    }

    TempDir dbDir, t;
    kestrow::DirectorySaver saver{"DirectorySaver"};
    olvane::LogCapture cap;
};

}  // namespace

TEST_F(DirectorySaverTest, StoresWhatLeadsToMusicAndRewritesOnlyOnChange) {
    const std::string usb = t.mkdir("usb");
    t.write("usb/Music/Artist/Album/s.mp3", "");
    t.write("usb/Docs/readme.txt", "");
    t.write("usb/Lists/p.m3u", "");
    prepare(usb);
    saver.start();
    QSignalSpy spy(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);

    EXPECT_EQ(7, saver.doOperation(crawl(usb).directories)->operation.id);
    EXPECT_EQ(1, cap.count("RNC: Found changes 4"));
    // Folders holding only a music subfolder are stored, each with its parent.
    EXPECT_EQ(Strings({usb + "|", usb + "/Music|" + usb, usb + "/Music/Artist|" + usb + "/Music",
                       usb + "/Music/Artist/Album|" + usb + "/Music/Artist"}),
              stored(usb));
    EXPECT_EQ(1, spy.count());

    const Strings before = column("SELECT rowid || PATH FROM DIRECTORIES ORDER BY 1");
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Did not find changes"));
    EXPECT_EQ(before, column("SELECT rowid || PATH FROM DIRECTORIES ORDER BY 1"));
    EXPECT_EQ(1, spy.count());

    t.write("usb/New/Sub/n.mp3", "");
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Found changes 2"));
    EXPECT_EQ(6u, stored(usb).size());

    ASSERT_EQ(0, ::unlink(t.file("usb/New/Sub/n.mp3").c_str()));
    ASSERT_EQ(0, ::unlink(t.file("usb/Music/Artist/Album/s.mp3").c_str()));
    DirectoryBlock gone = crawl(usb).directories;
    gone->operation.deviceGone = true;
    EXPECT_TRUE(saver.doOperation(gone)->operation.deviceGone);
    EXPECT_EQ(6u, stored(usb).size());  // a partial walk rewrites nothing

    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Found changes 6"));
    EXPECT_TRUE(stored(usb).empty());
    EXPECT_EQ(1u, others());
}

TEST_F(DirectorySaverTest, DoubleQuoteInMountPointStaysInsideThePattern) {
    EXPECT_EQ("\"/media/usb1%\"", kestrow::mountPointPattern("/media/usb1"));
    EXPECT_EQ("\"/a\"\"b\"\"%\"", kestrow::mountPointPattern("/a\"b\""));
    // Unquoted, this label would make the prefix statements cover every row.
    const std::string usb = t.mkdir("usb\" OR PATH LIKE \"");
    t.write("usb\" OR PATH LIKE \"/sub/s.mp3", "");
    prepare(usb);
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(Strings({usb + "|", usb + "/sub|" + usb}), stored(usb));
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Did not find changes"));

    ASSERT_EQ(0, ::unlink(t.file("usb\" OR PATH LIKE \"/sub/s.mp3").c_str()));
    saver.doOperation(crawl(usb).directories);
    EXPECT_TRUE(stored(usb).empty());
    EXPECT_EQ(1u, others());
}
