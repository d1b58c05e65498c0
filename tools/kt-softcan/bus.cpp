#include "filter.h"
#include "hub.h"
#include "world.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <linux/can/error.h>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace softcan {
namespace {

constexpr unsigned batch_size = 64;
constexpr unsigned drain_budget = 4096; // above what the kernel holds for one sender

std::uint64_t realtime_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

void add(std::atomic<std::uint64_t> &counter) {
    counter.fetch_add(1, std::memory_order_relaxed);
}

bool taken_by_fault(hub &world, port_record &port) {
    const std::uint32_t next = port.drop_next.load(std::memory_order_relaxed);
    if (next != 0) {
        port.drop_next.store(next - 1, std::memory_order_relaxed);
        return true;
    }
    const std::uint32_t rate = port.drop_ppm.load(std::memory_order_relaxed);
    return rate != 0 &&
           std::uniform_int_distribution<std::uint32_t>(0, 999'999)(world.random) < rate;
}

void forward(hub &world, connection &sender, const frame_message &message) {
    port_record *port = find_port(world.region, message.ifindex);
    if (port == nullptr || port->up.load(std::memory_order_relaxed) == 0) {
        return;
    }
    add(port->frames);
    if (taken_by_fault(world, *port)) {
        add(port->lost);
        return;
    }
    if ((message.flags & frame_no_loopback) == 0) {
        broadcast(world, *port, message.frame, &sender);
    }
}

// Counted only when the buffer seems full, since it takes a system call.
void recount_in_flight(const hub &world, connection &receiver) {
    int bytes = 0;
    if (ioctl(receiver.fd, SIOCOUTQ, &bytes) == 0) {
        receiver.in_flight = static_cast<std::uint32_t>(bytes) / world.message_cost;
    }
}

bool has_room(const hub &world, connection &receiver) {
    const auto waiting = static_cast<std::uint32_t>(receiver.queue.size());
    if (waiting + receiver.in_flight < receiver.limit) {
        return true;
    }
    recount_in_flight(world, receiver);
    return waiting + receiver.in_flight < receiver.limit;
}

bool listens(const socket_slot &slot, std::uint32_t ifindex) {
    const std::uint32_t wanted = slot.ifindex.load(std::memory_order_relaxed);
    return slot.bound.load(std::memory_order_relaxed) != 0 && (wanted == 0 || wanted == ifindex);
}

void enqueue(hub &world, connection &receiver, port_record &port, frame_message &message) {
    socket_slot &slot = slot_of(world, receiver);
    if (!has_room(world, receiver)) {
        slot.drops.fetch_add(1, std::memory_order_relaxed);
        add(port.overruns);
        return;
    }
    message.drops = slot.drops.load(std::memory_order_relaxed);
    receiver.queue.push_back(message);
    receiver.dirty = true;
    slot.backlog.store(static_cast<std::uint32_t>(receiver.queue.size()),
                       std::memory_order_relaxed);
}

void watch_output(hub &world, connection &receiver, bool wanted) {
    if (receiver.wants_output == wanted) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN | (wanted ? EPOLLOUT : 0U);
    event.data.ptr = &receiver;
    if (epoll_ctl(world.poller, EPOLL_CTL_MOD, receiver.fd, &event) == 0) {
        receiver.wants_output = wanted;
    }
}

// Frames taken by the kernel, or -1 with errno.
int send_batch(connection &receiver) {
    mmsghdr headers[batch_size];
    iovec parts[batch_size];
    unsigned count = 0;
    for (frame_message &message : receiver.queue) {
        if (count == batch_size) {
            break;
        }
        parts[count] = {&message, sizeof(message)};
        headers[count] = {};
        headers[count].msg_hdr.msg_iov = &parts[count];
        headers[count].msg_hdr.msg_iovlen = 1;
        ++count;
    }
    return sendmmsg(receiver.fd, headers, count, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Messages received, 0 at the end of the connection, -1 when there are none now.
int receive_batch(connection &sender, frame_message (&messages)[batch_size]) {
    mmsghdr headers[batch_size];
    iovec parts[batch_size];
    for (unsigned i = 0; i < batch_size; ++i) {
        parts[i] = {&messages[i], sizeof(messages[i])};
        headers[i] = {};
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    int got = -1;
    // A program that closes its socket with frames unread leaves this error in front of what it
    // sent.
    do {
        got = recvmmsg(sender.fd, headers, batch_size, MSG_DONTWAIT, nullptr);
    } while (got < 0 && (errno == ECONNRESET || errno == EINTR));
    if (got < 0) {
        return errno == EAGAIN ? -1 : 0;
    }
    int whole = 0;
    while (whole < got && headers[whole].msg_len == sizeof(frame_message)) {
        ++whole;
    }
    return whole;
}

} // namespace

socket_slot &slot_of(hub &world, const connection &socket) {
    return world.region->slots[socket.slot];
}

void broadcast(hub &world,
               port_record &port,
               const std::uint8_t (&frame)[CAN_MTU],
               const connection *sender) {
    frame_message message{};
    message.kind = message_kind::frame;
    message.ifindex = port.ifindex.load(std::memory_order_relaxed);
    message.stamp_ns = realtime_ns();
    memcpy(message.frame, frame, sizeof(frame));
    canid_t can_id = 0;
    memcpy(&can_id, frame, sizeof(can_id));
    for (connection *receiver : world.sockets) {
        const socket_slot &slot = slot_of(world, *receiver);
        const bool own = receiver == sender;
        if (receiver->gone || !listens(slot, message.ifindex) ||
            (own && slot.recv_own.load(std::memory_order_relaxed) == 0)) {
            continue;
        }
        const receive_rules rules{receiver->filters,
                                  slot.err_mask.load(std::memory_order_relaxed),
                                  slot.join_filters.load(std::memory_order_relaxed) != 0};
        if (!accepts(rules, can_id)) {
            continue;
        }
        message.flags = (sender != nullptr ? +frame_local : 0U) | (own ? +frame_own : 0U);
        enqueue(world, *receiver, port, message);
    }
}

void flush(hub &world, connection &receiver) {
    receiver.dirty = false;
    while (!receiver.queue.empty() && !receiver.gone) {
        const int sent = send_batch(receiver);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            if (sent < 0 && errno != EAGAIN) {
                receiver.queue.clear(); // closed; reading from it will tell
            }
            break;
        }
        receiver.in_flight += static_cast<std::uint32_t>(sent);
        receiver.queue.erase(receiver.queue.begin(), receiver.queue.begin() + sent);
    }
    slot_of(world, receiver)
        .backlog.store(static_cast<std::uint32_t>(receiver.queue.size()),
                       std::memory_order_relaxed);
    watch_output(world, receiver, !receiver.queue.empty());
}

void flush_dirty(hub &world) {
    for (connection *receiver : world.sockets) {
        if (receiver->dirty && !receiver->wants_output) {
            flush(world, *receiver);
        }
    }
}

void read_frames(hub &world, connection &sender, unsigned budget) {
    frame_message messages[batch_size];
    for (unsigned done = 0; done < budget && !sender.gone;) {
        const int got = receive_batch(sender, messages);
        if (got < 0) {
            return;
        }
        for (int i = 0; i < got; ++i) {
            if (messages[i].kind == message_kind::frame) {
                forward(world, sender, messages[i]);
            }
        }
        sender.gone = got == 0;
        flush_dirty(world);
        if (static_cast<unsigned>(got) < batch_size) {
            return; // the poller tells of more, and of the end
        }
        done += static_cast<unsigned>(got);
    }
}

void drain(hub &world) {
    for (connection *sender : world.sockets) {
        read_frames(world, *sender, drain_budget);
    }
}

void post_error(hub &world, connection &receiver, int error) {
    socket_slot &slot = slot_of(world, receiver);
    frame_message notice{};
    notice.kind = message_kind::notice;
    slot.notices.fetch_add(1, std::memory_order_relaxed);
    slot.error.store(static_cast<std::uint32_t>(error), std::memory_order_release);
    receiver.queue.push_back(notice);
    receiver.dirty = true;
}

} // namespace softcan
