#include "can_heap.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

bool armed = false;
bool has_failed = false;
uint32_t left = 0;

bool must_fail() {
    if (!armed || has_failed) {
        return false;
    }
    if (left == 0) {
        has_failed = true;
        return true;
    }
    left--;
    return false;
}

} // namespace

void can_heap_fail_nth(uint32_t n) {
    left = n;
    has_failed = false;
    armed = true;
}

bool can_heap_stop() {
    armed = false;
    return has_failed;
}

#if __SIZEOF_SIZE_T__ == 8
#define NEW_WITHOUT_THROWING "_ZnwmRKSt9nothrow_t"
#else
#define NEW_WITHOUT_THROWING "_ZnwjRKSt9nothrow_t"
#endif

// By its assembler name, since replacing the operator itself collides with the thread sanitizer's.
void *real_new(size_t, const std::nothrow_t &) noexcept __asm__("__real_" NEW_WITHOUT_THROWING);
void *wrapped_new(size_t, const std::nothrow_t &) noexcept __asm__("__wrap_" NEW_WITHOUT_THROWING);

void *wrapped_new(size_t size, const std::nothrow_t &tag) noexcept {
    return must_fail() ? nullptr : real_new(size, tag);
}

extern "C" {

void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
char *__real_strdup(const char *);

void *__wrap_malloc(size_t size) {
    return must_fail() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    return must_fail() ? nullptr : __real_calloc(count, size);
}

char *__wrap_strdup(const char *text) {
    return must_fail() ? nullptr : __real_strdup(text);
}
}
