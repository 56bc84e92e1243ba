#include "playlist/MSDPlaylistMiner.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <cstdlib>
#include <map>

#include "platform/common/MetaDataInfo.h"
#include "tests/msd/MsdTestSupport.h"
#include "tests/support/ChildProcess.h"

using namespace kestrow;
using olvane::test::Strings;

namespace {

const char* const kChildVariable = "OLVANE_PLAYLIST_MINER_CHILD";

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + 1))
        text.replace(at, from.size(), to);
    return text;
}

// Mines the crawled playlists in a child process of this test, so that its
// stderr can be read (and a parser that spins cannot hang the suite). Every
// entry must carry the PATH and OBJECTID of the song a player would open.
TEST(MSDPlaylistMinerTest, EntriesNameTheSongsPlayersOpen) {
    if (!std::getenv(kChildVariable)) {
        olvane::test::ChildProcess child(
            {QCoreApplication::applicationFilePath().toStdString(),
             "--gtest_filter=MSDPlaylistMinerTest.EntriesNameTheSongsPlayersOpen"},
            {std::string(kChildVariable) + "=1"});
        ASSERT_TRUE(child.waitForFinished(60000)) << "mining does not end";
        const std::string out = child.readAllStandardOutput().toStdString();
        const std::string err = child.readAllStandardError().toStdString();
        EXPECT_EQ(0, child.exitCode()) << out << err;
        EXPECT_EQ(std::string::npos, err.find("GLib")) << err;
        EXPECT_NE(std::string::npos, err.find("host message")) << err;
        return;
    }

    olvane::test::TempDir tmp;
    olvane::LogCapture log;
    const std::string mount = tmp.mkdir("usb");
    for (const char* song : {"Music/a.mp3", "Music/My Song.mp3", "Music/Ünï/ü.mp3", "Other/z.mp3",
                             "Музыка/Кино - Группа крови.mp3", "Музыка/Кукушка.mp3"})
        tmp.write(std::string("usb/") + song, "");

    // Each entry as written in a playlist of usb/Music, and the song it names
    // (a remote entry names itself; "" is dropped).
    gchar* mountUri = g_filename_to_uri(mount.c_str(), nullptr, nullptr);
    const std::vector<std::pair<std::string, std::string>> shapes = {
        {"a.mp3", "Music/a.mp3"},
        {"./Ünï/../Ünï/ü.mp3", "Music/Ünï/ü.mp3"},
        {"..\\Other\\z.mp3", "Other/z.mp3"},
        {"/Music/My Song.mp3", "Music/My Song.mp3"},
        {"\\Other\\z.mp3", "Other/z.mp3"},
        {mount + "/Music/a.mp3", "Music/a.mp3"},
        {"E:\\Music\\Ünï\\ü.mp3", "Music/Ünï/ü.mp3"},
        {"E:/Other/z.mp3", "Other/z.mp3"},
        {mountUri + std::string("/Music/My%20Song.mp3"), "Music/My Song.mp3"},
        {"file:///Music/%C3%9Cn%C3%AF/%C3%BC.mp3", "Music/Ünï/ü.mp3"},
        {"http://radio.example/live?x=1&y=2#z", "http://radio.example/live?x=1&y=2#z"},
        {"..\\..\\etc\\passwd", ""},
    };
    g_free(mountUri);
    std::string m3u = "#EXTM3U\r\n", m3u8 = "\xEF\xBB\xBF", pls = "[playlist]\r\n",
                wpl = "<?wpl version=\"1.0\"?><smil><body><seq>";
    Strings songs;
    for (size_t i = 0; i < shapes.size(); ++i) {
        const std::string& text = shapes[i].first;
        m3u += "#EXTINF:60,Artist - Title\r\n" + text + "\r\n";
        m3u8 += text + "\n";
        // A blank before '=' once: a key that the pls parser cannot number.
        pls += "File" + std::to_string(i + 1) + (i == 1 ? " = " : "=") + text + "\r\n";
        wpl += "<media src=\"" + replaced(text, "&", "&amp;") + "\"/>";
        if (!shapes[i].second.empty())
            songs.push_back(shapes[i].second);
    }
    gchar* cp1251 = g_convert(
        "#EXTM3U\r\n#EXTINF:245,Кино - Группа крови\r\nКино - Группа крови.mp3\r\n"
        "#EXTINF:397,Кино - Кукушка\r\n\\Музыка\\Кукушка.mp3\r\n",
        -1, "WINDOWS-1251", "UTF-8", nullptr, nullptr, nullptr);
    std::string garbage;
    for (unsigned i = 0, x = 1; i < 4096; ++i, x = x * 1103515245u + 12345u)
        garbage += char(x >> 16);  // NUL bytes and all, the same on every run

    const std::map<std::string, std::pair<std::string, Strings>> playlists = {
        {"Music/Mix #1 50% ?.m3u", {m3u, songs}},
        {"Music/Любимое 音楽.m3u8", {m3u8, songs}},
        {"Music/a b.pls", {pls, songs}},
        {"Music/x#y.wpl", {wpl + "</seq></body></smil>", songs}},
        {"Музыка/Кино.m3u", {cp1251, {"Музыка/Кино - Группа крови.mp3", "Музыка/Кукушка.mp3"}}},
        {"Music/bom.pls", {"\xEF\xBB\xBF[playlist]\nFile1=a.mp3\n", {"Music/a.mp3"}}},
        {"Music/nul.m3u", {"file:///x%00y.mp3\r\na.mp3\r\n", {"Music/a.mp3"}}},
        {"Music/empty.m3u", {"", {}}},
        {"Music/garbage.m3u", {garbage, {}}},
        {"Music/garbage.pls", {garbage, {}}},
        {"Music/garbage.wpl", {garbage, {}}},
    };
    g_free(cp1251);
    for (const auto& p : playlists)
        tmp.write("usb/" + p.first, p.second.first);

    olvane::test::CrawlResult crawled = olvane::test::crawl(olvane::test::rootBlock(mount));
    std::map<std::string, std::pair<std::string, std::string>> songOf;  // PATH, OBJECTID
    for (const FileInfo* f : crawled.songs->items) {
        MetaDataInfo song(*f->path, mount, "", "", "", "", "", 0, 0, 0);
        songOf[f->path->substr(mount.size() + 1)] = {song.path, song.objectId};
    }
    boost::shared_ptr<Block<Playlist*>> out =
        MSDPlaylistMiner("MSDPlaylistMiner").doOperation(crawled.playlists);

    ASSERT_EQ(playlists.size(), out->items.size());
    for (const Playlist* p : out->items) {
        SCOPED_TRACE(p->path);
        std::vector<std::pair<std::string, std::string>> want, got;
        for (const std::string& s : playlists.at(p->path.substr(mount.size() + 1)).second)
            want.push_back(s.rfind("http", 0) == 0 ? std::make_pair(s, Md5(Md5::SONG, s).toString())
                                                   : songOf.at(s));
        for (const PlaylistEntry* e : p->entries)
            got.emplace_back(e->path, e->id.toString());
        EXPECT_EQ(want, got);
    }
    // The parser's complaints about the m3u's root-absolute lines go to the
    // log; a message of the host's own stays on stderr.
    EXPECT_TRUE(log.contains("GLib-GIO"));
    g_log("Host", G_LOG_LEVEL_WARNING, "host message");
}

}  // namespace
