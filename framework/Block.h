#pragma once

#include <vector>

#include "framework/Operation.h"

namespace kestrow {

// The unit passed between stages, always held through boost::shared_ptr.
template <class T>
struct Block;

// Carries only an operation: the token that starts and ends a request.
template <>
struct Block<void> {
    Operation operation;
};

// A batch of records. The block owns every non-null pointer in `items` and
// deletes them when it dies: move a record out (null its slot) to keep it.
template <class T>
struct Block<T*> {
    Block() = default;
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() {
        for (size_t i = 0; i < items.size(); ++i)
            delete items[i];
        items.clear();
    }

    std::vector<T*> items;
    Operation operation;
};

}  // namespace kestrow
