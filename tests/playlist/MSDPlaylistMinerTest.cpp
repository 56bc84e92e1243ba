#include "playlist/MSDPlaylistMiner.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "platform/common/Md5.h"
#include "platform/log/LogCapture.h"
#include "tests/playlist/StageHarness.h"
#include "tests/support/TempDir.h"

using kestrow::Block;
using kestrow::FileInfo;
using kestrow::MSDPlaylistMiner;
using kestrow::Operation;
using kestrow::Playlist;
using olvane::test::Collector;

namespace {

typedef Block<Playlist*> Playlists;

// Counts GLib's own messages (the parser may print criticals for odd
// entries) instead of letting them reach stderr.
std::atomic<int> gGlibMessages(0);
void countGlibMessage(const gchar*, GLogLevelFlags, const gchar*, gpointer) {
    ++gGlibMessages;
}

// Binary garbage, the same on every run, with NUL bytes and no line breaks
// at the start.
std::string garbage() {
    std::string bytes;
    unsigned x = 12345;
    for (int i = 0; i < 4096; ++i) {
        x = x * 1103515245u + 12345u;
        bytes += char((x >> 16) & 0xff);
    }
    return bytes;
}

class MSDPlaylistMinerTest : public ::testing::Test {
protected:
    void SetUp() override {
        mount = tmp.mkdir("usb");
        music = tmp.mkdir("usb/Music");
        previousHandler = g_log_set_default_handler(countGlibMessage, nullptr);
    }
    void TearDown() override { g_log_set_default_handler(previousHandler, nullptr); }

    std::string write(const std::string& name, const std::string& content) {
        return tmp.write("usb/Music/" + name, content);
    }

    boost::shared_ptr<Block<FileInfo*>> filesBlock(const std::vector<std::string>& paths) {
        boost::shared_ptr<Block<FileInfo*>> block(new Block<FileInfo*>());
        block->operation = Operation(7, 0, "dev-1", mount, true);
        int modified = 1000;
        for (const std::string& p : paths)
            block->items.push_back(new FileInfo(p, 0, modified++));
        return block;
    }

    // Runs `paths` through a running miner stage; the playlists it emits.
    boost::shared_ptr<Playlists> mine(const std::vector<std::string>& paths) {
        MSDPlaylistMiner miner("MSDPlaylistMiner");
        Collector<Playlists> collector;
        miner.next = &collector;
        bool arrived =
            olvane::test::runChain({&miner, &collector}, miner, {filesBlock(paths)}, collector);
        EXPECT_TRUE(arrived);
        return arrived ? collector.at(0) : boost::shared_ptr<Playlists>();
    }

