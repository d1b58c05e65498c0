// The least that can be thought of for what a port thread does, each as a bare loop:
//
//   can-floor receive PORT         wait for the socket and an eventfd, take one frame
//   can-floor share PORT FILE      the same, and put the data where another process waits for it
//   can-floor record PORT PREFIX   the same, and append a line to each of two files below a lock
//   can-floor send PORT FILE       a thread takes what another process put there and wakes the one
//                                  that waits for the socket and an eventfd, which sends it
//   can-floor pipe PORT FIFO       the same without the thread: the wait is for the FIFO itself

#include "can_socket.h"
#include "shared_value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <thread>

namespace {

constexpr canid_t sent_id = 0x200;

/** Whether there is something to read after a wait for either. */
bool wait_for_either(int socket, int event, int wanted) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    FD_SET(event, &readable);
    timeval timeout{1, 0};
    return select(std::max(socket, event) + 1, &readable, nullptr, nullptr, &timeout) > 0 &&
           FD_ISSET(wanted, &readable);
}

/** The precedence that the service gives its port threads. */
void precede_others() {
    (void)setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), -5);
}

/** The two system calls that a received frame takes. */
bool next_frame(int socket, int event, can_frame *frame) {
    return wait_for_either(socket, event, socket) &&
           recvfrom(socket, frame, sizeof *frame, MSG_DONTWAIT, nullptr, nullptr) ==
               static_cast<ssize_t>(sizeof *frame);
}

[[noreturn]] void receive(const char *port) {
    const int socket = open_can(port);
    const int event = eventfd(0, EFD_CLOEXEC);
    can_frame frame;
    while (true) {
        (void)next_frame(socket, event, &frame);
    }
}

/** The bytes of a frame become a word in memory that another process maps and waits for. */
[[noreturn]] void share(const char *port, const char *path) {
    const int socket = open_can(port);
    const int event = eventfd(0, EFD_CLOEXEC);
    shared_value *shared = map_shared_value(path);
    precede_others();
    can_frame frame;
    while (true) {
        if (next_frame(socket, event, &frame)) {
            uint64_t value = 0;
            memcpy(&value, frame.data, sizeof value);
            shared->value.store(value, std::memory_order_relaxed);
            shared->changes.fetch_add(1, std::memory_order_release);
            (void)syscall(SYS_futex, &shared->changes, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
        }
    }
}

void send_value(int socket, const sockaddr_can &address, uint64_t value) {
    can_frame frame{};
    frame.can_id = sent_id;
    frame.len = sizeof value;
    memcpy(frame.data, &value, sizeof value);
    (void)sendto(socket,
                 &frame,
                 sizeof frame,
                 MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr *>(&address),
                 sizeof address);
}

sockaddr_can address_of(const char *port) {
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(port));
    return address;
}

/** Wakes the event's reader for each value that another process left in the shared word. */
[[noreturn]] void hand_on(shared_value *shared, std::atomic<uint64_t> *taken, int event) {
    uint32_t seen = shared->changes.load(std::memory_order_acquire);
    while (true) {
        (void)syscall(SYS_futex, &shared->changes, FUTEX_WAIT, seen, nullptr, nullptr, 0);
        const uint32_t changes = shared->changes.load(std::memory_order_acquire);
        if (changes == seen) {
            continue;
        }
        seen = changes;
        taken->store(shared->value.load(std::memory_order_relaxed), std::memory_order_release);
        constexpr uint64_t once = 1;
        if (write(event, &once, sizeof once) != static_cast<ssize_t>(sizeof once)) {
            fail("write");
        }
    }
}

[[noreturn]] void send(const char *port, const char *path) {
    const int socket = open_can(port);
    const int event = eventfd(0, EFD_CLOEXEC);
    const sockaddr_can address = address_of(port);
    std::atomic<uint64_t> taken{0};
    const std::thread thread(hand_on, map_shared_value(path), &taken, event);
    precede_others();
    uint64_t count = 0;
    while (true) {
        if (wait_for_either(socket, event, event) &&
            read(event, &count, sizeof count) == static_cast<ssize_t>(sizeof count)) {
            send_value(socket, address, taken.load(std::memory_order_acquire));
        }
    }
}

