// Load and latency for tests that run long: a node on a CAN port, a client of the tags, or both.
//
//   load-node send PORT RATE ID[,ID...] [DATA]   frames; DATA in hexadecimal, else a running number
//   load-node write RATE TAG...                  values into tags, in turn
//   load-node in PORT ID TAG RATE                frame on the bus until the tag shows its value
//   load-node out PORT ID TAG RATE               tag write until the frame is on the bus
//
// ID is the kernel's identifier with its flags, in hexadecimal; RATE is per second, 0 without a
// pause. Ends with SIGTERM and prints what was done. The last two print a line for each try: the
// microseconds, or "lost" after thirty seconds. Their values are 32-bit little-endian in the first
// bytes of the frame.

#include <kt/dx_client.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t second_ns = 1'000'000'000;
constexpr int64_t answer_limit_ns = 30 * second_ns;

std::atomic<bool> stopped{false};

using arguments = std::vector<std::string_view>;

[[noreturn]] void give_up(const char *what) {
    (void)fprintf(stderr, "load-node: %s: %s\n", what, strerror(errno));
    exit(1);
}

int64_t now_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second_ns + now.tv_nsec;
}

void pause_ns(int64_t length) {
    const timespec pause{static_cast<time_t>(length / second_ns),
                         static_cast<long>(length % second_ns)};
    (void)nanosleep(&pause, nullptr);
}

uint32_t number(std::string_view text, int base = 10) {
    uint32_t value = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), value, base);
    return value;
}

/** Lets a loop run RATE times a second on average; late rounds are made up for. */
class pace {
public:
    explicit pace(uint32_t rate) : rate_(rate), start_(now_ns()) {}

    void wait() {
        rounds_++;
        if (rate_ == 0) {
            return;
        }
        const int64_t due = start_ + rounds_ * second_ns / rate_;
        // Several rounds fit into the shortest pause of a kernel.
        constexpr int64_t shortest_ns = 500'000;
        if (const int64_t left = due - now_ns(); left > shortest_ns) {
            pause_ns(left);
        }
    }

private:
    int64_t rate_;
    int64_t start_;
    int64_t rounds_ = 0;
};

int open_port(std::string_view name) {
    const int fd = socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(std::string(name).c_str()));
    if (fd < 0 || address.can_ifindex == 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        give_up("CAN port");
    }
    return fd;
}

/** Only frames with this identifier, or none at all. */
void listen_to(int fd, std::optional<canid_t> id) {
    const can_filter filter{id.value_or(0), CAN_EFF_FLAG | CAN_RTR_FLAG | CAN_EFF_MASK};
    const socklen_t length = id ? sizeof filter : 0;
    if (setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, length) != 0) {
        give_up("filter");
    }
}

