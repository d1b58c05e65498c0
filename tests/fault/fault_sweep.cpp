#include "scenario.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/*
 * One fault at a time on whole paths of the service: the n-th allocation, the n-th system call.
 *
 *   fault_sweep [--all] [--calls] [--jobs N] [SCENARIO...]    (--calls: no allocations)
 *   fault_sweep SCENARIO --nth N [--lasting] [--error ENOSPC|EIO|EINTR|EMFILE|short]
 */

namespace {

struct variant {
    const char *name; /* as --error takes it; nullptr for allocations */
    injection::fault what;
    int error;
    bool lasting;
};

constexpr variant variants[] = {
    {nullptr, injection::fault::NO_MEMORY, 0, false},
    {nullptr, injection::fault::NO_MEMORY, 0, true},
    {"EIO", injection::fault::CALL_FAILS, EIO, false},
    {"EIO", injection::fault::CALL_FAILS, EIO, true},
    {"ENOSPC", injection::fault::CALL_FAILS, ENOSPC, false},
    {"ENOSPC", injection::fault::CALL_FAILS, ENOSPC, true},
    {"EINTR", injection::fault::CALL_FAILS, EINTR, false},
    {"EINTR", injection::fault::CALL_FAILS, EINTR, true},
    {"EMFILE", injection::fault::CALL_FAILS, EMFILE, false},
    {"EMFILE", injection::fault::CALL_FAILS, EMFILE, true},
    {"short", injection::fault::CALL_IS_SHORT, 0, false},
    {"short", injection::fault::CALL_IS_SHORT, 0, true},
};

constexpr unsigned attempt_seconds = 60;
constexpr uint32_t bounded_number = 8; /* of faults for each variant of a scenario */

struct options {
    bool all = false;
    bool calls_only = false;
    unsigned jobs = 2;
    unsigned seed = 1;
    uint32_t nth = 0;
    bool lasting = false;
    const char *error = nullptr;
    std::vector<const scenario *> chosen;
};

struct counts {
    uint32_t calls = 0;
    uint32_t injected = 0;
    uint32_t refused = 0;
    uint32_t untold = 0;
    uint32_t succeeded = 0;
    uint32_t findings = 0;

    void add(const counts &other) {
        calls += other.calls;
        injected += other.injected;
        refused += other.refused;
        untold += other.untold;
        succeeded += other.succeeded;
        findings += other.findings;
    }
};

template <typename T>
T *shared(size_t number) {
    void *memory = mmap(
        nullptr, number * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        perror("mmap");
        exit(2);
    }
    return static_cast<T *>(memory);
}

void silence() {
    if (freopen("/dev/null", "w", stderr) == nullptr ||
        freopen("/dev/null", "w", stdout) == nullptr) {
        _exit(2);
    }
    // Buffers that the first message takes would pass for leaks.
    (void)setvbuf(stderr, nullptr, _IONBF, 0);
    (void)puts("");
}

/** The faults of one scenario, each in a process of its own. */
class sweep {
public:
    sweep(const scenario &of, const options &how, const std::string &folder)
        : scenario_(of), options_(how), folder_(folder + "/" + of.name),
          outcomes_(shared<outcome>(how.jobs)), running_(how.jobs) {
        base_.fresh = folder_ + "/fresh";
        scene::make(of.gateway, base_.fresh);
        if (of.is_warm) {
            warm_up();
        }
    }

    /** See how it goes without a fault. @return false when that is a finding already */
    bool learn() {
        base_.old_rows = content_of(base_.fresh);
        const outcome first = alone({}, nullptr);
        if (first.is != verdict::SUCCEEDED) {
            printf("%s without a fault: %s\n", scenario_.name, first.text);
            return false;
        }
        base_.new_rows = first.content;
        base_.live = first.live;
        return true;
    }

    counts run(const variant &which) {
        counts result;
        const injection::plan never = {which.what, which.error, which.lasting, 0};
        result.calls = alone(never, &which).seen;
        stride_ = options_.all ? 1 : std::max(1U, result.calls / bounded_number);
        next_ = 1 + options_.seed * 7919 % stride_;
        last_ = result.calls;
        is_over_ = result.calls == 0;
        variant_ = &which;
        while (fill() > 0) {
            take_one(result);
        }
        return result;
    }

    outcome repeat(const injection::plan &plan, const variant &which) {
        return alone(plan, &which, true);
    }

private:
    struct job {
        pid_t child = 0;
        uint32_t nth = 0;
    };

    std::string content_of(const std::string &root) {
        outcome &out = outcomes_[0];
        const pid_t reader = fork();
        if (reader == 0) {
            (void)snprintf(out.content, sizeof out.content, "%s", scene::content(root).c_str());
            _exit(0);
        }
        (void)waitpid(reader, nullptr, 0);
        return out.content;
    }

    attempt attempt_in(size_t slot, const injection::plan &plan) const {
        attempt made = base_;
        made.root = folder_ + "/" + std::to_string(slot);
        made.port = static_cast<int>(slot);
        made.plan = plan;
        return made;
    }

