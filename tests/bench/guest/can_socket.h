#ifndef KT_BENCH_CAN_SOCKET_H
#define KT_BENCH_CAN_SOCKET_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

/* What the programs of the benchmarks on the emulated machine share. */

[[noreturn]] inline void fail(const char *what) {
    (void)fprintf(stderr, "%s: %s\n", what, strerror(errno));
    exit(1);
}

/** A raw socket of an interface that holds every frame of a run. */
inline int open_can(const char *port) {
    const int fd = socket(AF_CAN, SOCK_RAW, CAN_RAW);
    constexpr int buffer_bytes = 64 * 1024 * 1024;
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(port));
    if (fd < 0 || address.can_ifindex == 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        fail(port);
    }
    return fd;
}

/** A socket that only sends. */
inline int open_can_to_send(const char *port) {
    const int fd = open_can(port);
    if (setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0) != 0) {
        fail(port);
    }
    return fd;
}

#endif
