#include <cstdarg>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

// The names by which programs with 64-bit times call what the other files replace. The kernel's own
// numbers tell options with such times apart, so these can do the same.

#define EXPORTED extern "C" [[gnu::visibility("default")]]
// The C library declares them only to programs that ask for 64-bit times.
#pragma GCC diagnostic ignored "-Wmissing-declarations"

namespace {

struct wide_time {
    long long seconds;
    long nanoseconds;
    long padding;
};

} // namespace

EXPORTED int
__setsockopt64(int fd, int level, int name, const void *value, socklen_t length) noexcept {
    return setsockopt(fd, level, name, value, length);
}

EXPORTED int __getsockopt64(int fd, int level, int name, void *value, socklen_t *length) noexcept {
    return getsockopt(fd, level, name, value, length);
}

EXPORTED int __ioctl_time64(int fd, unsigned long call, ...) noexcept {
    va_list list;
    va_start(list, call);
    void *argument = va_arg(list, void *);
    va_end(list);
    return ioctl(fd, call, argument);
}

EXPORTED int __fcntl_time64(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    void *argument = va_arg(list, void *);
    va_end(list);
    return fcntl64(fd, command, argument);
}

EXPORTED ssize_t __recvmsg64(int fd, msghdr *message, int flags) {
    return recvmsg(fd, message, flags);
}

EXPORTED ssize_t __sendmsg64(int fd, const msghdr *message, int flags) {
    return sendmsg(fd, message, flags);
}

EXPORTED int
__recvmmsg64(int fd, mmsghdr *messages, unsigned count, int flags, const wide_time *timeout) {
    timespec narrow{};
    if (timeout != nullptr) {
        narrow = {static_cast<time_t>(timeout->seconds), timeout->nanoseconds};
    }
    return recvmmsg(fd, messages, count, flags, timeout != nullptr ? &narrow : nullptr);
}

EXPORTED int __sendmmsg64(int fd, mmsghdr *messages, unsigned count, int flags) {
    return sendmmsg(fd, messages, count, flags);
}
