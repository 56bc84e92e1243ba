// Whole indexings through the facade's slots: the scheduler builds the real
// device pipelines, for trees, partitions and a simulated phone. Hooks set
// before a request run on its mass-storage pipeline's threads, before each
// folder of the walk and each song the miner reads, to hold or break it there.

#include "facade/KestrowQTProxy.h"
#include "msd/MSDCrawler.h"
#include "msd/MSDMiner.h"
#include "orchestration/Kestrow.h"
#include "orchestration/MSDPipeline.h"
#include "orchestration/MtpPipeline.h"
#include "tests/support/SignalLog.h"
#include "tests/support/SimulatedPhone.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using portolan::SimulatedDevice;
using Hook = std::function<void(const std::string&)>;

namespace {

// A stage thread waits at it until the test releases it, for good.
struct Latch {
    void wait() {
        reached = true;
        while (!released)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::atomic<bool> reached{false}, released{false};
};

const std::string kDev = "dev";
const QString kPhone = "mtp-folder://phone1";

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(dbDir.path());
        scheduler.setPipelineFactory(
            [this](kestrow::OperationType type,
                   kestrow::Kestrow* owner) -> kestrow::SongDirectoryPipeline* {
                if (type != kestrow::MSD_OPERATION)
                    return new kestrow::MtpPipeline(owner);
                auto* pipeline = new kestrow::MSDPipeline(owner);
                if (onDirectory)
                    static_cast<kestrow::MSDCrawler*>(pipeline->crawler())
                        ->setDirectoryHook(onDirectory);
                for (kestrow::Runnable* stage : pipeline->children)
                    if (auto* miner = dynamic_cast<kestrow::MSDMiner*>(stage); miner && onFile)
                        miner->setFileHook(onFile);
                return pipeline;
            });
        scheduler.launch();
        scheduler.start();
        KestrowQTProxy::instance().setScheduler(&scheduler);
    }
    void TearDown() override {
        for (Latch& latch : latches)
            latch.released = true;
        scheduler.stop();
        scheduler.join();
        KestrowQTProxy::instance().setScheduler(nullptr);
    }

    // The signals of a request, once it has ended and no request is left.
    QStringList ended(const SignalLog& sigs, const QString& mp, int ms = 60000) {
        EXPECT_TRUE(waitFor(
            [&] {
                return sigs.entries.contains("indexingFinished " + mp) &&
                       scheduler.registeredCount() == 0;
            },
            ms))
            << mp.toStdString();
        return sigs.entries;
    }
    // One request through the facade, to its end; returns its signals.
    QStringList index(const std::string& mountPoint, bool isFirstPartition = true,
                      const std::string& dev = kDev) {
        SignalLog sigs;
        const QString mp = QString::fromStdString(mountPoint);
        KestrowQTProxy::instance().startIndexing(QString::fromStdString(dev), mp, isFirstPartition);
        return ended(sigs, mp);
    }
    // One request for the phone, plugged in with `faults` and announced ready
    // once connected, as the head unit does; or, not `ready`, unplugged then,
    // which ends the wait for the announcement at once.
    QStringList indexPhone(const SimulatedDevice::Faults& faults = {},
                           portolan::DeviceTable::UnplugHook hook = nullptr, bool ready = true) {
        PluggedPhone phone(12, "phone1", phoneFolder, faults, hook);
        SignalLog sigs;
        cap.clear();
        KestrowQTProxy::instance().startMtpIndexing("phone1", 12, true);
        EXPECT_TRUE(waitFor([&] { return cap.count("setDeviceConnected DONE"); }));
        if (ready) {
            KestrowQTProxy::instance().setDeviceReady(12);
        } else {  // once the request waits for the announcement (its empty line)
            EXPECT_TRUE(waitFor([&] { return cap.count("") > 0; }));
            portolan::DeviceTable::instance().unplug(12);
        }
        return ended(sigs, kPhone, ready ? 20000 : 8000);
    }
    Strings column(const std::string& sql) { return dbColumn(kDev, sql); }
    std::string status(const std::string& mountPoint, const std::string& dev = kDev) {
        return DatabaseMgr::instance().getStatus(dev, mountPoint);
    }
    std::string phoneStatus() { return status(kPhone.toStdString(), "phone1"); }
    // `rows` but those naming any of `names`.
    static Strings without(Strings rows, std::initializer_list<std::string> names) {
        for (const std::string& n : names)
            rows.erase(std::remove_if(rows.begin(), rows.end(),
                                      [&](auto& r) { return r.find(n) != r.npos; }),
                       rows.end());
        return rows;
    }
    // "songs artists albums genres composers playlist-rows folders"
    std::string counts() {
        std::string sql = "SELECT ''";
        for (const char* table :
             {"SONGS", "ARTISTS", "ALBUMS", "GENRES", "COMPOSERS", "PLAYLISTS", "DIRECTORIES"})
            sql += std::string(" || (SELECT COUNT(*) FROM ") + table + ") || ' '";
        return column(sql).at(0);
    }

