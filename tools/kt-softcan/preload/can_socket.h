#ifndef KT_SOFTCAN_PRELOAD_CAN_SOCKET_H
#define KT_SOFTCAN_PRELOAD_CAN_SOCKET_H

#include "protocol.h"

#include <ctime>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

/*
 * A CAN raw socket as the kernel offers it: same checks in the same order, same codes.
 *
 * Calls return what the system call of that name returns, with errno set on failure and unchanged
 * on success. Any thread.
 */
namespace softcan {

/** Restores errno at the end unless the call fails through fail(). */
class errno_guard {
public:
    errno_guard();
    ~errno_guard();
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;
    int fail(int error); // -1

private:
    int value_;
};

// can_socket.cpp
int can_open(int type, int protocol);
int can_bind(socket_slot &slot, const sockaddr *address, socklen_t length);
int can_getsockname(const socket_slot &slot, sockaddr *address, socklen_t *length);

/** A request about one socket; 0 or a positive value, -errno on failure. */
long can_request(const socket_slot &slot, request ask);

/** The pending error, 0 when there is none; it and its wake-up message are used up. */
int take_error(int fd, socket_slot &slot);

/** Take wake-up messages whose error was already reported, as long as one is next to be read. */
void drop_stale_notices(int fd, socket_slot &slot);

// can_options.cpp
int can_setsockopt(
    int fd, socket_slot &slot, int level, int name, const void *value, socklen_t length);
int can_getsockopt(int fd, socket_slot &slot, int level, int name, void *value, socklen_t *length);

// can_io.cpp
ssize_t can_sendmsg(int fd, socket_slot &slot, const msghdr &message, int flags);
ssize_t can_recvmsg(int fd, socket_slot &slot, msghdr &message, int flags);
int can_sendmmsg(int fd, socket_slot &slot, mmsghdr *messages, unsigned count, int flags);
int can_recvmmsg(int fd, socket_slot &slot, mmsghdr *messages, unsigned count, int flags);

// net_names.cpp

/** True when the request was about a port or the socket itself; *result is then the answer. */
bool can_ioctl(int fd, unsigned long call, void *argument, int *result);

} // namespace softcan

#endif
