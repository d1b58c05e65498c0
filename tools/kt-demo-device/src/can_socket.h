#ifndef KT_DEMO_DEVICE_CAN_SOCKET_H
#define KT_DEMO_DEVICE_CAN_SOCKET_H

#include <linux/can.h>
#include <string>
#include <unistd.h>

/** Owns a file descriptor. */
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() {
        if (fd_ >= 0) {
            (void)close(fd_); // nothing was written that could be lost
        }
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

/** Open a non-blocking raw socket on that port. @return -1 with a message on standard error */
int open_can_socket(const std::string &port);

enum class io_result {
    done,
    again, // nothing there, no room, or the port is down just now
    lost   // the port is gone; a message was printed
};

io_result receive_frame(int fd, const std::string &port, can_frame &frame);
io_result send_frame(int fd, const std::string &port, const can_frame &frame);

#endif
