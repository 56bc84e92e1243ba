#include "msd/GenericChangeFinder.h"

#include <sqlite3.h>

#include <algorithm>
#include <vector>

#include "db/Timer.h"
#include "msd/DbObject.h"
#include "platform/common/MountPointScope.h"
#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

// Path first (byte-wise), then modification time: records match only when
// both are equal.
bool fileBefore(const FileInfo* a, const FileInfo* b) {
    int c = a->path->compare(*b->path);
    return c < 0 || (c == 0 && a->lastModified < b->lastModified);
}

bool objectBefore(const DbObject& a, const DbObject& b) {
    int c = a.path.compare(b.path);
    return c < 0 || (c == 0 && a.lastModified < b.lastModified);
}

bool samePathBefore(const DbObject& a, const DbObject& b) {
    return a.path < b.path;
}

}  // namespace

GenericChangeFinder::GenericChangeFinder(const char* name_,
                                         sqlstl::basic_sqlostream<char>& ostream_,
                                         sqlstl::basic_sqlistream<char>& istream_,
                                         const Operation& operation_,
                                         const std::string& retimeText_)
    : name(name_),
      ostream(ostream_),
      istream(istream_),
      operation(operation_),
      retimeText(retimeText_) {}

int GenericChangeFinder::shiftClass(long long fileTime, long long rowTime) {
    const long long kFar = 1LL << 62;  // an unread row's time, or one no clock makes
    if (fileTime < -kFar || fileTime > kFar || rowTime < -kFar || rowTime > kFar)
        return -1;
    // The nearest whole hours, and at most 2 s more or less (FAT's grain);
    // hours 0 is the class of at most 2 s.
    const long long delta = fileTime - rowTime;
    const long long hours = (delta + (delta < 0 ? -1800 : 1800)) / 3600;
    const long long rest = delta - hours * 3600;
    if (hours < -kMaxHours || hours > kMaxHours || rest < -2 || rest > 2)
        return -1;
    return int(hours) + kMaxHours;
}

bool GenericChangeFinder::shiftPossible(int c) const {
    // At most stored.size() files have a row: 90% of them needs this many.
    return 10LL * shiftCount[size_t(c)] + (long long)stored.size() >= 10LL * withRow;
}

void GenericChangeFinder::retimeRows(const std::vector<std::pair<long long, int>>& timesAndIds) {
    ostream.exec("BEGIN TRANSACTION;");
    ostream.query(retimeText);
    for (const auto& [time, id] : timesAndIds) {
        if (!ostream.good())
            ostream.query(retimeText);
        ostream << time << id << sqlstl::step;
    }
    ostream.exec("END TRANSACTION;");
    ostream.finalize();
}

std::vector<DbObject> GenericChangeFinder::readStored(const std::string& select,
                                                      bool bindMountPoint) {
    std::vector<DbObject> objects;
    istream.query(select);
    // Bound, not pasted into the text: no character of a volume label is
    // read as SQL or as a pattern.
    if (bindMountPoint)
        istream.bind(1, operation.mountPoint);
    for (;;) {
        istream.step();
        if (!istream.good())
            break;
        int id = 0;
        // Read whole, not as a floating value cut to an int: the time of a
        // song that could not be read lies outside the range of file times.
        long long lastModified = 0;
        std::string path;
        // A NULL path reads as "" and the reading goes on: such a row matches
        // no file and is deleted, instead of hiding the rows after it.
        istream >> id >> lastModified >> path;
        objects.push_back(DbObject(id, lastModified, path));
    }
    istream.finalize();

    // The rows come in path order when the select walks the path index: a
    // check is cheaper than sorting them again.
    if (!std::is_sorted(objects.begin(), objects.end(), objectBefore))
        std::sort(objects.begin(), objects.end(), objectBefore);
    return objects;
}

void GenericChangeFinder::deleteRows(const std::string& deleteText,
                                     const std::vector<const DbObject*>& rows) {
    ostream.exec("BEGIN TRANSACTION;");
    ostream.query(deleteText);
    for (const DbObject* object : rows) {
        if (!ostream.good())
            ostream.query(deleteText);  // a failed row does not stop the others
        ostream << object->id << sqlstl::step;
    }
    ostream.exec("END TRANSACTION;");
    ostream.finalize();
}

