#include "db/Collation.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <string>

namespace {

int sign(int v) {
    return (v > 0) - (v < 0);
}

// The callback's result for two texts, each passed with trailing bytes that
// lie outside its length.
int collate(const std::string& a, const std::string& b) {
    const std::string pa = a + "zzz", pb = b + "AAA";
    return sign(collation_utf8(nullptr, int(a.size()), pa.data(), int(b.size()), pb.data()));
}

TEST(CollationTest, AgreesOnStackAndHeapBuffers) {
    for (size_t len : {size_t(8191), size_t(8192), size_t(20000)}) {
        SCOPED_TRACE(len);
        const std::string base(len - 1, 'a');
        const std::string low = base + "a", high = base + "b";
        EXPECT_EQ(-1, collate(low, high));
        EXPECT_EQ(1, collate(high, low));
        EXPECT_EQ(0, collate(low, low));
        // One buffer on the stack, the other on the heap.
        EXPECT_EQ(-1, collate(std::string(8000, 'a'), high));
    }
    // Locale-aware: the same order as g_utf8_collate, not byte order.
    const std::string e = "\xc3\xa9t\xc3\xa9", f = "f";
    EXPECT_EQ(sign(g_utf8_collate(e.c_str(), f.c_str())), collate(e, f));
    EXPECT_EQ(1, collate("b", ""));
    EXPECT_EQ(nullptr, tracker_collation_init());
}

}  // namespace