    void start(size_t slot, const injection::plan &plan, bool is_watched, bool telling = false) {
        outcome &out = outcomes_[slot];
        memset(&out, 0, sizeof out);
        const pid_t child = fork();
        if (child == 0) {
            attempt made = attempt_in(slot, plan);
            (void)alarm(attempt_seconds);
            scene::copy(made.fresh, made.root);
            telling ? injection::tell_where() : silence();
            if (is_watched) {
                system_calls::watch();
            }
            scenario_.run(scenario_, made, out);
            _exit(0);
        }
        running_[slot] = {child, plan.nth};
    }

    /** Libraries keep what they allocate at their first use, the lock of each file among it. */
    void warm_up() {
        for (size_t slot = 0; slot < running_.size(); slot++) {
            const attempt made = attempt_in(slot, {});
            scene::copy(made.fresh, made.root);
            scenario_.run(scenario_, made, outcomes_[slot]);
        }
    }

    outcome alone(const injection::plan &plan, const variant *which, bool telling = false) {
        start(0, plan, which != nullptr && which->name != nullptr, telling);
        int status = 0;
        (void)waitpid(running_[0].child, &status, 0);
        running_[0].child = 0;
        judge_end(outcomes_[0], status);
        return outcomes_[0];
    }

    static void judge_end(outcome &out, int status) {
        if (WIFSIGNALED(status)) {
            out.is = verdict::NOTHING;
            find(out,
                 WTERMSIG(status) == SIGALRM ? std::string("hangs")
                                             : "crash: signal " + std::to_string(WTERMSIG(status)));
        } else if (out.is == verdict::NOTHING) {
            find(out, "ended on its way, status " + std::to_string(WEXITSTATUS(status)));
        }
    }

    /** @return number of attempts under way */
    size_t fill() {
        size_t busy = 0;
        for (size_t slot = 0; slot < running_.size(); slot++) {
            if (running_[slot].child == 0 && !is_over_) {
                const injection::plan plan = {
                    variant_->what, variant_->error, variant_->lasting, next_};
                start(slot, plan, variant_->name != nullptr);
                next_ += stride_;
            }
            busy += running_[slot].child != 0 ? 1 : 0;
        }
        return busy;
    }

    void take_one(counts &result) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, 0);
        const auto done = std::find_if(
            running_.begin(), running_.end(), [&](const job &j) { return j.child == ended; });
        if (done == running_.end()) {
            return;
        }
        outcome &out = outcomes_[done - running_.begin()];
        judge_end(out, status);
        done->child = 0;
        if (!out.happened && out.is != verdict::FINDING) {
            is_over_ = is_over_ || done->nth >= last_;
            return;
        }
        note(out, done->nth, result);
    }

    void note(const outcome &out, uint32_t nth, counts &result) {
        result.injected++;
        switch (out.is) {
        case verdict::SUCCEEDED:
            result.succeeded++;
            break;
        case verdict::REFUSED:
            result.refused++;
            break;
        case verdict::UNTOLD:
            result.untold++;
            break;
        default:
            result.findings++;
            printf("FINDING fault_sweep %s --nth %u%s%s%s: %s\n",
                   scenario_.name,
                   nth,
                   variant_->lasting ? " --lasting" : "",
                   variant_->name != nullptr ? " --error " : "",
                   variant_->name != nullptr ? variant_->name : "",
                   out.text);
            is_over_ = is_over_ || nth > 2 * last_ + 100; // no end in sight
            break;
        }
    }

    const scenario &scenario_;
    const options &options_;
    std::string folder_;
    outcome *outcomes_;
    std::vector<job> running_;
    attempt base_;
    const variant *variant_ = nullptr;
    uint32_t stride_ = 1;
    uint32_t next_ = 1;
    uint32_t last_ = 0;
    bool is_over_ = false;
};

void print_row(const char *name, const char *what, const counts &row) {
    printf("%-19s %-11s %9u %9u %9u %7u %9u %9u\n",
           name,
           what,
           row.calls,
           row.injected,
           row.refused,
           row.untold,
           row.succeeded,
           row.findings);
}

struct row {
    counts memory;
    counts calls;
};

/**
 * libmicrohttpd takes memory for each of its waits. A server thread without any tries again and
 * again until there is some, so where it is under test it never comes to rest.
 */
bool ends_by_itself(const scenario &which, const variant &fault) {
    const bool memory = fault.name == nullptr;
    return !(memory && fault.lasting && which.run == run_service_request);
}

void sweep_one(const scenario &which, const options &how, const std::string &folder, row &to) {
    sweep of_scenario(which, how, folder);
    if (!of_scenario.learn()) {
        to.memory.findings++;
        return;
    }
    const bool calls_seen = system_calls::missing() == nullptr;
    for (const variant &each : variants) {
        if ((each.name == nullptr && how.calls_only) || !ends_by_itself(which, each)) {
            continue;
        }
        if (each.name == nullptr) {
            to.memory.add(of_scenario.run(each));
        } else if (calls_seen) {
            to.calls.add(of_scenario.run(each));
        }
    }
}