int GenericChangeFinder::findDifference(const std::string& select, const std::string& deleteText,
                                        Block<FileInfo*>* in, Block<FileInfo*>* out,
                                        bool bindMountPoint) {
    Timer timer;

    // Read once per operation: the files of a walk come in several blocks.
    if (!storedRead) {
        stored = readStored(select, bindMountPoint);
        matched.assign(stored.size(), 0);
        storedRead = true;
    }
    std::vector<FileInfo*>& files = in->items;
    files.erase(std::remove(files.begin(), files.end(), nullptr), files.end());
    std::sort(files.begin(), files.end(), fileBefore);
    ZQLOG_INFO("%s: Data Inside db Count: %u, Data Inside device count %d (op:%d)", name,
               unsigned(stored.size()), int(files.size()), operation.id);

    // A file is added unless a row of its path and time is stored; a file
    // that is added replaces the other rows of its path at once, so that a
    // changed song is never listed twice while the walk goes on.
    std::vector<const DbObject*> toDelete;
    int added = 0;
    for (FileInfo*& file : files) {
        const DbObject key(0, file->lastModified, *file->path);
        const auto first = std::lower_bound(stored.begin(), stored.end(), key, samePathBefore);
        auto last = first;
        while (last != stored.end() && last->path == key.path)
            ++last;
        const auto same = std::find_if(first, last, [&](const DbObject& o) {
            return o.lastModified == key.lastModified && !matched[size_t(&o - stored.data())];
        });
        if (same != last) {
            matched[size_t(same - stored.begin())] = 1;
            ++withRow, ++shiftCount[kMaxHours];
            continue;
        }
        const auto row = std::find_if(
            first, last, [&](const DbObject& o) { return !matched[size_t(&o - stored.data())]; });
        if (row != last) {
            ++withRow;
            const int shift =
                retimeText.empty() ? -1 : shiftClass(file->lastModified, row->lastModified);
            if (shift >= 0)
                ++shiftCount[size_t(shift)];
            if (shift >= 0 && shiftPossible(shift)) {
                matched[size_t(row - stored.begin())] = 1;
                held.push_back(
                    {std::unique_ptr<FileInfo>(file), size_t(row - stored.begin()), shift});
                file = nullptr;
                continue;
            }
        }
        for (auto o = first; o != last; ++o)
            if (!matched[size_t(o - stored.begin())]) {
                matched[size_t(o - stored.begin())] = 1;
                toDelete.push_back(&*o);
            }
        out->items.push_back(file);
        file = nullptr;
        ++added;
    }

    // Held files whose shift can no longer be the partition's, or all that
    // are left once the walk is whole, are decided: the partition's shift
    // keeps its files' rows, every other held file is changed.
    int shift = -1;
    if (in->operation.lastBlock) {
        const auto best = std::max_element(shiftCount.begin(), shiftCount.end());
        if (withRow > 0 && 10LL * *best >= 9LL * withRow)
            shift = int(best - shiftCount.begin());
    }
    std::vector<std::pair<long long, int>> retimed;
    for (Held& h : held) {
        if (h.shift == shift) {
            retimed.emplace_back(h.file->lastModified, stored[h.row].id);
        } else if (in->operation.lastBlock || !shiftPossible(h.shift)) {
            toDelete.push_back(&stored[h.row]);
            out->items.push_back(h.file.release());
            ++added;
        }
    }
    if (in->operation.lastBlock)
        held.clear();
    else
        held.erase(std::remove_if(held.begin(), held.end(), [](const Held& h) { return !h.file; }),
                   held.end());
    std::sort(out->items.begin(), out->items.end(), fileBefore);
    if (!retimed.empty()) {
        ZQLOG_DEBUG("%s: clock moved by %d h (0: at most 2 s), %u files unchanged (op:%d)", name,
                    shift - kMaxHours, unsigned(retimed.size()), operation.id);
        retimeRows(retimed);
    }
    // Rows in or below a folder the crawler could not read are kept: their
    // files are out of reach, not gone.
    auto unreachable = [in](const DbObject& object) {
        for (const std::string& folder : in->operation.unreadable)
            if (MountPointScope::contains(folder, object.path))
                return true;
        return false;
    };
    size_t kept = 0;
    // Rows of vanished files go only once the whole walk has been compared.
    if (in->operation.lastBlock) {
        for (size_t o = 0; o < stored.size(); ++o) {
            if (matched[o])
                continue;
            if (unreachable(stored[o]))
                ++kept;
            else
                toDelete.push_back(&stored[o]);
        }
    }
    ZQLOG_INFO("%s: db Objects To be Deleted count: %u (op:%d)", name, unsigned(toDelete.size()),
               operation.id);
    if (kept)
        ZQLOG_WARN("%s: %u rows kept below unreadable folders (op:%d)", name, unsigned(kept),
                   operation.id);

    if (!toDelete.empty())
        deleteRows(deleteText, toDelete);

    ZQLOG_INFO("ChangeFinder timer: %ld", timer.stop());
    ZQLOG_INFO("%s: Data to be added to db size: %u (op:%d)", name, unsigned(out->items.size()),
               operation.id);
    return added;
}

}  // namespace kestrow
