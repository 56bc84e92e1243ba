#pragma once
// Blocks built by tests: one operation, the records given, owned by the block.

#include <boost/shared_ptr.hpp>
#include <string>

#include "framework/Block.h"

namespace olvane::test {

// An operation of device "dev1".
inline kestrow::Operation testOperation(const std::string& mountPoint = "/media/usb",
                                        bool last = true, int id = 7) {
    return kestrow::Operation(id, 0, "dev1", mountPoint, last);
}

// An empty Block<T*> of `op`; the records pushed into it are owned by it.
template <class T>
boost::shared_ptr<kestrow::Block<T*>> makeBlock(const kestrow::Operation& op) {
    boost::shared_ptr<kestrow::Block<T*>> b(new kestrow::Block<T*>());
    b->operation = op;
    return b;
}

// A Block<void>: the token that starts or ends an operation.
inline boost::shared_ptr<kestrow::Block<void>> makeToken(const kestrow::Operation& op) {
    boost::shared_ptr<kestrow::Block<void>> b(new kestrow::Block<void>());
    b->operation = op;
    return b;
}

}  // namespace olvane::test
