#pragma once
// Runs a program as the unprivileged user 65534 when the test runs as root,
// because root reads every file and folder whatever its mode; as any other
// user, the program runs as that user.

#include "tests/support/Testing.h"

namespace olvane::test {

// The command line that runs `argv` as an unprivileged user.
inline QStringList asUnprivileged(const QStringList& argv) {
    if (::geteuid() != 0)
        return argv;
    return QStringList{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"} + argv;
}

// Empty when such a user can write to `dir` (made world-writable first);
// else why not, for GTEST_SKIP.
inline std::string cannotRunUnprivilegedIn(const std::string& dir) {
    QProcess::execute("chmod", {"-R", "a+rwX", QString::fromStdString(dir)});
    QStringList args = asUnprivileged({"test", "-w", QString::fromStdString(dir)});
    return QProcess::execute(args.takeFirst(), args) == 0
               ? ""
               : "cannot drop to uid 65534 with setpriv, and root reads any file";
}

}  // namespace olvane::test
