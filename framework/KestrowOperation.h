#pragma once

#include <string>

#include "db/Timer.h"

namespace kestrow {

// The scheduler's record of one registered request, and the key of its map.
// Keys are ordered by handle, device id, mount point and id; the timer, the
// result count and the incomplete flag take no part in the order.
struct KestrowOperation {
    KestrowOperation();
    KestrowOperation(unsigned handle, const std::string& deviceId, const std::string& mountPoint,
                     int id);

    bool operator<(const KestrowOperation& other) const;

    unsigned handle;
    std::string deviceId;
    std::string mountPoint;
    Timer timer;  // started when the record is built
    int resultCount;
    int id;
    bool incomplete;
};

}  // namespace kestrow
