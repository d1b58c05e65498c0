// The least that can be thought of for what a port thread does, each as a bare loop:
//
//   can-floor receive PORT         wait for the socket and an eventfd, take one frame

#include "can_socket.h"

#include <algorithm>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/select.h>

namespace {

/** The two system calls that a received frame takes. */
bool next_frame(int socket, int event, can_frame *frame) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    FD_SET(event, &readable);
    timeval timeout{1, 0};
    return select(std::max(socket, event) + 1, &readable, nullptr, nullptr, &timeout) > 0 &&
           FD_ISSET(socket, &readable) &&
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

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "receive" && argc == 3) {
        receive(argv[2]);
    }
    (void)fprintf(stderr, "usage: can-floor receive PORT\n");
    return 2;
}
