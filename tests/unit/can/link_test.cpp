#include "can/link.h"
#include "can_calls.h"
#include "can_capture.h"
#include "can_clock.h"
#include "can_command_folder.h"
#include "can_device_fake.h"
#include "can_journal.h"
#include "core/state.h"

#include <kt/platform.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::function<void()> on_termination;

} // namespace

extern "C" {
int __real_can_set_termination_resistor_state(can_port *port, int state);
int __wrap_can_set_termination_resistor_state(can_port *port, int state) {
    if (on_termination) {
        on_termination();
    }
    return __real_can_set_termination_resistor_state(port, state);
}
}

namespace {

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

/** One port with the name "can0". */
class can_link : public ::testing::Test {
protected:
    can_link() {
        can_calls_reset();
        can_device_reset();
        can_clock_set(1000);
        module.socket = -1;
        module.event_fd = -1;
        g_can_port_list = names.data();
        g_can_port_count = 1;
        g_can_module_list = &module;
    }
    ~can_link() override {
        g_can_port_list = nullptr;
        g_can_port_count = 0;
        g_can_module_list = nullptr;
        can_proprietary_restart = 0;
        g_stop_requested = 0;
        if (module.socket >= 0) {
            (void)close(module.socket);
        }
        can_calls_reset();
        can_device_reset();
        (void)can_take_lines();
    }

    /** The commands that bring the port up with some settings. */
    std::vector<std::string> commands_of(interface_config settings) {
        can_device().interface = settings;
        can_link_bring_up(&module, "can0");
        return commands.calls();
    }

