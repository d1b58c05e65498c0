#include "preload/can_socket.h"
#include "preload/fd_table.h"
#include "preload/next.h"

#include <cerrno>
#include <sys/uio.h>
#include <unistd.h>

using namespace softcan;

#define EXPORTED extern "C" [[gnu::visibility("default")]]

// The fortified calls, under names that are allowed here.
EXPORTED ssize_t checked_read(int fd,
                              void *buffer,
                              size_t length,
                              size_t size) __asm__("__read_chk");
EXPORTED ssize_t
checked_recv(int fd, void *buffer, size_t length, size_t size, int flags) __asm__("__recv_chk");
EXPORTED ssize_t checked_recvfrom(int fd,
                                  void *buffer,
                                  size_t length,
                                  size_t size,
                                  int flags,
                                  sockaddr *address,
                                  socklen_t *address_length) __asm__("__recvfrom_chk");

namespace {

ssize_t receive(int fd,
                socket_slot &slot,
                void *buffer,
                std::size_t length,
                int flags,
                sockaddr *address = nullptr,
                socklen_t *address_length = nullptr) {
    iovec part{buffer, length};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (address != nullptr && address_length != nullptr) {
        message.msg_name = address;
        message.msg_namelen = *address_length;
    }
    const ssize_t got = can_recvmsg(fd, slot, message, flags);
    if (got >= 0 && address_length != nullptr && message.msg_name != nullptr) {
        *address_length = message.msg_namelen;
    }
    return got;
}

ssize_t transmit(int fd,
                 socket_slot &slot,
                 const void *buffer,
                 std::size_t length,
                 int flags,
                 const sockaddr *address = nullptr,
                 socklen_t address_length = 0) {
    iovec part{const_cast<void *>(buffer), length};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_name = const_cast<sockaddr *>(address);
    message.msg_namelen = address == nullptr ? 0 : address_length;
    return can_sendmsg(fd, slot, message, flags);
}

msghdr vector_message(const iovec *parts, int count) {
    msghdr message{};
    message.msg_iov = const_cast<iovec *>(parts);
    message.msg_iovlen = count < 0 ? 0 : static_cast<decltype(message.msg_iovlen)>(count);
    return message;
}

} // namespace

EXPORTED ssize_t read(int fd, void *buffer, size_t length) {
    socket_slot *slot = find_socket(fd);
    if (slot == nullptr) {
        return next().read(fd, buffer, length);
    }
    return length == 0 ? 0 : receive(fd, *slot, buffer, length, 0);
}

EXPORTED ssize_t readv(int fd, const iovec *parts, int count) {
    socket_slot *slot = find_socket(fd);
    if (slot == nullptr) {
        return next().readv(fd, parts, count);
    }
    msghdr message = vector_message(parts, count);
    return can_recvmsg(fd, *slot, message, 0);
}

EXPORTED ssize_t recv(int fd, void *buffer, size_t length, int flags) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? receive(fd, *slot, buffer, length, flags)
                           : next().recv(fd, buffer, length, flags);
}

EXPORTED ssize_t recvfrom(
    int fd, void *buffer, size_t length, int flags, sockaddr *address, socklen_t *address_length) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? receive(fd, *slot, buffer, length, flags, address, address_length)
                           : next().recvfrom(fd, buffer, length, flags, address, address_length);
}

EXPORTED ssize_t recvmsg(int fd, msghdr *message, int flags) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_recvmsg(fd, *slot, *message, flags)
                           : next().recvmsg(fd, message, flags);
}

EXPORTED int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_recvmmsg(fd, *slot, messages, count, flags)
                           : next().recvmmsg(fd, messages, count, flags, timeout);
}

// A buffer overflow is left to the C library to report.
ssize_t checked_read(int fd, void *buffer, size_t length, size_t size) {
    return find_socket(fd) != nullptr && length <= size ? read(fd, buffer, length)
                                                        : next().read_chk(fd, buffer, length, size);
}

ssize_t checked_recv(int fd, void *buffer, size_t length, size_t size, int flags) {
    return find_socket(fd) != nullptr && length <= size
               ? recv(fd, buffer, length, flags)
               : next().recv_chk(fd, buffer, length, size, flags);
}

ssize_t checked_recvfrom(int fd,
                         void *buffer,
                         size_t length,
                         size_t size,
                         int flags,
                         sockaddr *address,
                         socklen_t *address_length) {
    return find_socket(fd) != nullptr && length <= size
               ? recvfrom(fd, buffer, length, flags, address, address_length)
               : next().recvfrom_chk(fd, buffer, length, size, flags, address, address_length);
}

EXPORTED ssize_t write(int fd, const void *buffer, size_t length) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? transmit(fd, *slot, buffer, length, 0)
                           : next().write(fd, buffer, length);
}

EXPORTED ssize_t writev(int fd, const iovec *parts, int count) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_sendmsg(fd, *slot, vector_message(parts, count), 0)
                           : next().writev(fd, parts, count);
}

EXPORTED ssize_t send(int fd, const void *buffer, size_t length, int flags) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? transmit(fd, *slot, buffer, length, flags)
                           : next().send(fd, buffer, length, flags);
}

EXPORTED ssize_t sendto(int fd,
                        const void *buffer,
                        size_t length,
                        int flags,
                        const sockaddr *address,
                        socklen_t address_length) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? transmit(fd, *slot, buffer, length, flags, address, address_length)
                           : next().sendto(fd, buffer, length, flags, address, address_length);
}

EXPORTED ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_sendmsg(fd, *slot, *message, flags)
                           : next().sendmsg(fd, message, flags);
}

EXPORTED int sendmmsg(int fd, mmsghdr *messages, unsigned count, int flags) {
    socket_slot *slot = find_socket(fd);
    return slot != nullptr ? can_sendmmsg(fd, *slot, messages, count, flags)
                           : next().sendmmsg(fd, messages, count, flags);
}
