#include "playlist/MSDPlaylistMiner.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/common/Md5.h"
#include "platform/log/LogCapture.h"
#include "tests/playlist/StageHarness.h"
#include "tests/support/TempDir.h"

using namespace kestrow;
typedef std::vector<std::string> Paths;

namespace {

// The parser prints GLib criticals for some odd entries; keep them off stderr.
void ignoreGlibMessage(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

class MSDPlaylistMinerTest : public ::testing::Test {
protected:
    void SetUp() override { previous = g_log_set_default_handler(ignoreGlibMessage, nullptr); }
    void TearDown() override { g_log_set_default_handler(previous, nullptr); }

    std::string write(const std::string& name, const std::string& content) {
        return tmp.write("usb/Music/" + name, content);
    }

    // Runs the files through a miner stage; the playlists it passes on.
    boost::shared_ptr<Block<Playlist*>> mine(const Paths& paths) {
        boost::shared_ptr<Block<FileInfo*>> in(new Block<FileInfo*>());
        in->operation = Operation(7, 0, "dev-1", mount, true);
        for (size_t i = 0; i < paths.size(); ++i)
            in->items.push_back(new FileInfo(paths[i], 0, int(1000 + i)));
        MSDPlaylistMiner miner("MSDPlaylistMiner");
        olvane::test::Collector<Block<Playlist*>> out;
        miner.next = &out;
        // A stage that waits for the default GLib context is let go by running it.
        EXPECT_TRUE(olvane::test::runChain({&miner, &out}, miner, {in}, out,
                                           [] { g_main_context_iteration(nullptr, FALSE); }));
        EXPECT_EQ(1u, out.blocks.size());
        return out.blocks.empty() ? boost::shared_ptr<Block<Playlist*>>() : out.blocks[0];
    }

    static Paths entries(const Playlist* playlist) {
        Paths paths;
        for (const PlaylistEntry* e : playlist->entries) {
            paths.push_back(e->path);
            EXPECT_EQ(Md5(Md5::SONG, e->path), e->id);
            EXPECT_EQ(0, e->isMtp);
        }
        return paths;
    }

    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    std::string mount = tmp.mkdir("usb");
    std::string m = tmp.mkdir("usb/Music") + "/";
    GLogFunc previous = nullptr;
};

// An entry is what the parser reports, unescaped, '\' made '/', minus its
// first eight characters: relative entries come back resolved against the
// playlist's folder, a bare absolute path loses eight characters too.
TEST_F(MSDPlaylistMinerTest, ResolvesEntriesOfEveryFormat) {
    Paths files = {
        write("list.m3u",
              "a.mp3\nsub dir/c d.mp3\nSub\\e.mp3\n/media/usb/b.mp3\nMy%20Song.mp3\n"
              "file:///media/usb/My%20Song.mp3\nfile:///C:%5CMusic%5Ca.mp3\nC:\\Music\\a.mp3\n"),
        write("list.m3u8", "#EXTM3U\n#EXTINF:12,A - T\n\xc3\x84/\xc3\xbc.mp3\n../Other/z.mp3\n"),
        write("list.pls",
              "[playlist]\nFile1=a.mp3\nFile2=/media/usb/b.mp3\nFile3=C:\\Music\\a.mp3\n"
              "File4=file:///media/usb/My%20Song.mp3\nNumberOfEntries=4\n"),
        write("list.asx",
              "<asx version=\"3.0\"><entry><ref href=\"a.mp3\"/></entry><entry><ref "
              "href=\"/media/usb/b.mp3\"/></entry><entry><ref href=\"My%20Song.mp3\"/></entry>"
              "<entry><ref href=\"C:\\Music\\a.mp3\"/></entry></asx>\n"),
        write("list.wpl",
              "<?wpl version=\"1.0\"?><smil><body><seq><media src=\"a.mp3\"/><media "
              "src=\"..\\Music\\b.mp3\"/><media src=\"C:\\Music\\a.mp3\"/><media "
              "src=\"My%20Song.mp3\"/></seq></body></smil>\n"),
    };
    boost::shared_ptr<Block<Playlist*>> out = mine(files);
    ASSERT_TRUE(out);
    ASSERT_EQ(5u, out->items.size());
    EXPECT_EQ(7, out->operation.id);
    EXPECT_TRUE(out->operation.lastBlock);
    for (size_t i = 0; i < files.size(); ++i) {
        const Playlist* p = out->items[i];
        EXPECT_EQ(files[i], p->path);
        EXPECT_EQ(files[i].substr(m.size()), p->name);
        EXPECT_EQ(Md5(Md5::PLAYLIST, files[i]), p->id);
        EXPECT_EQ(Md5(Md5::DIRECTORY, mount), p->partitionId);
        EXPECT_EQ(int(1000 + i), p->modified);
        EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_SUCCESS " + files[i]));
    }
    // The m3u reader drops the bare "C:\..." line itself.
    EXPECT_EQ(Paths({m + "a.mp3", m + "sub dir/c d.mp3", m + "Sub/e.mp3", "sb/b.mp3",
                     m + "My%20Song.mp3", "media/usb/My Song.mp3", "C:/Music/a.mp3"}),
              entries(out->items[0]));
    EXPECT_EQ(Paths({m + "\xc3\x84/\xc3\xbc.mp3", mount + "/Other/z.mp3"}), entries(out->items[1]));
    EXPECT_EQ(Paths({m + "a.mp3", "sb/b.mp3", m + "C:/Music/a.mp3", "media/usb/My Song.mp3"}),
              entries(out->items[2]));
    EXPECT_EQ(Paths({m + "a.mp3", "media/usb/b.mp3", m + "My%20Song.mp3", "/a.mp3"}),
              entries(out->items[3]));
    EXPECT_EQ(Paths({m + "a.mp3", m + "../Music/b.mp3", "/a.mp3", m + "My%20Song.mp3"}),
              entries(out->items[4]));
}

// Files with nothing usable are logged and passed on, in order, with no
// entries or with what the reader made of them.
TEST_F(MSDPlaylistMinerTest, PassesOnEmptyNestedAndBrokenFiles) {
    std::string garbage, name(1 << 20, 'a');
    for (unsigned i = 0, x = 1; i < 4096; ++i, x = x * 1103515245u + 12345u)
        garbage += char(x >> 16);  // NUL bytes and all, the same on every run
    write("inner.m3u", "hidden.mp3\n");
    Paths files = {write("empty.m3u", ""),
                   write("outer.m3u", "inner.m3u\nsong.mp3\n"),
                   write("odd.m3u", "first.mp3\nfile:///x%00y.mp3\n/b.mp3\nok.mp3\n"),
                   write("garbage.pls", garbage),
                   write("garbage.asx", garbage),
                   write("garbage.wpl", garbage),
                   write("garbage.m3u", garbage),
                   write("long.asx", "<asx><entry><ref href=\"" + name + "\"/></entry></asx>"),
                   write("long.m3u", name + "\n"),
                   m + "vanished.m3u"};
    boost::shared_ptr<Block<Playlist*>> out = mine(files);
    ASSERT_TRUE(out);
    ASSERT_EQ(files.size(), out->items.size());
    for (size_t i = 0; i < files.size(); ++i)
        EXPECT_EQ(files[i], out->items[i]->path);
    for (size_t i : {0, 3, 4, 5, 7, 9})
        EXPECT_EQ(Paths(), entries(out->items[i])) << files[i];
    // A nested playlist is an entry; its own entries are not read.
    EXPECT_EQ(Paths({m + "inner.m3u", m + "song.mp3"}), entries(out->items[1]));
    // Entries that do not unescape or are shorter than "file:///" are skipped.
    EXPECT_EQ(Paths({m + "first.mp3", m + "ok.mp3"}), entries(out->items[2]));
    EXPECT_EQ(1, log.count("cannot unescape entry file:///x%00y.mp3"));
    EXPECT_EQ(1, log.count("entry too short: /b.mp3"));
    EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_UNHANDLED " + files[3]));
    for (size_t i : {4, 5, 7})
        EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_ERROR " + files[i])) << files[i];
    // The m3u reader takes any text for names in the playlist's folder.
    for (const std::string& e : entries(out->items[6]))
        EXPECT_EQ(m, e.substr(0, m.size()));
    EXPECT_EQ(Paths({m + name}), entries(out->items[8]));
    EXPECT_EQ(1, log.count("MSDPlaylistMiner done (op: 7)"));
}

// Nobody runs the default GLib context while the stage works: this thread
// owns it and does not dispatch it while it waits.
TEST_F(MSDPlaylistMinerTest, ParsesWithNoGLibMainLoopRunning) {
    ASSERT_TRUE(g_main_context_acquire(g_main_context_default()));
    Paths files = {write("one.m3u", "x.mp3\ny.mp3\n"), write("two.pls", "[playlist]\nFile1=z\n")};
    boost::shared_ptr<Block<Playlist*>> out = mine(files);
    g_main_context_release(g_main_context_default());
    ASSERT_TRUE(out);
    EXPECT_EQ(Paths({m + "x.mp3", m + "y.mp3"}), entries(out->items.at(0)));
    EXPECT_EQ(Paths({m + "z"}), entries(out->items.at(1)));
    EXPECT_EQ(1, log.count("MSDPlaylistMiner for: 2 (op: 7)"));
}

}  // namespace
