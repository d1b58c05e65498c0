#ifndef KT_TESTS_FAKE_CLOCK_H
#define KT_TESTS_FAKE_CLOCK_H

#include <cstdint>

/* sys_clock_ms() and get_timestamp() in place of those of kt_clock. One thread. */

extern uint32_t g_fake_clock_ms;
extern int64_t g_fake_timestamp_us;

#endif
