// make-corpus: writes a deterministic, realistic music tree for the benchmarks.
//
//   make-corpus [--real-size] [--data DIR] N OUT
//
// N songs as artist/album/"NN - title.ext", 8 to 14 tracks an album, with some
// deeper (artist/"year - album"/CD1) and some flatter (Singles/"artist - title")
// folders; about 80% mp3 (ID3v2.3 and 2.4, some with ID3v1 too), the rest m4a,
// flac and wav; about 2% of titles and artists in a legacy code page stored as
// Latin-1; covers and text files that are not music; one playlist per 200 songs
// (m3u and pls in turn, relative entries). The audio comes from the samples in
// DIR (default: the project's tests/data). With --real-size every song is 3 to
// 6 MB of real bytes (its audio frames repeated) with a 100 to 300 KB embedded
// cover, and the formats are mp3, flac and wav. The same N gives the same tree.
#include <iconv.h>
#include <sys/stat.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2frame.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tpropertymap.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

// splitmix64: the same numbers on every machine, unlike the std distributions.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    int range(int lo, int hi) { return lo + int(next() % uint64_t(hi - lo + 1)); }  // [lo, hi]
    bool chance(int percent) { return int(next() % 100) < percent; }
    template <class T>
    const T& pick(const std::vector<T>& v) {
        return v[next() % v.size()];
    }
    std::string bytes(size_t n) {
        std::string out(n, '\0');
        for (size_t i = 0; i < n; i += 8) {
            uint64_t r = next();
            std::memcpy(&out[i], &r, std::min<size_t>(8, n - i));
        }
        return out;
    }

private:
    uint64_t state_;
};

const std::vector<std::string> kAdjectives = {
    "Silver", "Broken", "Golden", "Quiet",  "Electric", "Hollow",  "Crimson", "Northern",
    "Velvet", "Wild",   "Lonely", "Bright", "Frozen",   "Distant", "Burning", "Paper"};
const std::vector<std::string> kNouns = {
    "River",  "Engine", "Garden", "Harbour", "Mirror", "Lantern", "Highway", "Canyon",
    "Window", "Ocean",  "Signal", "Shadow",  "Meadow", "Thunder", "Station", "Feather"};
const std::vector<std::string> kVerbs = {"Waiting for", "Running from", "Dancing in",  "Calling",
                                         "Chasing",     "Leaving",      "Dreaming of", "Under"};
const std::vector<std::string> kGenres = {"Rock", "Pop",   "Jazz",       "Blues",
                                          "Folk", "Metal", "Electronic", "Classical"};
// Names that old Windows taggers wrote in the owner's code page.
struct LegacyName {
    const char* codepage;
    const char* text;  // UTF-8
};
const std::vector<LegacyName> kLegacy = {
    {"WINDOWS-1251", "Кино"},       {"WINDOWS-1251", "Группа крови"},
    {"WINDOWS-1251", "Ария"},       {"WINDOWS-1251", "Звезда по имени Солнце"},
    {"WINDOWS-1253", "Άννα Βίσση"}, {"WINDOWS-1253", "Σε θέλω"},
    {"SHIFT_JIS", "宇多田ヒカル"},  {"SHIFT_JIS", "桜坂"},
    {"WINDOWS-1250", "Čechomor"},   {"WINDOWS-1250", "Żółta łódź"},
};

std::string convert(const std::string& utf8, const char* codepage) {
    iconv_t cd = iconv_open(codepage, "UTF-8");
    if (cd == iconv_t(-1))
        return utf8;
    std::string out(utf8.size() * 4 + 4, '\0');
    char* in = const_cast<char*>(utf8.data());
    size_t inLeft = utf8.size();
    char* to = &out[0];
    size_t outLeft = out.size();
    iconv(cd, &in, &inLeft, &to, &outLeft);
    iconv_close(cd);
    out.resize(out.size() - outLeft);
    return out;
}

// A tag text: UTF-8, or legacy bytes posing as Latin-1 characters.
TagLib::String tagText(const std::string& utf8, const char* legacyCodepage) {
    if (!legacyCodepage)
        return TagLib::String(utf8, TagLib::String::UTF8);
    std::string bytes = convert(utf8, legacyCodepage);
    return TagLib::String(TagLib::ByteVector(bytes.data(), unsigned(bytes.size())),
                          TagLib::String::Latin1);
}

