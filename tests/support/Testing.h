#pragma once
// What most tests include: GoogleTest, temporary trees, waiting on
// conditions, reading device databases, blocks and the log capture.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/common/DatabaseMgr.h"
#include "platform/log/LogCapture.h"
#include "tests/support/Blocks.h"
#include "tests/support/Sql.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

namespace olvane::test {
using Strings = std::vector<std::string>;
}  // namespace olvane::test
