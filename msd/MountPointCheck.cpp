#include "msd/MountPointCheck.h"

#include <errno.h>
#include <sys/stat.h>

#include "platform/log/ZQLog.h"

namespace kestrow {

bool MountPointCheck::record(Operation& op) {
    struct stat st;
    if (::stat(op.mountPoint.c_str(), &st) != 0)
        return false;
    op.rootDevice = st.st_dev;
    op.rootInode = st.st_ino;
    return true;
}

int MountPointCheck::lost(const Operation& op) {
    struct stat st;
    if (::stat(op.mountPoint.c_str(), &st) != 0) {
        const int error = errno;
        ZQLOG_ERROR("MOUNT POINT IS NOT PRESENT ANYMORE %s: %d", op.mountPoint.c_str(), error);
        return error;
    }
    if ((op.rootDevice || op.rootInode) &&
        (st.st_dev != op.rootDevice || st.st_ino != op.rootInode)) {
        ZQLOG_ERROR("MOUNT POINT IS NOT PRESENT ANYMORE %s: another file system is there",
                    op.mountPoint.c_str());
        return ENODEV;
    }
    return 0;
}

}  // namespace kestrow