    TempDir dbDir, tree;
    std::string phoneFolder;
    olvane::LogCapture cap;
    Latch latches[4];
    Hook onDirectory, onFile;   // for the mass-storage pipelines made from then on
    std::atomic<int> calls{0};  // counted by hooks
    kestrow::Kestrow scheduler;
};

}  // namespace

TEST_F(EndToEndTest, IndexesATreeThenOnlyWhatChanged) {
    const std::string odd = "Odd/100% _x_ [a] 'q'/Ace \"of\" Spadës.mp3";
    for (const auto& [sample, path] : std::vector<std::pair<std::string, std::string>>{
             {"gears-iron-road.mp3", "Gears/Steam/iron.mp3"},
             {"gears-copper-sky.mp3", "Gears/Steam/copper.mp3"},
             {"gears-old-times.mp3", "Gears/Vinyl/old.mp3"},
             {"ferro-blue-hour.m4a", "Jazz/Late Sessions/blue hour.m4a"},
             {"ferro-cafe-noir.flac", "Jazz/Late Sessions/café noir.flac"},
             {"moreno-summer-tape.wav", "Pop/only/sub/summer tape.wav"},
             {"moreno-rain-check.wma", "Pop/rain check.wma"},
             {"motorhead-style.mp3", odd},
             {"cp1251-id3v1.mp3", "Кино/группа.mp3"},
             {"truncated.flac", "broken/truncated.flac"},
             {"random-bytes.m4a", "broken/random.m4a"}})
        tree.copySample(sample, "usb/" + path);
    tree.write("usb/list.m3u", "Gears/Steam/iron.mp3\n" + odd + "\nКино/группа.mp3\n");
    const std::string usb = tree.file("usb");

    index(usb);
    EXPECT_EQ("OK", status(usb));
    // Every song's folder with all its ancestors and nothing else; three
    // entries.
    EXPECT_EQ("11 6 7 6 5 3 13 ", counts());

    // Again, unchanged: nothing is written.
    const Strings before = indexDump(kDev, true);
    index(usb);
    EXPECT_EQ(before, indexDump(kDev, true));

    // A touched file is read again, alone; no other row is written. Times
    // past 2038 are stored as they are.
    setMtime(tree.file("usb/Gears/Steam/copper.mp3"), 2208988800);
    setMtime(tree.file("usb/list.m3u"), 2208988800);
    onFile = [this](const std::string&) { ++calls; };
    EXPECT_TRUE(index(usb).contains("contentModified " + QString::fromStdString(usb)));
    onFile = nullptr;
    EXPECT_EQ(1, calls.load());
    EXPECT_EQ(without(before, {"copper.mp3", "list.m3u"}),
              without(indexDump(kDev, true), {"copper.mp3", "list.m3u"}));
    EXPECT_EQ(Strings({"2208988800", "2208988800"}),
              column("SELECT LASTMODIFIED FROM SONGS WHERE NAME = 'copper.mp3' UNION ALL "
                     "SELECT LASTMODIFIED FROM VIEW_PLAYLISTNAMES"));

    // A deleted song takes its folders, lookup rows and playlist entries along.
    ASSERT_EQ(0, ::unlink(tree.file("usb/" + odd).c_str()));
    index(usb);
    EXPECT_EQ("10 5 6 5 4 2 11 ", counts());
    EXPECT_EQ("OK", status(usb));
}

