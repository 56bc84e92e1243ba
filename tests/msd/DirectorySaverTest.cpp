#include "msd/DirectorySaver.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QSignalSpy>
#include <stdexcept>

#include "facade/KestrowQTProxy.h"
#include "msd/MountPointPattern.h"
#include "platform/log/LogCapture.h"
#include "tests/msd/CrawlSupport.h"
#include "tests/msd/DbSupport.h"
#include "tests/support/TempDir.h"

using kestrow::Block;
using kestrow::Directory;
using kestrow::DirectorySaver;
using olvane::test::column;
using olvane::test::crawl;
using olvane::test::literal;
using olvane::test::query;
using olvane::test::TempDir;

namespace {

const char* const kOther = "INSERT INTO DIRECTORIES VALUES ('p', '/media/other/x', 'x', 'o', '')";

class DirectorySaverTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(dbDir.path()); }

    // Paths stored for `mountPoint`, sorted.
    std::vector<std::string> stored(const std::string& mountPoint) {
        return column("dev1", "SELECT PATH FROM DIRECTORIES WHERE substr(PATH, 1, " +
                                  std::to_string(mountPoint.size()) + ") = " + literal(mountPoint) +
                                  " ORDER BY PATH");
    }
    std::vector<std::string> others() {
        return column("dev1", "SELECT PATH FROM DIRECTORIES WHERE PATH = '/media/other/x'");
    }

    TempDir dbDir;
    TempDir t;
};

}  // namespace

TEST_F(DirectorySaverTest, PropagatesMusicToEveryAncestor) {
    Block<Directory*> block;
    const char* paths[] = {"/m",       "/m/A",   "/m/B", "/m/A/X",
                           "/m/A/X/Y", "/m/B/Z", "/m/C", "/m/A/X/Y/W"};
    const int parents[] = {-1, 0, 0, 1, 3, 2, 0, 4};
    for (int i = 0; i < 8; ++i)
        block.items.push_back(new Directory(paths[i], "/m", parents[i]));
    block.items[4]->hasMusic = true;
    block.items[5]->hasMusic = true;
    block.items[7]->hasMusic = true;
    DirectorySaver saver("DirectorySaver");
    saver.propagateMusicPresence(&block);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(i != 6, block.items[size_t(i)]->hasMusic) << paths[i];

    block.items.push_back(new Directory("/m/bad", "/m", 42));
    block.items.back()->hasMusic = true;
    EXPECT_THROW(saver.propagateMusicPresence(&block), std::out_of_range);
}

TEST_F(DirectorySaverTest, StoresTheDirectoriesLeadingToMusicAndRewritesOnChange) {
    const std::string usb = t.mkdir("usb");
    t.write("usb/Music/Artist/Album/s.mp3", "");
    t.mkdir("usb/Empty");
    t.write("usb/Docs/readme.txt", "");
    t.write("usb/Lists/p.m3u", "");
    DatabaseMgr::instance().createDb("dev1", usb, true);
    query("dev1", kOther);

    DirectorySaver saver("DirectorySaver");
    saver.start();
    QSignalSpy spy(&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified);
    olvane::LogCapture cap;
    boost::shared_ptr<Block<void>> out = saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(7, out->operation.id);
    EXPECT_EQ(1, cap.count("RNC: Found changes 4"));
    ASSERT_EQ(1, spy.count());
    EXPECT_EQ(QString::fromLatin1(usb.c_str()), spy.at(0).at(0).toString());

    // A folder holding only a music subfolder is stored, each row pointing at its parent.
    olvane::test::Rows rows =
        query("dev1",
              "SELECT PARTITION_ID, PATH, NAME, OBJECTID, PARENT_ID FROM DIRECTORIES WHERE "
              "PATH <> '/media/other/x' ORDER BY PATH");
    const std::string expected[] = {usb, usb + "/Music", usb + "/Music/Artist",
                                    usb + "/Music/Artist/Album"};
    ASSERT_EQ(4u, rows.size());
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(Md5(Md5::DIRECTORY, usb).toString(), rows[i][0]);
        EXPECT_EQ(expected[i], rows[i][1]);
        EXPECT_EQ(expected[i].substr(expected[i].rfind('/') + 1), rows[i][2]);
        EXPECT_EQ(Md5(Md5::DIRECTORY, expected[i]).toString(), rows[i][3]);
        EXPECT_EQ(i == 0 ? "" : Md5(Md5::DIRECTORY, expected[i - 1]).toString(), rows[i][4]);
    }

    // Unchanged tree: nothing written, no signal.
    const olvane::test::Rows before = query("dev1", "SELECT rowid, * FROM DIRECTORIES");
    cap.clear();
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Did not find changes"));
    EXPECT_EQ(before, query("dev1", "SELECT rowid, * FROM DIRECTORIES"));
    EXPECT_EQ(1, spy.count());

    // A song in a new folder adds the folder and its new parent.
    t.write("usb/New/Sub/n.mp3", "");
    cap.clear();
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Found changes 2"));
    EXPECT_EQ(6u, stored(usb).size());
    EXPECT_EQ(2, spy.count());

    // A gone device leaves the rows alone.
    ASSERT_EQ(0, ::unlink(t.file("usb/New/Sub/n.mp3").c_str()));
    boost::shared_ptr<Block<Directory*>> gone = crawl(usb).directories;
    gone->operation.deviceGone = true;
    out = saver.doOperation(gone);
    EXPECT_TRUE(out->operation.deviceGone);
    EXPECT_EQ(6u, stored(usb).size());

    // No music left: no rows for this mount point; a paused stage emits nothing.
    ASSERT_EQ(0, ::unlink(t.file("usb/Music/Artist/Album/s.mp3").c_str()));
    DirectorySaver paused("DirectorySaver");
    cap.clear();
    paused.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Found changes 6"));
    EXPECT_TRUE(stored(usb).empty());
    EXPECT_EQ(1u, others().size());
    EXPECT_EQ(2, spy.count());
}

TEST_F(DirectorySaverTest, DoubleQuoteInMountPointStaysInsideThePattern) {
    EXPECT_EQ("\"/media/usb1%\"", kestrow::mountPointPattern("/media/usb1"));
    EXPECT_EQ("\"/media/a\"\"b\"\"%\"", kestrow::mountPointPattern("/media/a\"b\""));

    // Unquoted, this label would turn the prefix delete into one of every row.
    const std::string usb = t.mkdir("usb\" OR PATH LIKE \"");
    t.write("usb\" OR PATH LIKE \"/sub/s.mp3", "");
    DatabaseMgr::instance().createDb("dev1", usb, true);
    query("dev1", kOther);

    DirectorySaver saver("DirectorySaver");
    olvane::LogCapture cap;
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Found changes 2"));
    EXPECT_EQ(std::vector<std::string>({usb, usb + "/sub"}), stored(usb));
    EXPECT_EQ(1u, others().size());

    cap.clear();
    saver.doOperation(crawl(usb).directories);
    EXPECT_EQ(1, cap.count("RNC: Did not find changes"));

    ASSERT_EQ(0, ::unlink(t.file("usb\" OR PATH LIKE \"/sub/s.mp3").c_str()));
    saver.doOperation(crawl(usb).directories);
    EXPECT_TRUE(stored(usb).empty());
    EXPECT_EQ(1u, others().size());
}
