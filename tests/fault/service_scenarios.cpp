#include "core/state.h"
#include "scenario.h"

#include <kt/dx_client.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/* The whole service in this process: its start, and what reaches a port that runs. */

int service_main(int argc, char **argv);

namespace {

std::atomic<bool> has_ended{false};
int end_status = 0;

void serve(void * /*unused*/) {
    char name[] = "kt-can-proprietary";
    char *arguments[] = {name, nullptr};
    end_status = service_main(1, arguments);
    has_ended.store(true);
}

std::string port_name(const attempt &attempt) {
    return "can" + std::to_string(attempt.port);
}

void prepare(const scenario &scenario, const attempt &attempt) {
    (void)setenv("KT_REST_LISTEN", "127.0.0.1:0", 1);
    const std::string ports = port_name(attempt) + (scenario.has_absent_port ? ",absent0" : "");
    (void)setenv("KT_CAN_PORTS", ports.c_str(), 1);
    scene::enter(attempt.root);
}

void pause_ms(int ms) {
    const timespec pause{0, ms * 1000000L};
    (void)nanosleep(&pause, nullptr);
}

template <typename Condition>
bool wait_until(Condition condition) {
    constexpr int rounds = 10000;
    for (int i = 0; i < rounds; i++) {
        if (condition()) {
            return true;
        }
        pause_ms(1);
    }
    return false;
}

/** The signal goes to the port thread, which waits up to a second otherwise. */
bool stop_service(const attempt &attempt) {
    const int port = thread_named((port_name(attempt) + "-port").c_str());
    (void)syscall(SYS_tgkill, getpid(), port != 0 ? port : getpid(), SIGTERM);
    if (!wait_until([] { return has_ended.load(); })) {
        return false;
    }
    injection::join_subject();
    return true;
}

bool is_whole(const attempt &attempt) {
    return ask(attempt.root, {"GET", "/overview"}).status == 200 &&
           thread_named((port_name(attempt) + "-port").c_str()) != 0;
}

void end_service(const attempt &attempt, outcome &out) {
    if (!stop_service(attempt)) {
        find(out, "the service does not stop");
    } else if (end_status != 0) {
        find(out, "status at the end: " + std::to_string(end_status));
    }
}

/** With the fault met, until all is quiet or the service has ended */
void finish_fault(outcome &out) {
    const bool quiet = wait_until([] { return has_ended.load() || settle(); });
    out.happened = injection::disarm();
    out.seen = injection::seen();
    out.is = verdict::REFUSED;
    if (!quiet) {
        find(out, "the service does not come to rest");
    }
    if (has_ended.load() && end_status != -1 && end_status != 0) {
        find(out, "status at the end: " + std::to_string(end_status));
    }
}

void start_with_fault(const scenario &scenario, const attempt &attempt, outcome &out) {
    prepare(scenario, attempt);
    injection::arm(attempt.plan);
    injection::start_subject(serve, nullptr);
    finish_fault(out);
    if (has_ended.load()) {
        return; // ends without cleaning up, on purpose
    }
    if (is_whole(attempt)) {
        out.is = verdict::SUCCEEDED;
    }
    end_service(attempt, out);
    out.live = heap::live();
    if (attempt.live != 0 && out.live > attempt.live) {
        find(out,
             "blocks: " + std::to_string(attempt.live) + " as a rule, " + std::to_string(out.live) +
                 " left");
    }
    if (injection::is_telling()) {
        heap::print_later_than(0);
    }
}

using life = void (*)(const scenario &scenario, const attempt &attempt, outcome &out);

/** In a process of its own: a start cannot be taken back. */
void live_in_child(life lives, const scenario &scenario, const attempt &attempt, outcome &out) {
    const pid_t child = fork();
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL); // one that hangs goes with its attempt
        lives(scenario, attempt, out);
        _exit(0);
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (status != 0) {
        find(out, "the service ended by signal " + std::to_string(WTERMSIG(status)));
    }
}

/** A schema that cannot be read counts as another one, and a migration drops edits. */
std::string without_edits(const std::string &rows) {
    const std::string working = "working\n";
    const std::string before = rows.substr(0, rows.find(working));
    return before + working + before.substr(std::string("applied\n").size());
}

