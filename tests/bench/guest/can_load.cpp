// Puts frames on a bus:
//
//   can-load burst PORT COUNT FIRST-ID IDS [LENGTH]
//       at once, the identifiers from FIRST-ID in turn
//   can-load spaced PORT COUNT FIRST-ID IDS MICROSECONDS
//       one by one, with a pause before each

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

void send_burst(int socket, const load &load, uint8_t length) {
    std::array<can_frame, batch> frames{};
    std::array<iovec, batch> parts{};
    std::array<mmsghdr, batch> messages{};
    for (unsigned sent = 0; sent < load.count;) {
        const unsigned now = std::min(batch, load.count - sent);
        for (unsigned i = 0; i < now; i++) {
            frames[i] = frame_of(load, sent + i, length);
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

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 5 ? argv[1] : "";
    if (what != "burst" && (what != "spaced" || argc < 7)) {
        (void)fprintf(stderr, "usage: can-load burst|spaced PORT COUNT FIRST-ID IDS ...\n");
        return 2;
    }
    const int socket = open_can_to_send(argv[2]);
    const load load{number(argv[3]), number(argv[4]), number(argv[5])};
    if (what == "burst") {
        send_burst(socket, load, static_cast<uint8_t>(argc > 6 ? number(argv[6]) : 8));
    } else {
        send_spaced(socket, load, number(argv[6]));
    }
    return 0;
}
