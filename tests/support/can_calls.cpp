#include "can_calls.h"

#include "can/runtime.h"
#include "can_clock.h"
#include "can_journal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <linux/sock_diag.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

can_call_settings settings;
int bus = -1;

int failed(int error) {
    errno = error;
    return -1;
}

void forget_bus() {
    if (bus >= 0) {
        (void)close(bus);
    }
    bus = -1;
}

bool is_refused(const can_frame &frame) {
    return settings.refuse_frames ||
           std::count(settings.refused_ids.begin(), settings.refused_ids.end(), frame.can_id) != 0;
}

std::string option_value(const void *value, socklen_t length) {
    int number = 0;
    memcpy(&number, value, std::min<size_t>(length, sizeof number));
    return std::to_string(number);
}

} // namespace

can_call_settings &can_calls() {
    return settings;
}

void can_calls_reset() {
    settings = {};
    forget_bus();
}

int can_calls_bus() {
    return bus;
}

std::string can_frame_text(const can_frame &frame) {
    std::array<char, 16> id{};
    (void)snprintf(id.data(), id.size(), "%X", frame.can_id);
    return std::string(id.data()) + "#" + can_hex({frame.data, frame.len});
}

extern "C" {

int __real_select(int, fd_set *, fd_set *, fd_set *, timeval *);
ssize_t __real_recvfrom(int, void *, size_t, int, sockaddr *, socklen_t *);
int __real_socket(int, int, int);
int __real_bind(int, const sockaddr *, socklen_t);
int __real_setsockopt(int, int, int, const void *, socklen_t);
int __real_getsockopt(int, int, int, void *, socklen_t *);
int __real_eventfd(unsigned, int);

ssize_t __wrap_sendto(int fd,
                      const void *data,
                      size_t length,
                      int flags,
                      const sockaddr *address,
                      socklen_t address_length) {
    can_frame frame;
    sockaddr_can target;
    if (length != sizeof frame || address_length != sizeof target || flags != MSG_DONTWAIT) {
        can_note("sendto with wrong arguments");
        return failed(EINVAL);
    }
    memcpy(&frame, data, sizeof frame);
    memcpy(&target, address, sizeof target);
    if (is_refused(frame)) {
        can_note("refused " + can_frame_text(frame));
        return failed(ENOBUFS);
    }
    can_note("send " + can_frame_text(frame));
    if (target.can_family != AF_CAN || target.can_ifindex != 7) {
        can_note("send to a wrong interface");
    }
    return send(fd, data, length, flags);
}

int __wrap_select(int count, fd_set *readable, fd_set *writable, fd_set *failing, timeval *time) {
    settings.waits_us.push_back(int64_t{time->tv_sec} * 1000000 + time->tv_usec);
    settings.waits_ms.push_back(int64_t{time->tv_sec} * 1000 + time->tv_usec / 1000);
    if (settings.on_select) {
        settings.on_select();
    }
    if (settings.select_errno != 0) {
        return failed(settings.select_errno);
    }
    if (settings.waited_us) {
        constexpr int64_t second = 1000000;
        const int64_t left =
            std::max<int64_t>(0, time->tv_sec * second + time->tv_usec - *settings.waited_us);
        *time = {static_cast<time_t>(left / second), static_cast<suseconds_t>(left % second)};
    }
    timeval none{};
    return __real_select(count, readable, writable, failing, &none);
}

ssize_t __wrap_recvfrom(
    int fd, void *data, size_t size, int flags, sockaddr *address, socklen_t *address_length) {
    if (settings.receive_errno != 0) {
        errno = settings.receive_errno;
        settings.receive_errno = 0;
        return -1;
    }
    return __real_recvfrom(fd, data, size, flags, address, address_length);
}

int __wrap_socket(int domain, int type, int protocol) {
    if (domain != AF_CAN) {
        return __real_socket(domain, type, protocol);
    }
    can_note("socket " + std::to_string(type & ~SOCK_CLOEXEC) + " " + std::to_string(protocol));
    if (settings.socket_errno != 0) {
        return failed(settings.socket_errno);
    }
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        return -1;
    }
    forget_bus();
    bus = pair[1];
    return pair[0];
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t length) {
    if (address->sa_family != AF_CAN) {
        return __real_bind(fd, address, length);
    }
    sockaddr_can target;
    memcpy(&target, address, sizeof target);
    can_note("bind " + std::to_string(target.can_ifindex));
    return settings.bind_errno != 0 ? failed(settings.bind_errno) : 0;
}

int __wrap_setsockopt(int, int level, int option, const void *value, socklen_t length) {
    can_note("option " + std::to_string(level) + " " + std::to_string(option) + " " +
             option_value(value, length));
    return settings.refuse_forced_buffer && option == SO_RCVBUFFORCE ? failed(EPERM) : 0;
}

int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *length) {
    if (option != SO_MEMINFO) {
        return __real_getsockopt(fd, level, option, value, length);
    }
    if (settings.no_memory_information) {
        return failed(ENOPROTOOPT);
    }
    memset(value, 0, *length);
    static_cast<uint32_t *>(value)[SK_MEMINFO_DROPS] = settings.dropped_frames;
    return 0;
}

unsigned __wrap_if_nametoindex(const char *name) {
    can_note(std::string("index ") + name);
    return settings.interface_index;
}

int __wrap_eventfd(unsigned count, int flags) {
    return settings.eventfd_errno != 0 ? failed(settings.eventfd_errno)
                                       : __real_eventfd(count, flags);
}

int __wrap_nanosleep(const timespec *time, timespec *) {
    can_clock_advance(static_cast<uint32_t>(time->tv_sec * 1000 + time->tv_nsec / 1000000));
    if (settings.on_sleep) {
        settings.on_sleep();
    }
    return 0;
}

/* int can_tx_handler(can_module *) */
int __real__Z14can_tx_handlerP10can_module(can_module *module);
int __wrap__Z14can_tx_handlerP10can_module(can_module *module) {
    return settings.transmit ? settings.transmit() : __real__Z14can_tx_handlerP10can_module(module);
}
}
