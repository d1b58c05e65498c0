#include "device/clock.h"

#include <ctime>

namespace {

timespec monotonic() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return now;
}

} // namespace

clock_reading sys_clock_read() {
    const timespec now = monotonic();
    const auto ns = static_cast<uint32_t>(now.tv_nsec);
    const uint32_t ms = ns / 1000000U;
    // Wraps by definition; 32-bit arithmetic gives the same low bits as 64-bit would.
    return {static_cast<uint32_t>(now.tv_sec) * 1000U + ms, (ns - ms * 1000000U) / 1000U};
}

uint32_t sys_clock_ms() {
    return sys_clock_read().ms;
}

int64_t get_timestamp() {
    const timespec now = monotonic();
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
