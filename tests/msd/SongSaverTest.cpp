#include "msd/SongSaver.h"

#include <gtest/gtest.h>

#include "tests/msd/MsdTestSupport.h"

using namespace olvane::test;

namespace {

class SongSaverTest : public DbTest {
protected:
    void SetUp() override {
        DbTest::SetUp();
        DatabaseMgr::instance().createDb("dev1", "/media/usb0", true);
    }
    void save(const std::vector<std::vector<std::string>>& songs, bool last, int op) {
        boost::shared_ptr<kestrow::Block<MetaDataInfo*>> in(new kestrow::Block<MetaDataInfo*>());
        in->operation = kestrow::Operation(op, 0, "dev1", "/media/usb0", last);
        for (const auto& s : songs)  // file, artist, album
            in->items.push_back(new MetaDataInfo("/media/usb0/" + s[0], "/media/usb0", "T " + s[0],
                                                 s[1], s[2], "Rock", "C " + s[1], 1, 2, 100));
        EXPECT_EQ(op, saver.doOperation(in)->operation.id);
    }
    kestrow::SongSaver saver{"SongSaver"};
};

}  // namespace

TEST_F(SongSaverTest, SongsAndOneLookupRowPerName) {
    save({{"a.mp3", "Kino", "Gruppa krovi"}, {"b.mp3", "Kino", "Gruppa krovi"}}, true, 1);
    EXPECT_EQ(Strings({"/media/usb0/a.mp3|a.mp3|T a.mp3|1|2|100|Gruppa krovi|Kino|Rock|C Kino",
                       "/media/usb0/b.mp3|b.mp3|T b.mp3|1|2|100|Gruppa krovi|Kino|Rock|C Kino"}),
              column("SELECT PATH||'|'||NAME||'|'||TITLE||'|'||TRACKIND||'|'||DISCNUM||'|'||"
                     "LASTMODIFIED||'|'||ALBUM||'|'||ARTIST||'|'||GENRE||'|'||COMPOSER FROM SONGS "
                     "JOIN ALBUMS USING (ALBUMID) JOIN ARTISTS USING (ARTISTID) JOIN GENRES USING "
                     "(GENREID) JOIN COMPOSERS USING (COMPOSERID) ORDER BY 1"));
    EXPECT_EQ(Strings({"1"}), column("SELECT COUNT(*) FROM ALBUMS"));
}

TEST_F(SongSaverTest, UnusedLookupRowsGoOnlyAfterTheLastBlock) {
    save({{"a.mp3", "Kino", "One"}, {"b.mp3", "DDT", "Two"}}, true, 1);
    // The change finder deletes DDT's only song; the next operation saves a
    // block, then an empty last block.
    column("DELETE FROM SONGS WHERE PATH = '/media/usb0/b.mp3'");
    olvane::LogCapture cap;
    save({{"c.mp3", "Kino", "One"}}, false, 2);
    EXPECT_EQ(Strings({"DDT", "Kino"}), column("SELECT ARTIST FROM ARTISTS ORDER BY 1"));
    save({}, true, 2);
    EXPECT_EQ(1, cap.count("Clear"));
    EXPECT_EQ(Strings({"Kino|One|C Kino|2"}),
              column("SELECT (SELECT group_concat(ARTIST) FROM ARTISTS)||'|'||(SELECT "
                     "group_concat(ALBUM) FROM ALBUMS)||'|'||(SELECT group_concat(COMPOSER) FROM "
                     "COMPOSERS)||'|'||(SELECT COUNT(*) FROM SONGS)"));
}

TEST_F(SongSaverTest, ARefusedRowLosesThatRowOnly) {
    column(
        "CREATE TRIGGER refuse BEFORE INSERT ON SONGS WHEN NEW.NAME = 'd.mp3' "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    saver.open("dev1");
    sqlite3_limit(saver.ostream.db, SQLITE_LIMIT_LENGTH, 1000);  // the long name cannot be bound
    const std::string tooLong = std::string(2000, 'x') + ".mp3";
    save({{"a.mp3", "A", "1"},
          {tooLong, "B", "2"},
          {"c.mp3", "C", "3"},
          {"d.mp3", "D", "4"},
          {"e.mp3", "E", "5"}},
         true, 1);
    EXPECT_EQ(Strings({"a.mp3", "c.mp3", "e.mp3"}), column("SELECT NAME FROM SONGS ORDER BY 1"));
}
