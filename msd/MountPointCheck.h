#pragma once

#include "framework/Operation.h"

namespace kestrow {

// Whether a device is still at its operation's mount point. The mount point
// is the device only while it shows the same file system and folder (st_dev
// and st_ino) as when the operation was made: a stick unmounted with its
// mount point folder kept leaves an empty folder there, which must not read
// as a device whose files were all deleted. Stateless; any thread.
class MountPointCheck {
public:
    // Records the mount point's identity in `op`. False, recording nothing,
    // when it cannot be stat'ed.
    static bool record(Operation& op);
    // 0 while the device is there: the mount point can be stat'ed and shows
    // the recorded identity (when one is recorded). Otherwise the errno of
    // the failed stat, or ENODEV when the mount point shows another file
    // system or folder; the loss is logged.
    static int lost(const Operation& op);
};

}  // namespace kestrow
