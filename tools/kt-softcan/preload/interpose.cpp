#include "preload/can_socket.h"
#include "preload/fd_table.h"
#include "preload/next.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <unistd.h>

using namespace softcan;

#define EXPORTED extern "C" [[gnu::visibility("default")]]

namespace {

int refuse() {
    errno = EOPNOTSUPP;
    return -1;
}

void *only_argument(va_list list) {
    return va_arg(list, void *);
}

int duplicate(int fd, int command, void *argument, int (*call)(int, int, ...)) {
    const int result = call(fd, command, argument);
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) {
        track_copy(fd, result);
    }
    return result;
}

} // namespace

EXPORTED int socket(int domain, int type, int protocol) noexcept {
    if (domain == AF_CAN && world_path() != nullptr) {
        return can_open(type, protocol);
    }
    return next().socket(domain, type, protocol);
}

EXPORTED int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_bind(*slot, address, length) : next().bind(fd, address, length);
}

EXPORTED int connect(int fd, const sockaddr *address, socklen_t length) {
    return find_socket(fd) != nullptr ? refuse() : next().connect(fd, address, length);
}

EXPORTED int shutdown(int fd, int how) noexcept {
    return find_socket(fd) != nullptr ? refuse() : next().shutdown(fd, how);
}

EXPORTED int getpeername(int fd, sockaddr *address, socklen_t *length) noexcept {
    return find_socket(fd) != nullptr ? refuse() : next().getpeername(fd, address, length);
}

EXPORTED int getsockname(int fd, sockaddr *address, socklen_t *length) noexcept {
    const socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_getsockname(*slot, address, length)
                           : next().getsockname(fd, address, length);
}

EXPORTED int setsockopt(int fd, int level, int name, const void *value, socklen_t length) noexcept {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_setsockopt(fd, *slot, level, name, value, length)
                           : next().setsockopt(fd, level, name, value, length);
}

EXPORTED int getsockopt(int fd, int level, int name, void *value, socklen_t *length) noexcept {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_getsockopt(fd, *slot, level, name, value, length)
                           : next().getsockopt(fd, level, name, value, length);
}

EXPORTED int ioctl(int fd, unsigned long call, ...) noexcept {
    va_list list;
    va_start(list, call);
    void *argument = only_argument(list);
    va_end(list);
    int result = 0;
    return can_ioctl(fd, call, argument, &result) ? result : next().ioctl(fd, call, argument);
}

EXPORTED int fcntl(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    void *argument = only_argument(list);
    va_end(list);
    return duplicate(fd, command, argument, next().fcntl);
}

EXPORTED int fcntl64(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    void *argument = only_argument(list);
    va_end(list);
    return duplicate(
        fd, command, argument, next().fcntl64 != nullptr ? next().fcntl64 : next().fcntl);
}

EXPORTED int close(int fd) {
    untrack(fd);
    return next().close(fd);
}

EXPORTED int close_range(unsigned first, unsigned last, int flags) noexcept {
    if ((flags & CLOSE_RANGE_CLOEXEC) == 0) {
        untrack_range(first, last);
    }
    return next().close_range(first, last, flags);
}

EXPORTED void closefrom(int lowest) noexcept {
    untrack_range(lowest < 0 ? 0U : static_cast<unsigned>(lowest), max_fds);
    next().closefrom(lowest);
}

EXPORTED int fclose(FILE *stream) {
    if (stream != nullptr) {
        const int before = errno;
        untrack(fileno(stream));
        errno = before;
    }
    return next().fclose(stream);
}

EXPORTED int dup(int fd) noexcept {
    const int copy = next().dup(fd);
    track_copy(fd, copy);
    return copy;
}

EXPORTED int dup2(int fd, int copy) noexcept {
    const int result = next().dup2(fd, copy);
    track_copy(fd, result);
    return result;
}

EXPORTED int dup3(int fd, int copy, int flags) noexcept {
    const int result = next().dup3(fd, copy, flags);
    track_copy(fd, result);
    return result;
}
