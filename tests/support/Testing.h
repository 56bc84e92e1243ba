#pragma once
// What every test includes: GoogleTest, the C++, POSIX and Qt headers the
// tests share, temporary trees, waiting on conditions, reading device
// databases, blocks and the log capture.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QProcess>
#include <QSignalSpy>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/Blocks.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

namespace olvane::test {
using Strings = std::vector<std::string>;

// Runs `command` in a shell, its output dropped; whether it ended well.
inline bool sh(const std::string& command) {
    return QProcess::execute(
               "sh", {"-c", QString::fromStdString("(" + command + ") >/dev/null 2>&1")}) == 0;
}
}  // namespace olvane::test