// Prioritising another device while one is indexed holds that work where it
// is: once both are done, the held device's tables are those of a run that
// nothing interrupted. The other device waits at its first folder until the
// held stage has gone as far as it goes while paused.
TEST_F(EndToEndTest, PrioritisingAnotherDeviceHoldsTheIndexingInHand) {
    std::vector<std::string> songs;
    for (int s = 0; s < 2000; ++s)
        songs.push_back(
            tree.copySample("gears-iron-road.mp3",
                            "usb/d" + std::to_string(s / 100) + "/" + std::to_string(s) + ".mp3"));
    tree.write("usb/list.m3u", "d0/0.mp3\nd19/1999.mp3\n");
    tree.copySample("gears-copper-sky.mp3", "other/x.mp3");
    const std::string usb = tree.file("usb"), other = tree.file("other");
    const QString mp = QString::fromStdString(usb), otherMp = QString::fromStdString(other);
    index(usb);
    const Strings clean = indexDump(kDev);
    ASSERT_EQ("2000 ", counts().substr(0, 5));
    for (const olvane::LogLine& line : cap.lines())
        EXPECT_NE(DLT_LOG_ERROR, line.level) << line.message;

    KestrowQTProxy& proxy = KestrowQTProxy::instance();
    // `where` waits at `held` on its `at`-th call.
    auto holdForOther = [&](Hook& where, int at, Latch& held, Latch& forOther,
                            std::function<bool()> settled) {
        SignalLog sigs;
        cap.clear();
        calls = 0;
        where = [this, at, &held](const std::string&) {
            if (++calls == at) {
                cap.clear();  // what `settled` looks for comes after the hold
                held.wait();
            }
        };
        proxy.startIndexing("dev", mp, true);
        where = nullptr;
        ASSERT_TRUE(waitFor([&] { return held.reached.load(); }, 60000));
        onDirectory = [&forOther](const std::string&) { forOther.wait(); };
        proxy.startIndexing("other", otherMp, true);
        onDirectory = nullptr;
        proxy.prioritizeMsdDevice("other", otherMp);
        ASSERT_TRUE(waitFor([&] { return forOther.reached.load(); }));
        held.released = true;
        ASSERT_TRUE(waitFor(settled));
        forOther.released = true;
        EXPECT_TRUE(waitFor(
            [&] {
                return sigs.entries.filter("indexingFinished ") ==
                           QStringList({"indexingFinished " + otherMp, "indexingFinished " + mp}) &&
                       scheduler.registeredCount() == 0;
            },
            60000));
        EXPECT_EQ("OK", status(usb));
    };

    // In the middle of the walk: before the 11th of 21 folders.
    holdForOther(onDirectory, 11, latches[0], latches[1], [&] {
        return cap.contains("MSDCrawler held while paused") || cap.contains("MSDCrawler timer");
    });
    EXPECT_EQ("", dumpDifference(clean, indexDump(kDev)));

    // Every song changed, so all are read again: inside one of the miner's
    // passes, which it finishes while paused.
    for (const std::string& song : songs)
        setMtime(song, 1000000000);
    holdForOther(onFile, 600, latches[2], latches[3],
                 [&] { return cap.contains("MSDMiner timer"); });
    const Strings held = indexDump(kDev);
    DatabaseMgr::instance().deleteDb(kDev);
    index(usb);
    EXPECT_EQ("", dumpDifference(indexDump(kDev), held));
}

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
    SignalLog sigs;
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
    const unsigned seeds[] = {std::random_device()(), std::random_device()()};
    SCOPED_TRACE("seeds " + std::to_string(seeds[0]) + " " + std::to_string(seeds[1]));
    std::thread first(send, seeds[0]), second(send, seeds[1]);
    const bool ended =
        waitFor([&] { return senders == 0 && scheduler.registeredCount() == 0; }, 120000);
    first.join();
    second.join();
    ASSERT_TRUE(ended) << "still registered: " << scheduler.registeredCount();

    QCoreApplication::sendPostedEvents();  // the signals queued to this thread
    for (int d = 0; d < 5; ++d) {
        SCOPED_TRACE(mounts[d]);
        const std::string id = "storm" + std::to_string(d);
        EXPECT_GE(sigs.entries.count("indexingFinished " + QString::fromStdString(mounts[d])) +
                      cap.countContaining("Stopping " + id + " type 0 handle 0 mp " + mounts[d] +
                                          " pipe "),
                  requests[d].load());
        const Strings stormed = indexDump(id);
        EXPECT_EQ("OK", status(mounts[d], id));
        DatabaseMgr::instance().deleteDb(id);
        index(mounts[d], true, id);
        EXPECT_EQ("", dumpDifference(indexDump(id), stormed));
    }
}

