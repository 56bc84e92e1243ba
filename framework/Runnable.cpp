#include "framework/Runnable.h"

namespace kestrow {

void* runner(void* arg) {
    static_cast<Runnable*>(arg)->runLoop();
    return nullptr;
}

}  // namespace kestrow
