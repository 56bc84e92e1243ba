// Indexes real trees from end to end through the facade's slots, with the
// scheduler, the mass-storage pipeline and all its stages.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <QElapsedTimer>
#include <atomic>
#include <boost/weak_ptr.hpp>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "facade/KestrowQTProxy.h"
#include "msd/MSDCrawler.h"
#include "msd/MSDMiner.h"
#include "orchestration/Kestrow.h"
#include "orchestration/MSDPipeline.h"
#include "platform/common/DatabaseMgr.h"
#include "platform/common/Md5.h"
#include "platform/log/LogCapture.h"
#include "tests/support/SignalLog.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using kestrow::Block;
using kestrow::FileInfo;
using olvane::test::setMtime;
using olvane::test::TempDir;
using olvane::test::waitFor;

namespace {

// Rows of a query as "a|b|c" texts.
std::vector<std::string> dump(const std::string& dbFile, const std::string& sql) {
    std::vector<std::string> rows;
    sqlite3* db = nullptr;
    char** table = nullptr;
    int nrow = 0, ncol = 0;
    if (sqlite3_open_v2(dbFile.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_get_table(db, sql.c_str(), &table, &nrow, &ncol, nullptr) == SQLITE_OK) {
        for (int r = 1; r <= nrow; ++r) {
            std::string row;
            for (int c = 0; c < ncol; ++c)
                row += (c ? "|" : "") +
                       std::string(table[r * ncol + c] ? table[r * ncol + c] : "NULL");
            rows.push_back(row);
        }
    }
    sqlite3_free_table(table);
    sqlite3_close(db);
    return rows;
}

// One stage thread waits at it, until the test lets it go (for good), with
// the work in hand.
class Latch {
public:
    void wait(boost::weak_ptr<void> inHand = {}) {
        std::unique_lock<std::mutex> lock(mutex);
        work = inHand;
        reached = true;
        cond.wait(lock, [&] { return released; });
    }
    bool isReached() {
        std::lock_guard<std::mutex> lock(mutex);
        return reached;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        cond.notify_all();
    }
    bool workDone() {
        std::lock_guard<std::mutex> lock(mutex);
        return work.expired();
    }

private:
    std::mutex mutex;
    std::condition_variable cond;
    bool reached = false, released = false;
    boost::weak_ptr<void> work;
};

// Where a pipeline waits at a latch: before the `at`-th directory of its
// walk, or inside its miner's pass over the `at`-th block.
struct Hold {
    enum { NONE, CRAWL, MINE } where = NONE;
    int at = 0;
    Latch* latch = nullptr;
};

class HeldMiner : public kestrow::MSDMiner {
public:
    explicit HeldMiner(const Hold& hold) : MSDMiner("MSDMiner"), hold(hold) {}
    boost::shared_ptr<Block<MetaDataInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override {
        if (++passes == hold.at)
            hold.latch->wait(in);
        return MSDMiner::doOperation(in);
    }

private:
    Hold hold;
    int passes = 0;
};

// The mass-storage pipeline, held as `hold` says.
class HeldPipeline : public kestrow::MSDPipeline {
public:
    HeldPipeline(kestrow::Kestrow* owner, Hold hold) : MSDPipeline(owner) {
        if (hold.where == Hold::CRAWL)
            static_cast<kestrow::MSDCrawler*>(crawler())->setDirectoryHook(
                [hold, opened = 0](const std::string&) mutable {
                    if (++opened == hold.at)
                        hold.latch->wait();
                });
        for (kestrow::Runnable*& child : children) {
            auto* miner = dynamic_cast<kestrow::MSDMiner*>(child);
            if (hold.where != Hold::MINE || !miner)
                continue;
            auto* held = new HeldMiner(hold);
            held->next = miner->next;
            for (kestrow::Runnable* r : children)
                if (auto* s = dynamic_cast<kestrow::Server<Block<FileInfo*>, Block<FileInfo*>>*>(r);
                    s && s->next == miner)
                    s->next = held;
            delete miner;
            child = held;
        }
    }
};

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        scheduler.launch();
        scheduler.start();
        KestrowQTProxy::instance().setScheduler(&scheduler);
        root = tree.mkdir("usb");
    }
    void TearDown() override {
        for (Latch& l : latches)
            l.release();
        scheduler.stop();
        scheduler.join();
        KestrowQTProxy::instance().setScheduler(nullptr);
    }

