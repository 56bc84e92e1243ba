#include "playlist/PlaylistText.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "platform/codingdata/CodingData.h"
#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

const char kByteOrderMark[] = "\xEF\xBB\xBF";

std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return std::string();
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// The UTF-8 reading of text in an unknown legacy code page, guessed as one
// pool: a whole playlist says more about its code page than one entry.
std::string fromLegacyCodePage(const std::string& text) {
    Track track;
    initTrack(&track);
    setTrackTitle(&track, text.data(), text.size(), "ISO-8859-1");
    Track* converted = guess_and_convert_by_prio(&track, "ISO-8859-1");
    std::string out = text;
    if (converted && converted->title.data)
        out.assign(converted->title.data, converted->title.length);
    if (converted) {
        destroyTrack(converted);
        free(converted);
    }
    destroyTrack(&track);
    return out;
}

}  // namespace

PlaylistText::PlaylistText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad() || !in.is_open()) {
        ZQLOG_WARN("cannot read playlist: %s", path.c_str());
        bytes_.clear();
        return;
    }
    if (bytes_.compare(0, 3, kByteOrderMark) == 0)
        bytes_.erase(0, 3);
}

bool PlaylistText::isPls() const {
    const size_t begin = bytes_.find_first_not_of(" \t\r\n");
    return begin != std::string::npos &&
           g_ascii_strncasecmp(bytes_.c_str() + begin, "[playlist]", 10) == 0;
}

std::vector<PlaylistText::Entry> PlaylistText::lines() const {
    std::string text;
    text.reserve(bytes_.size());
    for (size_t i = 0; i < bytes_.size(); ++i) {
        if (bytes_[i] != '\r')
            text += bytes_[i];
        else if (i + 1 == bytes_.size() || bytes_[i + 1] != '\n')
            text += '\n';
    }
    std::vector<Entry> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(Entry{trimmed(line), trimmed(line)});
    // Converted before the lines are split or "\" is read as a separator:
    // 0x5C is a second byte of many Shift_JIS characters.
    if (!g_utf8_validate(text.data(), gssize(text.size()), nullptr)) {
        std::istringstream converted(fromLegacyCodePage(text));
        std::vector<std::string> texts;
        for (std::string line; std::getline(converted, line);)
            texts.push_back(trimmed(line));
        // No code page makes or eats a line break: the lines pair up.
        for (size_t i = 0; i < lines.size(); ++i)
            lines[i].text = texts.size() == lines.size() ? texts[i] : std::string();
    }
    return lines;
}

std::vector<PlaylistText::Entry> PlaylistText::m3uEntries() const {
    std::vector<Entry> entries;
    for (Entry& line : lines())
        if (!line.asWritten.empty() && line.asWritten[0] != '#')
            entries.push_back(std::move(line));
    return entries;
}

std::vector<PlaylistText::Entry> PlaylistText::plsEntries() const {
    std::vector<std::pair<unsigned long long, Entry>> numbered;
    for (const Entry& line : lines()) {
        const size_t equals = line.asWritten.find('=');
        const size_t textEquals = line.text.find('=');
        if (equals == std::string::npos || textEquals == std::string::npos)
            continue;
        const std::string key = trimmed(line.asWritten.substr(0, equals));
        if (key.size() < 5 || g_ascii_strncasecmp(key.c_str(), "file", 4) != 0 ||
            !std::all_of(key.begin() + 4, key.end(), [](char c) { return g_ascii_isdigit(c); }))
            continue;
        numbered.emplace_back(std::strtoull(key.c_str() + 4, nullptr, 10),
                              Entry{trimmed(line.text.substr(textEquals + 1)),
                                    trimmed(line.asWritten.substr(equals + 1))});
    }
    std::stable_sort(numbered.begin(), numbered.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Entry> entries;
    for (auto& n : numbered)
        entries.push_back(std::move(n.second));
    return entries;
}

}  // namespace kestrow
