#include "can/module.h"
#include "can/port.h"
#include "can_calls.h"
#include "can_capture.h"
#include "can_clock.h"
#include "can_command_folder.h"
#include "can_config.h"
#include "can_device_fake.h"
#include "can_dx_fake.h"
#include "can_journal.h"
#include "core/state.h"
#include "tags/status_tag.h"
#include "tags/tag.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

size_t open_descriptors() {
    size_t count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) {
        count++;
    }
    (void)closedir(folder);
    return count;
}

/** Two ports; the second runs in a thread until its select has been called often enough. */
class can_port_thread : public ::testing::Test {
protected:
    can_port_thread() {
        can_calls_reset();
        can_device_reset();
        can_dx_reset();
        can_clock_set(1000);
        can_proprietary_dx_create();
        can_proprietary_device_status_init(4);
        first.next = &module;
        module.next = &last;
        g_can_module_list = &first;
        g_can_port_list = names.data();
        g_can_port_count = 2;
        run_for(3);
        (void)can_take_lines();
    }
    ~can_port_thread() override {
        g_can_module_list = nullptr;
        g_can_port_list = nullptr;
        g_can_port_count = 0;
        g_stop_requested = 0;
        can_proprietary_restart = 0;
        can_proprietary_device_status_release();
        can_proprietary_dx_destroy();
        can_calls_reset();
        can_device_reset();
        (void)can_take_lines();
    }

    /** Stop the service in that receive pass. */
    void run_for(int passes) {
        can_calls().on_select = [passes, count = 0]() mutable {
            if (++count == passes) {
                g_stop_requested = 1;
            }
        };
    }

    /** Run the port to its end. @return what it wrote to standard error */
    std::string run() {
        return can_errors_of([&] {
            pthread_t thread{};
            ASSERT_EQ(pthread_create(&thread, nullptr, can_port_handler, &index), 0);
            void *result = &thread;
            ASSERT_EQ(pthread_join(thread, &result), 0);
            EXPECT_EQ(result, nullptr);
        });
    }

    /** Nothing is left of a port that has ended. */
    void expect_released(size_t descriptors_before) {
        EXPECT_EQ(module.configuration, nullptr);
        EXPECT_EQ(module.next, &last); // other threads walk the list
        EXPECT_EQ(open_descriptors(), descriptors_before);
        for (const trans_list &list : module.lists) {
            EXPECT_EQ(list.head, nullptr);
        }
        for (uint32_t bucket = 0; bucket < hash_bucket_count; bucket++) {
            ASSERT_EQ(module.receive_table[bucket], nullptr);
            ASSERT_EQ(module.remote_request_table[bucket], nullptr);
        }
        can_proprietary_device_status_release();
        EXPECT_EQ(can_dx_tag_count(), 0U);
    }

    device_config *device() {
        device_config **list = &can_device().port_config;
        return *list != nullptr ? *list : can_add_device(list, "dev");
    }

    can_command_folder commands;
    char names_[2][5] = {"can0", "can1"};
    std::array<char *, 3> names = {names_[0], names_[1], nullptr};
    can_module first{};
    can_module module{};
    can_module last{};
    uint32_t index = 1;
};

TEST_F(can_port_thread, starts_in_order_and_releases_everything) {
    const size_t before = open_descriptors();
    can_add_consume(device(), "c", 0x10);
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x11, 0x12);
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x13)->triggerByRTR = 1;
    can_device().interface.baudrate = 5;
    EXPECT_EQ(run(), "");
    EXPECT_THAT(can_take_lines(),
                ElementsAre("configuration 2",
                            "settings 2",
                            "resistor can1 0",
                            "socket 3 1",
                            "option 101 2 324",
                            "option 1 33 16777216",
                            "index can1",
                            "bind 7",
                            "bus 1 Normal",
                            "led 0",
                            "rate 1 5",
                            "provide can_proprietary/dev/status type 3 size 4 mode 1",
                            "write can_proprietary/dev/status 00000080",
                            "register 1 dev/c enabled",
                            "provide can_proprietary/dev/c_v type 5 size 1 mode 1",
                            "write can_proprietary/dev/c_v 00",
                            "register 1 dev/r enabled",
                            "provide can_proprietary/dev/r_v type 5 size 1 mode 2",
                            "write can_proprietary/dev/r_v 00",
                            "provide can_proprietary/dev/r_r type 5 size 1 mode 1",
                            "write can_proprietary/dev/r_r 00",
                            "register 1 dev/p enabled",
                            "provide can_proprietary/dev/p_v type 5 size 1 mode 2",
                            "write can_proprietary/dev/p_v 00",
                            "commit",
                            "destroy can_proprietary/dev/p_v",
                            "destroy can_proprietary/dev/r_v",
                            "destroy can_proprietary/dev/r_r",
                            "destroy can_proprietary/dev/c_v",
                            "forget 1"));
    EXPECT_EQ(commands.calls().size(), 3U);
    EXPECT_EQ(can_calls().waits_ms.size(), 3U);
    can_calls_reset();
    expect_released(before);
}

