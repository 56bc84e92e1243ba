#include "db/Collation.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <string>

namespace {

// The callback's sign; each text is passed with bytes past its length.
int collate(const std::string& a, const std::string& b) {
    const std::string pa = a + "zzz", pb = b + "AAA";
    int r = collation_utf8(nullptr, int(a.size()), pa.data(), int(b.size()), pb.data());
    return (r > 0) - (r < 0);
}

TEST(CollationTest, AgreesOnStackAndHeapBuffers) {
    for (size_t len : {size_t(8191), size_t(8192), size_t(20000)}) {
        SCOPED_TRACE(len);
        const std::string low(len, 'a'), high = std::string(len - 1, 'a') + "b";
        EXPECT_EQ(-1, collate(low, high));
        EXPECT_EQ(1, collate(high, low));
        EXPECT_EQ(0, collate(low, low));
        EXPECT_EQ(-1, collate(std::string(8000, 'a'), high));  // one stack, one heap buffer
    }
    EXPECT_EQ(g_utf8_collate("été", "f") > 0, collate("été", "f") > 0);
}

}  // namespace
