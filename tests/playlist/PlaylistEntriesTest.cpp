// Playlists written on other systems name their songs after indexing, on a
// folder of this machine and on the file systems of sticks (exFAT and FAT32
// images on a loop device, mounted through FUSE as a head unit may).
#include "tests/support/Testing.h"

using namespace olvane::test;

namespace {

class PlaylistEntriesTest : public ::testing::TestWithParam<std::string> {
protected:
    void TearDown() override {
        sh("cd " + t.path() + " && fusermount -u usb; losetup -d $(cat loop)");
    }
    TempDir t;
};

}  // namespace

TEST_P(PlaylistEntriesTest, EveryEntryNamesItsSongOncePerLine) {
    const std::string put = GetParam(), usb = t.mkdir("usb");
    const bool image = put.find("loop") != std::string::npos;
    if (image && !sh("test $(id -u) = 0 -a -w /dev/fuse && losetup -f && which mkfs.exfat "
                     "mount.exfat-fuse mkfs.vfat mcopy fusefat"))
        GTEST_SKIP() << "needs root, /dev/fuse, a free loop device and scripts/setup's tools";
    // Each entry as written in Lists/, and the song it names: letter case,
    // Unicode forms (NFD "o\u0308", NFC "ó"), "\", drive, "..". The last two
    // need a file system where case counts: the exact name, else the first.
    std::vector<std::pair<std::string, std::string>> shapes = {
        {"..\\MUSIC\\ARTIST\\01 - TITLE.MP3", "Music/Artist/01 - Title.mp3"},
        {"\\music\\artist\\02 - second.FLAC", "Music/Artist/02 - Second.flac"},
        {"..\\MUSIC\\КИНО\\ГРУППА КРОВИ.MP3", "Music/Кино/Группа крови.mp3"},
        {"E:\\Music\\Bjo\u0308rk\\Human Behaviour.mp3", "Music/Björk/Human Behaviour.mp3"},
        {"/MUSIC/Sigur Rós/ÉTÉ ÉLAN.mp3", "Music/Sigur Ro\u0301s/été élan.mp3"},
        {"../Music/Twin/TWIN SONG.MP3", "Music/Twin/TWIN song.mp3"},
        {"../Music/Twin/twin song.mp3", "Music/Twin/twin song.mp3"}};
    shapes.resize(image ? shapes.size() - 2 : shapes.size());
    std::string m3u = "#EXTM3U\r\n";
    Strings songs;
    for (const auto& [entry, song] : shapes) {
        m3u += entry + "\r\n";
        t.write("tree/" + song, "");
        songs.push_back(usb + "/" + song);
    }
    t.write("tree/Lists/Road trip.m3u", m3u);

    ASSERT_TRUE(sh("cd " + t.path() +
                   (image ? " && truncate -s 40M img && losetup -f --show img >loop" : "") +
                   " && " + put));
    ASSERT_EQ(0, QProcess::execute(OLVANE_INDEXER, {"--db-dir", t.file("db").c_str(), "--device-id",
                                                    "dev", "--no-progress", usb.c_str()}));
    DatabaseMgr::instance().setDatabaseDirectory(t.file("db"));
    EXPECT_EQ(songs, dbColumn("dev",
                              "SELECT p.TRACKPATH FROM PLAYLISTS p JOIN SONGS s ON s.PATH = "
                              "p.TRACKPATH AND s.OBJECTID = p.TRACKID ORDER BY p.ID"));
}

// How the tree gets onto each file system: copied into a folder, or onto an
// image made on a loop device (named in the file "loop") and mounted.
INSTANTIATE_TEST_SUITE_P(
    FileSystems, PlaylistEntriesTest,
    ::testing::Values(
        "cp -a tree/. usb",
        "mkfs.exfat $(cat loop) && mount.exfat-fuse $(cat loop) usb && cp -r tree/* usb",
        "mkfs.vfat -F 32 $(cat loop) && mcopy -s -i $(cat loop) tree/* ::/ && "
        "fusefat -o rw+ $(cat loop) usb"));
