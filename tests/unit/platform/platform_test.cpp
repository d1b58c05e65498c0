#include "can_ports.h"
#include "led_device.h"
#include "scratch_folder.h"

#include <kt/platform.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <new>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using name_list = std::vector<std::string>;

name_list take_list(int selector = 0) {
    name_list taken;
    char **list = can_list(selector);
    EXPECT_NE(list, nullptr);
    for (char **at = list; at && *at; ++at) {
        taken.emplace_back(*at);
        free(*at);
    }
    free(list);
    return taken;
}

/** While it lives, only so many descriptors more can be had. */
class scarce_descriptors {
public:
    explicit scarce_descriptors(rlim_t more) {
        const int next = dup(STDERR_FILENO);
        (void)close(next);
        (void)getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit now{static_cast<rlim_t>(next) + more, before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
    }
    ~scarce_descriptors() { (void)setrlimit(RLIMIT_NOFILE, &before_); }
    scarce_descriptors(const scarce_descriptors &) = delete;
    scarce_descriptors &operator=(const scarce_descriptors &) = delete;

private:
    rlimit before_{};
};

class can_ports : public scratch_folder {
protected:
    ~can_ports() override { (void)unsetenv("KT_CAN_PORTS"); }
    static void list(const char *ports) { (void)setenv("KT_CAN_PORTS", ports, 1); }
    void add_interface(const std::string &name, const std::string &type) {
        std::filesystem::create_directory(path(name));
        write(path(name) + "/type", type);
    }
};

TEST_F(can_ports, listed_ports_keep_their_order) {
    list("can1,can0,vcan7");
    EXPECT_THAT(take_list(), ElementsAre("can1", "can0", "vcan7"));
}

TEST_F(can_ports, empty_names_in_the_list_are_ignored) {
    list(",can0,,can1,");
    EXPECT_THAT(take_list(), ElementsAre("can0", "can1"));
    list(",");
    EXPECT_THAT(take_list(), IsEmpty());
}

TEST_F(can_ports, list_ends_with_null_and_is_counted) {
    list("can0,can1");
    char **ports = can_list(0);
    ASSERT_EQ(can_get_number(ports), 2);
    EXPECT_EQ(ports[2], nullptr);
    free(ports[0]);
    free(ports[1]);
    free(ports);
    EXPECT_EQ(can_get_number(nullptr), 0);
}

TEST_F(can_ports, names_that_a_shell_would_read_are_left_out_with_one_line_each) {
    list("can0,can1;reboot,$(id),can 2,`x`,-h,..,can1");
    ::testing::internal::CaptureStderr();
    EXPECT_THAT(take_list(), ElementsAre("can0", "can1"));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "CAN port 'can1;reboot' left out: not a usable interface name\n"
              "CAN port '$(id)' left out: not a usable interface name\n"
              "CAN port 'can 2' left out: not a usable interface name\n"
              "CAN port '`x`' left out: not a usable interface name\n"
              "CAN port '-h' left out: not a usable interface name\n"
              "CAN port '..' left out: not a usable interface name\n");
}

TEST_F(can_ports, name_of_15_bytes_is_the_longest) {
    list("can456789012345,can4567890123456");
    ::testing::internal::CaptureStderr();
    EXPECT_THAT(take_list(), ElementsAre("can456789012345"));
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("'can4567890123456'"));
}

TEST_F(can_ports, name_listed_twice_counts_once) {
    list("can0,can1,can0");
    ::testing::internal::CaptureStderr();
    EXPECT_THAT(take_list(), ElementsAre("can0", "can1"));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "CAN port 'can0' left out: listed twice\n");
}

TEST_F(can_ports, every_allowed_character_passes) {
    EXPECT_TRUE(valid_interface_name("aZ09._:-"));
    for (int c = 0; c < 256; ++c) {
        const bool allowed = (c < 128 && isalnum(c)) || strchr("._:-", c) != nullptr;
        const std::string name = std::string("c") + static_cast<char>(c);
        EXPECT_EQ(valid_interface_name(name), allowed && c != 0) << c;
    }
    EXPECT_FALSE(valid_interface_name(""));
}

