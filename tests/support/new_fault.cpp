#include "new_fault.h"

#include <cstdlib>
#include <new>

namespace {

thread_local fault_countdown countdown;

} // namespace

void new_fault::arm(int nth) {
    countdown.arm(nth);
}

bool new_fault::disarm() {
    return countdown.disarm();
}

void *operator new(size_t size) {
    // malloc() may count for somebody else.
    void *memory = countdown.fails_now() ? nullptr : realloc(nullptr, size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void *memory) noexcept {
    free(memory);
}

void operator delete(void *memory, size_t /*size*/) noexcept {
    free(memory);
}
