// Puts frames on a bus:
//
//   can-load burst PORT COUNT FIRST-ID IDS [LENGTH]
//       at once, the identifiers from FIRST-ID in turn
//   can-load spaced PORT COUNT FIRST-ID IDS MICROSECONDS
//       one by one, with a pause before each
//   can-load paced PORT RATE FIRST-ID IDS SECONDS [LENGTH | remote]
//       RATE frames a second, those of a millisecond together; prints the frames sent, the
//       nanoseconds they took and those of them that this program used

#include "can_socket.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <string_view>

namespace {

constexpr unsigned batch = 32;

struct load {
    unsigned count;
    unsigned first_id;
    unsigned ids;
    unsigned before = 0; // frames that were sent already
};

unsigned number(const char *text) {
    return static_cast<unsigned>(strtoul(text, nullptr, 0));
}

/** The bytes count up, so that every frame brings other values. */
can_frame frame_of(const load &load, unsigned n, uint8_t length) {
    can_frame frame{};
    frame.can_id = load.first_id + n % load.ids;
    frame.len = length;
    for (unsigned i = 0; i < length; i++) {
        frame.data[i] = static_cast<uint8_t>(n + i);
    }
    return frame;
}

void send_burst(int socket, const load &load, uint8_t length, bool remote) {
    std::array<can_frame, batch> frames{};
    std::array<iovec, batch> parts{};
    std::array<mmsghdr, batch> messages{};
    for (unsigned sent = 0; sent < load.count;) {
        const unsigned now = std::min(batch, load.count - sent);
        for (unsigned i = 0; i < now; i++) {
            frames[i] = frame_of(load, load.before + sent + i, length);
            frames[i].can_id |= remote ? CAN_RTR_FLAG : 0;
            parts[i] = {&frames[i], sizeof frames[i]};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int taken = sendmmsg(socket, messages.data(), now, 0);
        if (taken <= 0) {
            fail("sendmmsg");
        }
        sent += static_cast<unsigned>(taken);
    }
}

void send_spaced(int socket, const load &load, unsigned pause_us) {
    for (unsigned n = 0; n < load.count; n++) {
        const timespec pause{0, static_cast<long>(pause_us) * 1000};
        (void)nanosleep(&pause, nullptr);
        const can_frame frame = frame_of(load, n, 8);
        if (write(socket, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
            fail("write");
        }
    }
}

int64_t read_ns(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

void sleep_until_ns(int64_t moment) {
    const timespec end{static_cast<time_t>(moment / 1000000000),
                       static_cast<long>(moment % 1000000000)};
    (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
}

void send_paced(int socket, load load, unsigned seconds, uint8_t length, bool remote) {
    const unsigned rate = load.count;
    const int64_t start = read_ns(CLOCK_MONOTONIC);
    unsigned sent = 0;
    for (unsigned ms = 1; ms <= seconds * 1000; ms++) {
        sleep_until_ns(start + int64_t{ms} * 1000000);
        const auto due = static_cast<unsigned>(uint64_t{rate} * ms / 1000);
        load.count = due - sent;
        load.before = sent;
        send_burst(socket, load, length, remote);
        sent = due;
    }
    (void)printf("%u %lld %lld\n",
                 sent,
                 static_cast<long long>(read_ns(CLOCK_MONOTONIC) - start),
                 static_cast<long long>(read_ns(CLOCK_PROCESS_CPUTIME_ID)));
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 5 ? argv[1] : "";
    if ((what != "burst" && what != "spaced" && what != "paced") || (what != "burst" && argc < 7)) {
        (void)fprintf(stderr, "usage: can-load burst|spaced|paced PORT COUNT FIRST-ID IDS ...\n");
        return 2;
    }
    const int socket = open_can_to_send(argv[2]);
    const load load{number(argv[3]), number(argv[4]), number(argv[5])};
    constexpr uint8_t whole = 8;
    if (what == "burst") {
        const auto length = argc > 6 ? static_cast<uint8_t>(number(argv[6])) : whole;
        send_burst(socket, load, length, false);
    } else if (what == "spaced") {
        send_spaced(socket, load, number(argv[6]));
    } else {
        const bool remote = argc > 7 && std::string_view(argv[7]) == "remote";
        const auto length = remote     ? uint8_t{0}
                            : argc > 7 ? static_cast<uint8_t>(number(argv[7]))
                                       : whole;
        send_paced(socket, load, number(argv[6]), length, remote);
    }
    return 0;
}
