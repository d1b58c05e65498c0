#include "fake_clock.h"

#include "device/clock.h"

uint32_t g_fake_clock_ms = 0;
int64_t g_fake_timestamp_us = 0;

uint32_t sys_clock_ms() {
    return g_fake_clock_ms;
}

clock_reading sys_clock_read() {
    return {g_fake_clock_ms, 0};
}

int64_t get_timestamp() {
    return g_fake_timestamp_us;
}
