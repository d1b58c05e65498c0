#ifndef KT_SOFTCAN_WORLD_H
#define KT_SOFTCAN_WORLD_H

#include "protocol.h"

#include <cstddef>
#include <string_view>

/*
 * The program's side of a world.
 *
 * Everything goes to the kernel by system call number, so that it works unchanged inside the
 * preloaded library, which replaces the C library's calls. No locks, no allocation, no exceptions;
 * any thread, and a child of fork() or vfork(). errno may change.
 */
namespace softcan {

/** A request of this protocol version with every other field zero. */
request make_request(operation op);

/** Connect to the hub listening on that path; flags are SOCK_CLOEXEC or 0. Descriptor or -errno. */
int world_connect(const char *path, int flags);

/** Filters that go with a request or come with a reply. */
struct filter_list {
    can_filter *entries = nullptr;
    std::size_t count = 0; // in: entries to send or room for entries; out: entries received
};

/**
 * Send a request over a connection and wait for the reply.
 *
 * @param sent      filters to send with it; ask.count is set from it
 * @param received  where filters of the reply go, nullptr for none
 * @param fd        where a descriptor of the reply goes (close-on-exec), nullptr for none
 * @retval >=0  reply::value
 * @retval <0   -errno of the hub's answer or of the connection; -EPROTO for a foreign answer
 */
long world_call(int connection,
                request ask,
                filter_list sent = {},
                filter_list *received = nullptr,
                int *fd = nullptr);

/** world_call() over a connection of its own. */
long world_request(const char *path,
                   const request &ask,
                   filter_list sent = {},
                   filter_list *received = nullptr);

/** Map a world's region for the life of the process; nullptr with *error = errno on failure. */
world_region *world_map(const char *path, int *error);

/** The port of that name or interface index, nullptr when there is none now. */
port_record *find_port(world_region *world, std::string_view name);
port_record *find_port(world_region *world, std::uint32_t ifindex);

} // namespace softcan

#endif
