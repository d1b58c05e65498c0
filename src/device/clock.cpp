#include "device/clock.h"

#include <ctime>

namespace {

timespec monotonic() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return now;
}

} // namespace

uint32_t sys_clock_ms() {
    const timespec now = monotonic();
    // Wraps by definition; 32-bit arithmetic gives the same low bits as 64-bit would.
    return static_cast<uint32_t>(now.tv_sec) * 1000U +
           static_cast<uint32_t>(now.tv_nsec) / 1000000U;
}

int64_t get_timestamp() {
    const timespec now = monotonic();
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