void start_again(const scenario &scenario, const attempt &attempt, outcome &out) {
    prepare(scenario, attempt);
    injection::start_subject(serve, nullptr);
    if (!wait_until([&] { return has_ended.load() || (settle() && is_whole(attempt)); }) ||
        has_ended.load()) {
        find(out, "does not start without a fault then");
        return;
    }
    end_service(attempt, out);
    const std::string rows = scene::content(attempt.root);
    (void)snprintf(out.content, sizeof out.content, "%s", rows.c_str());
    const bool may_be_old = scenario.run == run_service_request && out.is != verdict::SUCCEEDED &&
                            rows == attempt.old_rows;
    if (!attempt.new_rows.empty() && rows != attempt.new_rows && !may_be_old &&
        rows != without_edits(attempt.new_rows)) {
        find(out, "other rows after the next start: " + rows);
    }
}

/** The service runs, and so do the tags of its port. */
bool start_whole(const scenario &scenario, const attempt &attempt, outcome &out) {
    prepare(scenario, attempt);
    injection::start_subject(serve, nullptr);
    if (!wait_until([&] { return has_ended.load() || (settle() && is_whole(attempt)); }) ||
        has_ended.load()) {
        find(out, "the service does not start");
        return false;
    }
    if (ask(attempt.root, {"POST", "/traffic/1", R"({"option":1})"}).status != 201) {
        find(out, "traffic cannot be recorded");
        return false;
    }
    (void)settle();
    return true;
}

int open_bus(const attempt &attempt) {
    const int fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(port_name(attempt).c_str()));
    (void)bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    return fd;
}

void send_load(int bus, uint8_t value) {
    can_frame frame{};
    frame.can_id = 0x181;
    frame.can_dlc = 8;
    frame.data[0] = value;
    (void)write(bus, &frame, sizeof frame);
}

/** Whether a frame of that identifier with that first byte comes before the bus is silent */
bool comes_by(int bus, canid_t id, uint8_t value, int deadline_ms) {
    for (;;) {
        pollfd watched{bus, POLLIN, 0};
        can_frame frame{};
        if (poll(&watched, 1, deadline_ms) <= 0 || read(bus, &frame, sizeof frame) <= 0) {
            return false;
        }
        if (frame.can_id == id && frame.data[0] == value) {
            return true;
        }
    }
}

class tag_client {
public:
    explicit tag_client(const char *name) {
        (void)dx_client_open(&client_);
        // A port's tags come a moment after its thread.
        (void)wait_until([&] { return dx_client_find(client_, name, &info_) == DX_OK; });
    }
    ~tag_client() { dx_client_close(client_); }
    tag_client(const tag_client &) = delete;
    tag_client &operator=(const tag_client &) = delete;

    [[nodiscard]] bool comes_to(uint8_t value, int deadline_ms) const {
        for (int i = 0; i < deadline_ms; i++) {
            dx_sample sample{};
            if (dx_client_read(client_, &info_, &sample) == DX_OK && sample.value[0] == value) {
                return true;
            }
            pause_ms(1);
        }
        return false;
    }
    void write(uint8_t value) const {
        const uint8_t bytes[2] = {value, 0};
        (void)dx_client_write(client_, &info_, bytes, sizeof bytes);
    }

private:
    dx_client *client_ = nullptr;
    dx_tag_info info_{};
};

void check_traffic(const attempt &attempt, outcome &out) {
    const http_answer answer = ask(attempt.root, {"GET", "/traffic/1"});
    if (answer.status != 200) {
        find(out, "traffic cannot be read: " + std::to_string(answer.status) + answer.body);
    }
}

/**
 * @param cause   something with a value, of which effect(value, deadline_ms) must tell
 */
