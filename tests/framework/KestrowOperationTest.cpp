#include "framework/KestrowOperation.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

using kestrow::KestrowOperation;

TEST(KestrowOperationTest, OrdersByHandleDeviceMountPointThenId) {
    const std::vector<KestrowOperation> ordered{
        KestrowOperation(0, "de", "/z", 9),          // a prefix comes first
        KestrowOperation(0, "dev", "/media", 9),     // likewise for mount points
        KestrowOperation(0, "dev", "/media/b", -2),  // ids are signed
        KestrowOperation(0, "dev", "/media/b", 3),  KestrowOperation(0, "dev", "/media/b", 10),
        KestrowOperation(0, "\xc3\xa9", "/a", 0),  // bytes compare unsigned
        KestrowOperation(1, "a", "/a", 0),         // MTP after every mass-storage key
    };
    std::map<KestrowOperation, size_t> requests;
    for (size_t i = ordered.size(); i-- > 0;)
        requests[ordered[i]] = i;
    ASSERT_EQ(ordered.size(), requests.size());
    size_t rank = 0;
    for (const auto& r : requests)
        EXPECT_EQ(rank++, r.second) << r.first.deviceId << " " << r.first.mountPoint;

    // The timer, the result count and the flag are not part of the key.
    KestrowOperation same(0, "dev", "/media/b", 3);
    same.resultCount = 5;
    same.incomplete = true;
    same.timer.start.tv_sec += 100;
    EXPECT_EQ(3u, requests.at(same));
    EXPECT_FALSE(requests.insert({same, 0}).second);
}