    can_command_folder commands;
    char name[5] = "can0";
    std::array<char *, 2> names = {name, nullptr};
    can_module module{};
};

class bring_up : public can_link {};

TEST_F(bring_up, runs_the_three_commands) {
    interface_config settings{};
    settings.baudrate = 5;
    EXPECT_THAT(commands_of(settings),
                ElementsAre("link set down can0",
                            "link set can0 type can bitrate 500000 restart-ms 0",
                            "link set up can0"));
}

TEST_F(bring_up, reads_the_settings_of_the_port_and_keeps_them) {
    module.port_index = 3;
    interface_config settings{};
    settings.frameFormat = 1;
    settings.baudrate = 2;
    (void)commands_of(settings);
    EXPECT_EQ(module.settings.frameFormat, 1);
    EXPECT_EQ(module.settings.baudrate, 2);
    EXPECT_THAT(can_take_lines({"settings"}), ElementsAre("settings 4"));
}

TEST_F(bring_up, knows_eight_bit_rates_and_125000_for_the_rest) {
    const std::vector<std::pair<int, std::string>> rates = {{0, "10000"},
                                                            {1, "20000"},
                                                            {2, "50000"},
                                                            {3, "125000"},
                                                            {4, "250000"},
                                                            {5, "500000"},
                                                            {6, "800000"},
                                                            {7, "1000000"},
                                                            {8, "125000"},
                                                            {255, "125000"},
                                                            {-1, "125000"}};
    for (const auto &[code, rate] : rates) {
        interface_config settings{};
        settings.baudrate = code;
        EXPECT_EQ(commands_of(settings)[1],
                  "link set can0 type can bitrate " + rate + " restart-ms 0");
    }
}

TEST_F(bring_up, lets_the_controller_restart_after_bus_off_when_wanted) {
    interface_config settings{};
    settings.busOffReset = true;
    EXPECT_EQ(commands_of(settings)[1], "link set can0 type can bitrate 10000 restart-ms 1000");
}

TEST_F(bring_up, switches_the_termination_and_gives_the_port_back) {
    interface_config settings{};
    settings.resistor = true;
    (void)commands_of(settings);
    EXPECT_THAT(can_take_lines({"resistor"}), ElementsAre("resistor can0 1"));
    settings.resistor = false;
    (void)commands_of(settings);
    EXPECT_THAT(can_take_lines({"resistor"}), ElementsAre("resistor can0 0"));
    EXPECT_EQ(can_device_open_ports(), 0);
}

TEST_F(bring_up, switches_the_termination_once_the_link_is_down) {
    std::vector<std::string> before;
    on_termination = [&] { before = commands.calls(); };
    const std::vector<std::string> after = commands_of({});
    on_termination = {};
    EXPECT_THAT(before, ElementsAre("link set down can0"));
    EXPECT_THAT(
        after,
        ElementsAre("link set can0 type can bitrate 10000 restart-ms 0", "link set up can0"));
}

TEST_F(bring_up, goes_on_without_a_platform_port) {
    can_device().has_platform_port = false;
    EXPECT_EQ(commands_of({}).size(), 3U);
    EXPECT_THAT(can_take_lines({"resistor"}), IsEmpty());
}

TEST_F(bring_up, waits_the_initial_delay) {
    interface_config settings{};
    settings.initialDelay = 730;
    (void)commands_of(settings);
    EXPECT_EQ(can_clock_now(), 1730U);
}

TEST_F(bring_up, waits_across_the_wrap_of_the_clock) {
    can_clock_set(0xffffffe0U);
    interface_config settings{};
    settings.initialDelay = 100;
    (void)commands_of(settings);
    EXPECT_EQ(can_clock_now(), 68U);
}

TEST_F(bring_up, does_not_wait_without_or_with_a_negative_delay) {
    interface_config settings{};
    (void)commands_of(settings);
    settings.initialDelay = -5;
    (void)commands_of(settings);
    EXPECT_EQ(can_clock_now(), 1000U);
}

TEST_F(bring_up, cuts_the_delay_short_when_the_service_stops_or_restarts) {
    interface_config settings{};
    settings.initialDelay = 60000;
    can_calls().on_sleep = [] { g_stop_requested = 1; };
    (void)commands_of(settings);
    EXPECT_EQ(can_clock_now(), 1050U);
    g_stop_requested = 0;
    can_calls().on_sleep = [] { can_proprietary_restart = 1; };
    (void)commands_of(settings);
    EXPECT_EQ(can_clock_now(), 1100U);
}

TEST_F(bring_up, puts_no_strange_name_into_a_command) {
    for (const char *strange : {"", "-can0", "can0;x", "can 0", "$(x)", "can0\n", "`x`"}) {
        can_link_bring_up(&module, strange);
        EXPECT_THAT(commands.calls(), IsEmpty()) << strange;
    }
    can_link_bring_up(&module, "slcan-0_a.b:c");
    EXPECT_EQ(commands.calls().size(), 3U);
}

class can_socket : public can_link {
protected:
    int32_t fd = 77;
};

TEST_F(can_socket, is_a_raw_socket_bound_to_the_interface) {
    ASSERT_EQ(can_fd_init(0, &fd), 0);
    EXPECT_EQ(fd, module.socket);
    EXPECT_EQ(module.interface_index, 7U);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("socket 3 1",
                            "option 101 2 324", // CAN_RAW_ERR_FILTER, 0x144
                            "option 1 33 16777216",
                            "index can0",
                            "bind 7"));
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(can_socket, takes_the_largest_common_buffer_without_the_privilege_for_more) {
    can_calls().refuse_forced_buffer = true;
    ASSERT_EQ(can_fd_init(0, &fd), 0);
    EXPECT_THAT(can_take_lines({"option"}),
                ElementsAre("option 101 2 324", "option 1 33 16777216", "option 1 8 16777216"));
}

TEST_F(can_socket, fails_without_module) {
    g_can_module_list = nullptr;
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(can_fd_init(0, &fd), -1); }),
              can_error("can_module_get", "can_module 0 is NULL\n") +
                  can_error("can_fd_init", "can_module_get fail\n"));
    EXPECT_LT(fd, 0);
}

