#include "playlist/FoldedFolders.h"

#include <glib.h>
#include <sys/stat.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/common/Handles.h"
#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};

// `path` with its links resolved; empty when it cannot be.
std::string resolved(const std::string& path) {
    std::unique_ptr<char, FreeDeleter> real(realpath(path.c_str(), nullptr));
    return real ? std::string(real.get()) : std::string();
}

bool isBelow(const std::string& path, const std::string& root) {
    return !root.empty() && path.compare(0, root.size(), root) == 0 &&
           (path.size() == root.size() || path[root.size()] == '/' || root == "/");
}

// The form under which two names are the same name: decomposed, case
// folded in full, then composed. A name that is not UTF-8 is its own form.
std::string folded(const std::string& name) {
    if (!g_utf8_validate(name.data(), gssize(name.size()), nullptr))
        return name;
    UErrorCode status = U_ZERO_ERROR;
    static const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    static const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (!nfd || !nfc)
        return name;
    icu::UnicodeString text = nfd->normalize(icu::UnicodeString::fromUTF8(name), status);
    text.foldCase(U_FOLD_CASE_DEFAULT);
    text = nfc->normalize(text, status);
    if (U_FAILURE(status))
        return name;
    std::string out;
    return text.toUTF8String(out);
}

}  // namespace

FoldedFolders::FoldedFolders(const std::string& mountPoint)
    : mountPoint_(mountPoint), realMount_(resolved(mountPoint)) {}

void FoldedFolders::learnLetterCase(const std::string& listedPath) {
    if (ignoresCase_)
        return;
    const size_t name = listedPath.rfind('/') + 1;  // 0 without a '/'
    std::string swapped = listedPath;
    for (size_t i = name; i < swapped.size(); ++i)
        swapped[i] =
            g_ascii_islower(swapped[i]) ? g_ascii_toupper(swapped[i]) : g_ascii_tolower(swapped[i]);
    struct stat st;
    // A name without letters, or a file gone, tells nothing.
    if (swapped == listedPath || lstat(listedPath.c_str(), &st) != 0)
        return;
    // A folder that may hold both spellings is taken for one that ignores
    // case: checking the listings costs time, never a wrong entry.
    ignoresCase_ = lstat(swapped.c_str(), &st) == 0;
    if (*ignoresCase_)
        ZQLOG_INFO("names open in any letter case on %s: entries are checked against the folders",
                   mountPoint_.c_str());
}

std::optional<std::string> FoldedFolders::find(const std::string& path) {
    if (path.size() <= mountPoint_.size() + 1 ||
        path.compare(0, mountPoint_.size(), mountPoint_) != 0 || path[mountPoint_.size()] != '/')
        return std::nullopt;
    struct stat st;
    const bool opens = lstat(path.c_str(), &st) == 0;
    // Until a playlist has told, letter case is taken to be ignored.
    if (opens && !ignoresCase_.value_or(true))
        return path;
    std::string found = mountPoint_;
    for (size_t begin = mountPoint_.size() + 1, end; begin < path.size(); begin = end + 1) {
        end = std::min(path.find('/', begin), path.size());
        if (end == begin)
            continue;
        const Listing* names = listing(found);
        const std::string name = names ? match(*names, found, path.substr(begin, end - begin)) : "";
        // Named otherwise than anything listed: a path that opens is taken
        // as it is, as the device's own lookup matched it.
        if (name.empty())
            return opens ? std::optional<std::string>(path) : std::nullopt;
        found += "/" + name;
    }
    if (found != path)
        ZQLOG_DEBUG("%s is spelled %s on the device", path.c_str(), found.c_str());
    return found;
}

const FoldedFolders::Listing* FoldedFolders::listing(const std::string& folder) {
    auto known = listings_.find(folder);
    if (known != listings_.end())
        return known->second ? &*known->second : nullptr;
    std::optional<Listing>& slot = listings_[folder];
    // Reached through a link, a folder may lie anywhere: it is read only
    // while it lies inside the mount point.
    if (!isBelow(resolved(folder), realMount_)) {
        ZQLOG_DEBUG("folder not listed, outside the mount point or gone: %s", folder.c_str());
        return nullptr;
    }
    olvane::DirHandle dir(opendir(folder.c_str()));
    if (!dir) {
        ZQLOG_DEBUG("cannot list %s: %s", folder.c_str(), std::strerror(errno));
        return nullptr;
    }
    Listing names;
    while (const struct dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names[folded(name)].push_back(name);
    }
    for (auto& spellings : names)
        std::sort(spellings.second.begin(), spellings.second.end());
    slot = std::move(names);
    return &*slot;
}

std::string FoldedFolders::match(const Listing& names, const std::string& folder,
                                 const std::string& name) {
    const auto same = names.find(folded(name));
    if (same == names.end())
        return std::string();
    const std::vector<std::string>& spellings = same->second;
    const bool exact = std::find(spellings.begin(), spellings.end(), name) != spellings.end();
    if (spellings.size() > 1)
        ZQLOG_DEBUG("%zu names of %s fold to %s; taken: %s", spellings.size(), folder.c_str(),
                    name.c_str(), exact ? name.c_str() : spellings[0].c_str());
    return exact ? name : spellings[0];
}

}  // namespace kestrow
