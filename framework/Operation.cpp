#include "framework/Operation.h"

namespace kestrow {

Operation::Operation()
    : id(0),
      handle(0),
      lastBlock(false),
      deviceGone(false),
      rootDevice(0),
      rootInode(0),
      writeFailed(false) {}

Operation::Operation(int id_, unsigned handle_, const std::string& deviceId_,
                     const std::string& mountPoint_, bool lastBlock_)
    : id(id_),
      handle(handle_),
      deviceId(deviceId_),
      mountPoint(mountPoint_),
      lastBlock(lastBlock_),
      deviceGone(false),
      rootDevice(0),
      rootInode(0),
      writeFailed(false) {}

Operation::Operation(const Operation& other)
    : id(other.id),
      handle(other.handle),
      deviceId(other.deviceId),
      mountPoint(other.mountPoint),
      lastBlock(other.lastBlock),
      deviceGone(other.deviceGone),
      rootDevice(other.rootDevice),
      rootInode(other.rootInode),
      writeFailed(other.writeFailed),
      unreadable(other.unreadable) {}

Operation::~Operation() = default;

}  // namespace kestrow
