#include "hub.h"

#include "world.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace softcan {
namespace {

constexpr unsigned read_budget = 256; // frames of one sender before the others get their turn

// Tags for descriptors that are not connections.
int listener_tag = 0;
int end_tag = 0;

bool watch(const hub &world, int fd, void *tag) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = tag;
    return epoll_ctl(world.poller, EPOLL_CTL_ADD, fd, &event) == 0;
}

// Send buffer bytes one message takes, 0 when the kernel will not say.
std::uint32_t measure_message() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        return 0;
    }
    const frame_message sample{};
    int bytes = 0;
    if (send(pair[0], &sample, sizeof(sample), MSG_NOSIGNAL) != sizeof(sample) ||
        ioctl(pair[0], SIOCOUTQ, &bytes) != 0) {
        bytes = 0;
    }
    (void)close(pair[0]);
    (void)close(pair[1]);
    return static_cast<std::uint32_t>(bytes);
}

void accept_all(hub &world) {
    for (;;) {
        const int fd = accept4(world.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        auto client = std::make_unique<connection>();
        client->fd = fd;
        if (watch(world, fd, client.get())) {
            world.connections.push_back(std::move(client));
        } else {
            (void)close(fd);
        }
    }
}

void serve(hub &world, connection &client, std::uint32_t events) {
    if (client.gone) {
        return;
    }
    if (!client.is_socket) {
        answer_request(world, client);
        return;
    }
    if ((events & EPOLLOUT) != 0) {
        flush(world, client);
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        read_frames(world, client, read_budget);
    }
}

void release(hub &world, connection &client) {
    if (client.is_socket) {
        socket_slot &slot = slot_of(world, client);
        memset(static_cast<void *>(&slot), 0, sizeof(slot));
        std::erase(world.sockets, &client);
    }
    (void)close(client.fd);
}

void bury(hub &world) {
    std::erase_if(world.connections, [&world](const std::unique_ptr<connection> &client) {
        if (client->gone) {
            release(world, *client);
        }
        return client->gone;
    });
}

int end_signals() {
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        (void)sigaddset(&set, number);
    }
    (void)sigprocmask(SIG_BLOCK, &set, nullptr); // cannot fail with a valid set
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

bool open_hub(hub &world, const hub_setup &setup) {
    world.region = setup.region;
    world.region_fd = setup.region_fd;
    world.listener = setup.listener;
    world.poller = epoll_create1(EPOLL_CLOEXEC);
    world.message_cost = measure_message();
    world.random.seed(static_cast<std::uint32_t>(getpid()));
    for (const port_record &port : setup.region->ports) {
        world.next_ifindex = std::max(world.next_ifindex, port.ifindex.load() + 1);
    }
    const int signals = end_signals();
    return world.poller >= 0 && world.message_cost != 0 && signals >= 0 &&
           watch(world, world.listener, &listener_tag) && watch(world, setup.lifeline, &end_tag) &&
           watch(world, signals, &end_tag);
}

// False when the hub is to end.
bool serve_events(hub &world) {
    epoll_event events[64];
    const int count = epoll_wait(world.poller, events, 64, -1);
    bool go_on = count >= 0 || errno == EINTR;
    for (int i = 0; i < count; ++i) {
        if (events[i].data.ptr == &listener_tag) {
            accept_all(world);
        } else if (events[i].data.ptr == &end_tag) {
            go_on = false;
        } else {
            serve(world, *static_cast<connection *>(events[i].data.ptr), events[i].events);
        }
    }
    flush_dirty(world);
    bury(world);
    return go_on;
}

} // namespace

int hub_run(const hub_setup &setup) {
    (void)prctl(PR_SET_NAME, "softcan-hub");
    hub world;
    if (!open_hub(world, setup)) {
        (void)fprintf(stderr, "kt-softcan: the hub cannot start: %s\n", strerror(errno));
        (void)unlink(setup.path.c_str());
        return 1;
    }
    int status = 0;
    try {
        while (serve_events(world)) {
        }
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "kt-softcan: the hub ends: %s\n", failure.what());
        status = 1;
    }
    (void)unlink(setup.path.c_str());
    return status;
}

} // namespace softcan
