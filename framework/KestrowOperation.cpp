#include "framework/KestrowOperation.h"

namespace kestrow {

KestrowOperation::KestrowOperation() : handle(0), resultCount(0), id(-1), incomplete(false) {}

KestrowOperation::KestrowOperation(unsigned handle_, const std::string& deviceId_,
                                   const std::string& mountPoint_, int id_)
    : handle(handle_),
      deviceId(deviceId_),
      mountPoint(mountPoint_),
      resultCount(0),
      id(id_),
      incomplete(false) {}

bool KestrowOperation::operator<(const KestrowOperation& other) const {
    if (handle != other.handle)
        return handle < other.handle;
    int c = deviceId.compare(other.deviceId);
    if (c != 0)
        return c < 0;
    c = mountPoint.compare(other.mountPoint);
    if (c != 0)
        return c < 0;
    return id < other.id;
}

}  // namespace kestrow
