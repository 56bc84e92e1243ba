#include "framework/KestrowOperation.h"

#include <gtest/gtest.h>

#include <vector>

using kestrow::KestrowOperation;

TEST(KestrowOperationTest, OrdersByHandleDeviceMountPointThenId) {
    const std::vector<KestrowOperation> ordered{
        KestrowOperation(0, "de", "/z", 9),         KestrowOperation(0, "dev", "/media", 9),
        KestrowOperation(0, "dev", "/media/b", -2), KestrowOperation(0, "dev", "/media/b", 3),
        KestrowOperation(0, "dev", "/media/b", 10), KestrowOperation(0, "\xc3\xa9", "/a", 0),
        KestrowOperation(1, "a", "/a", 0),  // the handle decides first
    };
    for (size_t i = 0; i + 1 < ordered.size(); ++i) {
        EXPECT_TRUE(ordered[i] < ordered[i + 1]) << i;
        EXPECT_FALSE(ordered[i + 1] < ordered[i]) << i;
    }
    KestrowOperation same(0, "dev", "/media/b", 3);  // counters are not part of the key
    same.resultCount = 5;
    same.incomplete = true;
    EXPECT_FALSE(same < ordered[3] || ordered[3] < same);
}