// ID3v1 writes Latin-1 bytes unchanged, so legacy bytes stay what they are.
class RawLatin1 : public TagLib::ID3v1::StringHandler {
public:
    TagLib::ByteVector render(const TagLib::String& s) const override {
        return s.data(TagLib::String::Latin1);
    }
};

struct Song {
    std::string path;  // relative to the corpus root
    std::string title, artist, album, genre;
    const char* legacy = nullptr;  // code page of title and artist, or none
    int track = 0, disc = 0, year = 0;
    enum Format { MP3_V23, MP3_V24, MP3_V23_V1, M4A, FLAC, WAV } format = MP3_V24;
};

std::string extensionOf(Song::Format f) {
    switch (f) {
        case Song::M4A:
            return ".m4a";
        case Song::FLAC:
            return ".flac";
        case Song::WAV:
            return ".wav";
        default:
            return ".mp3";
    }
}

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& p, const std::string& bytes) {
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
}

// The audio of a sample without its tags: MPEG frames after the ID3v2 tag and
// before the ID3v1 tag; FLAC's frames after its metadata blocks.
std::string mp3Frames(const std::string& file) {
    size_t begin = 0;
    if (file.compare(0, 3, "ID3") == 0 && file.size() > 10) {
        const unsigned char* s = reinterpret_cast<const unsigned char*>(file.data()) + 6;
        begin = 10 + ((s[0] << 21) | (s[1] << 14) | (s[2] << 7) | s[3]);
    }
    size_t end = file.size();
    if (end >= 128 && file.compare(end - 128, 3, "TAG") == 0)
        end -= 128;
    return file.substr(begin, end - begin);
}

size_t flacAudioOffset(const std::string& file) {
    size_t at = 4;  // "fLaC"
    while (at + 4 <= file.size()) {
        const unsigned char* h = reinterpret_cast<const unsigned char*>(file.data()) + at;
        size_t length = (size_t(h[1]) << 16) | (size_t(h[2]) << 8) | h[3];
        at += 4 + length;
        if (h[0] & 0x80)
            break;
    }
    return at;
}

void putLe32(std::string& s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        s[at + i] = char((v >> (8 * i)) & 0xff);
}

// Grows a sample to `size` bytes of real content: its audio repeated (mp3,
// flac) or random PCM (wav, with its RIFF sizes fixed).
std::string grow(const std::string& sample, Song::Format format, size_t size, Random& random) {
    if (format == Song::WAV) {
        std::string out = sample.substr(0, 44) + random.bytes(size - 44);
        putLe32(out, 4, uint32_t(out.size() - 8));
        putLe32(out, 40, uint32_t(out.size() - 44));
        return out;
    }
    if (format == Song::FLAC) {
        size_t audio = flacAudioOffset(sample);
        std::string out = sample.substr(0, audio);
        const std::string frames = sample.substr(audio);
        while (out.size() < size)
            out += frames;
        return out;
    }
    const std::string frames = mp3Frames(sample);
    std::string out;
    out.reserve(size + frames.size());
    while (out.size() < size)
        out += frames;
    return out;
}

TagLib::ByteVector cover(Random& random, size_t size) {
    std::string bytes = "\xff\xd8\xff\xe0" + random.bytes(size - 4);
    return TagLib::ByteVector(bytes.data(), unsigned(bytes.size()));
}

bool tagMp3(const std::string& path, const Song& s, const TagLib::ByteVector* picture) {
    TagLib::MPEG::File file(path.c_str(), false);
    if (!file.isValid())
        return false;
    file.strip(TagLib::MPEG::File::AllTags);
    const bool v23 = s.format == Song::MP3_V23 || s.format == Song::MP3_V23_V1;
    TagLib::ID3v2::FrameFactory::instance()->setDefaultTextEncoding(s.legacy
                                                                        ? TagLib::String::Latin1
                                                                    : v23 ? TagLib::String::UTF16
                                                                          : TagLib::String::UTF8);
    TagLib::ID3v2::Tag* tag = file.ID3v2Tag(true);
    tag->setTitle(tagText(s.title, s.legacy));
    tag->setArtist(tagText(s.artist, s.legacy));
    tag->setAlbum(tagText(s.album, nullptr));
    tag->setGenre(s.genre);
    tag->setTrack(unsigned(s.track));
    tag->setYear(unsigned(s.year));
    if (picture) {
        auto* frame = new TagLib::ID3v2::AttachedPictureFrame;
        frame->setMimeType("image/jpeg");
        frame->setType(TagLib::ID3v2::AttachedPictureFrame::FrontCover);
        frame->setPicture(*picture);
        tag->addFrame(frame);
    }
    int which = TagLib::MPEG::File::ID3v2;
    if (s.format == Song::MP3_V23_V1) {
        static RawLatin1 raw;
        TagLib::ID3v1::Tag::setStringHandler(&raw);
        TagLib::ID3v1::Tag* v1 = file.ID3v1Tag(true);
        v1->setTitle(tagText(s.title, s.legacy));
        v1->setArtist(tagText(s.artist, s.legacy));
        v1->setAlbum(tagText(s.album, nullptr));
        v1->setTrack(unsigned(s.track));
        which |= TagLib::MPEG::File::ID3v1;
    }
    return file.save(which, TagLib::File::StripOthers, v23 ? TagLib::ID3v2::v3 : TagLib::ID3v2::v4);
}

