#include "playlist/MSDPlaylistMiner.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <future>

#include "platform/log/LogCapture.h"
#include "tests/support/TempDir.h"

using namespace kestrow;
typedef std::vector<std::string> Paths;

namespace {

struct Case {
    std::string file, content;
    Paths entries;
    std::string result = "SUCCESS";
};

// An entry is what the parser reports, unescaped, '\' made '/', minus its
// first eight characters ("file:///"). Every file is logged and passed on.
TEST(MSDPlaylistMinerTest, MinesEveryFormatAndPassesOnBrokenFiles) {
    // The parser prints GLib criticals for some odd entries; keep them off stderr.
    g_log_set_default_handler([](const gchar*, GLogLevelFlags, const gchar*, gpointer) {}, nullptr);
    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    std::string mount = tmp.mkdir("usb"), m = tmp.mkdir("usb/Music") + "/";
    std::string garbage, name(1 << 20, 'a');
    for (unsigned i = 0, x = 1; i < 4096; ++i, x = x * 1103515245u + 12345u)
        garbage += char(x >> 16);  // NUL bytes and all, the same on every run
    tmp.write("usb/Music/inner.m3u", "hidden.mp3\n");
    const std::vector<Case> cases = {
        // The m3u reader drops the bare "C:\..." line itself.
        {"list.m3u",
         "a.mp3\n/media/usb/b.mp3\nMy%20Song.mp3\nfile:///media/usb/My%20Song.mp3\n"
         "file:///C:%5CMusic%5Ca.mp3\nC:\\Music\\a.mp3\n",
         {m + "a.mp3", "sb/b.mp3", m + "My%20Song.mp3", "media/usb/My Song.mp3", "C:/Music/a.mp3"}},
        {"list.m3u8",
         "#EXTM3U\n#EXTINF:12,A - T\n\xc3\x84/\xc3\xbc.mp3\n../Other/z.mp3\n",
         {m + "\xc3\x84/\xc3\xbc.mp3", mount + "/Other/z.mp3"}},
        {"list.pls",
         "[playlist]\nFile1=a.mp3\nFile2=/media/usb/b.mp3\nFile3=C:\\Music\\a.mp3\n"
         "File4=file:///media/usb/My%20Song.mp3\nNumberOfEntries=4\n",
         {m + "a.mp3", "sb/b.mp3", m + "C:/Music/a.mp3", "media/usb/My Song.mp3"}},
        {"list.asx",
         R"(<asx version="3.0"><entry><ref href="a.mp3"/></entry><entry><ref )"
         R"(href="/media/usb/b.mp3"/></entry><entry><ref href="My%20Song.mp3"/></entry>)"
         R"(<entry><ref href="C:\Music\a.mp3"/></entry></asx>)",
         {m + "a.mp3", "media/usb/b.mp3", m + "My%20Song.mp3", "/a.mp3"}},
        {"list.wpl",
         R"(<?wpl version="1.0"?><smil><body><seq><media src="a.mp3"/><media )"
         R"(src="..\Music\b.mp3"/><media src="C:\Music\a.mp3"/><media src="My%20Song.mp3"/>)"
         R"(</seq></body></smil>)",
         {m + "a.mp3", m + "../Music/b.mp3", "/a.mp3", m + "My%20Song.mp3"}},
        {"empty.m3u", "", {}},
        // A nested playlist is an entry; its own entries are not read.
        {"outer.m3u", "inner.m3u\nsong.mp3\n", {m + "inner.m3u", m + "song.mp3"}},
        // Entries that do not unescape or are shorter than "file:///" are skipped.
        {"odd.m3u", "a.mp3\nfile:///x%00y.mp3\n/b.mp3\nok.mp3\n", {m + "a.mp3", m + "ok.mp3"}},
        {"garbage.pls", garbage, {}, "UNHANDLED"},
        {"garbage.asx", garbage, {}, "ERROR"},
        {"garbage.wpl", garbage, {}, "ERROR"},
        {"garbage.m3u", garbage, {}, "UNHANDLED"},
        {"long.asx", "<asx><entry><ref href=\"" + name + "\"/></entry></asx>", {}, "ERROR"},
        {"long.m3u", name + "\n", {m + name}},
    };
    boost::shared_ptr<Block<FileInfo*>> in(new Block<FileInfo*>());
    in->operation = Operation(7, 0, "dev-1", mount, true);
    for (const Case& c : cases)
        in->items.push_back(new FileInfo(tmp.write("usb/Music/" + c.file, c.content), 0, 77));

    // This thread holds the default GLib context and runs no loop on it. A
    // parse that waits for that context is let go by running it late, and fails.
    MSDPlaylistMiner miner("MSDPlaylistMiner");
    ASSERT_TRUE(g_main_context_acquire(g_main_context_default()));
    auto mined = std::async(std::launch::async, [&] { return miner.doOperation(in); });
    EXPECT_EQ(std::future_status::ready, mined.wait_for(std::chrono::seconds(20)));
    while (mined.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready)
        g_main_context_iteration(nullptr, FALSE);
    g_main_context_release(g_main_context_default());
    boost::shared_ptr<Block<Playlist*>> out = mined.get();

    ASSERT_EQ(cases.size(), out->items.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].file);
        const Playlist* p = out->items[i];
        EXPECT_EQ(m + cases[i].file, p->path);
        EXPECT_EQ(cases[i].file, p->name);
        EXPECT_EQ(Md5(Md5::PLAYLIST, p->path), p->id);
        EXPECT_EQ(Md5(Md5::DIRECTORY, mount), p->partitionId);
        EXPECT_EQ(77, p->modified);
        Paths entries;
        for (const PlaylistEntry* e : p->entries)
            entries.push_back(e->path);
        EXPECT_EQ(cases[i].entries, entries);
        EXPECT_EQ(1, log.count("TOTEM_PL_PARSER_RESULT_" + cases[i].result + " " + p->path));
    }
    EXPECT_EQ(1, log.count("cannot unescape entry file:///x%00y.mp3"));
    EXPECT_EQ(1, log.count("entry too short: /b.mp3"));
}

}  // namespace