/** Send, waiting while the queue is full or the port is down. @return false when stopped before */
bool send_patiently(int fd, const can_frame &frame, uint64_t &refused) {
    while (write(fd, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
        if (errno != ENOBUFS && errno != EAGAIN && errno != ENETDOWN && errno != EINTR) {
            give_up("send");
        }
        refused++;
        pause_ns(errno == ENETDOWN ? 10'000'000 : 1'000'000);
        if (stopped) {
            return false;
        }
    }
    return true;
}

can_frame numbered_frame(canid_t id, uint32_t value) {
    can_frame frame{};
    frame.can_id = id;
    frame.len = CAN_MAX_DLEN;
    memcpy(frame.data, &value, sizeof value);
    return frame;
}

can_frame fixed_frame(std::string_view digits) {
    can_frame frame{};
    frame.len = static_cast<uint8_t>(std::min<size_t>(digits.size() / 2, CAN_MAX_DLEN));
    for (size_t i = 0; i < frame.len; i++) {
        frame.data[i] = static_cast<uint8_t>(number(digits.substr(2 * i, 2), 16));
    }
    return frame;
}

std::vector<canid_t> identifiers(std::string_view list) {
    std::vector<canid_t> found;
    while (!list.empty()) {
        const size_t comma = std::min(list.find(','), list.size());
        found.push_back(number(list.substr(0, comma), 16));
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return found;
}

int send_frames(const arguments &given) {
    const int fd = open_port(given[0]);
    listen_to(fd, std::nullopt);
    const std::vector<canid_t> ids = identifiers(given[2]);
    pace rounds(number(given[1]));
    uint64_t refused = 0;
    uint32_t sent = 0;
    while (!stopped) {
        can_frame frame = given.size() > 3 ? fixed_frame(given[3]) : numbered_frame(0, sent);
        frame.can_id = ids[sent % ids.size()];
        sent += send_patiently(fd, frame, refused) ? 1 : 0;
        rounds.wait();
    }
    (void)printf("sent %u refused %llu\n", sent, static_cast<unsigned long long>(refused));
    return 0;
}

dx_client *open_store() {
    dx_client *client = nullptr;
    if (dx_client_open(&client) != DX_OK) {
        give_up("tag store");
    }
    return client;
}

/** A tag that comes and goes with the passes of the service. */
class store_tag {
public:
    store_tag(dx_client *client, std::string_view name) : client_(client), name_(name) {}

    bool write(uint32_t value) {
        std::array<uint8_t, DX_VALUE_MAX> bytes{};
        memcpy(bytes.data(), &value, sizeof value);
        return (stands() && dx_client_write(client_, &info_, bytes.data(), info_.size) == DX_OK) ||
               forget();
    }

    bool shows(uint32_t wanted) {
        dx_sample sample{};
        if (!stands() || dx_client_read(client_, &info_, &sample) != DX_OK) {
            return forget();
        }
        return memcmp(sample.value, &wanted, sizeof wanted) == 0;
    }

private:
    bool stands() {
        found_ = found_ || dx_client_find(client_, name_.c_str(), &info_) == DX_OK;
        return found_;
    }

    bool forget() {
        found_ = false;
        return false;
    }

    dx_client *client_;
    std::string name_;
    dx_tag_info info_{};
    bool found_ = false;
};

int write_tags(const arguments &given) {
    dx_client *client = open_store();
    std::vector<store_tag> tags;
    for (size_t i = 1; i < given.size(); i++) {
        tags.emplace_back(client, given[i]);
    }
    pace rounds(number(given[0]));
    uint32_t tries = 0;
    uint32_t written = 0;
    while (!stopped) {
        if (tags[tries % tags.size()].write(tries)) {
            written++;
        } else {
            pause_ns(1'000'000); // between two passes there is no tag
        }
        tries++;
        rounds.wait();
    }
    (void)printf("written %u of %u\n", written, tries);
    dx_client_close(client);
    return 0;
}

void report(std::optional<int64_t> taken_ns) {
    if (taken_ns) {
        (void)printf("%lld\n", static_cast<long long>(*taken_ns / 1000));
    } else {
        (void)puts("lost");
    }
    (void)fflush(stdout);
}

/** Poll until it accepts. @return time since start, nothing when it took too long */
template <typename Accepts>
std::optional<int64_t> time_until(int64_t start, Accepts accepts) {
    while (!stopped) {
        const bool accepted = accepts();
        const int64_t passed = now_ns() - start;
        if (accepted) {
            return passed;
        }
        if (passed > answer_limit_ns) {
            break;
        }
    }
    return std::nullopt;
}

template <typename Try>
int measure(uint32_t rate, Try attempt) {
    pace rounds(rate);
    for (uint32_t value = 1; !stopped; value++) {
        const std::optional<int64_t> taken = attempt(value);
        if (!stopped) {
            report(taken);
        }
        rounds.wait();
    }
    return 0;
}

int measure_in(const arguments &given) {
    const int fd = open_port(given[0]);
    listen_to(fd, std::nullopt);
    const canid_t id = number(given[1], 16);
    dx_client *client = open_store();
    store_tag tag(client, given[2]);
    return measure(number(given[3]), [&](uint32_t value) {
        const int64_t start = now_ns();
        uint64_t refused = 0;
        (void)send_patiently(fd, numbered_frame(id, value), refused);
        return time_until(start, [&] {
            if (tag.shows(value)) {
                return true;
            }
            pause_ns(20'000);
            return false;
        });
    });
}

/** Take what arrives within a moment. @return true when a frame begins with the value */
bool frame_arrives(int fd, uint32_t value) {
    constexpr int moment_ms = 100;
    pollfd wait{fd, POLLIN, 0};
    can_frame frame{};
    return poll(&wait, 1, moment_ms) > 0 &&
           read(fd, &frame, sizeof frame) == static_cast<ssize_t>(sizeof frame) &&
           memcmp(frame.data, &value, sizeof value) == 0;
}

int measure_out(const arguments &given) {
    const int fd = open_port(given[0]);
    listen_to(fd, number(given[1], 16));
    dx_client *client = open_store();
    store_tag tag(client, given[2]);
    return measure(number(given[3]), [&](uint32_t value) {
        const int64_t start = now_ns();
        const bool written = tag.write(value);
        return written ? time_until(start, [&] { return frame_arrives(fd, value); }) : std::nullopt;
    });
}

struct command {
    std::string_view name;
    size_t fewest;
    int (*run)(const arguments &);
};

constexpr std::array<command, 4> commands = {{
    {"send", 3, send_frames},
    {"write", 2, write_tags},
    {"in", 4, measure_in},
    {"out", 4, measure_out},
}};

void stop_on(int number) {
    struct sigaction action {};
    action.sa_handler = [](int) { stopped = true; };
    (void)sigaction(number, &action, nullptr);
}

} // namespace

int main(int count, char **values) {
    stop_on(SIGTERM);
    stop_on(SIGINT);
    const arguments given(values + std::min(count, 2), values + count);
    for (const command &known : commands) {
        if (count > 1 && known.name == values[1] && given.size() >= known.fewest) {
            return known.run(given);
        }
    }
    (void)fprintf(stderr, "load-node: see the head of its source\n");
    return 2;
}
