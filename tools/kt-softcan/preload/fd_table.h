#ifndef KT_SOFTCAN_PRELOAD_FD_TABLE_H
#define KT_SOFTCAN_PRELOAD_FD_TABLE_H

#include "protocol.h"

/*
 * Which descriptors of this process are CAN sockets of the world.
 *
 * A table of atomics without locks: one relaxed load decides for every descriptor that is not ours,
 * and fork() finds nothing held.
 */
namespace softcan {

inline constexpr unsigned max_fds = 65536;

/** Read the environment and take over CAN sockets that came through exec; safe to call again. */
void start_preload();

/** Path of the world's hub, nullptr outside any world. */
const char *world_path();

/** The world's region, mapped at first use; nullptr when the hub cannot be reached. */
world_region *world();

/** Slot of a CAN socket, nullptr for every other descriptor. */
socket_slot *find_socket(int fd);
std::uint32_t slot_index(const socket_slot &slot);

/** False when the descriptor is beyond the table. */
bool track(int fd, std::uint32_t slot);

/** The descriptor is about to be closed or replaced. Nothing happens in a child of vfork(). */
void untrack(int fd);
void untrack_range(unsigned first, unsigned last);

/** copy, if not negative, is a new duplicate of fd. */
void track_copy(int fd, int copy);

} // namespace softcan

#endif
