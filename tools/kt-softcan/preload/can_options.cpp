#include "preload/can_socket.h"
#include "preload/fd_table.h"
#include "preload/next.h"
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/can/raw.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace softcan {
namespace {

struct raw_option {
    int name;
    socket_option option;
    std::atomic<std::uint32_t> socket_slot::*field;
};

constexpr raw_option raw_options[] = {
    {CAN_RAW_ERR_FILTER, socket_option::err_mask, &socket_slot::err_mask},
    {CAN_RAW_LOOPBACK, socket_option::loopback, &socket_slot::loopback},
    {CAN_RAW_RECV_OWN_MSGS, socket_option::recv_own, &socket_slot::recv_own},
    {CAN_RAW_FD_FRAMES, socket_option::fd_frames, &socket_slot::fd_frames},
    {CAN_RAW_JOIN_FILTERS, socket_option::join_filters, &socket_slot::join_filters},
};

const raw_option *find_raw(int name) {
    for (const raw_option &row : raw_options) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

// 0 or errno, as each of the following.
int answer(long result) {
    return result < 0 ? static_cast<int>(-result) : 0;
}

int set_option(const socket_slot &slot, socket_option option, std::uint32_t value) {
    request ask = make_request(operation::set_option);
    ask.detail = static_cast<std::uint32_t>(option);
    ask.value = value;
    return answer(can_request(slot, ask));
}

int set_filters(const socket_slot &slot, const void *value, socklen_t length) {
    if (length % sizeof(can_filter) != 0 || length > max_filters * sizeof(can_filter)) {
        return EINVAL;
    }
    can_filter filters[max_filters];
    if (length != 0) {
        memcpy(filters, value, length);
    }
    request ask = make_request(operation::set_filters);
    ask.slot = slot_index(slot);
    return answer(world_request(world_path(), ask, {filters, length / sizeof(can_filter)}));
}

int set_raw(const socket_slot &slot, int name, const void *value, socklen_t length) {
    if (name == CAN_RAW_FILTER) {
        return set_filters(slot, value, length);
    }
    const raw_option *row = find_raw(name);
    if (row == nullptr) {
        return ENOPROTOOPT;
    }
    std::uint32_t number = 0;
    if (length != sizeof(number)) {
        return EINVAL;
    }
    memcpy(&number, value, sizeof(number));
    return set_option(slot, row->option, number);
}

int set_stamps(socket_slot &slot, int name, std::uint32_t on) {
    std::uint32_t mode = stamp_none;
    switch (name) {
    case SO_TIMESTAMP_OLD:
        mode = stamp_us;
        break;
    case SO_TIMESTAMPNS_OLD:
        mode = stamp_ns;
        break;
    case SO_TIMESTAMP_NEW:
        mode = stamp_us | stamp_new;
        break;
    default:
        mode = stamp_ns | stamp_new;
        break;
    }
    slot.stamps.store(on != 0 ? mode : stamp_none, std::memory_order_relaxed);
    return 0;
}

// The kernel judges and doubles the size; what it made of it is the budget of this socket.
int set_receive_buffer(
    int fd, const socket_slot &slot, int name, const void *value, socklen_t length) {
    if (next().setsockopt(fd, SOL_SOCKET, name, value, length) != 0) {
        return errno;
    }
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    if (next().getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size) != 0) {
        return errno;
    }
    return set_option(slot, socket_option::rcvbuf, static_cast<std::uint32_t>(bytes));
}

int set_common(int fd, socket_slot &slot, int name, const void *value, socklen_t length) {
    if (name == SO_ATTACH_FILTER || name == SO_ATTACH_BPF) {
        return ENOPROTOOPT; // it would see the hub's messages, not frames
    }
    if (name == SO_RCVBUF || name == SO_RCVBUFFORCE) {
        return set_receive_buffer(fd, slot, name, value, length);
    }
    std::uint32_t number = 0;
    if (length >= sizeof(number) && value != nullptr) {
        memcpy(&number, value, sizeof(number));
    }
    switch (name) {
    case SO_TIMESTAMP_OLD:
    case SO_TIMESTAMPNS_OLD:
    case SO_TIMESTAMP_NEW:
    case SO_TIMESTAMPNS_NEW:
        return length < sizeof(number) ? EINVAL : set_stamps(slot, name, number);
    case SO_TIMESTAMPING_OLD:
        slot.stamping_flags.store(number, std::memory_order_relaxed);
        return length < sizeof(number) ? EINVAL : 0;
    case SO_RXQ_OVFL:
        slot.rxq_ovfl.store(number != 0 ? 1 : 0, std::memory_order_relaxed);
        return length < sizeof(number) ? EINVAL : 0;
    default:
        return next().setsockopt(fd, SOL_SOCKET, name, value, length) != 0 ? errno : 0;
    }
}

int give(void *value, socklen_t *length, const void *data, std::size_t size) {
    const std::size_t count = std::min<std::size_t>(*length, size);
    memcpy(value, data, count);
    *length = static_cast<socklen_t>(count);
    return 0;
}

int give_number(void *value, socklen_t *length, std::uint32_t number) {
    return give(value, length, &number, sizeof(number));
}

int get_filters(const socket_slot &slot, void *value, socklen_t *length) {
    can_filter filters[max_filters];
    filter_list received{filters, max_filters};
    request ask = make_request(operation::get_filters);
    ask.slot = slot_index(slot);
    const long result = world_request(world_path(), ask, {}, &received);
    if (result < 0) {
        return answer(result);
    }
    const std::size_t size = received.count * sizeof(can_filter);
    if (*length < size) {
        *length = static_cast<socklen_t>(size);
        return ERANGE;
    }
    return give(value, length, filters, size);
}

int get_raw(const socket_slot &slot, int name, void *value, socklen_t *length) {
    if (name == CAN_RAW_FILTER) {
        return get_filters(slot, value, length);
    }
    const raw_option *row = find_raw(name);
    if (row == nullptr) {
        return ENOPROTOOPT;
    }
    return give_number(value, length, (slot.*(row->field)).load(std::memory_order_relaxed));
}

std::uint32_t waiting_frames(int fd, const socket_slot &slot) {
    int bytes = 0;
    if (next().ioctl(fd, SIOCINQ, &bytes) != 0 || bytes < 0) {
        bytes = 0;
    }
    return static_cast<std::uint32_t>(bytes) / static_cast<std::uint32_t>(sizeof(frame_message)) +
           slot.backlog.load(std::memory_order_relaxed);
}

int get_meminfo(int fd, const socket_slot &slot, void *value, socklen_t *length) {
    std::uint32_t info[SK_MEMINFO_VARS] = {};
    info[SK_MEMINFO_RMEM_ALLOC] = waiting_frames(fd, slot) * frame_cost_bytes;
    info[SK_MEMINFO_RCVBUF] = slot.rcvbuf_bytes.load(std::memory_order_relaxed);
    info[SK_MEMINFO_DROPS] = slot.drops.load(std::memory_order_relaxed);
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    if (next().getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &size) == 0) {
        info[SK_MEMINFO_SNDBUF] = static_cast<std::uint32_t>(bytes);
    }
    return give(value, length, info, sizeof(info));
}

bool stamps_are(const socket_slot &slot, std::uint32_t unit) {
    return (slot.stamps.load(std::memory_order_relaxed) & unit) != 0;
}

int get_common(int fd, socket_slot &slot, int name, void *value, socklen_t *length) {
    switch (name) {
    case SO_DOMAIN:
        return give_number(value, length, AF_CAN);
    case SO_TYPE:
        return give_number(value, length, SOCK_RAW);
    case SO_PROTOCOL:
        return give_number(value, length, 0); // a kernel does not record it for this family
    case SO_ERROR:
        return give_number(value, length, static_cast<std::uint32_t>(take_error(fd, slot)));
    case SO_MEMINFO:
        return get_meminfo(fd, slot, value, length);
    case SO_TIMESTAMP_OLD:
    case SO_TIMESTAMP_NEW:
        return give_number(value, length, stamps_are(slot, stamp_us) ? 1 : 0);
    case SO_TIMESTAMPNS_OLD:
    case SO_TIMESTAMPNS_NEW:
        return give_number(value, length, stamps_are(slot, stamp_ns) ? 1 : 0);
    case SO_TIMESTAMPING_OLD:
        return give_number(value, length, slot.stamping_flags.load(std::memory_order_relaxed));
    case SO_RXQ_OVFL:
        return give_number(value, length, slot.rxq_ovfl.load(std::memory_order_relaxed));
    default:
        return next().getsockopt(fd, SOL_SOCKET, name, value, length) != 0 ? errno : 0;
    }
}

} // namespace

int can_setsockopt(
    int fd, socket_slot &slot, int level, int name, const void *value, socklen_t length) {
    errno_guard guard;
    int error = EINVAL;
    if (level == SOL_SOCKET) {
        error = set_common(fd, slot, name, value, length);
    } else if (level == SOL_CAN_RAW) {
        error = set_raw(slot, name, value, length);
    }
    return error == 0 ? 0 : guard.fail(error);
}

int can_getsockopt(int fd, socket_slot &slot, int level, int name, void *value, socklen_t *length) {
    errno_guard guard;
    int error = EINVAL;
    if (level == SOL_SOCKET) {
        error = get_common(fd, slot, name, value, length);
    } else if (level == SOL_CAN_RAW) {
        error = get_raw(slot, name, value, length);
    }
    return error == 0 ? 0 : guard.fail(error);
}

} // namespace softcan