TEST_F(can_port_thread, waits_the_initial_delay_between_link_and_socket) {
    can_device().interface.initialDelay = 40;
    size_t commands_before = 0;
    can_calls().on_sleep = [&] {
        commands_before = commands.calls().size();
        can_note("delay");
    };
    EXPECT_EQ(run(), "");
    const can_lines lines = can_take_lines({"settings", "delay", "socket"});
    EXPECT_THAT(lines, ElementsAre("settings 2", "delay", "socket 3 1"));
    EXPECT_EQ(commands_before, 3U);
}

TEST_F(can_port_thread, reckons_the_first_times_from_after_the_initial_delay) {
    can_device().interface.initialDelay = 5000;
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 70;
    run_for(1);
    EXPECT_EQ(run(), "");
    EXPECT_THAT(can_calls().waits_ms, ElementsAre(70));
}

TEST_F(can_port_thread, commits_no_tags_of_a_port_without_devices) {
    EXPECT_EQ(run(), "");
    EXPECT_THAT(can_take_lines({"commit"}), IsEmpty());
}

TEST_F(can_port_thread, clears_its_record_at_the_start) {
    module.frames_lost = 99;
    module.earliest_fp_deadline = 5;
    module.link_lost = true;
    module.settings.baudrate = 3;
    module.waiting = reinterpret_cast<trans_list_node *>(&module);
    can_device().interface.baudrate = 5;
    EXPECT_EQ(run(), "");
    EXPECT_EQ(module.port_index, 1);
    EXPECT_EQ(module.frames_lost, 0U);
    EXPECT_FALSE(module.link_lost);
    EXPECT_EQ(module.waiting, nullptr);
}

TEST_F(can_port_thread, ends_with_the_pass_in_which_a_restart_is_wanted) {
    can_calls().on_select = [] { can_proprietary_restart = 1; };
    EXPECT_EQ(run(), "");
    EXPECT_EQ(can_calls().waits_ms.size(), 1U);
}

TEST_F(can_port_thread, makes_one_pass_when_the_service_stops_meanwhile) {
    g_stop_requested = 1;
    EXPECT_EQ(run(), "");
    EXPECT_EQ(can_calls().waits_ms.size(), 1U);
}

TEST_F(can_port_thread, sends_before_it_receives) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10);
    run_for(1);
    EXPECT_EQ(run(), "");
    EXPECT_THAT(can_take_lines({"send"}), ElementsAre("send 10#00"));
}

