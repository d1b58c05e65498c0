#ifndef KT_TESTS_CAN_CALLS_H
#define KT_TESTS_CAN_CALLS_H

#include <cstdint>
#include <functional>
#include <linux/can.h>
#include <optional>
#include <string>
#include <vector>

/*
 * System calls of a port, put in place by the linker's --wrap option: see kt_wrap() in
 * doubles.cmake. Until can_calls_reset() says otherwise they do what follows.
 *
 *   sendto          notes "send", or "refused" for a frame that it does not take
 *   select          never waits; the wanted time is kept
 *   nanosleep       moves the driven clock
 *   socket, bind, if_nametoindex, setsockopt
 *                   a CAN socket is one end of a socket pair
 *   eventfd, recvfrom, getsockopt
 *                   the system's own, unless told to fail
 */
struct can_call_settings {
    bool refuse_frames = false;
    std::vector<uint32_t> refused_ids;
    int select_errno = 0;
    std::function<void()> on_select;
    std::vector<int64_t> waits_ms;
    std::vector<int64_t> waits_us;
    std::optional<int64_t> waited_us; /* what select() then says to have waited */
    int socket_errno = 0;
    int bind_errno = 0;
    unsigned interface_index = 7; /* 0: no such interface */
    bool refuse_forced_buffer = false;
    int eventfd_errno = 0;
    int receive_errno = 0; /* once */
    bool no_memory_information = false;
    uint32_t dropped_frames = 0;
    std::function<void()> on_sleep;
    std::function<int()> transmit; /* in place of a transmit pass */
};

can_call_settings &can_calls();
void can_calls_reset();

/** The far end of the CAN socket made last, -1 for none. */
int can_calls_bus();

/** CAN frame as the journal shows it. */
std::string can_frame_text(const can_frame &frame);

#endif
