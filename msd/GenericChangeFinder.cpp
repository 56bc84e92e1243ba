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

// -1, 0 or 1 as the file sorts before, with or after the object.
int compare(const FileInfo* file, const DbObject& object) {
    int c = file->path->compare(object.path);
    if (c != 0)
        return c < 0 ? -1 : 1;
    if (file->lastModified != object.lastModified)
        return file->lastModified < object.lastModified ? -1 : 1;
    return 0;
}

}  // namespace

GenericChangeFinder::GenericChangeFinder(const char* name_,
                                         sqlstl::basic_sqlostream<char>& ostream_,
                                         sqlstl::basic_sqlistream<char>& istream_,
                                         const Operation& operation_)
    : name(name_), ostream(ostream_), istream(istream_), operation(operation_) {}

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

    std::vector<DbObject> objects = readStored(select, bindMountPoint);
    std::vector<FileInfo*>& files = in->items;
    files.erase(std::remove(files.begin(), files.end(), nullptr), files.end());
    std::sort(files.begin(), files.end(), fileBefore);
    ZQLOG_INFO("%s: Data Inside db Count: %u, Data Inside device count %d (op:%d)", name,
               unsigned(objects.size()), int(files.size()), operation.id);

    // One merge gives both differences: files without a row are added, rows
    // without a file are deleted.
    // Rows in or below a folder the crawler could not read are kept: their
    // files are out of reach, not gone.
    auto unreachable = [this](const DbObject& object) {
        for (const std::string& folder : operation.unreadable)
            if (MountPointScope::contains(folder, object.path))
                return true;
        return false;
    };
    std::vector<const DbObject*> toDelete;
    size_t f = 0, o = 0, kept = 0;
    int added = 0;
    while (f < files.size() || o < objects.size()) {
        int c = f == files.size() ? 1 : o == objects.size() ? -1 : compare(files[f], objects[o]);
        if (c < 0) {
            out->items.push_back(files[f]);
            files[f] = nullptr;
            ++added;
            ++f;
        } else if (c > 0) {
            if (unreachable(objects[o]))
                ++kept;
            else
                toDelete.push_back(&objects[o]);
            ++o;
        } else {
            ++f;
            ++o;
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
