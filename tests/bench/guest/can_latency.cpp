// Microseconds between a bus and another process, one line for each of COUNT times:
//
//   can-latency tag PORT ID TAG COUNT      a frame is sent until the tag has its value
//   can-latency share PORT ID FILE COUNT   the same with can-floor share
//   can-latency write PORT ID TAG COUNT    a tag is written until the frame with it is on the bus
//   can-latency store PORT ID FILE COUNT   the same with can-floor send
//   can-latency pipe PORT ID FIFO COUNT    the same with can-floor pipe

#include "can_socket.h"
#include "shared_value.h"

#include <kt/dx_client.h>

#include <ctime>
#include <sched.h>
#include <semaphore.h>
#include <string_view>
#include <thread>

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

void store(shared_value *shared, uint64_t value) {
    shared->value.store(value, std::memory_order_relaxed);
    shared->changes.fetch_add(1, std::memory_order_release);
    (void)syscall(SYS_futex, &shared->changes, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void wait_for_frame(int socket, uint32_t id, uint64_t value) {
    can_frame frame;
    do {
        if (read(socket, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
            fail("read");
        }
    } while (frame.can_id != id || memcmp(frame.data, &value, sizeof value) != 0);
}

void print_since(int64_t start_ns) {
    (void)printf("%.3f\n", static_cast<double>(now_ns() - start_ns) / 1000);
}

/** From a value to the frame that carries it. */
template <typename Cause>
void measure_sent(unsigned count, const char *port, uint32_t id, Cause cause) {
    const int socket = open_can(port);
    for (unsigned n = 1; n <= count; n++) {
        pause(n);
        const int64_t start_ns = now_ns();
        cause(n);
        wait_for_frame(socket, id, n);
        print_since(start_ns);
    }
}

/** Frames come from an interrupt, so their sender is through with it before others go on. */
void precede_everybody() {
    const sched_param highest{1};
    if (sched_setscheduler(0, SCHED_FIFO, &highest) != 0) {
        fail("sched_setscheduler");
    }
}

/** From a frame to whoever waits for what it carries, who sleeps when it comes. */
template <typename Effect>
void measure_received(unsigned count, const char *port, uint32_t id, Effect effect) {
    const int socket = open_can_to_send(port);
    std::atomic<int64_t> start_ns{0};
    sem_t taken; // of the kernel alone: std::binary_semaphore yields a while before it sleeps
    (void)sem_init(&taken, 0, 0);
    std::thread sender([&] {
        precede_everybody();
        for (unsigned n = 1; n <= count; n++) {
            pause(n);
            start_ns = now_ns();
            send_value(socket, id, n);
            (void)sem_wait(&taken);
        }
    });
    for (unsigned n = 1; n <= count; n++) {
        effect(n);
        print_since(start_ns);
        (void)sem_post(&taken);
    }
    sender.join();
}

int open_pipe(const char *path) {
    const int fifo = open(path, O_WRONLY | O_CLOEXEC);
    if (fifo < 0) {
        fail(path);
    }
    return fifo;
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc == 6 ? argv[1] : "";
    const char *port = argc == 6 ? argv[2] : "";
    const auto id = argc == 6 ? static_cast<uint32_t>(strtoul(argv[3], nullptr, 0)) : 0;
    const auto count = argc == 6 ? static_cast<unsigned>(strtoul(argv[5], nullptr, 0)) : 0;
    if (what == "tag") {
        watched_tag tag(argv[4]);
        measure_received(count, port, id, [&](uint64_t n) { tag.wait_for(n); });
    } else if (what == "share") {
        shared_value *shared = map_shared_value(argv[4]);
        measure_received(count, port, id, [&](uint64_t n) { wait_for(shared, n); });
    } else if (what == "write") {
        watched_tag tag(argv[4]);
        measure_sent(count, port, id, [&](uint64_t n) { tag.write(n); });
    } else if (what == "store") {
        shared_value *shared = map_shared_value(argv[4]);
        measure_sent(count, port, id, [&](uint64_t n) { store(shared, n); });
    } else if (what == "pipe") {
        const int fifo = open_pipe(argv[4]);
        measure_sent(count, port, id, [&](uint64_t n) { (void)!::write(fifo, &n, sizeof n); });
    } else {
        (void)fprintf(stderr, "usage: can-latency tag|share|write|store|pipe PORT ID NAME COUNT\n");
        return 2;
    }
    return 0;
}
