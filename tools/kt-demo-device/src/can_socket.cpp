#include "can_socket.h"

#include "program/output.h"

#include <cerrno>
#include <cstring>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>

namespace {

int complain(const std::string &port, const char *what) {
    (void)program::complain(program::status_failed, port + ": " + what + ": " + strerror(errno));
    return -1;
}

/** Setting the bit rate takes the port down for a moment; that is no reason to give up. */
bool is_passing(int error) {
    return error == EAGAIN || error == EINTR || error == ENOBUFS || error == ENETDOWN;
}

io_result judge(ssize_t size, const std::string &port, const char *what) {
    if (size == static_cast<ssize_t>(sizeof(can_frame))) {
        return io_result::done;
    }
    if (size >= 0 || is_passing(errno)) {
        return io_result::again;
    }
    (void)complain(port, what);
    return io_result::lost;
}

} // namespace

int open_can_socket(const std::string &port) {
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(port.c_str()));
    if (address.can_ifindex == 0) {
        (void)program::complain(program::status_failed,
                                port + ": no such interface (`ip link` lists those there are)");
        return -1;
    }
    const int fd = socket(AF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW);
    if (fd < 0) {
        return complain(port,
                        errno == EAFNOSUPPORT ? "no CAN support here (see kt-softcan)" : "socket");
    }
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        (void)complain(port, errno == ENODEV ? "no CAN interface" : "bind");
        (void)close(fd); // never used
        return -1;
    }
    return fd;
}

io_result receive_frame(int fd, const std::string &port, can_frame &frame) {
    return judge(recv(fd, &frame, sizeof frame, 0), port, "receive");
}

io_result send_frame(int fd, const std::string &port, const can_frame &frame) {
    return judge(send(fd, &frame, sizeof frame, 0), port, "send");
}
