#include "captured_log.h"
#include "device/local_time.h"
#include "fake_rest_time.h"

#include <gmock/gmock.h>

namespace {

using ::testing::ElementsAre;

class local_time : public ::testing::Test {
protected:
    local_time() { g_fake_rest_time = {}; }
};

TEST_F(local_time, comes_from_the_library) {
    g_fake_rest_time.now = {1234, 5678};
    timeval now{};
    EXPECT_EQ(can_proprietary_time_get_localtimeval(&now), 0);
    EXPECT_EQ(now.tv_sec, 1234);
    EXPECT_EQ(now.tv_usec, 5678);
}

TEST_F(local_time, text_comes_from_the_library) {
    const timeval time = {99, 1};
    char text[20] = "";
    EXPECT_EQ(can_proprietary_time_get_timestamp(&time, text, sizeof text), 0);
    EXPECT_STREQ(text, "99");
    EXPECT_EQ(g_fake_rest_time.formatted.tv_usec, 1);
    EXPECT_EQ(can_proprietary_time_get_timestamp(&time, text, 2), 0);
    EXPECT_STREQ(text, "9"); // the size is handed on
}

TEST_F(local_time, failure_is_logged) {
    g_fake_rest_time.fails = true;
    timeval time{};
    char text[20] = "kept";
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_time_get_localtimeval(&time), -10);
                    EXPECT_EQ(can_proprietary_time_get_timestamp(&time, text, sizeof text), -10);
                }),
                ElementsAre("can_proprietary_time_get_localtimeval|get time fail\n",
                            "can_proprietary_time_get_timestamp|get time fail\n"));
    EXPECT_STREQ(text, "kept");
}

} // namespace
