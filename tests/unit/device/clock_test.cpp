#include "device/clock.h"

#include <ctime>
#include <gtest/gtest.h>

namespace {

int64_t monotonic_us() {
    timespec now{};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

TEST(clock, microseconds_are_those_of_the_monotonic_clock) {
    const int64_t before = monotonic_us();
    const int64_t now = get_timestamp();
    EXPECT_LE(before, now);
    EXPECT_LE(now, monotonic_us());
}

TEST(clock, milliseconds_are_its_low_32_bits) {
    const int64_t before = monotonic_us();
    const uint32_t now = sys_clock_ms();
    const int64_t after = monotonic_us();
    EXPECT_GE(clock_difference(now, static_cast<uint32_t>(before / 1000)), 0);
    EXPECT_GE(clock_difference(static_cast<uint32_t>(after / 1000), now), 0);
}

TEST(clock, a_reading_tells_how_much_of_its_millisecond_has_passed) {
    const int64_t before = monotonic_us();
    const clock_reading now = sys_clock_read();
    const int64_t after = monotonic_us();
    EXPECT_LT(now.us_passed, 1000U);
    const auto low = static_cast<uint32_t>(before); // microseconds wrap in the same bits
    EXPECT_LE(now.ms * 1000U + now.us_passed - low, static_cast<uint32_t>(after - before));
}

TEST(clock, difference_is_right_across_the_wrap) {
    EXPECT_EQ(clock_difference(5, 3), 2);
    EXPECT_EQ(clock_difference(3, 5), -2);
    EXPECT_EQ(clock_difference(2, UINT32_MAX - 1), 4);
    EXPECT_EQ(clock_difference(UINT32_MAX - 1, 2), -4);
    EXPECT_EQ(clock_difference(0x80000000U, 1), INT32_MAX);
    EXPECT_EQ(clock_difference(0, 0x80000000U), INT32_MIN);
}

TEST(clock, deadline_is_due_from_its_moment_on) {
    EXPECT_FALSE(clock_is_due(999, 1000));
    EXPECT_TRUE(clock_is_due(1000, 1000));
    EXPECT_TRUE(clock_is_due(1001, 1000));
    EXPECT_FALSE(clock_is_due(UINT32_MAX, 0));
    EXPECT_TRUE(clock_is_due(0, UINT32_MAX));
    EXPECT_TRUE(clock_is_due(500, UINT32_MAX - 500));
    EXPECT_TRUE(clock_is_due(INT32_MAX, 0));
    EXPECT_FALSE(clock_is_due(0x80000000U, 0)); // more than 24.8 days late passes for early
}

} // namespace
