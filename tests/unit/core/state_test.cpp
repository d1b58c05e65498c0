#include "core/state.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace {

class state : public ::testing::Test {
protected:
    state() { clear(); }
    ~state() override { clear(); }

    static void clear() {
        g_can_port_list = nullptr;
        g_can_port_count = 0;
        g_stop_requested = 0;
        can_proprietary_restart = 0;
        (void)unsetenv("KT_ROOT");
    }
};

TEST_F(state, port_has_the_name_at_its_index) {
    char first[] = "can0";
    char second[] = "can1";
    char *names[] = {first, second, nullptr};
    g_can_port_list = names;
    g_can_port_count = 2;
    EXPECT_STREQ(can_port_name(0), "can0");
    EXPECT_STREQ(can_port_name(1), "can1");
    EXPECT_EQ(can_port_name(2), nullptr);
    EXPECT_EQ(can_port_name(-1), nullptr);
}

TEST_F(state, there_are_no_names_without_a_list) {
    g_can_port_count = 1;
    EXPECT_EQ(can_port_name(0), nullptr);
}

TEST_F(state, paths_get_the_root_in_front) {
    EXPECT_EQ(rooted_path("/run/x"), "/run/x");
    (void)setenv("KT_ROOT", "", 1);
    EXPECT_EQ(rooted_path("/run/x"), "/run/x");
    (void)setenv("KT_ROOT", "/tmp/root", 1);
    EXPECT_EQ(rooted_path("/run/x"), "/tmp/root/run/x");
}

TEST_F(state, flags_are_independent) {
    EXPECT_FALSE(stop_requested());
    EXPECT_FALSE(restart_requested());
    g_stop_requested = 1;
    EXPECT_TRUE(stop_requested());
    EXPECT_FALSE(restart_requested());
    g_stop_requested = 0;
    can_proprietary_restart = 1;
    EXPECT_FALSE(stop_requested());
    EXPECT_TRUE(restart_requested());
}

} // namespace
