// Preloaded into programs under test: they see the clocks of the machine shifted.
//
// KT_CLOCK_MONOTONIC_MS  added to every clock that only goes forward
// KT_CLOCK_WALL          a file of eight bytes: milliseconds added to the time of day, a signed
//                        number in the machine's order that may change at any moment
//
// What the kernel itself dates, such as files, stays as it is.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

// glibc on 32 bits has two sets of functions: with 64-bit seconds, which programs of this project
// call and this file defines by the usual names, and with 32-bit ones at the end.
#if __TIMESIZE == 32
static_assert(sizeof(time_t) == 8);
constexpr const char *clock_symbol = "__clock_gettime64";
constexpr long clock_call = SYS_clock_gettime64;
#else
constexpr const char *clock_symbol = "clock_gettime";
constexpr long clock_call = SYS_clock_gettime;
#endif

using clock_function = int (*)(clockid_t, timespec *);

clock_function next_clock = nullptr;
int64_t monotonic_ms = 0;
const std::atomic<int64_t> *wall_ms = nullptr;

__attribute__((constructor)) void prepare() {
    next_clock = reinterpret_cast<clock_function>(dlsym(RTLD_NEXT, clock_symbol));
    if (const char *text = getenv("KT_CLOCK_MONOTONIC_MS"); text != nullptr) {
        monotonic_ms = strtoll(text, nullptr, 10);
    }
    const char *path = getenv("KT_CLOCK_WALL");
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void *memory = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
    (void)close(fd);
    if (memory != MAP_FAILED) {
        wall_ms = static_cast<const std::atomic<int64_t> *>(memory);
    }
}

bool is_wall(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool is_monotonic(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_BOOTTIME;
}

int64_t shift_of(clockid_t clock) {
    if (is_monotonic(clock)) {
        return monotonic_ms;
    }
    return is_wall(clock) && wall_ms != nullptr ? wall_ms->load(std::memory_order_relaxed) : 0;
}

void shift(timespec *time, int64_t ms) {
    constexpr int64_t second_ns = 1'000'000'000;
    const int64_t total_ns = time->tv_nsec + ms % 1000 * 1'000'000;
    const int64_t carried = total_ns < 0 ? -1 : total_ns / second_ns;
    time->tv_sec += static_cast<time_t>(ms / 1000 + carried);
    time->tv_nsec = static_cast<long>(total_ns - carried * second_ns);
}

int shifted(clockid_t clock, timespec *time) {
    // A library that is set up earlier may ask before the constructor ran.
    const int result = next_clock != nullptr ? next_clock(clock, time)
                                             : static_cast<int>(syscall(clock_call, clock, time));
    if (result == 0) {
        shift(time, shift_of(clock));
    }
    return result;
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec *time) noexcept {
    return shifted(clock, time);
}

[[gnu::visibility("default")]] int gettimeofday(timeval *__restrict time,
                                                void *__restrict) noexcept {
    timespec now{};
    const int result = shifted(CLOCK_REALTIME, &now);
    if (result == 0) {
        time->tv_sec = now.tv_sec;
        time->tv_usec = now.tv_nsec / 1000;
    }
    return result;
}

[[gnu::visibility("default")]] time_t time(time_t *seconds) noexcept {
    timespec now{};
    (void)shifted(CLOCK_REALTIME, &now);
    if (seconds != nullptr) {
        *seconds = now.tv_sec;
    }
    return now.tv_sec;
}
#if __TIMESIZE == 32
// Programs of the distribution call these.

struct short_timespec {
    int32_t tv_sec;
    long tv_nsec;
};

struct short_timeval {
    int32_t tv_sec;
    long tv_usec;
};

[[gnu::visibility("default")]] int short_clock_gettime(clockid_t clock,
                                                       short_timespec *time) noexcept
    __asm__("clock_gettime");
[[gnu::visibility("default")]] int short_gettimeofday(short_timeval *__restrict time,
                                                      void *__restrict) noexcept
    __asm__("gettimeofday");
[[gnu::visibility("default")]] int32_t short_time(int32_t *seconds) noexcept __asm__("time");

int short_clock_gettime(clockid_t clock, short_timespec *time) noexcept {
    timespec now{};
    const int result = shifted(clock, &now);
    if (result == 0) {
        *time = {static_cast<int32_t>(now.tv_sec), now.tv_nsec};
    }
    return result;
}

int short_gettimeofday(short_timeval *__restrict time, void *__restrict) noexcept {
    timespec now{};
    const int result = shifted(CLOCK_REALTIME, &now);
    if (result == 0) {
        *time = {static_cast<int32_t>(now.tv_sec), now.tv_nsec / 1000};
    }
    return result;
}

int32_t short_time(int32_t *seconds) noexcept {
    const auto now = static_cast<int32_t>(time(nullptr));
    if (seconds != nullptr) {
        *seconds = now;
    }
    return now;
}
#endif
}
