#include "preload/can_socket.h"

#include "preload/fd_table.h"
#include "preload/next.h"
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/can/raw.h>

namespace softcan {
namespace {

constexpr socklen_t min_address = 8; // up to and with can_ifindex

// Given by the kernel itself, so that the defaults and limits of this machine hold.
std::uint32_t receive_buffer(int fd) {
    int bytes = 0;
    socklen_t length = sizeof(bytes);
    if (next().getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &length) != 0 || bytes < 0) {
        return 0;
    }
    return std::min(static_cast<std::uint32_t>(bytes), max_rcvbuf_bytes);
}

int apply_flags(int fd, int type) {
    if ((type & SOCK_NONBLOCK) == 0) {
        return 0;
    }
    const int flags = next().fcntl(fd, F_GETFL);
    return flags < 0 || next().fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0 ? -errno : 0;
}

// 0 or -errno.
int enter_world(int fd, int type) {
    request ask = make_request(operation::open_socket);
    socklen_t length = sizeof(ask.cookie);
    if (next().getsockopt(fd, SOL_SOCKET, SO_COOKIE, &ask.cookie, &length) != 0) {
        return -errno;
    }
    ask.value = receive_buffer(fd);
    const long slot = world_call(fd, ask);
    if (slot < 0) {
        return static_cast<int>(slot);
    }
    const int error = apply_flags(fd, type);
    if (error < 0) {
        return error;
    }
    return track(fd, static_cast<std::uint32_t>(slot)) ? 0 : -EMFILE;
}

int check_kind(int type, int protocol) {
    const int kind = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (protocol < 0 || protocol >= CAN_NPROTO) {
        return EINVAL;
    }
    if (protocol != CAN_RAW) {
        return EPROTONOSUPPORT;
    }
    return kind == SOCK_RAW ? 0 : EPROTOTYPE;
}

// No hub, one that is just ending, or something else.
bool no_hub(int error) {
    constexpr int errors[] = {ECONNREFUSED, ENOENT, ENOTSOCK, EPROTO, ECONNRESET, EPIPE};
    return std::find(std::begin(errors), std::end(errors), error) != std::end(errors);
}

} // namespace

errno_guard::errno_guard() : value_(errno) {}

errno_guard::~errno_guard() {
    errno = value_;
}

int errno_guard::fail(int error) {
    value_ = error;
    return -1;
}

int can_open(int type, int protocol) {
    errno_guard guard;
    const int refused = check_kind(type, protocol);
    if (refused != 0) {
        return guard.fail(refused);
    }
    int error = 0;
    int fd = -1;
    if (world() == nullptr) {
        error = errno;
    } else {
        fd = world_connect(world_path(), type & SOCK_CLOEXEC);
        error = fd < 0 ? -fd : -enter_world(fd, type);
    }
    if (error == 0) {
        return fd;
    }
    if (fd >= 0) {
        (void)next().close(fd);
    }
    if (no_hub(error)) {
        (void)dprintf(STDERR_FILENO,
                      "kt-softcan: no world answers at %s: %s\n",
                      world_path(),
                      strerror(error));
        error = EAFNOSUPPORT;
    }
    return guard.fail(error);
}

long can_request(const socket_slot &slot, request ask) {
    ask.slot = slot_index(slot);
    return world_request(world_path(), ask);
}

int can_bind(socket_slot &slot, const sockaddr *address, socklen_t length) {
    errno_guard guard;
    if (length < min_address) {
        return guard.fail(EINVAL);
    }
    sockaddr_can wanted{};
    memcpy(&wanted, address, min_address);
    if (wanted.can_family != AF_CAN) {
        return guard.fail(EINVAL);
    }
    request ask = make_request(operation::bind_socket);
    ask.ifindex = static_cast<std::uint32_t>(wanted.can_ifindex);
    const long result = can_request(slot, ask);
    return result < 0 ? guard.fail(static_cast<int>(-result)) : 0;
}

int can_getsockname(const socket_slot &slot, sockaddr *address, socklen_t *length) {
    sockaddr_can name{};
    name.can_family = AF_CAN;
    name.can_ifindex = static_cast<int>(slot.ifindex.load(std::memory_order_relaxed));
    memcpy(address, &name, std::min(*length, min_address));
    *length = min_address;
    return 0;
}

void drop_stale_notices(int fd, socket_slot &slot) {
    while (slot.notices.load(std::memory_order_relaxed) != 0) {
        frame_message message;
        const ssize_t ahead = next().recv(fd, &message, sizeof(message), MSG_PEEK | MSG_DONTWAIT);
        if (ahead != sizeof(message) || message.kind != message_kind::notice ||
            slot.error.load(std::memory_order_acquire) != 0) {
            return;
        }
        if (next().recv(fd, &message, sizeof(message), MSG_DONTWAIT) != sizeof(message)) {
            return;
        }
        if (message.kind == message_kind::notice) {
            slot.notices.fetch_sub(1, std::memory_order_relaxed);
        } else {
            // Another thread took the notice in between and this was a frame.
            slot.drops.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

int take_error(int fd, socket_slot &slot) {
    if (slot.error.load(std::memory_order_relaxed) == 0) {
        return 0;
    }
    const auto error = static_cast<int>(slot.error.exchange(0, std::memory_order_acquire));
    drop_stale_notices(fd, slot);
    return error;
}

} // namespace softcan
