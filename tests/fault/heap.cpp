#include "injection.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <unistd.h>

/*
 * The allocator of the whole process, libraries included: that of the C library with a head before
 * each block.
 */

extern "C" {
void *__libc_malloc(size_t size);
void __libc_free(void *memory);
}

namespace {

constexpr int trace_depth = 12;

struct alignas(16) block {
    block *previous;
    block *next;
    void *base; /* what the C library gave */
    size_t size;
    uint64_t number; /* 0: not allocated by a subject thread */
    void *trace[trace_depth];
};

std::atomic_flag lock = ATOMIC_FLAG_INIT;
block *first = nullptr; // guarded by lock
int64_t count = 0;      // guarded by lock
std::atomic<uint64_t> numbers{0};
thread_local bool is_tracing = false;
thread_local bool is_kept = false;

class list_lock {
public:
    list_lock() {
        while (lock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~list_lock() { lock.clear(std::memory_order_release); }
    list_lock(const list_lock &) = delete;
    list_lock &operator=(const list_lock &) = delete;
};

block *head_of(void *memory) {
    return static_cast<block *>(memory) - 1;
}

void take_trace(block *head) {
    head->trace[0] = nullptr;
    if (injection::is_telling() && !is_tracing) {
        is_tracing = true;
        const int depth = backtrace(head->trace, trace_depth);
        is_tracing = false;
        if (depth < trace_depth) {
            head->trace[depth] = nullptr;
        }
    }
}

void enlist(block *head) {
    head->number = numbers.fetch_add(1, std::memory_order_relaxed) + 1;
    take_trace(head);
    const list_lock guard;
    head->previous = nullptr;
    head->next = first;
    if (first != nullptr) {
        first->previous = head;
    }
    first = head;
    count++;
}

void strike_off(block *head) {
    const list_lock guard;
    (head->previous != nullptr ? head->previous->next : first) = head->next;
    if (head->next != nullptr) {
        head->next->previous = head->previous;
    }
    count--;
}

void *allocate(size_t size, size_t alignment = alignof(block)) {
    const size_t extra = sizeof(block) + (alignment > alignof(block) ? alignment : 0);
    if (size > SIZE_MAX - extra || (injection::is_subject() && !is_tracing &&
                                    injection::happens_now(injection::fault::NO_MEMORY))) {
        errno = ENOMEM;
        return nullptr;
    }
    void *base = __libc_malloc(size + extra);
    if (base == nullptr) {
        return nullptr;
    }
    const uintptr_t after = reinterpret_cast<uintptr_t>(base) + sizeof(block);
    const uintptr_t aligned = (after + alignment - 1) / alignment * alignment;
    auto *memory = reinterpret_cast<void *>(aligned);
    block *head = head_of(memory);
    head->base = base;
    head->size = size;
    head->number = 0;
    if (injection::is_subject() && !is_tracing && !is_kept) {
        enlist(head);
    }
    return memory;
}

} // namespace

heap::kept::kept() {
    is_kept = true;
}

heap::kept::~kept() {
    is_kept = false;
}

int64_t heap::live() {
    const list_lock guard;
    return count;
}

uint64_t heap::latest() {
    return numbers.load(std::memory_order_relaxed);
}

void heap::print_later_than(uint64_t number) {
    const list_lock guard;
    for (const block *head = first; head != nullptr; head = head->next) {
        if (head->number > number) {
            (void)dprintf(STDERR_FILENO, "left: %zu bytes from\n", head->size);
            const auto *end = std::find(head->trace, head->trace + trace_depth, nullptr);
            backtrace_symbols_fd(head->trace, static_cast<int>(end - head->trace), STDERR_FILENO);
        }
    }
}

extern "C" {

void *malloc(size_t size) {
    return allocate(size);
}

void free(void *memory) {
    if (memory == nullptr) {
        return;
    }
    block *head = head_of(memory);
    if (head->number != 0) {
        strike_off(head);
    }
    const int before = errno;
    __libc_free(head->base);
    errno = before;
}

void *calloc(size_t number, size_t size) {
    size_t total = 0;
    if (__builtin_mul_overflow(number, size, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    void *memory = allocate(total);
    return memory != nullptr ? memset(memory, 0, total) : nullptr;
}

void *realloc(void *memory, size_t size) {
    if (memory == nullptr) {
        return allocate(size);
    }
    if (size == 0) {
        free(memory);
        return nullptr;
    }
    void *moved = allocate(size);
    if (moved != nullptr) {
        memcpy(moved, memory, std::min(size, head_of(memory)->size));
        free(memory);
    }
    return moved;
}

void *reallocarray(void *memory, size_t number, size_t size) {
    size_t total = 0;
    if (__builtin_mul_overflow(number, size, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realloc(memory, total);
}

void *memalign(size_t alignment, size_t size) {
    return allocate(size, std::max(alignment, alignof(block)));
}

void *aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void **memory, size_t alignment, size_t size) {
    void *allocated = memalign(alignment, size);
    if (allocated == nullptr) {
        return ENOMEM;
    }
    *memory = allocated;
    return 0;
}

void *valloc(size_t size) {
    return memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
}

size_t malloc_usable_size(void *memory) {
    return memory == nullptr ? 0 : head_of(memory)->size;
}

} // extern "C"
