#include "new_fault.h"

#include <cstddef>
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

#ifndef __SANITIZE_THREAD__

void *operator new(size_t size) {
    void *memory = nullptr;
    // malloc() may count for somebody else, and the compiler takes realloc() without a block for
    // it.
    if (countdown.fails_now() ||
        posix_memalign(&memory, alignof(std::max_align_t), size > 0 ? size : 1) != 0) {
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

#endif