// Partitions of one device (its id not ASCII), each name a prefix, a LIKE
// pattern or a sibling of the next; one would end the SQL text it was pasted
// into (names in other scripts are OlvaneIndexerTest's). Each keeps its rows
// when any is indexed again, and the signals carry the names unchanged.
TEST_F(EndToEndTest, EachPartitionKeepsItsOwnRows) {
    const Strings names = {"usb1",  "usb1-2", "usb1 (2)",
                           "usb10", "a_b",    "aXb",
                           "100%",  "100x",   "it's \"x\"; DROP TABLE SONGS; --"};
    const std::string dev = "Gerät";
    const std::string paths =
        "SELECT PATH FROM SONGS UNION SELECT PATH FROM DIRECTORIES UNION SELECT PLAYPATH FROM "
        "PLAYLISTS ORDER BY 1";
    Strings rows;
    for (bool again : {false, true}) {
        for (size_t i = 0; i < names.size(); ++i) {
            // The first time, a song and a playlist naming it (below a '%' the
            // playlist miner would find no entry).
            const std::string relative = "x/" + names[i];
            if (!again) {
                tree.copySample("gears-iron-road.mp3", relative + "/f/s.mp3");
                if (names[i].find('%') == std::string::npos)
                    tree.write(relative + "/l.m3u", "f/s.mp3\n");
            }
            const QString mp = QString::fromStdString(tree.file(relative));
            QStringList got = index(tree.file(relative), i == 0 && !again, dev),
                        want = {"crawlingFinished " + mp, "indexingFinished " + mp,
                                again ? "databaseExists " + QString::fromStdString(dev) + " " + mp
                                      : "contentModified " + mp};
            got.removeDuplicates();  // branches may each report a change
            got.sort();
            want.sort();
            EXPECT_EQ(want, got) << names[i];
            if (again) {
                EXPECT_EQ(rows, dbColumn(dev, paths)) << names[i];
            }
        }
        rows = dbColumn(dev, paths);
        ASSERT_EQ(9u * 3 + 8, rows.size());  // two folders and a song each, eight playlists
    }
}