bool tagOther(const std::string& path, const Song& s, const TagLib::ByteVector* picture) {
    TagLib::FileRef ref(path.c_str(), false);
    if (ref.isNull())
        return false;
    TagLib::PropertyMap map;
    map.replace("TITLE", TagLib::StringList(tagText(s.title, nullptr)));
    map.replace("ARTIST", TagLib::StringList(tagText(s.artist, nullptr)));
    map.replace("ALBUM", TagLib::StringList(tagText(s.album, nullptr)));
    map.replace("GENRE", TagLib::StringList(s.genre));
    map.replace("TRACKNUMBER", TagLib::StringList(TagLib::String::number(s.track)));
    map.replace("DATE", TagLib::StringList(TagLib::String::number(s.year)));
    if (s.disc)
        map.replace("DISCNUMBER", TagLib::StringList(TagLib::String::number(s.disc)));
    ref.file()->setProperties(map);
    if (picture) {
        if (auto* flac = dynamic_cast<TagLib::FLAC::File*>(ref.file())) {
            auto* p = new TagLib::FLAC::Picture;
            p->setMimeType("image/jpeg");
            p->setType(TagLib::FLAC::Picture::FrontCover);
            p->setData(*picture);
            flac->addPicture(p);
        }
    }
    return ref.save();
}

std::string words(Random& r, int count) {
    std::string out;
    for (int i = 0; i < count; ++i)
        out += (i ? " " : "") + (i % 2 ? r.pick(kNouns) : r.pick(kAdjectives));
    return out;
}

std::string twoDigits(int n) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%02d", n);
    return buf;
}

// The songs of the corpus, in the order they are written.
std::vector<Song> planSongs(int n, bool realSize, Random& r) {
    std::vector<Song> songs;
    int artistNo = 0;
    while (int(songs.size()) < n) {
        ++artistNo;
        const std::string artist =
            (r.chance(30) ? "The " : "") + words(r, 2) + " " + std::to_string(artistNo);
        const int albums = r.range(1, 4);
        for (int a = 0; a < albums && int(songs.size()) < n; ++a) {
            const std::string album = words(r, r.range(1, 3)) + " " + std::to_string(a + 1);
            const int year = r.range(1965, 2024);
            const int layout = r.range(0, 99);  // <75 standard, <90 deeper, else flatter
            const int tracks = r.range(8, 14);
            const std::string genre = r.pick(kGenres);
            for (int t = 1; t <= tracks && int(songs.size()) < n; ++t) {
                Song s;
                s.artist = artist;
                s.album = album;
                s.genre = genre;
                s.year = year;
                s.track = t;
                s.title = r.pick(kVerbs) + " the " + r.pick(kNouns);
                if (r.chance(2)) {
                    const LegacyName& name = r.pick(kLegacy);
                    s.legacy = name.codepage;
                    s.title = name.text;
                }
                int f = r.range(0, 99);
                if (realSize)
                    s.format = f < 85   ? (f % 2 ? Song::MP3_V23 : Song::MP3_V24)
                               : f < 95 ? Song::FLAC
                                        : Song::WAV;
                else
                    s.format = f < 80   ? (f < 30   ? Song::MP3_V23
                                           : f < 45 ? Song::MP3_V23_V1
                                                    : Song::MP3_V24)
                               : f < 88 ? Song::M4A
                               : f < 95 ? Song::FLAC
                                        : Song::WAV;
                if (s.legacy && s.format != Song::MP3_V23 && s.format != Song::MP3_V23_V1)
                    s.format = Song::MP3_V23;  // legacy bytes live in Latin-1 ID3 frames
                const std::string file = twoDigits(t) + " - " + s.title + extensionOf(s.format);
                if (layout < 75) {
                    s.path = artist + "/" + album + "/" + file;
                } else if (layout < 90) {
                    s.disc = 1 + (t - 1) / 7;
                    s.path = artist + "/" + std::to_string(year) + " - " + album + "/CD" +
                             std::to_string(s.disc) + "/" + file;
                } else {
                    s.path = "Singles/" + artist + " - " + s.title + " " + std::to_string(t) +
                             extensionOf(s.format);
                }
                songs.push_back(s);
            }
        }
    }
    return songs;
}

}  // namespace

