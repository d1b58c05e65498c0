#include "exact_time.h"

#include <kt/rest_time.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

class rest_time : public ::testing::Test {
protected:
    ~rest_time() override {
        (void)unsetenv("TZ");
        tzset();
    }
    static std::string stamp(time_t seconds) {
        const timeval time = {seconds, 999999};
        char text[15];
        return timed_intf_gettimestamp(&time, text, sizeof text) == 0 ? text : "failed";
    }
};

TEST_F(rest_time, wall_clock_is_the_kernels) {
    timeval now = {};
    const time_t before = exact_time();
    ASSERT_EQ(timed_intf_getlocaltimeval(&now), 0);
    EXPECT_GE(now.tv_sec, before);
    EXPECT_LE(now.tv_sec, exact_time());
    EXPECT_GE(now.tv_usec, 0);
    EXPECT_LT(now.tv_usec, 1000000);
}

TEST_F(rest_time, wall_clock_refuses_null) {
    EXPECT_EQ(timed_intf_getlocaltimeval(nullptr), -1);
}

TEST_F(rest_time, timestamp_is_local_and_follows_a_change_of_the_time_zone) {
    (void)setenv("TZ", "UTC0", 1);
    EXPECT_EQ(stamp(0), "19700101000000");
    EXPECT_EQ(stamp(951782399), "20000228235959");
    (void)setenv("TZ", "XST-5:30", 1);
    EXPECT_EQ(stamp(0), "19700101053000");
}

TEST_F(rest_time, timestamp_needs_15_bytes) {
    (void)setenv("TZ", "UTC0", 1);
    const timeval time = {0, 0};
    char text[16] = "untouched";
    EXPECT_EQ(timed_intf_gettimestamp(&time, text, 14), -1);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(timed_intf_gettimestamp(&time, text, 15), 0);
    EXPECT_STREQ(text, "19700101000000");
}

TEST_F(rest_time, timestamp_refuses_null) {
    const timeval time = {0, 0};
    char text[15];
    EXPECT_EQ(timed_intf_gettimestamp(nullptr, text, sizeof text), -1);
    EXPECT_EQ(timed_intf_gettimestamp(&time, nullptr, sizeof text), -1);
}

TEST_F(rest_time, timestamp_refuses_years_of_more_than_four_digits) {
    if (sizeof(time_t) < 8) {
        GTEST_SKIP() << "time_t ends before the year 10000";
    }
    (void)setenv("TZ", "UTC0", 1);
    const auto last = static_cast<time_t>(253402300799); // 9999-12-31 23:59:59
    EXPECT_EQ(stamp(last), "99991231235959");
    for (const time_t seconds : {last + 1, std::numeric_limits<time_t>::max()}) {
        const timeval time = {seconds, 0};
        char text[32] = "untouched";
        EXPECT_EQ(timed_intf_gettimestamp(&time, text, sizeof text), -1);
        EXPECT_STREQ(text, "untouched");
    }
}

} // namespace