[[noreturn]] void send_from_pipe(const char *port, const char *path) {
    const int socket = open_can(port);
    const sockaddr_can address = address_of(port);
    (void)mkfifo(path, 0666);
    const int fifo = open(path, O_RDWR | O_CLOEXEC);
    if (fifo < 0) {
        fail(path);
    }
    precede_others();
    uint64_t value = 0;
    while (true) {
        if (wait_for_either(socket, fifo, fifo) &&
            read(fifo, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
            send_value(socket, address, value);
        }
    }
}

/** A line that grows at its end; the least that formatting can be. */
class line {
public:
    void put(char character) { text_[length_++] = character; }
    void text(std::string_view text) {
        for (const char character : text) {
            put(character);
        }
    }
    void number(unsigned number) {
        char *start = text_.data() + length_;
        length_ += static_cast<size_t>(std::to_chars(start, start + 10, number).ptr - start);
    }
    void hex(unsigned value, int digits) {
        for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
            put("0123456789ABCDEF"[value >> shift & 0xf]);
        }
    }
    void data(const can_frame &frame) {
        for (int i = 0; i < frame.len; i++) {
            hex(frame.data[i], 2);
            put(i + 1 < frame.len ? ' ' : '"');
        }
    }
    void seconds(const timespec &time) {
        number(static_cast<unsigned>(time.tv_sec));
        put('.');
        const auto thousandths = static_cast<unsigned>(time.tv_nsec / 1000000);
        put(static_cast<char>('0' + thousandths / 100));
        put(static_cast<char>('0' + thousandths / 10 % 10));
        put(static_cast<char>('0' + thousandths % 10));
    }
    [[nodiscard]] std::string_view view() const { return {text_.data(), length_}; }

private:
    std::array<char, 256> text_{};
    size_t length_ = 0;
};

line json_line(const can_frame &frame, const timespec &time) {
    line made;
    made.text("{\"time\":\"");
    made.seconds(time);
    made.text("\",\"direction\":1,\"canId\":");
    made.number(frame.can_id);
    made.text(",\"RTR\":0,\"dataLength\":");
    made.number(frame.len);
    made.text(",\"data\":\"");
    made.data(frame);
    made.text("}\n");
    return made;
}

line csv_line(const can_frame &frame, const timespec &time, unsigned row) {
    line made;
    made.number(row);
    made.text(",");
    made.seconds(time);
    made.text(",Receive,\"0x\"");
    made.hex(frame.can_id, 3);
    made.text(",Data frame,");
    made.number(frame.len);
    made.text(",\"");
    made.data(frame);
    made.text("\n");
    return made;
}

void append(const std::string &path, std::string_view text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0 || lseek(fd, 0, SEEK_END) < 0 ||
        write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("append");
    }
    (void)close(fd);
}

[[noreturn]] void record(const char *port, const std::string &prefix) {
    const int socket = open_can(port);
    const int event = eventfd(0, EFD_CLOEXEC);
    const int lock = open((prefix + ".lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
    const std::string json = prefix + ".json";
    const std::string csv = prefix + ".csv";
    can_frame frame;
    for (unsigned row = 1; true;) {
        if (!next_frame(socket, event, &frame)) {
            continue;
        }
        timespec now{};
        (void)clock_gettime(CLOCK_MONOTONIC, &now);
        (void)flock(lock, LOCK_EX);
        append(json, json_line(frame, now).view());
        append(csv, csv_line(frame, now, row++).view());
        (void)flock(lock, LOCK_UN);
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "receive" && argc == 3) {
        receive(argv[2]);
    }
    if (what == "share" && argc == 4) {
        share(argv[2], argv[3]);
    }
    if (what == "record" && argc == 4) {
        record(argv[2], argv[3]);
    }
    if (what == "send" && argc == 4) {
        send(argv[2], argv[3]);
    }
    if (what == "pipe" && argc == 4) {
        send_from_pipe(argv[2], argv[3]);
    }
    (void)fprintf(stderr,
                  "usage: can-floor receive PORT | share PORT FILE | record PORT PREFIX | "
                  "send PORT FILE | pipe PORT FIFO\n");
    return 2;
}