TEST_F(can_socket, fails_without_a_name) {
    g_can_port_list = nullptr;
    EXPECT_EQ(can_fd_init(0, &fd), -1);
    EXPECT_LT(fd, 0);
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(can_socket, fails_without_a_socket) {
    can_calls().socket_errno = EAFNOSUPPORT;
    EXPECT_EQ(can_fd_init(0, &fd), -1);
    EXPECT_LT(fd, 0);
    EXPECT_EQ(module.socket, -1);
}

TEST_F(can_socket, is_closed_again_without_an_interface) {
    can_calls().interface_index = 0;
    EXPECT_EQ(can_fd_init(0, &fd), -1);
    EXPECT_LT(fd, 0);
    EXPECT_EQ(module.socket, -1);
    EXPECT_THAT(can_take_lines({"bind"}), IsEmpty()); // it would hear every port
    char byte = 0;
    EXPECT_EQ(recv(can_calls_bus(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(can_socket, is_closed_again_when_it_cannot_be_bound) {
    can_calls().bind_errno = ENODEV;
    EXPECT_EQ(can_fd_init(0, &fd), -1);
    EXPECT_LT(fd, 0);
    EXPECT_EQ(module.socket, -1);
    char byte = 0;
    EXPECT_EQ(recv(can_calls_bus(), &byte, 1, MSG_DONTWAIT), 0);
}

class lost_link : public can_link {
protected:
    void SetUp() override {
        int32_t fd = -1;
        ASSERT_EQ(can_fd_init(0, &fd), 0);
        module.settings.baudrate = 5;
        (void)can_take_lines();
    }
    std::string note(int error) {
        return can_errors_of([&] { can_link_note_error(&module, error); });
    }
};

TEST_F(lost_link, is_not_what_an_empty_or_interrupted_receive_means) {
    EXPECT_EQ(note(EAGAIN), "");
    EXPECT_EQ(note(EINTR), "");
    EXPECT_FALSE(module.link_lost);
}

TEST_F(lost_link, is_not_what_an_interface_that_is_down_means) {
    EXPECT_EQ(note(ENETDOWN), can_error("can_link_note_error", "port_idx = 0, Network is down\n"));
    EXPECT_FALSE(module.link_lost);
}

TEST_F(lost_link, is_noted_when_the_interface_is_gone) {
    EXPECT_EQ(note(ENODEV), can_error("can_link_note_error", "port_idx = 0, No such device\n"));
    EXPECT_TRUE(module.link_lost);
    EXPECT_EQ(module.link_retry, 2000U);
    module.link_lost = false;
    EXPECT_EQ(note(ENXIO),
              can_error("can_link_note_error", "port_idx = 0, No such device or address\n"));
    EXPECT_TRUE(module.link_lost);
}

TEST_F(lost_link, is_logged_once_and_has_its_socket_closed_when_told_again) {
    (void)note(ENODEV);
    const int before = module.socket;
    EXPECT_TRUE(is_open(before));
    can_clock_set(1900);
    EXPECT_EQ(note(ENODEV), "");
    EXPECT_FALSE(is_open(before));
    EXPECT_EQ(module.socket, -1);
    EXPECT_EQ(module.link_retry, 2000U);
}

TEST_F(lost_link, is_looked_for_once_a_second) {
    (void)note(ENODEV);
    can_calls().interface_index = 0;
    can_link_recover(&module, 1999);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    can_link_recover(&module, 2000);
    EXPECT_THAT(can_take_lines(), ElementsAre("index can0"));
    can_link_recover(&module, 2999);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    can_link_recover(&module, 3000);
    EXPECT_THAT(can_take_lines(), ElementsAre("index can0"));
    EXPECT_TRUE(module.link_lost);
    EXPECT_THAT(commands.calls(), IsEmpty());
}

TEST_F(lost_link, is_looked_for_across_the_wrap_of_the_clock) {
    can_clock_set(0xfffffe00U);
    (void)note(ENODEV);
    EXPECT_EQ(module.link_retry, 0x1e8U);
    can_calls().interface_index = 0;
    can_link_recover(&module, 0xffffffffU);
    can_link_recover(&module, 0x1e7);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    can_link_recover(&module, 0x1e8);
    EXPECT_THAT(can_take_lines(), ElementsAre("index can0"));
}

TEST_F(lost_link, that_returns_is_configured_and_gets_a_new_socket) {
    (void)note(ENODEV);
    const int before = module.socket;
    const int old_bus = dup(can_calls_bus());
    module.frames_lost = 9;
    can_calls().interface_index = 12;
    const std::string errors = can_errors_of([&] { can_link_recover(&module, 2000); });
    EXPECT_EQ(errors, can_error("can_link_recover", "port_idx = 0, interface can0 is back\n"));
    EXPECT_THAT(commands.calls(),
                ElementsAre("link set down can0",
                            "link set can0 type can bitrate 500000 restart-ms 0",
                            "link set up can0"));
    EXPECT_FALSE(module.link_lost);
    EXPECT_EQ(module.interface_index, 12U);
    EXPECT_EQ(module.frames_lost, 0U);
    EXPECT_TRUE(is_open(module.socket));
    EXPECT_NE(module.socket, before);
    char byte = 0;
    EXPECT_EQ(recv(old_bus, &byte, 1, MSG_DONTWAIT), 0); // the old socket is closed
    (void)close(old_bus);
}

TEST_F(lost_link, that_returns_gets_a_new_socket_for_one_that_has_ended) {
    (void)note(ENODEV);
    (void)note(ENODEV);
    (void)can_errors_of([&] { can_link_recover(&module, 2000); });
    EXPECT_FALSE(module.link_lost);
    EXPECT_TRUE(is_open(module.socket));
}

TEST_F(lost_link, keeps_the_old_socket_while_no_new_one_can_be_had) {
    (void)note(ENODEV);
    const int before = module.socket;
    can_calls().bind_errno = ENODEV;
    EXPECT_EQ(can_errors_of([&] { can_link_recover(&module, 2000); }), "");
    EXPECT_TRUE(module.link_lost);
    EXPECT_EQ(module.socket, before);
    EXPECT_TRUE(is_open(before));
}

TEST_F(lost_link, without_a_name_is_not_looked_for) {
    (void)note(ENODEV);
    g_can_port_list = nullptr;
    can_link_recover(&module, 2000);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    EXPECT_TRUE(module.link_lost);
}

TEST_F(lost_link, is_not_looked_for_while_it_is_there) {
    can_link_recover(&module, 5000);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    EXPECT_THAT(commands.calls(), IsEmpty());
}

class lost_frames : public lost_link {
protected:
    std::string check() {
        return can_errors_of([&] { can_link_check_loss(&module); });
    }
    static std::string message(int count) {
        return can_error("can_link_check_loss",
                         "port_idx = 0, " + std::to_string(count) +
                             " frames lost in the receive buffer\n");
    }
};

TEST_F(lost_frames, are_logged_once) {
    module.frames_since_loss_check = 5;
    EXPECT_EQ(check(), "");
    EXPECT_EQ(module.frames_since_loss_check, 0U);
    can_calls().dropped_frames = 3;
    EXPECT_EQ(check(), message(3));
    EXPECT_EQ(check(), "");
    can_calls().dropped_frames = 10;
    EXPECT_EQ(check(), message(7));
}

TEST_F(lost_frames, are_counted_across_the_wrap_of_the_sockets_counter) {
    module.frames_lost = 0xfffffffeU;
    can_calls().dropped_frames = 3;
    EXPECT_EQ(check(), message(5));
}

TEST_F(lost_frames, are_not_known_to_every_socket) {
    can_calls().no_memory_information = true;
    can_calls().dropped_frames = 3;
    EXPECT_EQ(check(), "");
}

TEST(run_command, returns_the_wait_status) {
    EXPECT_EQ(run_command("exit 0"), 0);
    EXPECT_EQ(WEXITSTATUS(run_command("exit 7")), 7);
    EXPECT_TRUE(WIFSIGNALED(run_command("kill -9 $$")));
}

} // namespace