    // One request through the facade; returns the signals it produced.
    QStringList index() {
        olvane::test::SignalLog sigs;
        QMetaObject::invokeMethod(&KestrowQTProxy::instance(), "startIndexing",
                                  Qt::QueuedConnection, Q_ARG(QString, "usb1"),
                                  Q_ARG(QString, QString::fromStdString(root)), Q_ARG(bool, true));
        EXPECT_TRUE(waitFor(
            [&] {
                return sigs.entries.filter("indexingFinished ").size() == 1 &&
                       scheduler.registeredCount() == 0;
            },
            60000));
        return sigs.entries;
    }

    std::string one(const std::string& sql) {
        auto r = rows(sql);
        return r.empty() ? "<none>" : r[0];
    }
    std::vector<std::string> rows(const std::string& sql) {
        return dump(DatabaseMgr::instance().getDbNameFromDevId("usb1"), sql);
    }
    std::map<std::string, std::vector<std::string>> allTables() {
        std::map<std::string, std::vector<std::string>> t;
        for (const char* name :
             {"SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS", "PLAYLISTS", "DIRECTORIES"})
            t[name] = rows(std::string("SELECT * FROM ") + name + " ORDER BY 1, 2, 3;");
        return t;
    }

    // Songs in several formats and folders, broken files, odd names, a
    // playlist with relative entries, and things that are never indexed.
    void makeTree() {
        tree.copySample("gears-iron-road.mp3", "usb/Gears/Steam/iron.mp3");
        tree.copySample("gears-copper-sky.mp3", "usb/Gears/Steam/copper.mp3");
        tree.copySample("gears-old-times.mp3", "usb/Gears/Vinyl/old.mp3");
        tree.copySample("ferro-blue-hour.m4a", "usb/Jazz/Late Sessions/blue hour.m4a");
        tree.copySample("ferro-cafe-noir.flac", "usb/Jazz/Late Sessions/café noir.flac");
        tree.copySample("moreno-summer-tape.wav", "usb/Pop/only/sub/summer tape.wav");
        tree.copySample("moreno-rain-check.wma", "usb/Pop/rain check.wma");
        tree.copySample("motorhead-style.mp3", kOddSong);
        tree.copySample("cp1251-id3v1.mp3", "usb/Кино/группа.mp3");
        tree.copySample("truncated.flac", "usb/broken/truncated.flac");
        tree.copySample("random-bytes.m4a", "usb/broken/random.m4a");
        tree.copySample("gears-iron-road.mp3", "usb/.hidden.mp3");
        tree.write("usb/notes.txt", "not music");
        tree.mkdir("usb/empty");
        tree.copySample("gears-iron-road.mp3", "usb/.TRASH/x/deleted.mp3");
        tree.write("usb/list.m3u", "Gears/Steam/iron.mp3\n" + std::string(kOddSong).substr(4) +
                                       "\nКино/группа.mp3\n");
    }

    static constexpr const char* kOddSong = "usb/Odd/100% _x_ [a] 'q'/Ace \"of\" Spadës.mp3";

    TempDir dbDir;
    TempDir tree;
    std::string root;
    Latch latches[4];
    Hold nextHold;  // for the next pipeline, once a test installs HeldPipelines
    kestrow::Kestrow scheduler;
};

