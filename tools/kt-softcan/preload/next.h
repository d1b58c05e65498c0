#ifndef KT_SOFTCAN_PRELOAD_NEXT_H
#define KT_SOFTCAN_PRELOAD_NEXT_H

#include <cstddef>
#include <cstdio>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace softcan {

/** The calls this library replaces, as the next object in the search order has them. */
struct next_calls {
    int (*socket)(int, int, int);
    int (*bind)(int, const sockaddr *, socklen_t);
    int (*connect)(int, const sockaddr *, socklen_t);
    int (*shutdown)(int, int);
    int (*getsockname)(int, sockaddr *, socklen_t *);
    int (*getpeername)(int, sockaddr *, socklen_t *);
    int (*setsockopt)(int, int, int, const void *, socklen_t);
    int (*getsockopt)(int, int, int, void *, socklen_t *);
    int (*ioctl)(int, unsigned long, ...);
    int (*fcntl)(int, int, ...);
    int (*fcntl64)(int, int, ...);
    int (*close)(int);
    int (*close_range)(unsigned, unsigned, int);
    void (*closefrom)(int);
    int (*fclose)(FILE *);
    int (*dup)(int);
    int (*dup2)(int, int);
    int (*dup3)(int, int, int);
    ssize_t (*read)(int, void *, std::size_t);
    ssize_t (*readv)(int, const iovec *, int);
    ssize_t (*recv)(int, void *, std::size_t, int);
    ssize_t (*recvfrom)(int, void *, std::size_t, int, sockaddr *, socklen_t *);
    ssize_t (*recvmsg)(int, msghdr *, int);
    int (*recvmmsg)(int, mmsghdr *, unsigned, int, timespec *);
    ssize_t (*read_chk)(int, void *, std::size_t, std::size_t);
    ssize_t (*recv_chk)(int, void *, std::size_t, std::size_t, int);
    ssize_t (*recvfrom_chk)(int, void *, std::size_t, std::size_t, int, sockaddr *, socklen_t *);
    ssize_t (*write)(int, const void *, std::size_t);
    ssize_t (*writev)(int, const iovec *, int);
    ssize_t (*send)(int, const void *, std::size_t, int);
    ssize_t (*sendto)(int, const void *, std::size_t, int, const sockaddr *, socklen_t);
    ssize_t (*sendmsg)(int, const msghdr *, int);
    int (*sendmmsg)(int, mmsghdr *, unsigned, int);
    unsigned (*if_nametoindex)(const char *);
    char *(*if_indextoname)(unsigned, char *);
    struct if_nameindex *(*if_nameindex)();
};

/** Resolved at load time, or at the first call when another object is initialised earlier. */
const next_calls &next();

} // namespace softcan

#endif
