#include "can_socket.h"
#include "device.h"
#include "options.h"
#include "program/output.h"
#include "report.h"
#include "script.h"
#include "transmit.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <poll.h>
#include <sys/signalfd.h>

namespace {

constexpr std::array node_table{&drive_node, &sensor_node, &legacy_node};
constexpr int64_t longest_wait_ms = 60000;

int64_t clock_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool choose_nodes(const options &wanted, std::vector<const node_kind *> &nodes) {
    for (const std::string &name : wanted.nodes) {
        const auto *kind = std::find_if(
            node_table.begin(), node_table.end(), [&](const auto *k) { return name == k->name; });
        if (kind == node_table.end()) {
            (void)program::complain_of_usage("no such node: " + name);
            return false;
        }
        nodes.push_back(*kind);
    }
    return true;
}

/** Signals arrive through a descriptor, so that the loop has one place where it waits. */
int open_signals() {
    sigset_t signals;
    (void)sigemptyset(&signals); // none of the four can fail with these arguments
    (void)sigaddset(&signals, SIGINT);
    (void)sigaddset(&signals, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

/** @return false when the script ends the device */
bool run_script(device &unit, std::deque<script_step> &steps, int64_t now_ms) {
    while (!steps.empty() && steps.front().at_ms <= now_ms) {
        const script_step step = steps.front();
        steps.pop_front();
        switch (step.action) {
        case script_action::send:
            transmit_plain(unit, step.frame, now_ms);
            break;
        case script_action::silent:
            unit.fault.silent = step.value != 0;
            break;
        case script_action::late:
            unit.fault.late_ms = step.value;
            break;
        case script_action::wrong_length:
            unit.fault.wrong_length = step.value != 0;
            break;
        case script_action::wrong_constant:
            unit.fault.wrong_constant = step.value != 0;
            break;
        case script_action::exit:
            return false;
        }
    }
    return true;
}

/** Hand every received frame to every node. @return false when the port is gone */
bool receive_all(device &unit, const std::vector<const node_kind *> &nodes, int64_t now_ms) {
    can_frame frame{};
    io_result result = io_result::done;
    while ((result = receive_frame(unit.fd, unit.port, frame)) == io_result::done) {
        const bool extended = (frame.can_id & CAN_EFF_FLAG) != 0;
        if (extended != unit.extended || (frame.can_id & CAN_ERR_FLAG) != 0) {
            continue;
        }
        for (const node_kind *node : nodes) {
            node->receive(unit, frame, frame.can_id & CAN_EFF_MASK, now_ms);
        }
    }
    return result != io_result::lost;
}

struct due_result {
    int64_t next_ms; // when there is work again
    int status;      // to exit with, -1 to go on
};

due_result do_due_work(device &unit,
                       const std::vector<const node_kind *> &nodes,
                       std::deque<script_step> &steps,
                       int64_t now_ms) {
    const bool go_on = run_script(unit, steps, now_ms);
    int64_t next_ms = steps.empty() ? never_ms : steps.front().at_ms;
    for (const node_kind *node : nodes) {
        next_ms = std::min(next_ms, node->run(unit, now_ms));
    }
    int64_t flush_ms = never_ms;
    if (!flush_outbox(unit, now_ms, flush_ms)) {
        return {now_ms, 1};
    }
    return {std::min(next_ms, flush_ms), go_on ? -1 : 0};
}

int run_device(device &unit,
               const std::vector<const node_kind *> &nodes,
               std::deque<script_step> steps,
               int signals) {
    const int64_t start_ms = clock_ms();
    while (true) {
        const int64_t now_ms = clock_ms() - start_ms;
        const due_result due = do_due_work(unit, nodes, steps, now_ms);
        if (due.status >= 0) {
            return due.status;
        }
        if (program::output_abandoned()) {
            return program::output_status();
        }
        const int64_t wait_ms = std::clamp<int64_t>(due.next_ms - now_ms, 0, longest_wait_ms);
        std::array<pollfd, 2> fds{pollfd{unit.fd, POLLIN, 0}, pollfd{signals, POLLIN, 0}};
        if (poll(fds.data(), fds.size(), static_cast<int>(wait_ms)) < 0 && errno != EINTR) {
            return program::complain(program::status_failed,
                                     unit.port + ": poll: " + strerror(errno));
        }
        if (fds[1].revents != 0) {
            return 0;
        }
        if (fds[0].revents != 0 && !receive_all(unit, nodes, clock_ms() - start_ms)) {
            return 1;
        }
    }
}

std::deque<script_step> all_steps(const options &wanted, const std::vector<script_step> &script) {
    std::deque<script_step> steps(script.begin(), script.end());
    if (wanted.silent_after_ms >= 0) {
        const script_step fall_silent{wanted.silent_after_ms, script_action::silent, 1, {}};
        const auto place = std::find_if(steps.begin(), steps.end(), [&](const script_step &step) {
            return step.at_ms > fall_silent.at_ms;
        });
        steps.insert(place, fall_silent);
    }
    return steps;
}

int run_program(std::span<char *const> arguments) {
    options wanted;
    const int status = parse_options(arguments, wanted);
    if (status >= 0) {
        return status;
    }
    std::vector<const node_kind *> nodes;
    std::vector<script_step> script;
    if (!choose_nodes(wanted, nodes) ||
        (!wanted.script.empty() && read_script(wanted.script, script) != 0)) {
        return 2;
    }
    const unique_fd signals(open_signals());
    const unique_fd socket(open_can_socket(wanted.port));
    if (signals.get() < 0 || socket.get() < 0) {
        return 1;
    }
    device unit;
    unit.port = wanted.port;
    unit.fd = socket.get();
    unit.extended = wanted.extended;
    unit.json = wanted.json;
    unit.interval_ms = wanted.interval_ms;
    unit.fault = wanted.initial_faults;
    report_ready(unit, wanted.nodes);
    return run_device(unit, nodes, all_steps(wanted, script), signals.get());
}

} // namespace

int main(int argc, char *argv[]) {
    program::begin(program_name);
    program::ignore_closed_pipes();
    try {
        return run_program(std::span(argv, static_cast<size_t>(argc)).subspan(argc > 0 ? 1 : 0));
    } catch (const std::exception &error) {
        return program::complain(program::status_failed, error.what());
    }
}
