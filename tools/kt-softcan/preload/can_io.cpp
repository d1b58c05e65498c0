#include "preload/can_socket.h"
#include "preload/fd_table.h"
#include "preload/next.h"
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/net_tstamp.h>
#include <poll.h>
#include <sys/time.h>

namespace softcan {
namespace {

constexpr socklen_t min_address = 8;
constexpr int hub_patience_ms = 100; // a bus takes a frame at once, so a busy hub is waited for
constexpr std::uint64_t second_ns = 1'000'000'000;

std::uint64_t monotonic_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<std::uint64_t>(now.tv_sec) * second_ns +
           static_cast<std::uint64_t>(now.tv_nsec);
}

std::size_t total_length(const msghdr &message) {
    std::size_t total = 0;
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        total += message.msg_iov[i].iov_len;
    }
    return total;
}

void gather(const msghdr &message, std::uint8_t *out) {
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        const iovec &part = message.msg_iov[i];
        if (part.iov_len != 0) {
            memcpy(out, part.iov_base, part.iov_len);
            out += part.iov_len;
        }
    }
}

std::size_t scatter(const msghdr &message, const std::uint8_t *data, std::size_t length) {
    std::size_t done = 0;
    for (std::size_t i = 0; i < message.msg_iovlen && done < length; ++i) {
        const iovec &part = message.msg_iov[i];
        const std::size_t count = std::min(part.iov_len, length - done);
        if (count != 0) {
            memcpy(part.iov_base, data + done, count);
        }
        done += count;
    }
    return done;
}

// The interface a frame goes to as 32 bits, or -errno.
std::int64_t send_target(const socket_slot &slot, const msghdr &message) {
    if (message.msg_name == nullptr) {
        return slot.ifindex.load(std::memory_order_relaxed);
    }
    if (message.msg_namelen < min_address) {
        return -EINVAL;
    }
    sockaddr_can address{};
    memcpy(&address, message.msg_name, min_address);
    if (address.can_family != AF_CAN) {
        return -EINVAL;
    }
    return static_cast<std::uint32_t>(address.can_ifindex);
}

int check_port(const port_record &port) {
    if (port.up.load(std::memory_order_relaxed) == 0) {
        return ENETDOWN;
    }
    const std::uint64_t full_until = port.txfull_until_ns.load(std::memory_order_relaxed);
    return full_until != 0 && monotonic_ns() < full_until ? ENOBUFS : 0;
}

// 0 or errno.
int prepare(int fd, socket_slot &slot, const msghdr &message, frame_message &out) {
    const std::int64_t target = send_target(slot, message);
    if (target < 0) {
        return static_cast<int>(-target);
    }
    const port_record *port = find_port(world(), static_cast<std::uint32_t>(target));
    if (port == nullptr) {
        return ENXIO;
    }
    if (total_length(message) != CAN_MTU) {
        return EINVAL;
    }
    const int pending = take_error(fd, slot);
    if (pending != 0) {
        return pending;
    }
    out.kind = message_kind::frame;
    out.ifindex = static_cast<std::uint32_t>(target);
    out.flags = slot.loopback.load(std::memory_order_relaxed) != 0 ? 0U : +frame_no_loopback;
    gather(message, out.frame);
    if (out.frame[offsetof(can_frame, len)] > CAN_MAX_DLEN) {
        return EINVAL;
    }
    return check_port(*port);
}

// 0 or errno.
int pass_to_hub(int fd, const frame_message &message, int flags) {
    for (;;) {
        if (next().send(fd, &message, sizeof(message), (flags & MSG_DONTWAIT) | MSG_NOSIGNAL) >=
            0) {
            return 0;
        }
        if (errno == EPIPE || errno == ECONNRESET) {
            return ENXIO;
        }
        if (errno != EAGAIN) {
            return errno;
        }
        pollfd writable{fd, POLLOUT, 0};
        const int ready = poll(&writable, 1, hub_patience_ms);
        if (ready < 0) {
            return errno;
        }
        if (ready == 0) {
            return ENOBUFS;
        }
    }
}

// One message from the hub: its length, or -1 with errno.
ssize_t next_message(int fd, socket_slot &slot, frame_message &message, int flags) {
    for (;;) {
        const int pending = take_error(fd, slot);
        if (pending != 0) {
            errno = pending;
            return -1;
        }
        const ssize_t got =
            next().recv(fd, &message, sizeof(message), flags & (MSG_DONTWAIT | MSG_PEEK));
        if (got < 0 && errno != ECONNRESET) {
            return -1;
        }
        if (got != sizeof(message)) {
            errno = ENODEV; // the world has ended
            return -1;
        }
        if (message.kind == message_kind::frame) {
            return got;
        }
        if ((flags & MSG_PEEK) != 0) {
            (void)next().recv(fd, &message, sizeof(message), MSG_DONTWAIT); // the notice itself
        }
        slot.notices.fetch_sub(1, std::memory_order_relaxed);
    }
}

struct control_writer {
    char *next_part;
    std::size_t room;
    std::size_t used;
    bool cut;
};

void put(control_writer &out, int type, const void *data, std::size_t length) {
    cmsghdr header{};
    header.cmsg_level = SOL_SOCKET;
    header.cmsg_type = type;
    header.cmsg_len = CMSG_LEN(length);
    if (out.room < sizeof(header)) {
        out.cut = true;
        return;
    }
    if (header.cmsg_len > out.room) {
        header.cmsg_len = out.room;
        out.cut = true;
    }
    memcpy(out.next_part, &header, sizeof(header));
    memcpy(out.next_part + CMSG_LEN(0), data, header.cmsg_len - CMSG_LEN(0));
    const std::size_t space = std::min(CMSG_SPACE(length), out.room);
    out.next_part += space;
    out.room -= space;
    out.used += space;
}

