#include "msd/ChangeFinder.h"

#include <gtest/gtest.h>

#include <QSignalSpy>
#include <utility>

#include "facade/KestrowQTProxy.h"
#include "platform/log/LogCapture.h"
#include "tests/msd/CrawlSupport.h"
#include "tests/msd/DbSupport.h"
#include "tests/support/TempDir.h"

using kestrow::Block;
using kestrow::ChangeFinder;
using kestrow::FileInfo;
using olvane::test::column;
using olvane::test::literal;
using olvane::test::query;
using olvane::test::TempDir;
using Strings = std::vector<std::string>;
using FileBlock = boost::shared_ptr<Block<FileInfo*>>;

namespace {

const char* const kSongSelect = "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE PATH LIKE ";
const char* const kSongDelete = "DELETE FROM SONGS WHERE ID = ?;";
const char* const kListSelect =
    "SELECT ID, LASTMODIFIED, PLAYPATH FROM VIEW_PLAYLISTNAMES WHERE PLAYPATH LIKE ";
const char* const kListDelete =
    "DELETE FROM PLAYLISTS WHERE PLAYID IN ( SELECT PLAYID FROM PLAYLISTS WHERE ID = ? );";
const char* const kUsb1 = "/media/usb1";

FileBlock files(const std::string& mountPoint,
                const std::vector<std::pair<std::string, int>>& found) {
    FileBlock block(new Block<FileInfo*>());
    block->operation = kestrow::Operation(3, 0, "dev1", mountPoint, true);
    for (const auto& f : found)
        block->items.push_back(new FileInfo(mountPoint + "/" + f.first, 0, f.second));
    return block;
}

void addSong(const std::string& path, int lastModified) {
    query("dev1", "INSERT INTO SONGS (PATH, LASTMODIFIED) VALUES (" + literal(path) + ", " +
                      std::to_string(lastModified) + ")");
}

Strings songs() {
    return column("dev1", "SELECT PATH FROM SONGS ORDER BY PATH");
}

Strings paths(const FileBlock& block) {
    Strings result;
    for (const FileInfo* f : block->items)
        result.push_back(*f->path);
    return result;
}

class ChangeFinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        DatabaseMgr::instance().createDb("dev1", kUsb1, true);
        finder.start();
    }

    TempDir dbDir;
    ChangeFinder finder{"ChangeFinder-MSDSongs", kSongSelect, kSongDelete, false};
    QSignalSpy spy{&KestrowQTProxy::instance(), &KestrowQTProxy::contentModified};
};

}  // namespace

TEST_F(ChangeFinderTest, FirstIndexingPassesEverythingOnAndRecordsProgress) {
    olvane::LogCapture cap;
    FileBlock in = files(kUsb1, {{"c.mp3", 1}, {"a.mp3", 1}, {"b.mp3", 1}});
    FileBlock out = finder.doOperation(in);
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb1/b.mp3", "/media/usb1/c.mp3"}), paths(out));
    for (const FileInfo* f : in->items)
        EXPECT_EQ(nullptr, f);  // moved, not copied
    EXPECT_TRUE(out->operation.lastBlock);
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev1", kUsb1));
    ASSERT_EQ(1, spy.count());
    EXPECT_EQ(QString("/media/usb1"), spy.at(0).at(0).toString());
    EXPECT_EQ(1, cap.count("ChangeFinder for: 3 (op: 3)"));
    EXPECT_EQ(1, cap.count("ChangeFinder-MSDSongs: Data Inside db Count: 0, Data Inside device "
                           "count 3 (op:3)"));
    EXPECT_EQ(1, cap.count("ChangeFinder-MSDSongs: db Objects To be Deleted count: 0 (op:3)"));
    EXPECT_EQ(1, cap.count("ChangeFinder-MSDSongs: Data to be added to db size: 3 (op:3)"));
}

TEST_F(ChangeFinderTest, TouchedRenamedAndRemovedFiles) {
    for (const char* p :
         {"/media/usb1/a.mp3", "/media/usb1/b.mp3", "/media/usb1/c.mp3", "/media/usb1/old.mp3",
          "/media/usb1/Case.mp3", "/media/usb2/z.mp3", "/media/usb10/p.mp3"})
        addSong(p, 100);
    DatabaseMgr::instance().insertStatus("dev1", kUsb1, "OK");

    FileBlock out = finder.doOperation(
        files(kUsb1, {{"new.mp3", 100}, {"case.mp3", 100}, {"b.mp3", 200}, {"a.mp3", 100}}));
    // Touched b and renamed old->new: deleted and passed on; c removed: deleted only;
    // paths differing in case are different files; /media/usb10 shares the prefix.
    EXPECT_EQ(Strings({"/media/usb1/b.mp3", "/media/usb1/case.mp3", "/media/usb1/new.mp3"}),
              paths(out));
    EXPECT_EQ(200, out->items[0]->lastModified);
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb2/z.mp3"}), songs());
    EXPECT_EQ("PROGRESS", DatabaseMgr::instance().getStatus("dev1", kUsb1));
    EXPECT_EQ(1, spy.count());

    // Deletions alone neither record progress nor signal.
    addSong("/media/usb1/d.mp3", 100);
    DatabaseMgr::instance().insertStatus("dev1", kUsb1, "OK");
    out = finder.doOperation(files(kUsb1, {{"a.mp3", 100}}));
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb2/z.mp3"}), songs());
    EXPECT_EQ("OK", DatabaseMgr::instance().getStatus("dev1", kUsb1));
    EXPECT_EQ(1, spy.count());

    // Unchanged: nothing at all.
    olvane::LogCapture cap;
    out = finder.doOperation(files(kUsb1, {{"a.mp3", 100}}));
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(1, cap.count("ChangeFinder-MSDSongs: db Objects To be Deleted count: 0 (op:3)"));
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb2/z.mp3"}), songs());
    EXPECT_EQ(1, spy.count());

    // A gone device is not compared: its partial list would delete the rest.
    FileBlock gone = files(kUsb1, {});
    gone->operation.deviceGone = true;
    out = finder.doOperation(gone);
    EXPECT_TRUE(out->operation.deviceGone);
    EXPECT_EQ(Strings({"/media/usb1/a.mp3", "/media/usb2/z.mp3"}), songs());
}

