#include "msd/SongSaver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using kestrow::Block;
using kestrow::Operation;
using kestrow::SongSaver;
using olvane::test::TempDir;

namespace {

typedef boost::shared_ptr<Block<MetaDataInfo*>> SongsPtr;

class Sink : public kestrow::BaseServer<Block<void>> {
public:
    Sink() : BaseServer("Sink") {}
    void runLoop() override {}
    void enqueue(boost::shared_ptr<Block<void>> block) override {
        lastOp = block->operation.id;
        ++received;
    }
    void join() override {}
    void launch() override {}
    std::atomic<int> received{0};
    std::atomic<int> lastOp{-1};
};

const char* kDev = "saverdev";
const char* kMount = "/media/usb0";

struct Fixture : ::testing::Test {
    TempDir dbDir;
    SongSaver saver{"SongSaver"};
    Sink sink;
    int sent = 0;

    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        DatabaseMgr::instance().createDb(kDev, kMount, true);
        saver.next = &sink;
        saver.launch();
        saver.start();
    }
    void TearDown() override {
        saver.stop();
        saver.join();
    }

    static MetaDataInfo* song(const std::string& file, const std::string& artist,
                              const std::string& album) {
        return new MetaDataInfo(std::string(kMount) + "/" + file, kMount, "Title " + file, artist,
                                album, "Rock", "Composer of " + artist, 1, 1, 100);
    }
    void save(std::vector<MetaDataInfo*> songs, bool last, int op = 1) {
        SongsPtr in(new Block<MetaDataInfo*>());
        in->operation = Operation(op, 0, kDev, kMount, last);
        in->items = songs;
        saver.enqueue(in);
        ++sent;
        ASSERT_TRUE(olvane::test::waitFor([&] { return sink.received.load() == sent; }));
        EXPECT_EQ(op, sink.lastOp.load());
    }
    // Number of rows a query counts, read through a connection of our own.
    int count(const std::string& sql) {
        sqlstl::basic_sqlistream<char> in;
        DatabaseMgr::instance().open(kDev, in, 1000);
        in.query(sql);
        in.step();
        int n = -1;
        in >> n;
        return n;
    }
    void exec(const std::string& sql) {
        sqlstl::basic_sqlostream<char> out;
        DatabaseMgr::instance().open(kDev, out, 1000);
        sqlite3_exec(out.db, sql.c_str(), nullptr, nullptr, nullptr);
    }
};

TEST_F(Fixture, SongsAndOneLookupRowPerName) {
    olvane::LogCapture cap;
    MetaDataInfo* a = song("a.mp3", "Kino", "Gruppa krovi");
    MetaDataInfo* b = song("b.mp3", "Kino", "Gruppa krovi");
    const std::string albumId = a->albumId;
    const std::string path = a->path;
    const std::string title = a->title;
    const std::string objectId = a->objectId;
    save({a, b, nullptr}, true);
    EXPECT_EQ(2, count("SELECT COUNT(*) FROM SONGS"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM ALBUMS"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM ARTISTS WHERE ARTIST = 'Kino'"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM GENRES WHERE GENRE = 'Rock'"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM COMPOSERS WHERE COMPOSER = 'Composer of Kino'"));
    EXPECT_EQ(2, count("SELECT COUNT(*) FROM SONGS WHERE ALBUMID = '" + albumId + "'"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM SONGS WHERE PATH = '" + path + "' AND TITLE = '" +
                       title + "' AND OBJECTID = '" + objectId +
                       "' AND NAME = 'a.mp3' AND AUDIOTYPE = 1 AND LASTMODIFIED = 100 AND "
                       "TRACKIND = 1 AND DISCNUM = 1"));
    EXPECT_EQ(1, cap.count("SongSaver for: 3 (op: 1)"));
    EXPECT_EQ(1, cap.count("Clear"));
    EXPECT_EQ(1, cap.count("SongSaver close db"));
    EXPECT_EQ(0, cap.countContaining("failed"));
}

TEST_F(Fixture, UnusedLookupRowsGoOnlyAfterTheLastBlock) {
    save({song("a.mp3", "Kino", "One"), song("b.mp3", "DDT", "Two")}, true, 1);
    ASSERT_EQ(2, count("SELECT COUNT(*) FROM ARTISTS"));
    // The change finder deletes DDT's only song; the next operation saves
    // two blocks, and an empty last block.
    exec("DELETE FROM SONGS WHERE PATH = '/media/usb0/b.mp3'");
    olvane::LogCapture cap;
    save({song("c.mp3", "Kino", "One")}, false, 2);
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM ARTISTS WHERE ARTIST = 'DDT'"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM ALBUMS WHERE ALBUM = 'Two'"));
    EXPECT_EQ(0, cap.count("Clear"));
    save({}, true, 2);
    EXPECT_EQ(1, cap.count("SongSaver for: 0 (op: 2)"));
    EXPECT_EQ(1, cap.count("Clear"));
    EXPECT_EQ(1, cap.count("SongSaver close db"));
    EXPECT_EQ(0, count("SELECT COUNT(*) FROM ARTISTS WHERE ARTIST = 'DDT'"));
    EXPECT_EQ(0, count("SELECT COUNT(*) FROM ALBUMS WHERE ALBUM = 'Two'"));
    EXPECT_EQ(0, count("SELECT COUNT(*) FROM COMPOSERS WHERE COMPOSER = 'Composer of DDT'"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM ARTISTS WHERE ARTIST = 'Kino'"));
    EXPECT_EQ(2, count("SELECT COUNT(*) FROM SONGS"));
}

TEST_F(Fixture, EmptyTagsAndBrokenRowsDoNotStopTheBlock) {
    olvane::LogCapture cap;
    // A record with empty tags, as the miner makes for unreadable files.
    MetaDataInfo* empty =
        new MetaDataInfo("/media/usb0/x.mp3", kMount, "", "", "", "", "", 1, 1, 5);
    // A row that fails: a trigger refuses this path.
    exec(
        "CREATE TRIGGER refuse BEFORE INSERT ON SONGS WHEN NEW.PATH LIKE '%bad%' "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
    save({song("bad.mp3", "A", "B"), empty, song("good.mp3", "C", "D")}, true);
    EXPECT_EQ(1,
              count("SELECT COUNT(*) FROM SONGS WHERE TITLE = '' AND PATH = '/media/usb0/x.mp3'"));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM SONGS WHERE PATH = '/media/usb0/good.mp3'"));
    EXPECT_EQ(2, count("SELECT COUNT(*) FROM SONGS"));
    EXPECT_EQ(1, cap.countContaining("exec failed: "));
    EXPECT_EQ(1, count("SELECT COUNT(*) FROM ARTISTS WHERE ARTIST = ''"));
}

}  // namespace