TEST_F(EndToEndTest, IndexesATreeThenOnlyWhatChanged) {
    makeTree();
    const QString mp = QString::fromStdString(root);

    // First run: everything is new.
    QStringList first = index();
    EXPECT_EQ(first.count("crawlingFinished " + mp), 1);
    EXPECT_GE(first.count("contentModified " + mp), 1);
    EXPECT_EQ(first.filter("databaseExists").size(), 0);
    EXPECT_EQ(first.last(), "indexingFinished " + mp);
    EXPECT_EQ(DatabaseMgr::instance().getStatus("usb1", root), "OK");

    EXPECT_EQ(rows("SELECT NAME FROM SONGS ORDER BY NAME;"),
              (std::vector<std::string>{"Ace \"of\" Spadës.mp3", "blue hour.m4a", "café noir.flac",
                                        "copper.mp3", "iron.mp3", "old.mp3", "rain check.wma",
                                        "random.m4a", "summer tape.wav", "truncated.flac",
                                        "группа.mp3"}));
    EXPECT_EQ(one("SELECT TITLE, TRACKIND, DISCNUM FROM SONGS WHERE NAME = 'truncated.flac';"),
              "|1|1");
    EXPECT_EQ(one("SELECT a.ARTIST FROM SONGS s JOIN ARTISTS a USING (ARTISTID) "
                  "WHERE s.NAME = 'группа.mp3';"),
              "Кино");
    EXPECT_EQ(one("SELECT group_concat(ARTIST, ',') FROM (SELECT ARTIST FROM ARTISTS ORDER BY 1);"),
              ",Lia Moreno,Motörhead,Nina Ferro Quartet,The Rusty Gears,Кино");
    EXPECT_EQ(one("SELECT COUNT(*) FROM ALBUMS;"), "7");
    EXPECT_EQ(one("SELECT group_concat(GENRE, ',') FROM (SELECT GENRE FROM GENRES ORDER BY 1);"),
              ",Country,Jazz,Metal,Pop,Rock");
    EXPECT_EQ(one("SELECT group_concat(COMPOSER, ',') FROM "
                  "(SELECT COMPOSER FROM COMPOSERS ORDER BY 1);"),
              ",Lemmy,Lia Moreno,Nina Ferro,Tom Hale");
    // Every song's folder is stored with all its ancestors, and nothing else.
    EXPECT_EQ(one("SELECT COUNT(*) FROM DIRECTORIES;"), "13");
    EXPECT_EQ(one("SELECT (SELECT COUNT(*) FROM SONGS WHERE DIRECTORYID NOT IN (SELECT OBJECTID "
                  "FROM DIRECTORIES)) + (SELECT COUNT(*) FROM DIRECTORIES WHERE PARENT_ID <> '' "
                  "AND PARENT_ID NOT IN (SELECT OBJECTID FROM DIRECTORIES));"),
              "0");
    // Three entries and the saver's repeated last row, each naming its song.
    EXPECT_EQ(one("SELECT COUNT(*) FROM PLAYLISTS WHERE TRACKID IN (SELECT OBJECTID FROM SONGS);"),
              "4");

    // Second run of an unchanged tree: nothing is written, nothing is modified.
    const auto before = allTables();
    QStringList second = index();
    EXPECT_EQ(second, QStringList({"databaseExists usb1 " + mp, "crawlingFinished " + mp,
                                   "indexingFinished " + mp}));
    EXPECT_EQ(allTables(), before);

    // A touched file is read again, alone.
    {
        olvane::LogCapture cap;
        setMtime(tree.file("usb/Gears/Steam/copper.mp3"), 1000000000);
        QStringList third = index();
        EXPECT_GE(third.count("contentModified " + mp), 1);
        EXPECT_EQ(cap.countContaining("ChangeFinder-MSDSongs: Data to be added to db size: 1 "), 1);
        EXPECT_EQ(cap.countContaining("MSDMiner for: 1 "), 1);
    }
    auto after = allTables();
    EXPECT_EQ(after["ARTISTS"], before.at("ARTISTS"));
    EXPECT_EQ(after["PLAYLISTS"], before.at("PLAYLISTS"));
    EXPECT_EQ(one("SELECT LASTMODIFIED FROM SONGS WHERE NAME = 'copper.mp3';"), "1000000000");

    // A deleted song takes its artist and its playlist entries with it.
    ASSERT_EQ(::unlink(tree.file(kOddSong).c_str()), 0);
    index();
    EXPECT_EQ(one("SELECT COUNT(*) FROM SONGS;"), "10");
    EXPECT_EQ(one("SELECT COUNT(*) FROM ARTISTS WHERE ARTIST = 'Motörhead';"), "0");
    EXPECT_EQ(one("SELECT COUNT(*) FROM GENRES WHERE GENRE = 'Metal';"), "0");
    EXPECT_EQ(one("SELECT COUNT(*) FROM PLAYLISTS;"), "3");
    EXPECT_EQ(one("SELECT COUNT(*) FROM PLAYLISTS WHERE TRACKPATH LIKE '%Spad%';"), "0");
    EXPECT_EQ(one("SELECT COUNT(*) FROM DIRECTORIES;"), "11");
    EXPECT_EQ(DatabaseMgr::instance().getStatus("usb1", root), "OK");
}