TEST_F(can_ports, kernel_interfaces_of_type_280_come_in_natural_order) {
    for (const char *name : {"can10", "can2", "can1", "vcan0", "can2a", "can02"}) {
        add_interface(name, "280\n");
    }
    add_interface("eth0", "1\n");
    add_interface("lo", "772\n");
    add_interface("odd0", "2800\n");
    add_interface("none0", "");
    std::filesystem::create_directory(path("typeless"));
    EXPECT_THAT(kernel_can_interfaces(path_.c_str()),
                ElementsAre("can1", "can02", "can2", "can2a", "can10", "vcan0"));
}

TEST_F(can_ports, kernel_interface_with_an_unusable_name_is_left_out) {
    add_interface("can0", "280\n");
    add_interface("can$1", "280\n");
    ::testing::internal::CaptureStderr();
    EXPECT_THAT(kernel_can_interfaces(path_.c_str()), ElementsAre("can0"));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "CAN port 'can$1' left out: not a usable interface name\n");
}

TEST_F(can_ports, machine_without_interfaces_has_an_empty_list) {
    EXPECT_THAT(kernel_can_interfaces(path("missing").c_str()), IsEmpty());
}

TEST_F(can_ports, without_a_descriptor_for_the_folder_or_an_interface_nothing_is_listed) {
    add_interface("can0", "280\n");
    for (const rlim_t descriptors : {0, 1}) {
        const scarce_descriptors none_but(descriptors);
        EXPECT_THROW((void)kernel_can_interfaces(path_.c_str()), std::bad_alloc) << descriptors;
    }
    const scarce_descriptors two(2);
    EXPECT_THAT(kernel_can_interfaces(path_.c_str()), ElementsAre("can0"));
}

TEST_F(can_ports, without_descriptors_there_is_no_list_at_all) {
    (void)unsetenv("KT_CAN_PORTS");
    const scarce_descriptors none(0);
    EXPECT_EQ(can_list(0), nullptr);
}

TEST_F(can_ports, without_a_list_the_kernels_interfaces_are_the_ports) {
    (void)unsetenv("KT_CAN_PORTS");
    const name_list expected = kernel_can_interfaces("/sys/class/net");
    EXPECT_EQ(take_list(), expected);
    list("");
    EXPECT_EQ(take_list(), expected);
}

TEST_F(can_ports, natural_order_is_a_strict_order) {
    const name_list ordered = {"",
                               "a",
                               "a0",
                               "a00",
                               "a1",
                               "a01b",
                               "a1c",
                               "a9",
                               "a10",
                               "a10b2",
                               "a10b11",
                               "a99999999999999999999",
                               "a100000000000000000000",
                               "b"};
    for (size_t i = 0; i < ordered.size(); ++i) {
        for (size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(natural_less(ordered[i], ordered[j]), i < j) << ordered[i] << ordered[j];
        }
    }
}

TEST_F(can_ports, handle_is_for_listed_names_only) {
    list("can0,can1");
    can_port *port = can_get("can1");
    EXPECT_NE(port, nullptr);
    can_free(port);
    EXPECT_EQ(can_get("can2"), nullptr);
    EXPECT_EQ(can_get("lo"), nullptr); // exists, but is no CAN interface
    EXPECT_EQ(can_get(""), nullptr);
    EXPECT_EQ(can_get("../can0"), nullptr);
    EXPECT_EQ(can_get(nullptr), nullptr);
    can_free(nullptr);
}

class led_file : public scratch_root {
protected:
    led_file() { (void)unsetenv("KT_LED"); }
    std::string shown(int index) {
        return read(path("run/kt-platform/led") + std::to_string(index));
    }
    using led_ptr = std::unique_ptr<led, decltype(&led_free)>;
    led_ptr service{led_get(3), led_free};
};

