#include "msd/DirectorySaver.h"

#include <sqlite3.h>

#include <QString>
#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/Timer.h"
#include "facade/KestrowQTProxy.h"
#include "msd/MountPointPattern.h"

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

    propagateMusicPresence(in.get());
    open(in->operation.deviceId);

    std::vector<std::string> device;
    for (const Directory* d : in->items) {
        if (d && d->hasMusic)
            device.push_back(d->objectId.toString());
    }
    std::sort(device.begin(), device.end());

    const std::string pattern = mountPointPattern(in->operation.mountPoint);
    std::vector<std::string> stored;
    const std::string select =
        "SELECT OBJECTID FROM DIRECTORIES WHERE PATH LIKE " + pattern + " ORDER BY OBJECTID;";
    istream.query(select);
    for (;;) {
        istream.step();
        if (!istream.good())
            break;
        std::string id;
        istream >> id;
        if (!istream.good())
            break;
        stored.push_back(id);
    }
    istream.finalize();
    std::sort(stored.begin(), stored.end());

    std::vector<std::string> changes;
    std::set_symmetric_difference(device.begin(), device.end(), stored.begin(), stored.end(),
                                  std::back_inserter(changes));
    if (changes.empty()) {
        ZQLOG_INFO("RNC: Did not find changes");
    } else {
        ZQLOG_INFO("RNC: Found changes %u", unsigned(changes.size()));
        if (state == 0) {
            emit KestrowQTProxy::instance().contentModified(
                QString::fromUtf8(in->operation.mountPoint.c_str()));
        }
        sqlite3_exec(ostream.db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr);
        const std::string erase = "DELETE FROM DIRECTORIES WHERE PATH LIKE " + pattern + ";";
        char* error = nullptr;
        int rc = sqlite3_exec(ostream.db, erase.c_str(), nullptr, nullptr, &error);
        if (rc != SQLITE_OK)
            ZQLOG_ERROR("exec failed: %d %s", rc, error ? error : sqlite3_errmsg(ostream.db));
        sqlite3_free(error);

        const char* insert =
            "INSERT INTO DIRECTORIES (PARTITION_ID, PATH,  NAME, OBJECTID, PARENT_ID)              "
            "                               VALUES (?,?,?,?,?);";
        static const std::string kNoParent;
        ostream.query(insert);
        for (const Directory* d : in->items) {
            if (!d || !d->hasMusic)
                continue;
            if (!ostream.good())
                ostream.query(insert);  // a failed row does not stop the others
            const std::string& parent =
                d->parentIndex < 0 ? kNoParent
                                   : in->items[size_t(d->parentIndex)]->objectId.toString();
            ostream << d->partitionId.toString() << d->path << d->name << d->objectId.toString()
                    << parent << sqlstl::step;
        }
        ostream.finalize();
        sqlite3_exec(ostream.db, "END TRANSACTION;", nullptr, nullptr, nullptr);
    }

    ZQLOG_INFO("DirectorySaver timer: %ld", timer.stop());
    ZQLOG_INFO("close");
    ostream.close();
    istream.close();
    return out;
}

}  // namespace kestrow
