#include "msd/DirectorySaver.h"

#include <sqlite3.h>

#include <QString>
#include <algorithm>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/Timer.h"
#include "facade/KestrowQTProxy.h"
#include "platform/common/MountPointScope.h"

namespace kestrow {

DirectorySaver::DirectorySaver(const char* name_)
    : ServerDB<Block<Directory*>, Block<void>>(name_) {}

void DirectorySaver::propagateMusicPresence(Block<Directory*>* block) {
    Timer timer;
    std::vector<Directory*>& dirs = block->items;
    for (size_t i = 0; i < dirs.size(); ++i) {
        if (!dirs[i] || !dirs[i]->hasMusic)
            continue;
        // Stops at an ancestor already marked: its own ancestors are marked too.
        int parent = dirs[i]->parentIndex;
        while (parent != -1) {
            if (parent < 0 || size_t(parent) >= dirs.size() || !dirs[size_t(parent)])
                throw std::out_of_range("parent index out of range");
            Directory* ancestor = dirs[size_t(parent)];
            if (ancestor->hasMusic)
                break;
            ancestor->hasMusic = true;
            parent = ancestor->parentIndex;
        }
    }
    ZQLOG_INFO("timer directory saver: %ld ", timer.stop());
}

std::vector<DirectorySaver::StoredRow> DirectorySaver::rowsOutOfReach(Block<Directory*>* block,
                                                                      const std::string& scope) {
    std::vector<StoredRow> rows;
    const std::vector<std::string>& unreadable = block->operation.unreadable;
    for (Directory* d : block->items) {
        if (!d || std::find(unreadable.begin(), unreadable.end(), d->path) == unreadable.end())
            continue;
        istream.query(
            "SELECT PARTITION_ID, PATH, NAME, OBJECTID, PARENT_ID FROM DIRECTORIES WHERE " + scope +
            ";");
        istream.bind(1, d->path);
        while (istream.step().good()) {
            StoredRow row;
            for (std::string& column : row)
                istream >> column;
            d->hasMusic = true;
            if (row[1] != d->path)
                rows.push_back(row);
        }
        istream.finalize();
    }
    if (!rows.empty())
        ZQLOG_WARN("%u directories kept below unreadable folders", unsigned(rows.size()));
    return rows;
}

std::vector<std::string> DirectorySaver::storedIds(const std::string& mountPoint,
                                                   const std::string& scope) {
    std::vector<std::string> stored;
    istream.query("SELECT OBJECTID FROM DIRECTORIES WHERE " + scope + " ORDER BY OBJECTID;");
    istream.bind(1, mountPoint);
    for (;;) {
        istream.step();
        if (!istream.good())
            break;
        std::string id;  // "" for a NULL id: a change, so the row is rewritten
        istream >> id;
        stored.push_back(id);
    }
    istream.finalize();
    std::sort(stored.begin(), stored.end());
    return stored;
}

void DirectorySaver::rewrite(const Block<Directory*>& block, const std::vector<StoredRow>& kept,
                             const std::set<std::string>& found, const std::string& scope) {
    ostream.exec("BEGIN TRANSACTION;");
    ostream.query("DELETE FROM DIRECTORIES WHERE " + scope + ";");
    ostream << block.operation.mountPoint << sqlstl::step;

    const char* insert =
        "INSERT INTO DIRECTORIES (PARTITION_ID, PATH,  NAME, OBJECTID, PARENT_ID)              "
        "                               VALUES (?,?,?,?,?);";
    static const std::string kNoParent;
    ostream.query(insert);
    for (const Directory* d : block.items) {
        if (!d || !d->hasMusic)
            continue;
        if (!ostream.good())
            ostream.query(insert);  // a failed row does not stop the others
        const std::string& parent = d->parentIndex < 0
                                        ? kNoParent
                                        : block.items[size_t(d->parentIndex)]->objectId.toString();
        ostream << d->partitionId.toString() << d->path << d->name << d->objectId.toString()
                << parent << sqlstl::step;
    }
    for (const StoredRow& row : kept) {
        if (found.count(row[3]))
            continue;
        if (!ostream.good())
            ostream.query(insert);
        ostream << row[0] << row[1] << row[2] << row[3] << row[4] << sqlstl::step;
    }
    ostream.finalize();
    ostream.exec("END TRANSACTION;");
}

boost::shared_ptr<Block<void>> DirectorySaver::doOperation(
    boost::shared_ptr<Block<Directory*>> in) {
    ZQLOG_INFO("DirectorySaver for: %u", unsigned(in->items.size()));
    Timer timer;
    boost::shared_ptr<Block<void>> out(new Block<void>());
    out->operation = in->operation;
    if (in->operation.deviceGone) {
        ZQLOG_WARN("device gone, directories not saved (op: %d)", in->operation.id);
        return out;
    }

    open(in->operation.deviceId);
    // The mount point's rows, its own included: bound to ?1, matched byte for byte.
    const std::string& mountPoint = in->operation.mountPoint;
    const std::string scope = MountPointScope::sqlCondition("PATH");
    // Folders out of reach keep their rows through a rewrite, instead of losing them.
    const std::vector<StoredRow> kept = rowsOutOfReach(in.get(), scope);
    propagateMusicPresence(in.get());

    std::vector<std::string> device;
    std::set<std::string> found;
    for (const Directory* d : in->items) {
        if (d && d->hasMusic)
            found.insert(d->objectId.toString());
    }
    for (const StoredRow& row : kept)
        device.push_back(row[3]);
    device.insert(device.end(), found.begin(), found.end());
    std::sort(device.begin(), device.end());
    device.erase(std::unique(device.begin(), device.end()), device.end());

    const std::vector<std::string> stored = storedIds(mountPoint, scope);

    std::vector<std::string> changes;
    std::set_symmetric_difference(device.begin(), device.end(), stored.begin(), stored.end(),
                                  std::back_inserter(changes));
    if (changes.empty()) {
        ZQLOG_INFO("RNC: Did not find changes");
    } else {
        ZQLOG_INFO("RNC: Found changes %u", unsigned(changes.size()));
        if (state == Runnable::kRunning) {
            emit KestrowQTProxy::instance().contentModified(QString::fromUtf8(mountPoint.c_str()));
        }
        rewrite(*in, kept, found, scope);
    }

    ZQLOG_INFO("DirectorySaver timer: %ld", timer.stop());
    ZQLOG_INFO("close");
    ostream.close();
    istream.close();
    if (storageFailed())
        out->operation.writeFailed = true;
    return out;
}

}  // namespace kestrow