TEST_F(led_file, states_can_be_read_by_a_person) {
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(led_set_state(service.get(), LED_OFF, 0, 0, 0), 0);
    EXPECT_EQ(shown(3), "state 0 (off) count 0 on_ms 0 period_ms 0\n");
    EXPECT_EQ(led_set_state(service.get(), LED_GREEN, 0, 0, 0), 0);
    EXPECT_EQ(shown(3), "state 1 (normal) count 0 on_ms 0 period_ms 0\n");
    EXPECT_EQ(led_set_state(service.get(), LED_RED, 0, 0, 0), 0);
    EXPECT_EQ(shown(3), "state 3 (fault) count 0 on_ms 0 period_ms 0\n");
    EXPECT_EQ(led_set_state(service.get(), LED_BLINK, 2, 50, 1000), 0);
    EXPECT_EQ(shown(3), "state 4 (blinking) count 2 on_ms 50 period_ms 1000\n");
}

TEST_F(led_file, state_last_set_is_remembered) {
    EXPECT_EQ(led_get_state(service.get()), LED_OFF);
    EXPECT_EQ(led_set_state(service.get(), LED_BLINK, 1, 1000, 0), 0);
    EXPECT_EQ(led_get_state(service.get()), LED_BLINK);
    EXPECT_EQ(led_get_state(nullptr), -1);
}

TEST_F(led_file, led_keeps_its_state_after_its_handle) {
    EXPECT_EQ(led_set_state(service.get(), LED_RED, 0, 0, 0), 0);
    service.reset();
    EXPECT_EQ(shown(3), "state 3 (fault) count 0 on_ms 0 period_ms 0\n");
}

TEST_F(led_file, each_index_has_its_file_and_nothing_else_is_left) {
    const led_ptr other(led_get(0), led_free);
    EXPECT_EQ(led_set_state(service.get(), LED_GREEN, 0, 0, 0), 0);
    EXPECT_EQ(led_set_state(other.get(), LED_RED, 0, 0, 0), 0);
    EXPECT_THAT(names("run/kt-platform"), ElementsAre("led0", "led3"));
}

TEST_F(led_file, unknown_state_is_refused_and_changes_nothing) {
    EXPECT_EQ(led_set_state(service.get(), LED_GREEN, 0, 0, 0), 0);
    for (const int state : {-1, 2, 5, 1000}) {
        EXPECT_EQ(led_set_state(service.get(), state, 1, 1, 1), -1) << state;
    }
    EXPECT_EQ(led_set_state(service.get(), LED_BLINK, 0, 50, 1000), -1);
    EXPECT_EQ(led_set_state(service.get(), LED_BLINK, 1, 0, 1000), -1);
    EXPECT_EQ(led_set_state(service.get(), LED_BLINK, 1, 50, -1), -1);
    EXPECT_EQ(led_get_state(service.get()), LED_GREEN);
    EXPECT_EQ(shown(3), "state 1 (normal) count 0 on_ms 0 period_ms 0\n");
    EXPECT_EQ(led_set_state(nullptr, LED_GREEN, 0, 0, 0), -1);
    led_free(nullptr);
}

TEST_F(led_file, negative_index_has_no_led) {
    EXPECT_EQ(led_get(-1), nullptr);
}