// A simulated phone: songs, folders and playlist entries by OBJECTID; again
// unchanged, nothing is written; a changed track is read again, alone.
// Unplugged in the middle of the folder listing (also when announced ready
// just after the unplug), with a catalogue that cannot be loaded, or before it
// is announced ready, the three chains get blocks marked deviceGone and the
// last complete index stays. A phone with playlists and no tracks is indexed too.
TEST_F(EndToEndTest, IndexesAPhoneAndKeepsItsRowsWhenItGoesAway) {
    phoneFolder = makePhoneTree(tree);
    QStringList first = indexPhone();
    EXPECT_LT(0, first.removeAll("contentModified " + kPhone));
    EXPECT_EQ(QStringList({"crawlingFinished " + kPhone, "indexingFinished " + kPhone}), first);
    EXPECT_EQ("OK", phoneStatus());
    // The songs and the folders that lead to them: no Ogg, no hidden file,
    // nothing of the top-level DCIM.
    EXPECT_EQ(
        Strings({"Phone", "Phone/Music", "Phone/Music/Gears", "Phone/Music/Gears/copper.mp3",
                 "Phone/Music/Gears/iron.mp3", "Phone/Music/Jazz", "Phone/Music/Jazz/blue.m4a"}),
        dbColumn("phone1",
                 "SELECT PATH FROM SONGS UNION ALL SELECT PATH FROM DIRECTORIES ORDER BY 1;"));
    // Entries name their songs by OBJECTID; those of songs not indexed are gone.
    EXPECT_EQ(Strings({"Best|copper.mp3", "Road|blue.m4a", "Road|iron.mp3"}),
              dbColumn("phone1",
                       "SELECT DISTINCT p.PLAYNAME || '|' || s.NAME FROM PLAYLISTS p "
                       "LEFT JOIN SONGS s ON p.TRACKID = s.OBJECTID ORDER BY 1;"));

    Strings kept = indexDump("phone1", true);
    indexPhone();
    EXPECT_EQ("", dumpDifference(kept, indexDump("phone1", true)));

    tree.copySample("gears-copper-sky.mp3", "phone/Music/Gears/iron.mp3");
    setMtime(tree.file("phone/Music/Gears/iron.mp3"), 2208988800);
    indexPhone();
    EXPECT_EQ(1, cap.countContaining("MtpMiner for: 1 (op: "));
    EXPECT_EQ(Strings{"Copper Sky|2208988800"},
              dbColumn("phone1",
                       "SELECT TITLE || '|' || LASTMODIFIED FROM SONGS WHERE NAME = "
                       "'iron.mp3'"));
    EXPECT_EQ(without(kept, {"iron.mp3"}), without(indexDump("phone1", true), {"iron.mp3"}));
    EXPECT_EQ("OK", phoneStatus());

    kept = indexDump("phone1", true);
    SimulatedDevice::Faults unplugged, noCatalogue;
    unplugged.unplugAfter = 6;
    noCatalogue.busyFirst[SimulatedDevice::GET_NUM_ELEMENTS] = 1;
    const portolan::DeviceTable::UnplugHook lateAnnouncement = [](t_handle h) {
        kestrow::MtpDevice::instance().disconnectDevice(h);
        kestrow::MtpDevice::instance().setDeviceReady(h);
    };
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        indexPhone(i == 2   ? noCatalogue
                   : i == 3 ? SimulatedDevice::Faults()
                            : unplugged,
                   i == 1 ? lateAnnouncement : nullptr, i != 3);
        EXPECT_EQ("PROGRESS", phoneStatus());
        EXPECT_EQ("", dumpDifference(kept, indexDump("phone1", true)));
    }

    tree.write("lists/A.m3u", "none.mp3\n");
    tree.write("lists/B.m3u", "");
    phoneFolder = tree.file("lists");
    DatabaseMgr::instance().deleteDb("phone1");
    indexPhone();
    EXPECT_EQ(1, cap.countContaining("MtpPlaylistMiner for: 2 (op: "));
    EXPECT_EQ("OK", phoneStatus());
}

