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

Operation::~Operation() = default;

}  // namespace kestrow