/** A process for each scenario, so that none finds the libraries as another has left them. */
counts sweep_all(const options &how, const std::string &folder) {
    printf("%-19s %-11s %9s %9s %9s %7s %9s %9s\n",
           "scenario",
           "fault",
           "occasions",
           "injected",
           "refused",
           "untold",
           "succeeded",
           "findings");
    counts total;
    row &found = *shared<row>(1);
    for (const scenario *each : how.chosen) {
        found = {};
        const pid_t child = fork();
        if (child == 0) {
            sweep_one(*each, how, folder, found);
            _exit(0);
        }
        int status = 0;
        (void)waitpid(child, &status, 0);
        found.memory.findings += status == 0 ? 0 : 1;
        if (!how.calls_only || found.memory.findings > 0) {
            print_row(each->name, "allocation", found.memory);
        }
        print_row(each->name, "system call", found.calls);
        total.add(found.memory);
        total.add(found.calls);
    }
    if (const char *reason = system_calls::missing(); reason != nullptr) {
        printf("system calls: skipped, %s\n", reason);
    }
    return total;
}

int repeat_one(const options &how, const std::string &folder) {
    const scenario &which = *how.chosen.front();
    const auto kind = std::find_if(std::begin(variants), std::end(variants), [&](const variant &v) {
        return how.error == nullptr ? v.name == nullptr
                                    : v.name != nullptr && strcmp(v.name, how.error) == 0;
    });
    if (kind == std::end(variants)) {
        (void)fprintf(stderr, "no such error: %s\n", how.error);
        return 2;
    }
    sweep one(which, how, folder);
    if (!one.learn()) {
        return 1;
    }
    const outcome out = one.repeat({kind->what, kind->error, how.lasting, how.nth}, *kind);
    constexpr const char *texts[] = {"ended", "succeeded", "refused", "untold", "FINDING: "};
    printf("%s, %u occasions, the fault %s: %s%s\n",
           which.name,
           out.seen,
           out.happened ? "happened" : "did not happen",
           texts[static_cast<size_t>(out.is)],
           out.text);
    return out.is == verdict::FINDING ? 1 : 0;
}

[[noreturn]] void usage(int status) {
    (void)fprintf(
        status == 0 ? stdout : stderr,
        "usage: fault_sweep [--all] [--calls] [--jobs N] [--seed N] [SCENARIO...]\n"
        "       fault_sweep SCENARIO --nth N [--lasting] [--error EIO|ENOSPC|EINTR|EMFILE|short]\n"
        "scenarios:");
    for (const scenario &each : all_scenarios()) {
        (void)fprintf(status == 0 ? stdout : stderr, " %s", each.name);
    }
    (void)fprintf(status == 0 ? stdout : stderr, "\n");
    exit(status);
}

const scenario *scenario_named(const char *name) {
    for (const scenario &each : all_scenarios()) {
        if (strcmp(each.name, name) == 0) {
            return &each;
        }
    }
    (void)fprintf(stderr, "no such scenario: %s\n", name);
    usage(2);
}

uint32_t number_of(const char *text) {
    const unsigned long number = text == nullptr ? 0 : strtoul(text, nullptr, 10);
    if (number == 0 || number > UINT32_MAX) {
        usage(2);
    }
    return static_cast<uint32_t>(number);
}

options options_of(int argc, char **argv) {
    options how;
    for (int i = 1; i < argc; i++) {
        const std::string argument = argv[i];
        if (argument == "--all") {
            how.all = true;
        } else if (argument == "--calls") {
            how.calls_only = true;
        } else if (argument == "--lasting") {
            how.lasting = true;
        } else if (argument == "--jobs") {
            how.jobs = number_of(argv[++i]);
        } else if (argument == "--seed") {
            how.seed = number_of(argv[++i]);
        } else if (argument == "--nth") {
            how.nth = number_of(argv[++i]);
        } else if (argument == "--error" && i + 1 < argc) {
            how.error = argv[++i];
        } else if (argument == "--help") {
            usage(0);
        } else {
            how.chosen.push_back(scenario_named(argv[i]));
        }
    }
    if (how.nth != 0 && how.chosen.size() != 1) {
        usage(2);
    }
    return how;
}

} // namespace

int main(int argc, char **argv) {
    options how = options_of(argc, argv);
    if (how.chosen.empty()) {
        for (const scenario &each : all_scenarios()) {
            how.chosen.push_back(&each);
        }
    }
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // children must not print it again
    const std::string folder = scene::make_folder();
    int status = 0;
    if (how.nth != 0) {
        status = repeat_one(how, folder);
    } else {
        const counts total = sweep_all(how, folder);
        print_row("all", "", total);
        printf("fault_sweep: %u injected, %u refused, %u untold, %u succeeded all the same, "
               "%u findings\n",
               total.injected,
               total.refused,
               total.untold,
               total.succeeded,
               total.findings);
        status = total.findings == 0 ? 0 : 1;
    }
    scene::clear(folder);
    return status;
}
