#ifndef KT_DX_SYNC_H
#define KT_DX_SYNC_H

#include "layout.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kt_dx {

/**
 * Shared futexes: the words lie in the file, so the waiter may be another process.
 * @return whether anyone waited
 */
inline bool futex_wake_all(std::atomic<uint32_t> &word) {
    return syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0) > 0;
}

/**
 * Returns on a wake-up, the timeout, and at once when the word is not expected.
 * @return false when a signal handler ran
 */
inline bool
futex_wait(std::atomic<uint32_t> &word, uint32_t expected, const timespec *timeout = nullptr) {
    // The call knows the kernel's first kind of time only, also where the C library has a wider
    // one.
    long pair[2] = {LONG_MAX, 0};
    if (timeout != nullptr && timeout->tv_sec < LONG_MAX) {
        pair[0] = static_cast<long>(timeout->tv_sec);
        pair[1] = static_cast<long>(timeout->tv_nsec);
    }
    const long *limit = timeout != nullptr ? pair : nullptr;
    return syscall(SYS_futex, &word, FUTEX_WAIT, expected, limit, nullptr, 0) == 0 ||
           errno != EINTR;
}

inline uint64_t clock_ms(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now); // cannot fail for the monotonic clocks
    // The nanoseconds fit 32 bits; dividing 64 bits is a call of the compiler's library on ARM.
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

/** Time of a write. The coarse clock is a plain read of memory: a value need not be dated finer. */
inline uint64_t stamp_now_ms() {
    return clock_ms(CLOCK_MONOTONIC_COARSE);
}

/**
 * Publish what was written before. The counter goes up and the waiters' bit goes down in one step:
 * a watcher that set the bit either is woken or finds the counter changed, and one that was killed
 * while waiting costs a single wake-up.
 */
inline void commit_changes(store_header &header) {
    uint32_t seen = header.commit.load(std::memory_order_relaxed);
    while (!header.commit.compare_exchange_weak(
        seen, (seen & ~1U) + 2, std::memory_order_release, std::memory_order_relaxed)) {
    }
    if (seen & 1) {
        (void)futex_wake_all(header.commit);
    }
}

/** Count a write of a slot whose value and time have been stored. */
inline void count_write(tag_slot &slot, std::atomic<uint32_t> &group) {
    slot.sequence.fetch_add(1, std::memory_order_release);
    group.fetch_add(1, std::memory_order_release);
}

/** The same for a slot that nobody else writes. */
inline void count_own_write(tag_slot &slot, std::atomic<uint32_t> &group) {
    slot.sequence.store(slot.sequence.load(std::memory_order_relaxed) + 1,
                        std::memory_order_release);
    group.fetch_add(1, std::memory_order_release);
}

inline void count_write(store_layout &map, uint32_t index) {
    count_write(map.tags[index], map.header.group_changes[index / group_slots]);
}

} // namespace kt_dx

#endif
