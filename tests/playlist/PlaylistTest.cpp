// The playlist stages: the mass-storage playlist miner and the playlist saver.
#include <glib.h>

#include "platform/common/MetaDataInfo.h"
#include "playlist/MSDPlaylistMiner.h"
#include "playlist/PlaylistSaver.h"
#include "tests/support/StderrCapture.h"
#include "tests/support/Testing.h"

using namespace olvane::test;
using kestrow::Playlist;

namespace {

class PlaylistTest : public ::testing::Test {
protected:
    void SetUp() override { DatabaseMgr::instance().setDatabaseDirectory(t.file("db")); }
    TempDir t;
    const std::string usb = t.mkdir("usb");
};

// Every entry of a playlist file, in any format and shape, must carry the
// PATH and OBJECTID of the song a player would open. GLib's complaints go to
// the log, not to stderr, where a message of the host's own still goes.
TEST_F(PlaylistTest, MinerNamesTheSongsPlayersOpen) {
    for (const char* song : {"Music/a.mp3", "Music/My Song.mp3", "Music/Ünï/ü.mp3", "Other/z.mp3",
                             "Музыка/Кино - Группа крови.mp3", "Музыка/Кукушка.mp3"})
        t.write(std::string("usb/") + song, "");
    // Each entry as written in a playlist of usb/Music, and the song it names
    // (a remote entry names itself; "" is dropped).
    g_autofree gchar* mountUri = g_filename_to_uri(usb.c_str(), nullptr, nullptr);
    const std::vector<std::pair<std::string, std::string>> shapes = {
        {"a.mp3", "Music/a.mp3"},
        {"./Ünï/../Ünï/ü.mp3", "Music/Ünï/ü.mp3"},
        {"..\\Other\\z.mp3", "Other/z.mp3"},
        {"/Music/My Song.mp3", "Music/My Song.mp3"},
        {"\\Other\\z.mp3", "Other/z.mp3"},
        {usb + "/Music/a.mp3", "Music/a.mp3"},
        {"E:\\Music\\Ünï\\ü.mp3", "Music/Ünï/ü.mp3"},
        {"E:/Other/z.mp3", "Other/z.mp3"},
        {mountUri + std::string("/Music/My%20Song.mp3"), "Music/My Song.mp3"},
        {"file:///Music/%C3%9Cn%C3%AF/%C3%BC.mp3", "Music/Ünï/ü.mp3"},
        {"http://radio.example/live?x=1&y=2#z", "http://radio.example/live?x=1&y=2#z"},
        {"..\\..\\etc\\passwd", ""},
    };
    std::string m3u = "#EXTM3U\r\n", m3u8 = "\xEF\xBB\xBF", pls = "[playlist]\r\n",
                wpl = "<?wpl version=\"1.0\"?><smil><body><seq>";
    Strings songs;
    for (size_t i = 0; i < shapes.size(); ++i) {
        std::string text = shapes[i].first;
        m3u += "#EXTINF:60,Artist - Title\r\n" + text + "\r\n";
        m3u8 += text + "\n";
        // A blank before '=' once: a key that the pls parser cannot number.
        pls += "File" + std::to_string(i + 1) + (i == 1 ? " = " : "=") + text + "\r\n";
        for (size_t at = text.find('&'); at != std::string::npos; at = text.find('&', at + 1))
            text.insert(at + 1, "amp;");
        wpl += "<media src=\"" + text + "\"/>";
        if (!shapes[i].second.empty())
            songs.push_back(shapes[i].second);
    }
    g_autofree gchar* cp1251 = g_convert(
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
    auto in = makeBlock<kestrow::FileInfo>(testOperation(usb));
    for (const auto& p : playlists)
        in->items.push_back(new kestrow::FileInfo(t.write("usb/" + p.first, p.second.first), 0, 1));

    olvane::LogCapture cap;
    StderrCapture err(t.file("stderr.txt"));
    auto out = kestrow::MSDPlaylistMiner("MSDPlaylistMiner").doOperation(in);
    g_log("Host", G_LOG_LEVEL_WARNING, "host message");
    const std::string written = err.restore();
    EXPECT_EQ(std::string::npos, written.find("GLib")) << written;
    EXPECT_NE(std::string::npos, written.find("host message")) << written;
    EXPECT_TRUE(cap.contains("GLib-GIO"));  // the m3u's root-absolute lines

    ASSERT_EQ(playlists.size(), out->items.size());
    for (const Playlist* p : out->items) {
        SCOPED_TRACE(p->path);
        Strings want, got;  // "path id"
        for (std::string s : playlists.at(p->path.substr(usb.size() + 1)).second) {
            s = s.rfind("http", 0) == 0 ? s : usb + "/" + s;
            want.push_back(s + " " + MetaDataInfo(s, usb, "", "", "", "", "", 0, 0, 0).objectId);
        }
        for (const kestrow::PlaylistEntry* e : p->entries)
            got.push_back(e->path + " " + e->id.toString());
        EXPECT_EQ(want, got);
    }
}

// One row per entry, in order; an empty playlist writes none. A failing row
// (two.m3u names a song twice) ends its block's writing (after.m3u is lost),
// not the operation nor the stage.
TEST_F(PlaylistTest, SaverWritesOneRowPerEntry) {
    DatabaseMgr::instance().createDb("dev1", usb, true);
    dbColumn("dev1",
             "CREATE UNIQUE INDEX ONE_TRACK ON PLAYLISTS(TRACKPATH) WHERE PLAYNAME = 'two.m3u';");
    auto playlist = [](const std::string& path, const std::string& partition, int modified,
                       const Strings& tracks, int isMtp = 0) {
        Playlist* p = new Playlist(path, partition, modified);
        for (const std::string& track : tracks)
            p->entries.push_back(new kestrow::PlaylistEntry(track, isMtp));
        return p;
    };
    auto row = [](const Playlist* p, const std::string& track, std::string id = "") {
        id = id.empty() ? Md5(Md5::SONG, track).toString() : id;
        return p->partitionId.toString() + "|" + p->path + "|" + p->id.toString() + "|" + p->name +
               "|" + track + "|" + id + "|1|" + std::to_string(p->modified);
    };
    Playlist* three = playlist(usb + "/Music/three.m3u", usb, 1700000000,
                               {"/usb/Music/a.mp3", "usb/Music/b c.mp3", "C:/Music/d.mp3"});
    Playlist* mtp = playlist("mtp-playlist://12/Road", "mtp-folder://dev1", 0, {"4711"}, 1);
    Playlist* two = playlist(usb + "/two.m3u", usb, 1, {"usb/a.mp3", "usb/b.mp3", "usb/a.mp3"});
    Playlist* next = playlist(usb + "/next.m3u", usb, 3, {"usb/d.mp3"});
    const std::string d = row(three, "C:/Music/d.mp3"), road = row(mtp, "4711", "4711");
    const Strings want({row(three, "/usb/Music/a.mp3"), row(three, "usb/Music/b c.mp3"), d, road,
                        row(two, "usb/a.mp3"), row(two, "usb/b.mp3"), row(next, "usb/d.mp3")});
    const std::vector<std::vector<Playlist*>> blocks = {
        {playlist(usb + "/first.m3u", usb, 5, {}), three, playlist(usb + "/none.pls", usb, 6, {}),
         mtp},
        {two, playlist(usb + "/after.m3u", usb, 2, {"usb/c.mp3"})},
        {next}};
    kestrow::PlaylistSaver saver("PlaylistSaver");
    for (size_t i = 0; i < blocks.size(); ++i) {
        auto in = makeBlock<Playlist>(testOperation(usb, true, int(i)));
        in->items = blocks[i];
        EXPECT_EQ(int(i), saver.doOperation(in)->operation.id);
    }
    EXPECT_EQ(want, dbRows("dev1",
                           "SELECT PARTITION_ID, PLAYPATH, PLAYID, PLAYNAME, TRACKPATH, TRACKID, "
                           "AUDIOTYPE, LASTMODIFIED FROM PLAYLISTS ORDER BY ID;",
                           true));
}

}  // namespace