// Both layouts of a time: two longs, or two 64-bit numbers.
template <typename Number>
void put_time(control_writer &out, int type, std::uint64_t ns, bool us) {
    const Number pair[2] = {static_cast<Number>(ns / second_ns),
                            static_cast<Number>(us ? ns % second_ns / 1000 : ns % second_ns)};
    put(out, type, pair, sizeof(pair));
}

void put_stamps(control_writer &out, const socket_slot &slot, std::uint64_t ns) {
    const std::uint32_t mode = slot.stamps.load(std::memory_order_relaxed);
    const bool us = (mode & stamp_us) != 0;
    if ((mode & stamp_new) != 0) {
        put_time<std::int64_t>(out, us ? SO_TIMESTAMP_NEW : SO_TIMESTAMPNS_NEW, ns, us);
    } else if (mode != stamp_none) {
        put_time<long>(out, us ? SO_TIMESTAMP_OLD : SO_TIMESTAMPNS_OLD, ns, us);
    }
    if ((slot.stamping_flags.load(std::memory_order_relaxed) & SOF_TIMESTAMPING_SOFTWARE) != 0) {
        const long stamps[6] = {static_cast<long>(ns / second_ns),
                                static_cast<long>(ns % second_ns)};
        put(out, SO_TIMESTAMPING_OLD, stamps, sizeof(stamps));
    }
}

// Such a socket is told with each frame, and SIOCGSTAMP then has nothing to say.
bool wants_control(const socket_slot &slot) {
    return (slot.stamps.load(std::memory_order_relaxed) |
            slot.stamping_flags.load(std::memory_order_relaxed) |
            slot.rxq_ovfl.load(std::memory_order_relaxed)) != 0;
}

void fill_control(msghdr &message, const socket_slot &slot, const frame_message &frame) {
    control_writer out{static_cast<char *>(message.msg_control), message.msg_controllen, 0, false};
    if (message.msg_control == nullptr) {
        out.room = 0;
    }
    put_stamps(out, slot, frame.stamp_ns);
    if (slot.rxq_ovfl.load(std::memory_order_relaxed) != 0 && frame.drops != 0) {
        put(out, SO_RXQ_OVFL, &frame.drops, sizeof(frame.drops));
    }
    message.msg_controllen = out.used;
    message.msg_flags |= out.cut ? MSG_CTRUNC : 0;
}

void fill_name(msghdr &message, const frame_message &frame) {
    if (message.msg_name == nullptr) {
        return;
    }
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(frame.ifindex);
    memcpy(message.msg_name, &address, std::min(message.msg_namelen, min_address));
    message.msg_namelen = min_address;
}

} // namespace

ssize_t can_sendmsg(int fd, socket_slot &slot, const msghdr &message, int flags) {
    errno_guard guard;
    frame_message out{};
    int error = prepare(fd, slot, message, out);
    if (error == 0) {
        error = pass_to_hub(fd, out, flags);
    }
    return error == 0 ? static_cast<ssize_t>(CAN_MTU) : guard.fail(error);
}

ssize_t can_recvmsg(int fd, socket_slot &slot, msghdr &message, int flags) {
    errno_guard guard;
    if ((flags & MSG_ERRQUEUE) != 0) {
        return guard.fail(EAGAIN);
    }
    frame_message frame;
    if (next_message(fd, slot, frame, flags) < 0) {
        return guard.fail(errno);
    }
    const std::size_t copied = scatter(message, frame.frame, sizeof(frame.frame));
    message.msg_flags = copied < sizeof(frame.frame) ? MSG_TRUNC : 0;
    message.msg_flags |= (frame.flags & frame_local) != 0 ? MSG_DONTROUTE : 0;
    message.msg_flags |= (frame.flags & frame_own) != 0 ? MSG_CONFIRM : 0;
    fill_name(message, frame);
    fill_control(message, slot, frame);
    if ((flags & MSG_PEEK) == 0 && !wants_control(slot)) {
        slot.last_stamp_ns.store(frame.stamp_ns, std::memory_order_relaxed);
    }
    drop_stale_notices(fd, slot);
    return static_cast<ssize_t>(copied);
}

int can_sendmmsg(int fd, socket_slot &slot, mmsghdr *messages, unsigned count, int flags) {
    unsigned done = 0;
    while (done < count) {
        const ssize_t sent = can_sendmsg(fd, slot, messages[done].msg_hdr, flags);
        if (sent < 0) {
            break;
        }
        messages[done++].msg_len = static_cast<unsigned>(sent);
    }
    return done == 0 && count != 0 ? -1 : static_cast<int>(done);
}

int can_recvmmsg(int fd, socket_slot &slot, mmsghdr *messages, unsigned count, int flags) {
    unsigned done = 0;
    while (done < count) {
        const bool wait = done == 0 || (flags & MSG_WAITFORONE) == 0;
        const ssize_t got =
            can_recvmsg(fd, slot, messages[done].msg_hdr, flags | (wait ? 0 : MSG_DONTWAIT));
        if (got < 0) {
            break;
        }
        messages[done++].msg_len = static_cast<unsigned>(got);
    }
    return done == 0 && count != 0 ? -1 : static_cast<int>(done);
}

} // namespace softcan
