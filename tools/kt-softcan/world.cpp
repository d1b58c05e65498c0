#include "world.h"

#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace softcan {
namespace {

void close_fd(int fd) {
    (void)syscall(SYS_close, fd); // nothing to do about a failed close
}

bool fill_address(sockaddr_un &address, const char *path) {
    address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = strlen(path);
    if (length >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, path, length + 1);
    return true;
}

int send_request(int connection, const request &ask, const filter_list &sent) {
    iovec parts[2] = {{const_cast<request *>(&ask), sizeof(ask)},
                      {sent.entries, sent.count * sizeof(can_filter)}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    while (syscall(SYS_sendmsg, connection, &message, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            return -errno;
        }
    }
    return 0;
}

int taken_fd(msghdr &message) {
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(part), sizeof(fd));
            return fd;
        }
    }
    return -1;
}

long receive_reply(int connection, filter_list *received, int *fd) {
    reply answer{};
    iovec parts[2] = {{&answer, sizeof(answer)}, {nullptr, 0}};
    if (received != nullptr) {
        parts[1] = {received->entries, received->count * sizeof(can_filter)};
    }
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    long got = -1;
    do {
        got = syscall(SYS_recvmsg, connection, &message, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        return -errno;
    }
    if (got < static_cast<long>(sizeof(answer))) {
        return got == 0 ? -ECONNRESET : -EPROTO;
    }
    const int passed = taken_fd(message);
    if (fd != nullptr) {
        *fd = passed;
    } else if (passed >= 0) {
        close_fd(passed);
    }
    if (received != nullptr) {
        received->count = answer.count;
    }
    return answer.error != 0 ? -static_cast<long>(answer.error) : static_cast<long>(answer.value);
}

} // namespace

request make_request(operation op) {
    request ask{};
    ask.magic = protocol_magic;
    ask.version = protocol_version;
    ask.op = op;
    return ask;
}

int world_connect(const char *path, int flags) {
    sockaddr_un address;
    if (!fill_address(address, path)) {
        return -ENAMETOOLONG;
    }
    const auto fd = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_SEQPACKET | flags, 0));
    if (fd < 0) {
        return -errno;
    }
    while (syscall(SYS_connect, fd, &address, sizeof(address)) < 0) {
        if (errno != EINTR) {
            const int error = errno;
            close_fd(fd);
            return -error;
        }
    }
    return fd;
}

long world_call(int connection, request ask, filter_list sent, filter_list *received, int *fd) {
    ask.count = static_cast<std::uint32_t>(sent.count);
    const int error = send_request(connection, ask, sent);
    return error < 0 ? error : receive_reply(connection, received, fd);
}

long world_request(const char *path, const request &ask, filter_list sent, filter_list *received) {
    const int connection = world_connect(path, SOCK_CLOEXEC);
    if (connection < 0) {
        return connection;
    }
    const long result = world_call(connection, ask, sent, received);
    close_fd(connection);
    return result;
}

world_region *world_map(const char *path, int *error) {
    const int connection = world_connect(path, SOCK_CLOEXEC);
    if (connection < 0) {
        *error = -connection;
        return nullptr;
    }
    int fd = -1;
    const long result =
        world_call(connection, make_request(operation::map_world), {}, nullptr, &fd);
    close_fd(connection);
    if (result < 0 || fd < 0) {
        *error = result < 0 ? static_cast<int>(-result) : EPROTO;
        return nullptr;
    }
    void *memory = mmap(nullptr, sizeof(world_region), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int failure = errno;
    close_fd(fd);
    if (memory == MAP_FAILED) {
        *error = failure;
        return nullptr;
    }
    return static_cast<world_region *>(memory);
}

port_record *find_port(world_region *world, std::string_view name) {
    for (port_record &port : world->ports) {
        if (port.ifindex.load(std::memory_order_acquire) != 0 && name == port.name) {
            return &port;
        }
    }
    return nullptr;
}

port_record *find_port(world_region *world, std::uint32_t ifindex) {
    for (port_record &port : world->ports) {
        if (ifindex != 0 && port.ifindex.load(std::memory_order_acquire) == ifindex) {
            return &port;
        }
    }
    return nullptr;
}

} // namespace softcan