TEST_F(can_port_thread, waits_for_the_first_cyclic_frame_whatever_its_place) {
    can_add_produce(device(), "slow", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 300;
    can_add_produce(device(), "fast", TRIGGER_CYCLIC, 0x11)->cyclicInterval = 20;
    can_add_request(device(), "slower", TRIGGER_CYCLIC, 0x12, 0x13)->cyclicInterval = 400;
    run_for(1);
    EXPECT_EQ(run(), "");
    EXPECT_THAT(can_calls().waits_ms, ElementsAre(20));
}

TEST_F(can_port_thread, goes_on_after_a_failed_wait) {
    can_calls().select_errno = EINTR;
    EXPECT_EQ(run(), "");
    EXPECT_EQ(can_calls().waits_ms.size(), 3U);
}

TEST_F(can_port_thread, goes_on_after_a_failed_transmit_pass) {
    can_calls().transmit = [] { return -1; };
    run_for(2);
    const std::string message = can_error("can_port_handler", "can_tx_handler fail: -1\n");
    EXPECT_EQ(run(), message + message);
}

TEST_F(can_port_thread, bears_the_name_of_its_port) {
    std::array<char, 16> name{};
    can_calls().on_select = [&] {
        (void)pthread_getname_np(pthread_self(), name.data(), name.size());
        g_stop_requested = 1;
    };
    (void)run();
    EXPECT_STREQ(name.data(), "can1-port");
}

// pthread_exit() aborts where memory for unwinding is short.
TEST_F(can_port_thread, returns_from_its_function_at_the_end) {
    bool returned = false;
    for (const uint32_t port : {1U, 2U}) {
        index = port;
        run_for(1);
        (void)can_errors_of([&] {
            std::thread([&] {
                returned = false;
                (void)can_port_handler(&index);
                returned = true;
            }).join();
        });
        EXPECT_TRUE(returned) << port;
        g_stop_requested = 0;
    }
}

TEST_F(can_port_thread, ends_without_module) {
    module.next = nullptr;
    index = 2;
    g_can_port_count = 3;
    EXPECT_EQ(run(),
              can_error("can_module_get", "can_module 2 is NULL\n") +
                  can_error("can_port_handler", "can_module_get fail\n"));
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(can_port_thread, ends_without_configuration) {
    const size_t before = open_descriptors();
    can_device().port_config_result = -1;
    EXPECT_EQ(run(), can_error("can_port_handler", "can_module_get_port_config fail\n"));
    EXPECT_THAT(can_take_lines(), ElementsAre("configuration 2", "forget 1"));
    EXPECT_THAT(commands.calls(), IsEmpty());
    expect_released(before);
}

TEST_F(can_port_thread, ends_without_a_port_name) {
    const size_t before = open_descriptors();
    (void)device();
    g_can_port_list = nullptr;
    EXPECT_EQ(run(), can_error("can_port_handler", "port_idx = 1, cfd = -1\n"));
    EXPECT_THAT(can_take_lines(), ElementsAre("configuration 2", "forget 1"));
    expect_released(before);
}

TEST_F(can_port_thread, ends_without_a_socket) {
    const size_t before = open_descriptors();
    (void)device();
    can_calls().socket_errno = EAFNOSUPPORT;
    EXPECT_EQ(run(), can_error("can_port_handler", "port_idx = 1, cfd = -1\n"));
    EXPECT_THAT(can_take_lines(), Not(Contains("led 0")));
    expect_released(before);
}

TEST_F(can_port_thread, ends_without_an_interface) {
    const size_t before = open_descriptors();
    (void)device();
    can_calls().interface_index = 0;
    EXPECT_EQ(run(), can_error("can_port_handler", "port_idx = 1, cfd = -1\n"));
    can_calls_reset();
    expect_released(before);
}

TEST_F(can_port_thread, ends_when_the_socket_cannot_be_bound) {
    const size_t before = open_descriptors();
    (void)device();
    can_calls().bind_errno = ENODEV;
    EXPECT_EQ(run(), can_error("can_port_handler", "port_idx = 1, cfd = -1\n"));
    can_calls_reset();
    expect_released(before);
}

TEST_F(can_port_thread, ends_without_an_eventfd) {
    const size_t before = open_descriptors();
    (void)device();
    can_calls().eventfd_errno = EMFILE;
    EXPECT_EQ(run(), can_error("can_port_handler", "port_idx = 1, efd = -1\n"));
    EXPECT_THAT(can_take_lines(), Not(Contains("led 0")));
    can_calls_reset();
    expect_released(before);
}

TEST_F(can_port_thread, ends_when_the_transactions_cannot_be_built) {
    const size_t before = open_descriptors();
    can_add_consume(device(), "good", 0x10);
    transaction_config *bad = can_add_request(device(), "bad", TRIGGER_CYCLIC, 0x11, 0x12);
    strncpy(bad->frames->next->blocks->tag->access, "rw", 3);
    EXPECT_EQ(run(), can_error("can_proprietary_transaction_list_init", "unknown tag access\n"));
    EXPECT_THAT(can_calls().waits_ms, IsEmpty());
    EXPECT_THAT(can_take_lines({"commit", "destroy", "forget"}),
                ElementsAre("destroy can_proprietary/dev/bad_v",
                            "destroy can_proprietary/dev/good_v",
                            "forget 1"));
    can_calls_reset();
    expect_released(before);
}

TEST_F(can_port_thread, runs_with_an_interface_whose_settings_cannot_be_read) {
    can_device().interface_result = -1;
    EXPECT_EQ(run(), "");
    EXPECT_EQ(commands.calls().size(), 3U);
}

TEST_F(can_port_thread, may_start_again_after_its_end) {
    const size_t before = open_descriptors();
    for (int pass = 0; pass < 3; pass++) {
        can_add_consume(device(), "c", 0x10);
        g_stop_requested = 0;
        run_for(2);
        EXPECT_EQ(run(), "");
    }
    can_calls_reset();
    expect_released(before);
}

} // namespace