    static std::vector<std::string> entries(const Playlist* playlist) {
        std::vector<std::string> paths;
        for (const kestrow::PlaylistEntry* e : playlist->entries) {
            paths.push_back(e->path);
            EXPECT_EQ(Md5(Md5::SONG, e->path), e->id) << e->path;
            EXPECT_EQ(0, e->isMtp);
        }
        return paths;
    }

    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    std::string mount;
    std::string music;
    GLogFunc previousHandler = nullptr;
};

// Relative, absolute, Windows-style and "%20" entries in every format. An
// entry is what the parser reports, unescaped, with '\' made '/', minus its
// first eight characters ("file:///"): a relative entry comes back resolved
// against the playlist's folder, an absolute path with no "file://" loses
// its first eight characters like any other.
TEST_F(MSDPlaylistMinerTest, ResolvesEntriesOfEveryFormat) {
    std::vector<std::string> files = {
        write("list.m3u",
              "a.mp3\n"
              "sub dir/c d.mp3\n"
              "Sub\\e.mp3\n"
              "/media/usb/b.mp3\n"
              "My%20Song.mp3\n"
              "file:///media/usb/My%20Song.mp3\n"
              "file:///C:%5CMusic%5Ca.mp3\n"
              "C:\\Music\\a.mp3\n"),
        write("list.m3u8",
              "#EXTM3U\n#EXTINF:12,Artist - Title\n\xc3\x84/\xc3\xbc.mp3\n../Other/z.mp3\n"),
        write("list.pls",
              "[playlist]\nFile1=a.mp3\nFile2=/media/usb/b.mp3\nFile3=C:\\Music\\a.mp3\n"
              "File4=file:///media/usb/My%20Song.mp3\nNumberOfEntries=4\nVersion=2\n"),
        write("list.asx",
              "<asx version=\"3.0\"><entry><ref href=\"a.mp3\"/></entry>"
              "<entry><ref href=\"/media/usb/b.mp3\"/></entry>"
              "<entry><ref href=\"My%20Song.mp3\"/></entry>"
              "<entry><ref href=\"C:\\Music\\a.mp3\"/></entry></asx>\n"),
        write("list.wpl",
              "<?wpl version=\"1.0\"?><smil><head><title>t</title></head><body><seq>"
              "<media src=\"a.mp3\"/><media src=\"..\\Music\\b.mp3\"/>"
              "<media src=\"C:\\Music\\a.mp3\"/><media src=\"My%20Song.mp3\"/>"
              "</seq></body></smil>\n"),
    };
    boost::shared_ptr<Playlists> out = mine(files);
    ASSERT_TRUE(out);
    ASSERT_EQ(5u, out->items.size());
    EXPECT_EQ(7, out->operation.id);
    EXPECT_TRUE(out->operation.lastBlock);

    for (size_t i = 0; i < files.size(); ++i) {
        const Playlist* p = out->items[i];
        EXPECT_EQ(files[i], p->path);
        EXPECT_EQ(files[i].substr(files[i].rfind('/') + 1), p->name);
        EXPECT_EQ(Md5(Md5::PLAYLIST, files[i]), p->id);
        EXPECT_EQ(Md5(Md5::DIRECTORY, mount), p->partitionId);
        EXPECT_EQ(int(1000 + i), p->modified);
    }
    const std::string m = music + "/";
    // A bare "C:\..." line is refused by the m3u reader itself.
    EXPECT_EQ(
        std::vector<std::string>({m + "a.mp3", m + "sub dir/c d.mp3", m + "Sub/e.mp3", "sb/b.mp3",
                                  m + "My%20Song.mp3", "media/usb/My Song.mp3", "C:/Music/a.mp3"}),
        entries(out->items[0]));
    EXPECT_EQ(std::vector<std::string>({m + "\xc3\x84/\xc3\xbc.mp3", mount + "/Other/z.mp3"}),
              entries(out->items[1]));
    EXPECT_EQ(std::vector<std::string>(
                  {m + "a.mp3", "sb/b.mp3", m + "C:/Music/a.mp3", "media/usb/My Song.mp3"}),
              entries(out->items[2]));
    EXPECT_EQ(
        std::vector<std::string>({m + "a.mp3", "media/usb/b.mp3", m + "My%20Song.mp3", "/a.mp3"}),
        entries(out->items[3]));
    EXPECT_EQ(std::vector<std::string>(
                  {m + "a.mp3", m + "../Music/b.mp3", "/a.mp3", m + "My%20Song.mp3"}),
              entries(out->items[4]));
    for (const std::string& f : files)
        EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_SUCCESS " + f)) << f;
}

// Files that hold nothing usable are logged and passed on, in order, with
// no entries (or with what the reader made of them), and never stop the stage.
TEST_F(MSDPlaylistMinerTest, PassesOnEmptyNestedAndBrokenFiles) {
    const std::string longName(1 << 20, 'a');
    write("inner.m3u", "hidden.mp3\n");
    std::vector<std::string> files = {
        write("empty.m3u", ""),
        write("outer.m3u", "inner.m3u\nsong.mp3\n"),
        write("odd.m3u", "first.mp3\nfile:///x%00y.mp3\n/b.mp3\nok.mp3\n"),
        write("garbage.pls", garbage()),
        write("garbage.asx", garbage()),
        write("garbage.wpl", garbage()),
        write("garbage.m3u", garbage()),
        write("long.asx",
              "<asx version=\"3.0\"><entry><ref href=\"" + longName + ".mp3\"/></entry></asx>\n"),
        write("long.m3u", longName + ".mp3\n"),
        music + "/vanished.m3u",
    };
    boost::shared_ptr<Playlists> out = mine(files);
    ASSERT_TRUE(out);
    ASSERT_EQ(files.size(), out->items.size());
    for (size_t i = 0; i < files.size(); ++i)
        EXPECT_EQ(files[i], out->items[i]->path);
    const std::string m = music + "/";

    EXPECT_TRUE(out->items[0]->entries.empty());
    // The nested playlist is an entry; its own entries are not read.
    EXPECT_EQ(std::vector<std::string>({m + "inner.m3u", m + "song.mp3"}), entries(out->items[1]));
    // An entry that does not unescape, and one shorter than "file:///", are skipped.
    EXPECT_EQ(std::vector<std::string>({m + "first.mp3", m + "ok.mp3"}), entries(out->items[2]));
    EXPECT_EQ(1, log.count("cannot unescape entry file:///x%00y.mp3"));
    EXPECT_EQ(1, log.count("entry too short: /b.mp3"));

    EXPECT_TRUE(out->items[3]->entries.empty());
    EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_UNHANDLED " + files[3]));
    EXPECT_TRUE(out->items[4]->entries.empty());
    EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_ERROR " + files[4]));
    EXPECT_TRUE(out->items[5]->entries.empty());
    EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_ERROR " + files[5]));
    // The m3u reader takes any text as names relative to the folder.
    EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_SUCCESS " + files[6]));
    for (const std::string& e : entries(out->items[6]))
        EXPECT_EQ(m, e.substr(0, m.size()));

    EXPECT_TRUE(out->items[7]->entries.empty());
    EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_ERROR " + files[7]));
    EXPECT_EQ(std::vector<std::string>({m + longName + ".mp3"}), entries(out->items[8]));

    EXPECT_TRUE(out->items[9]->entries.empty());
    EXPECT_EQ(0, log.count("TOTEM_PL_PARSER_RESULT_SUCCESS " + files[9]));
    EXPECT_EQ(1, log.count("MSDPlaylistMiner done (op: 7)"));
}

// The parse needs nobody to run the default GLib context: this thread owns
// it and does not dispatch it while it waits, and no main loop runs anywhere.
TEST_F(MSDPlaylistMinerTest, ParsesWithNoGLibMainLoopRunning) {
    GMainContext* defaultContext = g_main_context_default();
    ASSERT_TRUE(g_main_context_acquire(defaultContext));
    std::vector<std::string> files = {write("one.m3u", "x.mp3\ny.mp3\n"),
                                      write("two.pls", "[playlist]\nFile1=z.mp3\n")};

    MSDPlaylistMiner miner("MSDPlaylistMiner");
    Collector<Playlists> collector;
    miner.next = &collector;
    miner.launch();
    collector.launch();
    miner.start();
    collector.start();
    miner.enqueue(filesBlock(files));
    bool arrived = collector.waitForBlocks(1);
    if (!arrived) {
        // Let go of a stage that waits for the default context, so that the test ends.
        for (int i = 0; i < 1000 && !collector.waitForBlocks(1, 10); ++i)
            g_main_context_iteration(defaultContext, FALSE);
    }
    g_main_context_release(defaultContext);
    miner.stop();
    collector.stop();
    miner.join();
    collector.join();
    ASSERT_TRUE(arrived);

    boost::shared_ptr<Playlists> out = collector.at(0);
    ASSERT_EQ(2u, out->items.size());
    const std::string m = music + "/";
    EXPECT_EQ(std::vector<std::string>({m + "x.mp3", m + "y.mp3"}), entries(out->items[0]));
    EXPECT_EQ(std::vector<std::string>({m + "z.mp3"}), entries(out->items[1]));
    EXPECT_EQ(1, log.count("MSDPlaylistMiner for: 2 (op: 7)"));
    EXPECT_EQ(1, log.count("MSDPlaylistMiner done (op: 7)"));
}

}  // namespace
