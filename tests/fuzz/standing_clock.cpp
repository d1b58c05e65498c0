#include "standing_clock.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>

namespace {

constexpr uint64_t start_ns = uint64_t{1000} * 1000000000;
constexpr uint64_t yield_ns = 1000;

bool standing = false;
uint64_t now_ns = start_ns;

uint64_t nanoseconds(const timespec &time) {
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

} // namespace

standing_clock::standing_clock() {
    standing = true;
    now_ns = start_ns;
}

standing_clock::~standing_clock() {
    standing = false;
}

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec *time);
int __real_nanosleep(const timespec *time, timespec *left);
int __real_sched_yield();
long __real_syscall(long number, long a, long b, long c, long d, long e, long f);

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    if (!standing) {
        return __real_clock_gettime(clock, time);
    }
    time->tv_sec = static_cast<time_t>(now_ns / 1000000000);
    time->tv_nsec = static_cast<long>(now_ns % 1000000000);
    return 0;
}

int __wrap_nanosleep(const timespec *time, timespec *left) {
    if (!standing) {
        return __real_nanosleep(time, left);
    }
    now_ns += nanoseconds(*time);
    return 0;
}

int __wrap_sched_yield() {
    now_ns += yield_ns;
    return standing ? 0 : __real_sched_yield();
}

/** A wait for a futex ends with its time; there is nobody who could wake it. */
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
    if (!standing || number != SYS_futex || b != FUTEX_WAIT) {
        return __real_syscall(number, a, b, c, d, e, f);
    }
    const auto *word = reinterpret_cast<const uint32_t *>(a);
    const auto *limit = reinterpret_cast<const timespec *>(d);
    if (*word == static_cast<uint32_t>(c) && limit != nullptr) {
        now_ns += nanoseconds(*limit);
        errno = ETIMEDOUT;
    } else {
        errno = limit == nullptr ? EINTR : EAGAIN; // never without an end
    }
    return -1;
}
}