int main(int argc, char** argv) {
    bool realSize = false;
    std::string data = OLVANE_TEST_DATA_DIR;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--real-size")
            realSize = true;
        else if (a == "--data" && i + 1 < argc)
            data = argv[++i];
        else
            args.push_back(a);
    }
    if (args.size() != 2 || std::atoi(args[0].c_str()) <= 0) {
        std::fprintf(stderr, "usage: make-corpus [--real-size] [--data DIR] N OUT\n");
        return 2;
    }
    const int n = std::atoi(args[0].c_str());
    const fs::path out = args[1];
    Random r(0x6f6c76616e65ULL + uint64_t(n) * 2 + (realSize ? 1 : 0));

    const std::string samples[] = {
        readFile(data + "/gears-iron-road.mp3"), readFile(data + "/ferro-blue-hour.m4a"),
        readFile(data + "/ferro-cafe-noir.flac"), readFile(data + "/moreno-summer-tape.wav")};
    for (const std::string& s : samples)
        if (s.empty()) {
            std::fprintf(stderr, "make-corpus: samples missing in %s\n", data.c_str());
            return 1;
        }
    const std::string plainMp3 = mp3Frames(samples[0]);

    std::vector<Song> songs = planSongs(n, realSize, r);
    std::string lastAlbumDir;
    int failures = 0;
    for (const Song& s : songs) {
        const fs::path path = out / s.path;
        const std::string dir = path.parent_path().string();
        if (dir != lastAlbumDir) {
            lastAlbumDir = dir;
            // What else sits beside music: a cover, sometimes notes.
            writeFile(path.parent_path() / "cover.jpg",
                      "\xff\xd8\xff\xe0" + r.bytes(size_t(r.range(20, 60)) * 1024));
            if (r.chance(20))
                writeFile(path.parent_path() / "notes.txt", "Ripped with care.\n");
        }
        const std::string* sample = &samples[0];
        if (s.format == Song::M4A)
            sample = &samples[1];
        else if (s.format == Song::FLAC)
            sample = &samples[2];
        else if (s.format == Song::WAV)
            sample = &samples[3];
        std::string bytes = *sample;
        if (realSize)
            bytes = grow(*sample, s.format, size_t(r.range(3000, 6000)) * 1024, r);
        else if (sample == &samples[0])
            bytes = plainMp3;
        writeFile(path, bytes);

        TagLib::ByteVector picture;
        if (realSize)
            picture = cover(r, size_t(r.range(100, 300)) * 1024);
        const bool isMp3 =
            s.format == Song::MP3_V23 || s.format == Song::MP3_V24 || s.format == Song::MP3_V23_V1;
        bool ok = isMp3 ? tagMp3(path.string(), s, realSize ? &picture : nullptr)
                        : tagOther(path.string(), s, realSize ? &picture : nullptr);
        if (!ok && ++failures <= 5)
            std::fprintf(stderr, "make-corpus: cannot tag %s\n", path.c_str());
    }

    // One playlist per 200 songs, entries relative to the playlist's folder.
    for (size_t p = 0; p * 200 < songs.size(); ++p) {
        const bool pls = p % 2 == 1;
        const fs::path list =
            out / "Playlists" / ("mix-" + twoDigits(int(p + 1)) + (pls ? ".pls" : ".m3u"));
        std::string text = pls ? "[playlist]\n" : "#EXTM3U\n";
        int entries = 0;
        for (size_t i = p * 200; i < songs.size() && i < p * 200 + 200; i += 4) {
            ++entries;
            if (pls)
                text += "File" + std::to_string(entries) + "=../" + songs[i].path + "\n";
            else
                text += "../" + songs[i].path + "\n";
        }
        if (pls)
            text += "NumberOfEntries=" + std::to_string(entries) + "\nVersion=2\n";
        writeFile(list, text);
    }
    std::printf("make-corpus: %zu songs in %s%s\n", songs.size(), out.c_str(),
                failures ? " (some not tagged)" : "");
    return failures ? 1 : 0;
}