// Prioritising another device while one is indexed holds that work where it
// is: once both are done, the held device's tables are those of a run that
// nothing interrupted. The other device waits at its first directory until
// the held stage has gone as far as it goes while paused.
TEST_F(EndToEndTest, PrioritisingAnotherDeviceHoldsTheIndexingInHand) {
    std::vector<std::string> songs;
    for (int d = 0; d < 20; ++d)
        for (int s = 0; s < 100; ++s)
            songs.push_back(
                tree.copySample("gears-iron-road.mp3",
                                "usb/d" + std::to_string(d) + "/" + std::to_string(s) + ".mp3"));
    tree.write("usb/list.m3u", "d0/0.mp3\nd19/99.mp3\n");
    const std::string other = tree.mkdir("other");
    tree.copySample("gears-copper-sky.mp3", "other/x.mp3");
    scheduler.setPipelineFactory([this](kestrow::OperationType, kestrow::Kestrow* owner) {
        Hold hold = nextHold;
        nextHold = Hold();
        return new HeldPipeline(owner, hold);
    });
    index();
    const auto clean = allTables();
    ASSERT_EQ(clean.at("SONGS").size(), 2000u);

    olvane::LogCapture cap;
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    const QString mp = QString::fromStdString(root), otherMp = QString::fromStdString(other);
    auto holdForOther = [&](Hold hold, Latch& forOther, std::function<bool()> settled) {
        olvane::test::SignalLog sigs;
        cap.clear();
        nextHold = hold;
        proxy.startIndexing("usb1", mp, true);
        ASSERT_TRUE(waitFor([&] { return hold.latch->isReached(); }, 60000));
        nextHold = Hold{Hold::CRAWL, 1, &forOther};
        proxy.startIndexing("usb2", otherMp, true);
        proxy.prioritizeMsdDevice("usb2", otherMp);
        ASSERT_TRUE(waitFor([&] { return forOther.isReached(); }));
        hold.latch->release();
        ASSERT_TRUE(waitFor(settled));
        forOther.release();
        EXPECT_TRUE(waitFor(
            [&] {
                return sigs.entries.filter("indexingFinished ") ==
                           QStringList({"indexingFinished " + otherMp, "indexingFinished " + mp}) &&
                       scheduler.registeredCount() == 0;
            },
            60000));
        EXPECT_EQ(DatabaseMgr::instance().getStatus("usb1", root), "OK");
    };
    auto expectSame = [](const auto& want, const auto& got) {
        for (const auto& [table, rows] : want) {
            EXPECT_EQ(rows.size(), got.at(table).size()) << table;
            EXPECT_TRUE(rows == got.at(table)) << table;
        }
    };

    // In the middle of the walk: before the 11th of 21 directories.
    holdForOther({Hold::CRAWL, 11, &latches[0]}, latches[1], [&] {
        return cap.contains("MSDCrawler held while paused") || cap.contains("MSDCrawler timer");
    });
    expectSame(clean, allTables());

    // Every song changed, so all are read again: inside the miner's pass over
    // the second of four batches.
    for (const std::string& song : songs)
        setMtime(song, 1000000000);
    holdForOther({Hold::MINE, 2, &latches[2]}, latches[3], [&] { return latches[2].workDone(); });
    const auto held = allTables();
    TempDir cleanDb;
    DatabaseMgr::instance().setDatabaseDirectory(cleanDb.path());
    index();
    expectSame(allTables(), held);
}

}  // namespace

