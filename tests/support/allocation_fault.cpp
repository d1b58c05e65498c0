#include "allocation_fault.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

thread_local fault_countdown countdown;

bool fails_now() {
    const bool fails = countdown.fails_now();
    errno = fails ? ENOMEM : errno;
    return fails;
}

void *allocate(size_t size) {
    try {
        return fails_now() ? nullptr : ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void *allocate_array(size_t size) {
    try {
        return fails_now() ? nullptr : ::operator new[](size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

} // namespace

void allocation_fault::arm(int nth) {
    countdown.arm(nth);
}

bool allocation_fault::disarm() {
    return countdown.disarm();
}

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
char *__real_strdup(const char *text);

void *__wrap_malloc(size_t size) {
    return fails_now() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    return fails_now() ? nullptr : __real_calloc(count, size);
}

char *__wrap_strdup(const char *text) {
    return fails_now() ? nullptr : __real_strdup(text);
}

void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const void * /*tag*/) {
    return allocate(size);
}
void *__wrap__ZnwjRKSt9nothrow_t(size_t size, const void * /*tag*/) {
    return allocate(size);
}
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const void * /*tag*/) {
    return allocate_array(size);
}
void *__wrap__ZnajRKSt9nothrow_t(size_t size, const void * /*tag*/) {
    return allocate_array(size);
}

} // extern "C"
