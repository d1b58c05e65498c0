// How cyclic frames keep their time:
//
//   can-period PORT FIRST-ID COUNT INTERVAL-MS SECONDS
//
// Takes the frames of COUNT identifiers for SECONDS after the first one, with the times at which
// the kernel had them, and prints: frames, identifiers that came twice at least; then in
// milliseconds how much the shortest, the longest and the mean period are longer than INTERVAL-MS,
// and how far an identifier is behind a schedule of INTERVAL-MS at the end, the mean and the
// farthest of them.

#include "can_socket.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>
#include <vector>

namespace {

constexpr double ns_per_ms = 1e6;

struct stamped_frame {
    canid_t id;
    int64_t time_ns; // 0 when there was none to receive
};

/** A frame of one identifier after the other. */
struct series {
    int64_t first_ns = 0;
    int64_t last_ns = 0;
    int64_t periods = 0;

    [[nodiscard]] double behind_ms(int64_t interval_ns) const {
        return static_cast<double>(last_ns - first_ns - periods * interval_ns) / ns_per_ms;
    }
};

struct span_of_periods {
    int64_t shortest_ns = std::numeric_limits<int64_t>::max();
    int64_t longest_ns = 0;
};

int64_t time_of(const msghdr &message) {
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(const_cast<msghdr *>(&message), part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
            timespec time{};
            memcpy(&time, CMSG_DATA(part), sizeof time);
            return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
        }
    }
    fail("no time of a frame");
}

stamped_frame receive(int socket) {
    can_frame frame{};
    alignas(cmsghdr) char control[64];
    iovec part{&frame, sizeof frame};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(socket, &message, 0) != static_cast<ssize_t>(sizeof frame)) {
        return {};
    }
    return {frame.can_id, time_of(message)};
}

int open_with_times(const char *port) {
    const int socket = open_can(port);
    const int on = 1;
    const timeval limit{10, 0};
    if (setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
        setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        fail(port);
    }
    return socket;
}

void note(series &one, span_of_periods &found, int64_t time_ns) {
    if (one.last_ns == 0) {
        one.first_ns = time_ns;
    } else {
        found.shortest_ns = std::min(found.shortest_ns, time_ns - one.last_ns);
        found.longest_ns = std::max(found.longest_ns, time_ns - one.last_ns);
        one.periods++;
    }
    one.last_ns = time_ns;
}

void print(const std::vector<series> &all, const span_of_periods &found, int64_t interval_ns) {
    int64_t periods = 0;
    int64_t frames = 0;
    int repeated = 0;
    double behind_ms = 0;
    double farthest_ms = -std::numeric_limits<double>::infinity();
    for (const series &one : all) {
        frames += one.last_ns != 0 ? one.periods + 1 : 0;
        if (one.periods > 0) {
            repeated++;
            periods += one.periods;
            behind_ms += one.behind_ms(interval_ns);
            farthest_ms = std::max(farthest_ms, one.behind_ms(interval_ns));
        }
    }
    if (periods == 0) {
        (void)fprintf(stderr, "no frame came twice\n");
        exit(1);
    }
    (void)printf("%lld %d %.4f %.4f %.4f %.3f %.3f\n",
                 static_cast<long long>(frames),
                 repeated,
                 static_cast<double>(found.shortest_ns - interval_ns) / ns_per_ms,
                 static_cast<double>(found.longest_ns - interval_ns) / ns_per_ms,
                 behind_ms / static_cast<double>(periods),
                 behind_ms / repeated,
                 farthest_ms);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 6) {
        (void)fprintf(stderr, "usage: can-period PORT FIRST-ID COUNT INTERVAL-MS SECONDS\n");
        return 2;
    }
    const auto first_id = static_cast<canid_t>(strtoul(argv[2], nullptr, 0));
    std::vector<series> all(strtoul(argv[3], nullptr, 0));
    const int64_t interval_ns = strtoll(argv[4], nullptr, 0) * 1000000;
    const int64_t length_ns = strtoll(argv[5], nullptr, 0) * 1000000000;
    const int socket = open_with_times(argv[1]);
    span_of_periods found;
    int64_t end_ns = std::numeric_limits<int64_t>::max();
    while (true) {
        const stamped_frame frame = receive(socket);
        if (frame.time_ns == 0 || frame.time_ns > end_ns) {
            break;
        }
        if (end_ns == std::numeric_limits<int64_t>::max()) {
            end_ns = frame.time_ns + length_ns;
        }
        if (frame.id - first_id < all.size()) {
            note(all[frame.id - first_id], found, frame.time_ns);
        }
    }
    print(all, found, interval_ns);
    return 0;
}
