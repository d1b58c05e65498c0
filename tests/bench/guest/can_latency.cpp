// Microseconds between a bus and another process, one line for each of COUNT times:
//
//   can-latency tag PORT ID TAG COUNT      a frame is sent until the tag has its value
//   can-latency share PORT ID FILE COUNT   the same with can-floor share
//   can-latency write PORT ID TAG COUNT    a tag is written until the frame with it is on the bus

#include "can_socket.h"
#include "shared_value.h"

#include <kt/dx_client.h>

#include <ctime>
#include <string_view>

namespace {

int64_t now_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/** Spread over the periods of whatever else runs. */
void pause(unsigned n) {
    const timespec time{0, 300000 + static_cast<long>(n * 2654435761U % 2700000U)};
    (void)nanosleep(&time, nullptr);
}

void send_value(int socket, uint32_t id, uint64_t value) {
    can_frame frame{};
    frame.can_id = id;
    frame.len = 8;
    memcpy(frame.data, &value, sizeof value);
    if (write(socket, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
        fail("write");
    }
}

int ignore(void *, const dx_tag_info *, const dx_sample *) {
    return 0;
}

/** A tag as another program sees it. */
class watched_tag {
public:
    explicit watched_tag(const char *name) {
        if (dx_client_open(&client_) != DX_OK || dx_client_find(client_, name, &info_) != DX_OK) {
            fail(name);
        }
    }
    void wait_for(uint64_t value) {
        while (read() != value) {
            (void)dx_client_changes(client_, ignore, nullptr);
            if (read() != value) {
                (void)dx_client_wait(client_, 1000);
            }
        }
    }
    void write(uint64_t value) {
        if (dx_client_write(client_, &info_, &value, info_.size) != DX_OK) {
            fail("dx_client_write");
        }
    }

private:
    uint64_t read() {
        dx_sample sample;
        uint64_t value = 0;
        if (dx_client_read(client_, &info_, &sample) == DX_OK) {
            memcpy(&value, sample.value, sizeof value);
        }
        return value;
    }

    dx_client *client_ = nullptr;
    dx_tag_info info_{};
};

void wait_for(shared_value *shared, uint64_t value) {
    while (true) {
        const uint32_t seen = shared->changes.load(std::memory_order_acquire);
        if (shared->value.load(std::memory_order_relaxed) == value) {
            return;
        }
        (void)syscall(SYS_futex, &shared->changes, FUTEX_WAIT, seen, nullptr, nullptr, 0);
    }
}

void wait_for_frame(int socket, uint32_t id, uint64_t value) {
    can_frame frame;
    do {
        if (read(socket, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
            fail("read");
        }
    } while (frame.can_id != id || memcmp(frame.data, &value, sizeof value) != 0);
}

template <typename Cause, typename Effect>
void measure(unsigned count, Cause cause, Effect effect) {
    for (unsigned n = 1; n <= count; n++) {
        pause(n);
        const int64_t start = now_ns();
        cause(n);
        effect(n);
        (void)printf("%.3f\n", static_cast<double>(now_ns() - start) / 1000);
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 6) {
        (void)fprintf(stderr, "usage: can-latency tag|share|write PORT ID NAME COUNT\n");
        return 2;
    }
    const std::string_view what = argv[1];
    const auto id = static_cast<uint32_t>(strtoul(argv[3], nullptr, 0));
    const auto count = static_cast<unsigned>(strtoul(argv[5], nullptr, 0));
    if (what == "write") {
        const int socket = open_can(argv[2]);
        watched_tag tag(argv[4]);
        measure(
            count,
            [&](uint64_t n) { tag.write(n); },
            [&](uint64_t n) { wait_for_frame(socket, id, n); });
        return 0;
    }
    const int socket = open_can_to_send(argv[2]);
    const auto send = [&](uint64_t n) { send_value(socket, id, n); };
    if (what == "share") {
        shared_value *shared = map_shared_value(argv[4]);
        measure(count, send, [&](uint64_t n) { wait_for(shared, n); });
    } else {
        watched_tag tag(argv[4]);
        measure(count, send, [&](uint64_t n) { tag.wait_for(n); });
    }
    return 0;
}
