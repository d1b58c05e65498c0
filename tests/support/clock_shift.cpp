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

int64_t monotonic_ms = 0;
const std::atomic<int64_t> *wall_ms = nullptr;

template <typename Time>
struct clock_source {
    const char *symbol;
    long system_call;
    int (*next)(clockid_t, Time *);

    void find() { next = reinterpret_cast<decltype(next)>(dlsym(RTLD_NEXT, symbol)); }
};

clock_source<timespec> clocks{"clock_gettime", SYS_clock_gettime, nullptr};

#if __TIMESIZE == 32
// Of glibc's two sets of functions there, programs of the distribution call the one with the short
// seconds, and those of this project the other, with these types.
struct wide_timespec {
    int64_t tv_sec;
    long tv_nsec;
    long padding;
};

struct wide_timeval {
    int64_t tv_sec;
    int64_t tv_usec;
};

clock_source<wide_timespec> wide_clocks{"__clock_gettime64", SYS_clock_gettime64, nullptr};
#endif

__attribute__((constructor)) void prepare() {
    clocks.find();
#if __TIMESIZE == 32
    wide_clocks.find();
#endif
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

template <typename Time>
void shift(Time *time, int64_t ms) {
    constexpr int64_t second_ns = 1'000'000'000;
    const int64_t total_ns = time->tv_nsec + ms % 1000 * 1'000'000;
    const int64_t carried = total_ns < 0 ? -1 : total_ns / second_ns;
    time->tv_sec += static_cast<decltype(time->tv_sec)>(ms / 1000 + carried);
    time->tv_nsec = static_cast<long>(total_ns - carried * second_ns);
}

template <typename Time>
int shifted(const clock_source<Time> &source, clockid_t clock, Time *time) {
    // A library that is set up earlier may ask before the constructor ran.
    const int result = source.next != nullptr
                           ? source.next(clock, time)
                           : static_cast<int>(syscall(source.system_call, clock, time));
    if (result == 0) {
        shift(time, shift_of(clock));
    }
    return result;
}

template <typename Time, typename Parts>
int time_of_day(const clock_source<Time> &source, Parts *time) {
    Time now{};
    const int result = shifted(source, CLOCK_REALTIME, &now);
    if (result == 0) {
        time->tv_sec = now.tv_sec;
        time->tv_usec = now.tv_nsec / 1000;
    }
    return result;
}

template <typename Time, typename Seconds>
Seconds seconds_of_day(const clock_source<Time> &source, Seconds *seconds) {
    Time now{};
    (void)shifted(source, CLOCK_REALTIME, &now);
    if (seconds != nullptr) {
        *seconds = now.tv_sec;
    }
    return now.tv_sec;
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec *time) noexcept {
    return shifted(clocks, clock, time);
}

[[gnu::visibility("default")]] int gettimeofday(timeval *__restrict time,
                                                void *__restrict) noexcept {
    return time_of_day(clocks, time);
}

[[gnu::visibility("default")]] time_t time(time_t *seconds) noexcept {
    return seconds_of_day(clocks, seconds);
}

#if __TIMESIZE == 32
[[gnu::visibility("default")]] int __clock_gettime64(clockid_t clock,
                                                     wide_timespec *time) noexcept {
    return shifted(wide_clocks, clock, time);
}

[[gnu::visibility("default")]] int __gettimeofday64(wide_timeval *__restrict time,
                                                    void *__restrict) noexcept {
    return time_of_day(wide_clocks, time);
}

[[gnu::visibility("default")]] int64_t __time64(int64_t *seconds) noexcept {
    return seconds_of_day(wide_clocks, seconds);
}
#endif
}