// The device goes away before the walk or before a song is read, in each of
// the ways a stick leaves: removed, renamed away, or unmounted with its mount
// point folder kept (a tmpfs, detached as `umount -l` does). The indexing
// ends "PROGRESS" with nothing deleted, and once the tree is back the next
// indexing gives the tables of a clean index.
TEST_F(EndToEndTest, AVanishedDeviceKeepsItsRowsAndComesBackWhole) {
    for (int s = 0; s < 12; ++s)
        tree.copySample("gears-iron-road.mp3",
                        "tree/d" + std::to_string(s / 4) + "/" + std::to_string(s) + ".mp3");
    tree.write("tree/list.m3u", "D0/0.MP3\nd1/5.mp3\nd2/10.mp3\n");
    const std::string usb = tree.file("usb");
    // EMPTIED: a folder of songs goes, the mount point and the playlist stay.
    enum Way { REMOVED, RENAMED, UNMOUNTED, EMPTIED } way = REMOVED;
    // A fresh copy of the tree at the mount point, on a tmpfs of its own when
    // it is to be unmounted.
    auto place = [&] {
        ::umount2(usb.c_str(), MNT_DETACH);
        std::filesystem::remove_all(usb + ".away");
        std::filesystem::remove_all(usb);
        std::filesystem::create_directory(usb);
        return (way != UNMOUNTED || ::mount("tmpfs", usb.c_str(), "tmpfs", 0, "size=8m") == 0) &&
               QProcess::execute("cp", {"-a", tree.file("tree/.").c_str(), usb.c_str()}) == 0;
    };
    ASSERT_TRUE(place());
    index(usb);
    const Strings clean = indexDump(kDev);
    auto vanish = [&](const std::string&) {  // at the `calls`-th folder or song
        if (calls <= 0 || --calls != 0)
            return;
        if (way == REMOVED)
            std::filesystem::remove_all(usb);
        else if (way == RENAMED)
            std::filesystem::rename(usb, usb + ".away");
        else if (way == EMPTIED)
            std::filesystem::remove_all(usb + "/d0");
        else
            EXPECT_EQ(0, ::umount2(usb.c_str(), MNT_DETACH)) << std::strerror(errno);
    };
    for (Way w : {REMOVED, RENAMED, EMPTIED, UNMOUNTED}) {
        for (bool inMiner : {false, true}) {
            way = w;
            SCOPED_TRACE(std::to_string(w) + (inMiner ? " while mining" : " before the walk"));
            if (!place())
                GTEST_SKIP() << "unmounting needs a tmpfs, which needs root: "
                             << std::strerror(errno);
            DatabaseMgr::instance().deleteDb(kDev);
            if (!inMiner)
                index(usb);
            const Strings before = inMiner ? Strings() : indexDump(kDev);
            // While mining: after some songs were saved, so that the playlist
            // keeps the entries that name them. Emptied at the first folder
            // below the root, so that the playlist is read without its songs.
            calls = w == EMPTIED ? 2 : inMiner ? 6 : 1;
            (inMiner && w != EMPTIED ? onFile : onDirectory) = vanish;
            index(usb);
            onFile = onDirectory = nullptr;
            EXPECT_EQ("PROGRESS", status(usb));
            EXPECT_EQ("", inMiner ? "" : dumpDifference(before, indexDump(kDev)));
            ASSERT_TRUE(place());
            index(usb);
            EXPECT_EQ("", dumpDifference(clean, indexDump(kDev)));
            EXPECT_EQ("OK", status(usb));
        }
    }
    ::umount2(usb.c_str(), MNT_DETACH);
}

// A song that cannot be read when the miner comes to it (here: gone, while
// the device stays) gets a row that the next indexing reads again, instead of
// an empty row kept for good; the playlist entry naming it stays meanwhile.
// Then writes that fail are logged with the database's message: both change
// finders, the folder, song and playlist savers end transactions undone.
TEST_F(EndToEndTest, UnreadSongsAreReadAgainAndFailedWritesLogged) {
    tree.copySample("gears-iron-road.mp3", "usb/f/s.mp3");
    tree.write("usb/l.m3u", "f/s.mp3\n");
    const std::string usb = tree.file("usb"), song = usb + "/f/s.mp3";
    onFile = [&](const std::string& path) {
        if (path == song)
            std::filesystem::rename(song, tree.file("kept.mp3"));
    };
    index(usb);
    onFile = nullptr;
    std::filesystem::rename(tree.file("kept.mp3"), song);
    EXPECT_EQ(Strings{""}, column("SELECT TITLE FROM SONGS"));
    EXPECT_EQ(Strings{song}, column("SELECT DISTINCT TRACKPATH FROM PLAYLISTS"));
    index(usb);
    EXPECT_EQ(Strings{"Iron Road"}, column("SELECT TITLE FROM SONGS"));
    EXPECT_EQ(Strings{song}, column("SELECT DISTINCT TRACKPATH FROM PLAYLISTS"));
    EXPECT_EQ("OK", status(usb));

    // Stale rows for both change finders; every write undoes its transaction,
    // so each stage's "END TRANSACTION;" finds none to end.
    tree.copySample("gears-copper-sky.mp3", "usb/g/new.mp3");
    tree.write("usb/new.m3u", "g/new.mp3\n");
    column("INSERT INTO SONGS (PATH) VALUES ('" + usb + "/gone.mp3');" +
           "INSERT INTO PLAYLISTS (PLAYPATH, PLAYID) VALUES ('" + usb + "/gone.m3u', 'p');");
    for (const char* on : {"DELETE ON SONGS", "DELETE ON PLAYLISTS", "INSERT ON SONGS",
                           "INSERT ON PLAYLISTS", "INSERT ON DIRECTORIES"})
        column(std::string("CREATE TRIGGER '") + on + "' BEFORE " + on +
               " BEGIN SELECT RAISE(ROLLBACK, 'no'); END;");
    cap.clear();
    index(usb);
    EXPECT_EQ(5, cap.count("exec failed: 1 cannot commit - no transaction is active"));
}