// Two threads send 200 requests and prioritisations for five devices while
// they are indexed: nothing hangs, all ends in bounded time, every request
// ends in indexingFinished or is replaced, and each database holds what a
// clean index of its device holds.
TEST_F(EndToEndTest, ARequestStormEndsWithEveryDeviceIndexedCleanly) {
    std::vector<std::string> mounts;
    for (int d = 0; d < 5; ++d) {
        const std::string dev = "storm" + std::to_string(d);
        for (int s = 0; s < 30; ++s)
            tree.copySample("gears-iron-road.mp3",
                            dev + "/f" + std::to_string(s / 10) + "/" + std::to_string(s) + ".mp3");
        tree.write(dev + "/list.m3u", "f0/0.mp3\nf2/29.mp3\n");
        mounts.push_back(tree.file(dev));
    }
    olvane::LogCapture cap;
    olvane::test::SignalLog sigs;
    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    std::atomic<int> requests[5] = {}, senders{2};
    auto send = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 100; ++i) {
            const int d = int(random() % 5);
            const QString id = QString("storm%1").arg(d), mp = QString::fromStdString(mounts[d]);
            if (random() % 2) {
                ++requests[d];
                proxy.startIndexing(id, mp, true);
            } else {
                proxy.prioritizeMsdDevice(id, mp);
            }
        }
        --senders;
    };
    QElapsedTimer clock;
    clock.start();
    const unsigned seeds[] = {std::random_device()(), std::random_device()()};
    SCOPED_TRACE("seeds " + std::to_string(seeds[0]) + " " + std::to_string(seeds[1]));
    std::thread first(send, seeds[0]), second(send, seeds[1]);
    const bool ended =
        waitFor([&] { return senders == 0 && scheduler.registeredCount() == 0; }, 120000);
    first.join();
    second.join();
    ASSERT_TRUE(ended) << "still registered: " << scheduler.registeredCount();
    RecordProperty("stormMs", int(clock.elapsed()));

    QCoreApplication::sendPostedEvents();  // the signals queued to this thread
    TempDir cleanDb;
    for (int d = 0; d < 5; ++d) {
        SCOPED_TRACE(mounts[d]);
        const QString id = QString("storm%1").arg(d), mp = QString::fromStdString(mounts[d]);
        EXPECT_GE(sigs.entries.count("indexingFinished " + mp) +
                      cap.countContaining("Stopping " + id.toStdString() + " type 0 handle 0 mp " +
                                          mounts[d] + " pipe "),
                  requests[d].load());
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        const auto stormed = olvane::test::indexDump(id.toStdString());
        EXPECT_EQ("OK", DatabaseMgr::instance().getStatus(id.toStdString(), mounts[d]));
        DatabaseMgr::instance().setDatabaseDirectory(cleanDb.path());
        olvane::test::SignalLog one;
        proxy.startIndexing(id, mp, true);
        ASSERT_TRUE(waitFor([&] { return one.entries.contains("indexingFinished " + mp); }));
        ASSERT_TRUE(waitFor([&] { return scheduler.registeredCount() == 0; }));
        EXPECT_EQ("",
                  olvane::test::dumpDifference(olvane::test::indexDump(id.toStdString()), stormed));
    }
}