template <typename Cause, typename Effect>
void meet(const attempt &attempt, outcome &out, Cause cause, Effect effect) {
    constexpr int long_ms = 10000;
    constexpr int short_ms = 100; // the fault may keep it from coming
    cause(uint8_t{1});
    if (!effect(uint8_t{1}, long_ms)) {
        find(out, "nothing comes of it without a fault");
        return;
    }
    check_traffic(attempt, out);
    (void)settle();
    const int64_t live = heap::live();
    const int descriptors = open_descriptors();
    const uint64_t latest = heap::latest();
    injection::arm(attempt.plan);
    cause(uint8_t{2});
    out.is = effect(uint8_t{2}, short_ms) ? verdict::SUCCEEDED : verdict::REFUSED;
    const bool quiet = settle();
    out.happened = injection::disarm();
    out.seen = injection::seen();
    if (!quiet) {
        find(out, "the service does not come to rest");
    }
    cause(uint8_t{3});
    if (!effect(uint8_t{3}, long_ms)) {
        find(out, "nothing comes of it without a fault then");
    }
    check_traffic(attempt, out);
    (void)settle();
    if (heap::live() != live) {
        find(out,
             "blocks: " + std::to_string(live) + " before, " + std::to_string(heap::live()) +
                 " left");
        if (injection::is_telling()) {
            heap::print_later_than(latest);
        }
    }
    if (open_descriptors() != descriptors) {
        find(out, "descriptors left");
    }
}

void request_with_fault(const scenario &scenario, const attempt &attempt, outcome &out) {
    if (!start_whole(scenario, attempt, out)) {
        return;
    }
    injection::arm(attempt.plan);
    constexpr int patience_ms = 700;
    const http_answer answer =
        ask(attempt.root, scenario.request, patience_ms, [] { (void)injection::disarm(); });
    finish_fault(out);
    if (answer.status == scenario.status) {
        out.is = out.is == verdict::FINDING ? out.is : verdict::SUCCEEDED;
    } else if (answer.status != 0 && answer.status != 400 && answer.status != 500 &&
               answer.status != 503) {
        find(out, "undocumented answer: " + std::to_string(answer.status) + answer.body);
    }
    if (has_ended.load()) {
        return; // as when it starts
    }
    if (!wait_until([&] { return has_ended.load() || (settle() && is_whole(attempt)); })) {
        find(out, "no port and no server behind it");
    }
    end_service(attempt, out);
}

void stop_with_fault(const scenario &scenario, const attempt &attempt, outcome &out) {
    if (!start_whole(scenario, attempt, out)) {
        return;
    }
    injection::arm(attempt.plan);
    end_service(attempt, out);
    out.happened = injection::disarm();
    out.seen = injection::seen();
    out.is = out.is == verdict::FINDING ? out.is : verdict::SUCCEEDED;
}

void note_rows(const attempt &attempt, outcome &out) {
    const std::string rows = scene::content(attempt.root);
    (void)snprintf(out.content, sizeof out.content, "%s", rows.c_str());
}

} // namespace

void run_start(const scenario &scenario, const attempt &attempt, outcome &out) {
    live_in_child(start_with_fault, scenario, attempt, out);
    start_again(scenario, attempt, out);
}

/** A request that the running service meets; it may begin a new pass. */
void run_service_request(const scenario &scenario, const attempt &attempt, outcome &out) {
    live_in_child(request_with_fault, scenario, attempt, out);
    start_again(scenario, attempt, out);
}

void run_stop(const scenario &scenario, const attempt &attempt, outcome &out) {
    live_in_child(stop_with_fault, scenario, attempt, out);
    start_again(scenario, attempt, out);
}

void run_frame(const scenario &scenario, const attempt &attempt, outcome &out) {
    if (!start_whole(scenario, attempt, out)) {
        return;
    }
    const int bus = open_bus(attempt);
    {
        const tag_client tag("can_proprietary/drive/state_load");
        meet(
            attempt,
            out,
            [&](uint8_t value) { send_load(bus, value); },
            [&](uint8_t value, int deadline_ms) { return tag.comes_to(value, deadline_ms); });
    }
    (void)close(bus);
    end_service(attempt, out);
    note_rows(attempt, out);
}

void run_tag_write(const scenario &scenario, const attempt &attempt, outcome &out) {
    if (!start_whole(scenario, attempt, out)) {
        return;
    }
    const int bus = open_bus(attempt);
    {
        const tag_client tag("can_proprietary/drive/send_speed");
        meet(
            attempt,
            out,
            [&](uint8_t value) { tag.write(value); },
            [&](uint8_t value, int deadline_ms) {
                return comes_by(bus, 0x201, value, deadline_ms);
            });
    }
    (void)close(bus);
    end_service(attempt, out);
    note_rows(attempt, out);
}
