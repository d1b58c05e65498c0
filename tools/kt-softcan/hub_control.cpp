#include "hub.h"
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <linux/can/error.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace softcan {
namespace {

constexpr std::uint32_t max_bitrate = 1'000'000; // of a classic bus

struct incoming {
    request ask;
    can_filter filters[max_filters];
};

struct outgoing {
    reply answer{};
    can_filter filters[max_filters];
    int fd = -1;
};

std::string_view name_of(const request &ask) {
    return {ask.name, strnlen(ask.name, sizeof(ask.name))};
}

void set_state(port_record &port, bus_state state) {
    port.state.store(static_cast<std::uint32_t>(state), std::memory_order_relaxed);
}

connection *socket_of(hub &world, std::uint32_t slot) {
    const auto found = std::find_if(world.sockets.begin(),
                                    world.sockets.end(),
                                    [slot](const connection *c) { return c->slot == slot; });
    return found == world.sockets.end() ? nullptr : *found;
}

void post_to_bound(hub &world, std::uint32_t ifindex, int error, bool unbind) {
    for (connection *socket : world.sockets) {
        socket_slot &slot = slot_of(world, *socket);
        if (slot.bound == 0 || slot.ifindex != ifindex) {
            continue;
        }
        if (unbind) {
            slot.bound = 0;
            slot.ifindex = 0;
            socket->filters.clear(); // as a kernel: a new bind() receives only with new filters
        }
        post_error(world, *socket, error);
    }
}

int take_down(hub &world, port_record &port) {
    if (port.up.exchange(0) != 0) {
        set_state(port, bus_state::stopped);
        post_to_bound(world, port.ifindex, ENETDOWN, false);
    }
    return 0;
}

int open_socket(hub &world, connection &client, const incoming &in, outgoing &out) {
    const auto *end = world.region->slots + max_sockets;
    socket_slot *slot = world.region->slots;
    while (slot != end && slot->cookie != 0) {
        ++slot;
    }
    if (slot == end) {
        return ENFILE;
    }
    slot->loopback = 1;
    slot->rcvbuf_bytes = in.ask.value;
    slot->cookie = in.ask.cookie;
    client.is_socket = true;
    client.slot = static_cast<std::uint32_t>(slot - world.region->slots);
    client.limit = (in.ask.value + frame_cost_bytes - 1) / frame_cost_bytes;
    client.filters.assign(1, can_filter{}); // everything passes
    world.sockets.push_back(&client);
    out.answer.value = client.slot;
    return 0;
}

int bind_socket(hub &world, connection &socket, const request &ask) {
    socket_slot &slot = slot_of(world, socket);
    const port_record *port = find_port(world.region, ask.ifindex);
    if (ask.ifindex != 0 && port == nullptr) {
        return ENODEV;
    }
    if (slot.bound != 0 && slot.ifindex == ask.ifindex) {
        return 0;
    }
    slot.ifindex = ask.ifindex;
    slot.bound = 1;
    if (port != nullptr && port->up == 0) {
        post_error(world, socket, ENETDOWN);
    }
    return 0;
}

int set_option(hub &world, connection &socket, const request &ask) {
    socket_slot &slot = slot_of(world, socket);
    switch (static_cast<socket_option>(ask.detail)) {
    case socket_option::loopback:
        slot.loopback = ask.value;
        return 0;
    case socket_option::recv_own:
        slot.recv_own = ask.value;
        return 0;
    case socket_option::join_filters:
        slot.join_filters = ask.value;
        return 0;
    case socket_option::fd_frames:
        slot.fd_frames = ask.value;
        return 0;
    case socket_option::err_mask:
        slot.err_mask = ask.value & CAN_ERR_MASK;
        return 0;
    case socket_option::rcvbuf:
        slot.rcvbuf_bytes = std::min(ask.value, max_rcvbuf_bytes);
        socket.limit = (slot.rcvbuf_bytes + frame_cost_bytes - 1) / frame_cost_bytes;
        return 0;
    }
    return ENOPROTOOPT;
}

int serve_socket(hub &world, const incoming &in, outgoing &out) {
    connection *socket = socket_of(world, in.ask.slot);
    if (socket == nullptr) {
        return EBADF;
    }
    switch (in.ask.op) {
    case operation::bind_socket:
        return bind_socket(world, *socket, in.ask);
    case operation::set_option:
        return set_option(world, *socket, in.ask);
    case operation::set_filters:
        socket->filters.assign(in.filters, in.filters + in.ask.count);
        return 0;
    default:
        out.answer.count = static_cast<std::uint32_t>(socket->filters.size());
        std::copy(socket->filters.begin(), socket->filters.end(), out.filters);
        return 0;
    }
}

// As a driver does it: timing and restart delay only while down, all or nothing.
int check_link(const port_record &port, const request &ask) {
    const bool timing = (ask.detail & (link_bitrate | link_restart_ms)) != 0;
    if (timing && port.up != 0) {
        return EBUSY;
    }
    const bool new_rate = (ask.detail & link_bitrate) != 0;
    return new_rate && (ask.link.bitrate == 0 || ask.link.bitrate > max_bitrate) ? EINVAL : 0;
}

int change_link(hub &world, port_record &port, const request &ask) {
    const int error = check_link(port, ask);
    if (error != 0) {
        return error;
    }
    if ((ask.detail & link_bitrate) != 0) {
        port.bitrate = ask.link.bitrate;
    }
    if ((ask.detail & link_restart_ms) != 0) {
        port.restart_ms = ask.link.restart_ms;
    }
    if ((ask.detail & link_termination) != 0) {
        port.termination_ohm = ask.link.termination_ohm;
    }
    if ((ask.detail & link_txqueuelen) != 0) {
        port.txqueuelen = ask.link.txqueuelen;
    }
    if ((ask.detail & link_down) != 0) {
        return take_down(world, port);
    }
    if ((ask.detail & link_up) != 0 && port.up.exchange(1) == 0) {
        set_state(port, bus_state::error_active);
    }
    return 0;
}

int remove_port(hub &world, port_record &port) {
    (void)take_down(world, port);
    const std::uint32_t ifindex = port.ifindex.exchange(0);
    post_to_bound(world, ifindex, ENODEV, true);
    return 0;
}

std::uint64_t monotonic_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

int inject_fault(port_record &port, const request &ask) {
    switch (static_cast<fault_kind>(ask.detail)) {
    case fault_kind::drop_next:
        port.drop_next = ask.value;
        return 0;
    case fault_kind::drop_rate:
        port.drop_ppm = ask.value;
        return 0;
    case fault_kind::tx_full:
        port.txfull_until_ns =
            ask.value == 0 ? 0 : monotonic_ns() + std::uint64_t{ask.value} * 1'000'000U;
        return 0;
    case fault_kind::clear:
        port.drop_next = 0;
        port.drop_ppm = 0;
        port.txfull_until_ns = 0;
        if (port.up != 0) {
            set_state(port, bus_state::error_active);
        }
        return 0;
    }
    return EINVAL;
}

// The state a controller has that reports this error frame.
void follow_error(port_record &port, canid_t can_id, std::uint8_t controller) {
    if ((can_id & CAN_ERR_BUSOFF) != 0) {
        set_state(port, bus_state::bus_off);
    } else if ((can_id & CAN_ERR_RESTARTED) != 0) {
        set_state(port, bus_state::error_active);
    } else if ((can_id & CAN_ERR_CRTL) != 0) {
        if ((controller & CAN_ERR_CRTL_ACTIVE) != 0) {
            set_state(port, bus_state::error_active);
        } else if ((controller & (CAN_ERR_CRTL_RX_PASSIVE | CAN_ERR_CRTL_TX_PASSIVE)) != 0) {
            set_state(port, bus_state::error_passive);
        } else if ((controller & (CAN_ERR_CRTL_RX_WARNING | CAN_ERR_CRTL_TX_WARNING)) != 0) {
            set_state(port, bus_state::error_warning);
        }
    }
}

int inject_error(hub &world, port_record &port, const std::uint8_t (&bytes)[CAN_MTU]) {
    if (port.up == 0) {
        return ENETDOWN;
    }
    can_frame frame;
    memcpy(&frame, bytes, sizeof(frame));
    if (frame.len > CAN_MAX_DLEN) {
        return EINVAL;
    }
    frame.can_id |= CAN_ERR_FLAG;
    follow_error(port, frame.can_id, frame.data[1]);
    std::uint8_t whole[CAN_MTU];
    memcpy(whole, &frame, sizeof(whole));
    broadcast(world, port, whole, nullptr);
    return 0;
}

int restart_port(hub &world, port_record &port) {
    if (port.up == 0 || port.restart_ms != 0) {
        return EINVAL;
    }
    if (port.state != static_cast<std::uint32_t>(bus_state::bus_off)) {
        return EBUSY;
    }
    can_frame frame{};
    frame.can_id = CAN_ERR_RESTARTED;
    frame.len = CAN_ERR_DLC;
    std::uint8_t whole[CAN_MTU];
    memcpy(whole, &frame, sizeof(whole));
    return inject_error(world, port, whole);
}

int serve_port(hub &world, const request &ask) {
    port_record *port = find_port(world.region, name_of(ask));
    if (port == nullptr) {
        return ENODEV;
    }
    switch (ask.op) {
    case operation::change_link:
        return change_link(world, *port, ask);
    case operation::remove_port:
        return remove_port(world, *port);
    case operation::inject_fault:
        return inject_fault(*port, ask);
    case operation::inject_error:
        return inject_error(world, *port, ask.error_frame);
    case operation::restart_port:
        return restart_port(world, *port);
    default:
        return EOPNOTSUPP;
    }
}

int serve_request(hub &world, connection &client, const incoming &in, outgoing &out) {
    switch (in.ask.op) {
    case operation::map_world:
        out.fd = world.region_fd;
        return 0;
    case operation::open_socket:
        return open_socket(world, client, in, out);
    case operation::bind_socket:
    case operation::set_option:
    case operation::set_filters:
    case operation::get_filters:
        return serve_socket(world, in, out);
    case operation::add_port:
        return add_port(world, name_of(in.ask));
    case operation::synchronise:
        return 0;
    default:
        return serve_port(world, in.ask);
    }
}

bool well_formed(const incoming &in, ssize_t length) {
    return length >= static_cast<ssize_t>(sizeof(request)) && in.ask.magic == protocol_magic &&
           in.ask.count <= max_filters &&
           length == static_cast<ssize_t>(sizeof(request) + in.ask.count * sizeof(can_filter));
}

void send_reply(connection &client, outgoing &out) {
    iovec parts[2] = {{&out.answer, sizeof(out.answer)},
                      {out.filters, out.answer.count * sizeof(can_filter)}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    if (out.fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr *part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(part), &out.fd, sizeof(int));
    }
    if (sendmsg(client.fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        client.gone = true;
    }
}

} // namespace

int add_port(hub &world, std::string_view name) {
    if (name.empty() || name.size() >= sizeof(port_record::name)) {
        return EINVAL;
    }
    if (find_port(world.region, name) != nullptr) {
        return EEXIST;
    }
    const auto *end = world.region->ports + max_ports;
    port_record *port = world.region->ports;
    while (port != end && port->name[0] != '\0' && name != port->name) {
        ++port;
    }
    if (port == end) {
        return ENOSPC;
    }
    name.copy(port->name, name.size());
    port->up = 0;
    port->bitrate = 0;
    port->restart_ms = 0;
    port->termination_ohm = 0;
    port->txqueuelen = 10;
    port->drop_next = 0;
    port->drop_ppm = 0;
    port->txfull_until_ns = 0;
    port->frames = 0;
    port->lost = 0;
    port->overruns = 0;
    set_state(*port, bus_state::stopped);
    port->ifindex.store(world.next_ifindex++, std::memory_order_release);
    return 0;
}

void answer_request(hub &world, connection &client) {
    incoming in;
    ssize_t got = -1;
    do {
        got = recv(client.fd, &in, sizeof(in), MSG_DONTWAIT | MSG_TRUNC);
    } while (got < 0 && errno == EINTR);
    if (got < 0 && errno == EAGAIN) {
        return;
    }
    if (!well_formed(in, got)) {
        client.gone = true;
        return;
    }
    outgoing out;
    if (in.ask.version != protocol_version) {
        out.answer.error = EPROTO;
    } else {
        // A change takes effect after every frame that was sent before it.
        drain(world);
        out.answer.error = serve_request(world, client, in, out);
    }
    flush_dirty(world); // who sees the answer also sees what the change caused
    send_reply(client, out);
}

} // namespace softcan
