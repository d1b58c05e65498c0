#include "preload/can_socket.h"
#include "preload/fd_table.h"
#include "preload/next.h"
#include "world.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <linux/if_arp.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

namespace softcan {
namespace {

constexpr unsigned flag_lower_up = 0x10000;
constexpr unsigned flag_echo = 0x40000;

unsigned flags_of(const port_record &port) {
    const unsigned down = IFF_NOARP | flag_echo;
    return port.up.load(std::memory_order_relaxed) != 0
               ? down | IFF_UP | IFF_RUNNING | flag_lower_up
               : down;
}

// 0 or errno.
int change_flags(const port_record &port, short flags) {
    request ask = make_request(operation::change_link);
    memcpy(ask.name, port.name, sizeof(ask.name));
    ask.detail = (flags & IFF_UP) != 0 ? link_up : link_down;
    const long result = world_request(world_path(), ask);
    return result < 0 ? static_cast<int>(-result) : 0;
}

int answer_ifreq(const port_record &port, unsigned long call, ifreq &ask) {
    switch (call) {
    case SIOCGIFINDEX:
        ask.ifr_ifindex = static_cast<int>(port.ifindex.load(std::memory_order_relaxed));
        return 0;
    case SIOCGIFFLAGS:
        ask.ifr_flags = static_cast<short>(flags_of(port));
        return 0;
    case SIOCGIFMTU:
        ask.ifr_mtu = CAN_MTU;
        return 0;
    case SIOCGIFHWADDR:
        ask.ifr_hwaddr = {};
        ask.ifr_hwaddr.sa_family = ARPHRD_CAN;
        return 0;
    case SIOCGIFTXQLEN:
        ask.ifr_qlen = static_cast<int>(port.txqueuelen.load(std::memory_order_relaxed));
        return 0;
    case SIOCSIFFLAGS:
        return change_flags(port, ask.ifr_flags);
    default:
        return EOPNOTSUPP;
    }
}

bool names_a_port(unsigned long call) {
    switch (call) {
    case SIOCGIFINDEX:
    case SIOCGIFFLAGS:
    case SIOCGIFMTU:
    case SIOCGIFHWADDR:
    case SIOCGIFTXQLEN:
    case SIOCSIFFLAGS:
    case SIOCSIFMTU:
    case SIOCSIFTXQLEN:
        return true;
    default:
        return false;
    }
}

std::string_view name_in(const ifreq &ask) {
    return {ask.ifr_name, strnlen(ask.ifr_name, IFNAMSIZ)};
}

int name_of(ifreq &ask) {
    const port_record *port = find_port(world(), static_cast<std::uint32_t>(ask.ifr_ifindex));
    if (port == nullptr) {
        return -1;
    }
    memcpy(ask.ifr_name, port->name, IFNAMSIZ);
    return 0;
}

// The time of the frame last received, as two longs.
int last_stamp(const socket_slot &slot, void *argument, std::uint64_t unit_ns) {
    constexpr std::uint64_t second_ns = 1'000'000'000;
    const std::uint64_t stamp = slot.last_stamp_ns.load(std::memory_order_relaxed);
    if (stamp == 0) {
        return ENOENT;
    }
    const long pair[2] = {static_cast<long>(stamp / second_ns),
                          static_cast<long>(stamp % second_ns / unit_ns)};
    memcpy(argument, pair, sizeof(pair));
    return 0;
}

// Answers of a CAN socket itself; -1 leaves the call to the kernel.
int own_ioctl(const socket_slot &slot, unsigned long call, void *argument) {
    constexpr unsigned long get_stamp_us = 0x8906;
    constexpr unsigned long get_stamp_ns = 0x8907;
    switch (call) {
    case get_stamp_us:
        return last_stamp(slot, argument, 1000);
    case get_stamp_ns:
        return last_stamp(slot, argument, 1);
    case FIONREAD:
    case TIOCOUTQ:
        return ENOTTY;
    default:
        return -1;
    }
}

struct if_nameindex *copy_names(const struct if_nameindex *kernel) {
    std::size_t count = 0;
    while (kernel != nullptr && kernel[count].if_index != 0) {
        ++count;
    }
    // Allocated like the C library's own list, whose if_freenameindex() releases it.
    auto *list = static_cast<struct if_nameindex *>(
        calloc(count + max_ports + 1, sizeof(struct if_nameindex)));
    if (list == nullptr) {
        return nullptr;
    }
    for (std::size_t i = 0; i < count; ++i) {
        list[i] = {kernel[i].if_index, strdup(kernel[i].if_name)};
    }
    for (const port_record &port : world()->ports) {
        const std::uint32_t ifindex = port.ifindex.load(std::memory_order_acquire);
        if (ifindex != 0) {
            list[count++] = {ifindex, strdup(port.name)};
        }
    }
    return list;
}

} // namespace

bool can_ioctl(int fd, unsigned long call, void *argument, int *result) {
    const socket_slot *slot = find_socket(fd);
    const bool named = names_a_port(call);
    if ((slot == nullptr && !named && call != SIOCGIFNAME) || argument == nullptr ||
        world_path() == nullptr) {
        return false;
    }
    errno_guard guard;
    int error = -1;
    if (slot != nullptr) {
        error = own_ioctl(*slot, call, argument);
    }
    if (error < 0 && call == SIOCGIFNAME && world() != nullptr) {
        error = name_of(*static_cast<ifreq *>(argument));
    }
    if (error < 0 && named && world() != nullptr) {
        auto &ask = *static_cast<ifreq *>(argument);
        const port_record *port = find_port(world(), name_in(ask));
        error = port == nullptr ? -1 : answer_ifreq(*port, call, ask);
    }
    *result = error > 0 ? guard.fail(error) : 0;
    return error >= 0;
}

} // namespace softcan

using namespace softcan;

#define EXPORTED extern "C" [[gnu::visibility("default")]]

EXPORTED unsigned if_nametoindex(const char *name) noexcept {
    if (world_path() != nullptr && name != nullptr) {
        errno_guard guard;
        const port_record *port = world() == nullptr ? nullptr : find_port(world(), name);
        if (port != nullptr) {
            return port->ifindex.load(std::memory_order_relaxed);
        }
    }
    return next().if_nametoindex(name);
}

EXPORTED char *if_indextoname(unsigned index, char *name) noexcept {
    if (world_path() != nullptr) {
        errno_guard guard;
        const port_record *port = world() == nullptr ? nullptr : find_port(world(), index);
        if (port != nullptr) {
            memcpy(name, port->name, IFNAMSIZ);
            return name;
        }
    }
    return next().if_indextoname(index, name);
}

EXPORTED struct if_nameindex *if_nameindex() noexcept {
    struct if_nameindex *kernel = next().if_nameindex();
    if (world_path() == nullptr || world() == nullptr) {
        return kernel;
    }
    struct if_nameindex *list = copy_names(kernel);
    if (list == nullptr) {
        return kernel;
    }
    if (kernel != nullptr) {
        if_freenameindex(kernel);
    }
    return list;
}
