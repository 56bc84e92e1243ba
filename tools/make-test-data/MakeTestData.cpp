// Writes the tags of the test samples in tests/data.
//
//   make-test-data FILE [--id3v1|--id3v23|--id3v24] [--cp1251] key=value...
//
// Keys: title artist album genre composer track disc (track and disc may be
// "2/3"). mp3 files get exactly the ID3 tag asked for (default ID3v2.4);
// other formats get their own tag through TagLib's property map. --cp1251
// stores every text as CP1251 bytes in a Latin-1 field, the way old Windows
// taggers wrote Cyrillic (ID3v1 and ID3v2.3 only).
#include <iconv.h>
#include <taglib/fileref.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tpropertymap.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace {

std::string toCp1251(const std::string& utf8) {
    iconv_t cd = iconv_open("WINDOWS-1251", "UTF-8");
    std::string out(utf8.size() * 2 + 1, '\0');
    char* in = const_cast<char*>(utf8.data());
    size_t inLeft = utf8.size();
    char* to = &out[0];
    size_t outLeft = out.size();
    iconv(cd, &in, &inLeft, &to, &outLeft);
    iconv_close(cd);
    out.resize(out.size() - outLeft);
    return out;
}

// A text as TagLib should store it: UTF-8 as is, or CP1251 bytes posing as
// Latin-1 characters.
TagLib::String text(const std::string& utf8, bool cp1251) {
    if (!cp1251)
        return TagLib::String(utf8, TagLib::String::UTF8);
    std::string bytes = toCp1251(utf8);
    return TagLib::String(TagLib::ByteVector(bytes.data(), unsigned(bytes.size())),
                          TagLib::String::Latin1);
}

// ID3v1 renders texts as Latin-1 bytes: the CP1251 bytes go out unchanged.
class RawLatin1 : public TagLib::ID3v1::StringHandler {
public:
    TagLib::ByteVector render(const TagLib::String& s) const override {
        return s.data(TagLib::String::Latin1);
    }
};

TagLib::PropertyMap properties(const std::map<std::string, std::string>& tags, bool cp1251) {
    static const std::map<std::string, std::string> keys = {
        {"title", "TITLE"},    {"artist", "ARTIST"},     {"album", "ALBUM"},
        {"genre", "GENRE"},    {"composer", "COMPOSER"}, {"track", "TRACKNUMBER"},
        {"disc", "DISCNUMBER"}};
    TagLib::PropertyMap map;
    for (const auto& t : tags) {
        auto key = keys.find(t.first);
        if (key != keys.end())
            map.replace(key->second, TagLib::StringList(text(t.second, cp1251)));
    }
    return map;
}

bool tagMp3(const char* path, const std::string& kind, bool cp1251,
            const std::map<std::string, std::string>& tags) {
    TagLib::MPEG::File file(path, false);
    if (!file.isValid())
        return false;
    file.strip(TagLib::MPEG::File::AllTags);
    if (kind == "--id3v1") {
        static RawLatin1 raw;
        TagLib::ID3v1::Tag::setStringHandler(&raw);
        TagLib::ID3v1::Tag* tag = file.ID3v1Tag(true);
        auto get = [&](const char* k) {
            auto it = tags.find(k);
            return it == tags.end() ? TagLib::String() : text(it->second, cp1251);
        };
        tag->setTitle(get("title"));
        tag->setArtist(get("artist"));
        tag->setAlbum(get("album"));
        tag->setGenre(get("genre"));
        if (tags.count("track"))
            tag->setTrack(unsigned(std::stoi(tags.at("track"))));
        return file.save(TagLib::MPEG::File::ID3v1, TagLib::File::StripOthers);
    }
    TagLib::ID3v2::FrameFactory::instance()->setDefaultTextEncoding(cp1251 ? TagLib::String::Latin1
                                                                           : TagLib::String::UTF8);
    TagLib::ID3v2::Tag* tag = file.ID3v2Tag(true);
    tag->setProperties(properties(tags, cp1251));
    return file.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers,
                     kind == "--id3v23" ? TagLib::ID3v2::v3 : TagLib::ID3v2::v4);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE [--id3v1|--id3v23|--id3v24] [--cp1251] key=value...\n",
                     argv[0]);
        return 2;
    }
    const char* path = argv[1];
    std::string kind = "--id3v24";
    bool cp1251 = false;
    std::map<std::string, std::string> tags;
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--cp1251") {
            cp1251 = true;
        } else if (arg.rfind("--id3", 0) == 0) {
            kind = arg;
        } else {
            size_t eq = arg.find('=');
            if (eq == std::string::npos) {
                std::fprintf(stderr, "bad argument: %s\n", argv[i]);
                return 2;
            }
            tags[arg.substr(0, eq)] = arg.substr(eq + 1);
        }
    }
    bool ok;
    const char* dot = std::strrchr(path, '.');
    if (dot && std::strcmp(dot, ".mp3") == 0) {
        ok = tagMp3(path, kind, cp1251, tags);
    } else {
        TagLib::FileRef file(path, false);
        ok = !file.isNull();
        if (ok) {
            file.file()->setProperties(properties(tags, cp1251));
            ok = file.save();
        }
    }
    if (!ok)
        std::fprintf(stderr, "cannot tag %s\n", path);
    return ok ? 0 : 1;
}