TEST_F(ChangeFinderTest, PlaylistRowsGoWithTheirPlaylist) {
    const char* rows[][3] = {{"/media/usb1/p1.m3u", "p1", "t1"},
                             {"/media/usb1/p1.m3u", "p1", "t2"},
                             {"/media/usb1/p2.m3u", "p2", "t1"},
                             {"/media/usb1/p2.m3u", "p2", "t3"},
                             {"/media/usb2/p3.m3u", "p3", "t1"}};
    for (const auto& r : rows)
        query("dev1", std::string("INSERT INTO PLAYLISTS (PLAYPATH, PLAYID, TRACKID, "
                                  "LASTMODIFIED) VALUES ('") +
                          r[0] + "', '" + r[1] + "', '" + r[2] + "', 100)");
    ChangeFinder lists("ChangeFinder-MSDPlaylist", kListSelect, kListDelete, false);
    FileBlock out = lists.doOperation(files(kUsb1, {{"p1.m3u", 100}, {"p2.m3u", 300}}));
    EXPECT_EQ(Strings({"/media/usb1/p2.m3u"}), paths(out));
    EXPECT_EQ(Strings({"p1/t1", "p1/t2", "p3/t1"}),
              column("dev1", "SELECT PLAYID || '/' || TRACKID FROM PLAYLISTS ORDER BY 1"));
}

TEST_F(ChangeFinderTest, DoubleQuoteInMountPointCannotReachOtherRows) {
    // Unquoted, the select and delete would cover every row of the database.
    const std::string label = "/media/usb\" OR PATH LIKE \"";
    addSong(label + "/s.mp3", 100);
    addSong("/media/other/o.mp3", 100);
    FileBlock out = finder.doOperation(files(label, {{"s.mp3", 100}}));
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(2u, songs().size());

    out = finder.doOperation(files(label, {}));
    EXPECT_EQ(Strings({"/media/other/o.mp3"}), songs());
}

TEST_F(ChangeFinderTest, CompleteSelectReadsEveryRow) {
    addSong("/media/usb1/a.mp3", 100);
    addSong("mtp-folder://dev1/b.mp3", 100);
    ChangeFinder mtp("ChangeFinder-MtpSong", "SELECT ID, LASTMODIFIED, PATH FROM SONGS;",
                     kSongDelete, true);
    FileBlock in(new Block<FileInfo*>());
    in->operation = kestrow::Operation(4, 1, "dev1", "mtp-folder://dev1", true);
    in->items.push_back(new FileInfo("mtp-folder://dev1/b.mp3", 9, 100));
    FileBlock out = mtp.doOperation(in);
    EXPECT_TRUE(out->items.empty());
    EXPECT_EQ(Strings({"mtp-folder://dev1/b.mp3"}), songs());
}

TEST_F(ChangeFinderTest, SecondCrawlOfAnUnchangedTreePassesNothing) {
    TempDir t;
    const std::string usb = t.mkdir("usb");
    DatabaseMgr::instance().createDb("dev1", usb, true);
    for (int i = 0; i < 20; ++i)
        t.write("usb/d" + std::to_string(i % 4) + "/s" + std::to_string(i) + ".mp3", "");
    olvane::test::setMtime(t.file("usb/d1/s5.mp3"), 5000);

    FileBlock out = finder.doOperation(olvane::test::crawl(usb).songs);
    ASSERT_EQ(20u, out->items.size());
    for (const FileInfo* f : out->items)  // what the song saver would store
        addSong(*f->path, f->lastModified);

    EXPECT_TRUE(finder.doOperation(olvane::test::crawl(usb).songs)->items.empty());
    olvane::test::setMtime(t.file("usb/d1/s5.mp3"), 6000);
    out = finder.doOperation(olvane::test::crawl(usb).songs);
    EXPECT_EQ(Strings({t.file("usb/d1/s5.mp3")}), paths(out));
    EXPECT_EQ(19u, songs().size());
}
