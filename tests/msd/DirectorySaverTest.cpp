#include "msd/DirectorySaver.h"

#include <gtest/gtest.h>

#include "tests/msd/MsdTestSupport.h"

using namespace olvane::test;

class DirectorySaverTest : public DbTest {};

// Pasted into the text, the quote in this mount point would make the statements
// cover every row.
TEST_F(DirectorySaverTest, StoresWhatLeadsToMusicAndRewritesOnlyOnChange) {
    TempDir t;
    const std::string usb = t.mkdir("usb\" OR PATH LIKE \"");
    const std::string song = t.write("usb\" OR PATH LIKE \"/Music/Artist/Album/s.mp3", "");
    t.write("usb\" OR PATH LIKE \"/Docs/readme.txt", "");
    t.write("usb\" OR PATH LIKE \"/Lists/p.m3u", "");
    DatabaseMgr::instance().createDb("dev1", usb, true);
    column("INSERT INTO DIRECTORIES VALUES ('p', '/media/other/x', 'x', 'o', '')");
    // Rows of the mount point as "path|parent path".
    auto stored = [] {
        return column(
            "SELECT d.PATH || '|' || ifnull(p.PATH, d.PARENT_ID) FROM DIRECTORIES d LEFT JOIN "
            "DIRECTORIES p ON p.OBJECTID = d.PARENT_ID WHERE d.PARTITION_ID <> 'p' ORDER BY 1");
    };
    kestrow::DirectorySaver saver{"DirectorySaver"};
    saver.start();
    QSignalSpy spy(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);
    olvane::LogCapture cap;

    saver.doOperation(crawl(rootBlock(usb)).directories);
    // Folders holding only a music subfolder are stored, each with its parent.
    EXPECT_EQ(Strings({usb + "/Music/Artist/Album|" + usb + "/Music/Artist",
                       usb + "/Music/Artist|" + usb + "/Music", usb + "/Music|" + usb, usb + "|"}),
              stored());
    saver.doOperation(crawl(rootBlock(usb)).directories);
    EXPECT_EQ(1, cap.count("RNC: Did not find changes"));
    EXPECT_EQ(1, spy.count());

    ASSERT_EQ(0, ::unlink(song.c_str()));
    saver.doOperation(crawl(rootBlock(usb)).directories);
    EXPECT_TRUE(stored().empty());
    EXPECT_EQ(2, spy.count());
    EXPECT_EQ(1u, column("SELECT PATH FROM DIRECTORIES").size());
}