namespace {

// How a stick is made from tree/ and mounted at $M, and how it is moved from
// $F to $M: a folder (moved), or an exFAT or FAT32 image on a loop device
// (named in the file "loop") mounted through FUSE, unmounted and its FUSE
// daemon gone before it is mounted again. FAT keeps local time: its clock
// moves when it is mounted again under another time zone ($Z); the others'
// through the mount.
struct Stick {
    std::string name, make, move;
};
void PrintTo(const Stick& stick, std::ostream* os) {
    *os << stick.name;
}

class ReplugTest : public EndToEndTest, public ::testing::WithParamInterface<Stick> {
protected:
    void TearDown() override {
        sh("cd " + tree.path() +
           " && for m in usb*; do fusermount -u $m; done; losetup -d $(cat loop)");
        EndToEndTest::TearDown();
    }
    // Runs a stick's command with $F and $M the mount points `from` and `m`.
    bool run(std::string command, const std::string& m, const std::string& from = "") {
        for (auto [name, value] : {std::pair{"$M", m}, {"$F", from}, {"$Z", zone}})
            for (size_t at; (at = command.find(name)) != std::string::npos;)
                command.replace(at, 2, value);
        return sh("cd " + tree.path() + " && " + command);
    }
    // Moves the clock of the stick at usb1 by `seconds`.
    bool shift(long long seconds) {
        shifted += seconds;
        if (GetParam().move.find("$Z") != std::string::npos) {
            const long long a = std::llabs(shifted);
            zone = "UTC" + std::string(shifted < 0 ? "-" : "+") + std::to_string(a / 3600) + ":" +
                   std::to_string(a / 60 % 60) + ":" + std::to_string(a % 60);
            return run(GetParam().move, "usb1", "usb1");
        }
        for (const auto& f : std::filesystem::recursive_directory_iterator(tree.file("usb1")))
            if (struct stat st; f.is_regular_file() && ::stat(f.path().c_str(), &st) == 0)
                setMtime(f.path(), st.st_mtime + seconds);
        return true;
    }
    long long shifted = 0;
    std::string zone = "UTC";
};

}  // namespace