TEST_F(led_file, failed_write_is_reported_and_not_remembered) {
    write(path("run"), "a file where the folder should be");
    EXPECT_EQ(led_set_state(service.get(), LED_RED, 0, 0, 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(led_get_state(service.get()), LED_OFF);
}

TEST_F(led_file, folder_in_place_of_the_file_leaves_no_temporary_file) {
    std::filesystem::create_directories(path("run/kt-platform/led3/x"));
    EXPECT_EQ(led_set_state(service.get(), LED_RED, 0, 0, 0), -1);
    EXPECT_THAT(names("run/kt-platform"), ElementsAre("led3"));
}

TEST_F(led_file, readers_see_whole_states_while_threads_set_them) {
    ASSERT_EQ(led_set_state(service.get(), LED_GREEN, 0, 0, 0), 0);
    std::atomic<int> running = 2;
    const auto set_often = [&](int state, int count, int on_ms) {
        const led_ptr own(led_get(3), led_free);
        for (int i = 0; i < 150; ++i) {
            EXPECT_EQ(led_set_state(i % 2 ? own.get() : service.get(), state, count, on_ms, 0), 0);
            EXPECT_NE(led_get_state(service.get()), -1);
        }
        --running;
    };
    std::thread first(set_often, LED_RED, 0, 0);
    std::thread second(set_often, LED_BLINK, 10, 1000);
    while (running > 0) {
        const std::string text = shown(3);
        EXPECT_TRUE(text.starts_with("state ") && text.ends_with("period_ms 0\n")) << text;
    }
    first.join();
    second.join();
}

TEST_F(led_file, led_named_by_the_environment_must_exist_and_be_a_plain_name) {
    for (const char *name : {"no-such-led", "../leds", "/etc", ".", "..", "a/b"}) {
        (void)setenv("KT_LED", name, 1);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(led_get(3), nullptr) << name;
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "KT_LED: no LED '" + std::string(name) + "' in /sys/class/leds\n");
    }
    (void)setenv("KT_LED", "", 1);
    const led_ptr unnamed(led_get(3), led_free);
    EXPECT_NE(unnamed, nullptr);
    (void)unsetenv("KT_LED");
}

class led_device : public scratch_folder {
protected:
    led_device() {
        for (const char *name : {"brightness", "trigger", "delay_on", "delay_off"}) {
            write(path(name), "?");
        }
    }
    int show(const led_order &order) { return show_on_led_device(path_.c_str(), order); }
};

TEST_F(led_device, off_takes_trigger_and_brightness_away) {
    EXPECT_EQ(show({LED_OFF, 0, 0, 0}), 0);
    EXPECT_EQ(read(path("trigger")), "none");
    EXPECT_EQ(read(path("brightness")), "0");
}

TEST_F(led_device, steady_states_light_it_fully) {
    EXPECT_EQ(show({LED_GREEN, 0, 0, 0}), 0);
    EXPECT_EQ(read(path("trigger")), "none");
    EXPECT_EQ(read(path("brightness")), "255");
    write(path("max_brightness"), "1023\n");
    EXPECT_EQ(show({LED_RED, 0, 0, 0}), 0);
    EXPECT_EQ(read(path("brightness")), "1023");
}

TEST_F(led_device, blinking_uses_the_kernels_timer) {
    EXPECT_EQ(show({LED_BLINK, 1, 1000, 0}), 0);
    EXPECT_EQ(read(path("trigger")), "timer");
    EXPECT_EQ(read(path("delay_on")), "1000");
    EXPECT_EQ(read(path("delay_off")), "1000");
}

TEST_F(led_device, flashes_are_spread_over_the_period) {
    EXPECT_EQ(show({LED_BLINK, 2, 50, 1000}), 0);
    EXPECT_EQ(read(path("delay_on")), "50");
    EXPECT_EQ(read(path("delay_off")), "450");
    EXPECT_EQ(show({LED_BLINK, 4, 500, 1000}), 0); // more than the period holds
    EXPECT_EQ(read(path("delay_off")), "1");
}

TEST_F(led_device, coloured_led_shows_what_the_state_is_named_after) {
    write(path("multi_index"), "red green blue\n");
    write(path("multi_intensity"), "");
    EXPECT_EQ(show({LED_GREEN, 0, 0, 0}), 0);
    EXPECT_EQ(read(path("multi_intensity")), "0 255 0 ");
    EXPECT_EQ(show({LED_RED, 0, 0, 0}), 0);
    EXPECT_EQ(read(path("multi_intensity")), "255 0 0 ");
    EXPECT_EQ(show({LED_BLINK, 1, 1000, 0}), 0);
    EXPECT_EQ(read(path("multi_intensity")), "255 0 0 ");
}

TEST_F(led_device, missing_attribute_fails) {
    for (const char *name : {"brightness", "trigger"}) {
        const std::string text = read(path(name));
        std::filesystem::remove(path(name));
        EXPECT_EQ(show({LED_OFF, 0, 0, 0}), -1) << name;
        EXPECT_EQ(show({LED_RED, 0, 0, 0}), -1) << name;
        write(path(name), text);
    }
    for (const char *name : {"trigger", "delay_on", "delay_off"}) {
        std::filesystem::remove(path(name));
        EXPECT_EQ(show({LED_BLINK, 1, 1, 1}), -1) << name;
        write(path(name), "");
    }
    write(path("multi_index"), "red green\n");
    EXPECT_EQ(show({LED_RED, 0, 0, 0}), -1);
}

} // namespace
