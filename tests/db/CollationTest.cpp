#include "db/Collation.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <string>

namespace {

// The callback's sign for two texts, each passed with trailing bytes that
// lie outside its length.
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
    const std::string e = "\xc3\xa9t\xc3\xa9", f = "f";
    int expected = g_utf8_collate(e.c_str(), f.c_str());
    EXPECT_EQ((expected > 0) - (expected < 0), collate(e, f));
    EXPECT_EQ(1, collate("b", ""));
}

}  // namespace
