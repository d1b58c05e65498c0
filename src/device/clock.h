#ifndef KT_DEVICE_CLOCK_H
#define KT_DEVICE_CLOCK_H

#include <cstdint>

/** Monotonic milliseconds. Wraps after 49.7 days: compare with clock_difference(). Any thread. */
uint32_t sys_clock_ms();

/** sys_clock_ms(), and the microseconds since it took that value. */
struct clock_reading {
    uint32_t ms;
    uint32_t us_passed; /* 0 to 999 */
};

clock_reading sys_clock_read();

/** Monotonic microseconds. Any thread. */
int64_t get_timestamp();

/** Milliseconds from b to a, negative when a is earlier; right across the wrap. */
inline int32_t clock_difference(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b);
}

inline bool clock_is_due(uint32_t now, uint32_t deadline) {
    return clock_difference(now, deadline) >= 0;
}

#endif
