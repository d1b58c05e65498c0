#include "can/link.h"

#include "can/module.h"
#include "config/read.h"
#include "core/guards.h"
#include "core/log.h"
#include "core/state.h"
#include "device/bit_rate.h"
#include "device/clock.h"

#include <kt/platform.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

/**
 * Seconds of a full bus. The kernel reckons some 800 bytes for a queued frame and takes twice this
 * value: 41000 frames, 4.5 s of 8-byte frames at 1 Mbit/s. Memory is used only while frames wait.
 */
constexpr int receive_buffer_bytes = 16 * 1024 * 1024;

constexpr uint32_t link_retry_ms = 1000;

constexpr can_err_mask_t error_classes = CAN_ERR_CRTL | CAN_ERR_BUSOFF | CAN_ERR_RESTARTED;
static_assert(error_classes == 0x144);

using can_port_ptr = std::unique_ptr<can_port, call_on_delete<can_free>>;

/** The name goes into shell commands. */
bool is_plain_name(const char *name) {
    constexpr const char *plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-:";
    return name[0] != '\0' && name[0] != '-' && name[strspn(name, plain)] == '\0';
}

template <typename... Arguments>
void run_formatted(const char *format, Arguments... arguments) {
    std::array<char, 256> command{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    (void)snprintf(command.data(), command.size(), format, arguments...);
#pragma GCC diagnostic pop
    (void)run_command(command.data()); // the socket shows whether the port works
}

void configure_interface(const char *name, const interface_config &settings) {
    run_formatted("ip link set down %s", name);
    if (const can_port_ptr port(can_get(name)); port != nullptr) {
        // A controller without a switchable resistor is as good.
        (void)can_set_termination_resistor_state(port.get(), settings.resistor ? 1 : 0);
    }
    constexpr int restart_ms = 1000;
    run_formatted("ip link set %s type can bitrate %d restart-ms %d",
                  name,
                  static_cast<int>(can_bit_rate(settings.baudrate)),
                  settings.busOffReset ? restart_ms : 0);
    run_formatted("ip link set up %s", name);
}

void sleep_unless_stopped(int32_t delay_ms) {
    constexpr int32_t slice_ms = 50;
    const uint32_t end = sys_clock_ms() + static_cast<uint32_t>(delay_ms);
    while (!stop_requested() && !restart_requested()) {
        const int32_t left = clock_difference(end, sys_clock_ms());
        if (left <= 0) {
            return;
        }
        const timespec pause{0, std::min(left, slice_ms) * 1000000L};
        (void)nanosleep(&pause, nullptr); // a signal may cut a slice short
    }
}

void set_receive_buffer(int fd) {
    constexpr int bytes = receive_buffer_bytes;
    // Going beyond the system's limit takes a capability that a service may not have.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

int bind_to_interface(int fd, uint32_t interface_index) {
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(interface_index);
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

/** @return the socket, negative on failure */
int open_socket(can_module *module, const char *name) {
    unique_fd fd(socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW));
    // select() cannot watch a descriptor beyond its set.
    if (fd.get() < 0 || fd.get() >= FD_SETSIZE) {
        return -1;
    }
    (void)setsockopt(
        fd.get(), SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &error_classes, sizeof error_classes);
    set_receive_buffer(fd.get());
    // Index 0 would bind to every CAN interface and hear the other ports.
    module->interface_index = if_nametoindex(name);
    if (module->interface_index == 0 || bind_to_interface(fd.get(), module->interface_index) != 0) {
        return -1;
    }
    return fd.release();
}

} // namespace

int run_command(const char *command) {
    std::array<char *, 4> arguments = {
        const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(command), nullptr};
    pid_t child = -1;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

void can_link_bring_up(can_module *module, const char *name) {
    // A port without a settings row does not get here; another failure leaves the defaults.
    (void)can_proprietary_conf_get_interface_config(&module->settings, module->port_index + 1);
    if (!is_plain_name(name)) {
        return;
    }
    configure_interface(name, module->settings);
    sleep_unless_stopped(module->settings.initialDelay);
}

int can_fd_init(int32_t port_index, int32_t *socket) {
    *socket = -1;
    can_module *module = can_module_get(port_index);
    if (module == nullptr) {
        log_error("can_module_get fail\n");
        return -1;
    }
    const char *name = can_port_name(port_index);
    if (name == nullptr) {
        return -1;
    }
    *socket = open_socket(module, name);
    if (*socket < 0) {
        return -1;
    }
    module->socket = *socket;
    return 0;
}

void can_link_note_error(can_module *module, int error) {
    if (error == EAGAIN || error == EINTR) {
        return;
    }
    const bool lost = error == ENODEV || error == ENXIO;
    if (lost && module->link_lost) {
        (void)close(std::exchange(module->socket, -1));
        return;
    }
    log_error("port_idx = %d, %s\n", module->port_index, strerror(error));
    if (lost) {
        module->link_lost = true;
        module->link_retry = sys_clock_ms() + link_retry_ms;
    }
}

void can_link_recover(can_module *module, uint32_t now) {
    if (!module->link_lost || !clock_is_due(now, module->link_retry)) {
        return;
    }
    module->link_retry = now + link_retry_ms;
    const char *name = can_port_name(module->port_index);
    if (name == nullptr || if_nametoindex(name) == 0) {
        return;
    }
    configure_interface(name, module->settings);
    const int fd = open_socket(module, name);
    if (fd < 0) {
        return;
    }
    (void)close(module->socket); // unless it has been
    module->socket = fd;
    module->link_lost = false;
    module->frames_lost = 0;
    log_error("port_idx = %d, interface %s is back\n", module->port_index, name);
}

void can_link_check_loss(can_module *module) {
    module->frames_since_loss_check = 0;
    std::array<uint32_t, SK_MEMINFO_VARS> info{};
    socklen_t length = sizeof info;
    if (getsockopt(module->socket, SOL_SOCKET, SO_MEMINFO, info.data(), &length) != 0) {
        return;
    }
    const uint32_t dropped = info[SK_MEMINFO_DROPS];
    const uint32_t lost = dropped - module->frames_lost;
    if (lost != 0) {
        module->frames_lost = dropped;
        log_error(
            "port_idx = %d, %u frames lost in the receive buffer\n", module->port_index, lost);
    }
}