// The same stick again, at another port (another mount point) or read under
// another clock (every file moved by whole hours, as FAT's local time is
// when the zone or daylight-saving time changes, or by a second, FAT's
// grain): no song is read, nothing is signalled modified, and the tables
// equal a clean index of the stick as it is now. A stick elsewhere is the
// same when its sampled songs are there with their times, to FAT's 2 s, and
// no longer at the old mount point; every file touched, a song 3 s off or a
// copy is read whole.
TEST_P(ReplugTest, AStickPluggedInAgainIsNotReadAgain) {
    const bool image = GetParam().make.find("loop") != std::string::npos;
    if (image && !sh("test $(id -u) = 0 -a -w /dev/fuse && losetup -f && which mkfs.exfat "
                     "mount.exfat-fuse mkfs.vfat mcopy fusefat"))
        GTEST_SKIP() << "needs root, /dev/fuse, a free loop device and scripts/setup's tools";
    for (const auto& [sample, path] : std::vector<std::pair<std::string, std::string>>{
             {"gears-iron-road.mp3", "Music/Gears/iron.mp3"},
             {"gears-copper-sky.mp3", "Music/Gears/copper.mp3"},
             {"ferro-cafe-noir.flac", "Music/Jazz/café noir.flac"},
             {"ferro-blue-hour.m4a", "Music/Jazz/blue hour.m4a"},
             {"cp1251-id3v23.mp3", "Кино/группа.mp3"}})
        tree.copySample(sample, "tree/" + path);
    tree.write("tree/list.m3u", "Music/Gears/iron.mp3\nКино/группа.mp3\n");
    for (const char* m : {"usb0", "usb1", "usb2", "usb3", "usb4", "usb5"})
        tree.mkdir(m);
    ASSERT_TRUE(run(
        (image ? "truncate -s 40M img && losetup -f --show img >loop && " : "") + GetParam().make,
        "usb0"));
    index(tree.file("usb0"));
    ASSERT_EQ("OK", status(tree.file("usb0")));

    onFile = [this](const std::string&) { ++calls; };
    const auto move = [&](const char* from, const char* to) {
        return run(GetParam().move, to, from);
    };
    const auto touch = [&](const char* at, long long seconds) {  // one song
        struct stat st;
        const std::string song = tree.file(at) + "/Music/Gears/iron.mp3";
        return ::stat(song.c_str(), &st) == 0 && (setMtime(song, st.st_mtime + seconds), true);
    };
    // What happens to the stick, where it is then, and how many songs are read.
    std::vector<std::tuple<std::string, std::function<bool()>, std::string, int>> events = {
        {"another port", [&] { return move("usb0", "usb1"); }, "usb1", 0},
        {"clock +1 h", [&] { return shift(3600); }, "usb1", 0},
        {"clock -2 h", [&] { return shift(-7200); }, "usb1", 0},
        {"clock +1 s", [&] { return shift(1); }, "usb1", 0},
        {"all touched, another port", [&] { return shift(54321) && move("usb1", "usb2"); }, "usb2",
         5}};
    // A sampled song's time may be 2 s off (FAT's grain), not 3; a stick still
    // at its old mount point is not moved (on FAT32, mounted read-only, no
    // file's time can be set).
    if (GetParam().name != "FAT32")
        events.insert(
            events.end(),
            {{"a song 2 s off, another port",
              [&] { return touch("usb2", -2) && move("usb2", "usb3"); }, "usb3", 0},
             {"a song 3 s off, another port",
              [&] { return touch("usb3", 3) && move("usb3", "usb4"); }, "usb4", 5},
             {"copied to another port",
              [&] { return sh("cp -a " + tree.file("usb4") + "/. " + tree.file("usb5")); }, "usb5",
              5}});
    for (const auto& [event, happen, where, reads] : events) {
        SCOPED_TRACE(event);
        const std::string mp = tree.file(where);
        ASSERT_TRUE(happen());
        calls = 0;
        const QStringList sigs = index(mp);
        EXPECT_EQ(reads, calls.load());
        EXPECT_EQ(reads > 0, sigs.contains("contentModified " + QString::fromStdString(mp)));
        // Rows and status moved before the walk, or read anew and the old ones dropped.
        EXPECT_EQ(reads == 0, sigs.contains("databaseExists dev " + QString::fromStdString(mp)));
        EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{mp, "OK"}}),
                  DatabaseMgr::instance().getStatuses(kDev));
        DatabaseMgr::instance().deleteDb("clean");
        index(mp, true, "clean");
        EXPECT_EQ("", dumpDifference(indexDump("clean"), indexDump(kDev)));
    }
}

INSTANTIATE_TEST_SUITE_P(
    FileSystems, ReplugTest,
    ::testing::Values(
        Stick{"folder", "cp -a tree/. $M", "rmdir $M && mv $F $M"},
        Stick{"exFAT",
              "mkfs.exfat $(cat loop) && mount.exfat-fuse $(cat loop) $M && cp -r tree/* $M",
              "fusermount -u $F && while pgrep -f $(cat loop); do sleep 0.1; done && "
              "mount.exfat-fuse $(cat loop) $M"},
        Stick{"FAT32",
              "mkfs.vfat -F 32 $(cat loop) && mcopy -s -i $(cat loop) tree/* ::/ && fusefat -o ro "
              "$(cat loop) $M",
              "fusermount -u $F && while pgrep -f $(cat loop); do sleep 0.1; done && TZ=$Z "
              "fusefat -o ro $(cat loop) $M"}),
    [](const ::testing::TestParamInfo<Stick>& info) { return info.param.name; });
