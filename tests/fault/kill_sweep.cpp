#include "core/log.h"
#include "death_scene.h"
#include "gateway_folder.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>
#include <vector>

/*
 * Sudden death of a process that does what the service does, in the middle of it, and what the next
 * process finds. See README.md.
 */

namespace {

constexpr std::array kinds = {
    scene_kind{"recorder", 30, 4000, 3000, make_recorder_scene},
    scene_kind{"provider", 20, 3000, 1500, make_provider_scene},
    scene_kind{"writer", 15, 2000, 300, make_writer_scene},
    scene_kind{"requests", 25, 30000, 6000, make_requests_scene},
    scene_kind{"start", 10, 12000, 1500, make_start_scene},
};

constexpr unsigned all_shares = 100;
constexpr unsigned findings_shown = 20;
constexpr uint64_t whole_count = 18000;

struct options {
    uint64_t seed = 1;
    uint64_t first = 0;
    uint64_t count = 2500;
    std::string scene;
};

struct tally {
    std::unique_ptr<scene> stage;
    std::array<uint64_t, 3> deaths{}; /* by moment */
    uint64_t by_itself = 0;
    uint64_t findings = 0;
    std::vector<double> starts_ms;
};

std::array<tally, kinds.size()> tallies;
std::array<char, 160> at_hand; /* what runs, for a hang */

void say_hang(int /*signal*/) {
    (void)!write(STDERR_FILENO, at_hand.data(), strlen(at_hand.data()));
    _exit(1);
}

double time_factor() {
    const char *text = getenv("KT_TIME_FACTOR");
    const double factor = text == nullptr ? 1 : atof(text);
    return factor >= 1 ? factor : 1;
}

double now_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

size_t choose_kind(const options &wanted, dice &random) {
    auto roll = static_cast<unsigned>(random.below(all_shares));
    for (size_t i = 0; i < kinds.size(); i++) {
        if (wanted.scene.empty() ? roll < kinds[i].share : wanted.scene == kinds[i].name) {
            return i;
        }
        roll -= wanted.scene.empty() ? kinds[i].share : 0;
    }
    (void)fprintf(stderr, "kill_sweep: no scene %s\n", wanted.scene.c_str());
    exit(2);
}

/** Early moments come more often: a start of something is where most is half done. */
uint64_t choose_length(dice &random, uint64_t longest) {
    return 1 + random.below(1 + random.below(longest));
}

death choose_death(const scene_kind &kind, dice &random) {
    const uint64_t roll = random.below(8);
    if (roll < 4) {
        return {moment::time, choose_length(random, kind.longest_us)};
    }
    const uint64_t calls = choose_length(random, kind.most_calls);
    return {roll < 6 ? moment::call : moment::half_write, calls};
}

void die_once(const scene_kind &kind, tally &sums, const death &how, dice &random) {
    if (sums.stage == nullptr) {
        sums.stage = kind.make();
    }
    scene &stage = *sums.stage;
    stage.prepare(random);
    const std::function<void()> beside = [&stage] { stage.beside(); };
    const ended end = run_until(
        how, [&] { return stage.work(random); }, stage.watches() ? beside : nullptr);
    const double start = now_ms();
    stage.start_again(random);
    sums.starts_ms.push_back(now_ms() - start);
    stage.judge(random);
    sums.deaths[static_cast<size_t>(how.when)] += end == ended::killed ? 1 : 0;
    sums.by_itself += end == ended::by_itself ? 1 : 0;
}

void run_cycle(const options &wanted, uint64_t cycle) {
    dice random(wanted.seed * 1000003 + cycle);
    const size_t index = choose_kind(wanted, random);
    const scene_kind &kind = kinds[index];
    const death how = choose_death(kind, random);
    (void)snprintf(at_hand.data(),
                   at_hand.size(),
                   "kill_sweep: cycle %llu (%s) hangs; again: --seed %llu --first %llu --count 1\n",
                   static_cast<unsigned long long>(cycle),
                   kind.name,
                   static_cast<unsigned long long>(wanted.seed),
                   static_cast<unsigned long long>(cycle));
    (void)alarm(static_cast<unsigned>(60 * time_factor()));
    tally &sums = tallies[index];
    try {
        die_once(kind, sums, how, random);
    } catch (const found &finding) {
        sums.findings++;
        constexpr std::array moments = {"us", "system call stops", "stops, half a write"};
        (void)fprintf(stderr,
                      "kill_sweep: cycle %llu, %s, death after %llu %s: %s\n"
                      "  again: --seed %llu --first %llu --count 1%s%s\n",
                      static_cast<unsigned long long>(cycle),
                      kind.name,
                      static_cast<unsigned long long>(how.after),
                      moments[static_cast<size_t>(how.when)],
                      finding.what(),
                      static_cast<unsigned long long>(wanted.seed),
                      static_cast<unsigned long long>(cycle),
                      wanted.scene.empty() ? "" : " --scene ",
                      wanted.scene.c_str());
        if (sums.stage != nullptr) {
            sums.stage->reset();
        }
    }
}

double percentile(std::vector<double> &sorted, unsigned part) {
    return sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, sorted.size() * part / 100)];
}

void print_kind(const scene_kind &kind, tally &sums) {
    std::sort(sums.starts_ms.begin(), sums.starts_ms.end());
    (void)printf("%-10s %7llu %7llu %10llu %9llu %8llu %8.2f %8.2f %8.2f %8.2f\n",
                 kind.name,
                 static_cast<unsigned long long>(sums.deaths[0]),
                 static_cast<unsigned long long>(sums.deaths[1]),
                 static_cast<unsigned long long>(sums.deaths[2]),
                 static_cast<unsigned long long>(sums.by_itself),
                 static_cast<unsigned long long>(sums.findings),
                 percentile(sums.starts_ms, 50),
                 percentile(sums.starts_ms, 95),
                 percentile(sums.starts_ms, 99),
                 percentile(sums.starts_ms, 100));
}

/** @return number of findings */
uint64_t print_table(const options &wanted) {
    (void)printf("%-10s %7s %7s %10s %9s %8s   next start in ms: p50, p95, p99, longest\n",
                 "scene",
                 "by time",
                 "by call",
                 "half write",
                 "by itself",
                 "findings");
    uint64_t killed = 0;
    uint64_t by_itself = 0;
    uint64_t findings = 0;
    for (size_t i = 0; i < kinds.size(); i++) {
        tally &sums = tallies[i];
        print_kind(kinds[i], sums);
        killed += sums.deaths[0] + sums.deaths[1] + sums.deaths[2];
        by_itself += sums.by_itself;
        findings += sums.findings;
    }
    (void)printf("kill_sweep: seed %llu, %llu killed, %llu ended before, %llu findings\n",
                 static_cast<unsigned long long>(wanted.seed),
                 static_cast<unsigned long long>(killed),
                 static_cast<unsigned long long>(by_itself),
                 static_cast<unsigned long long>(findings));
    return findings;
}

bool read_options(int argc, char **argv, options *wanted) {
    for (int i = 1; i < argc; i++) {
        const std::string name = argv[i];
        uint64_t *number = name == "--seed"    ? &wanted->seed
                           : name == "--count" ? &wanted->count
                           : name == "--first" ? &wanted->first
                                               : nullptr;
        if (name == "--all") {
            wanted->count = whole_count;
        } else if (i + 1 < argc && number != nullptr) {
            *number = strtoull(argv[++i], nullptr, 10);
        } else if (i + 1 < argc && name == "--scene") {
            wanted->scene = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    options wanted;
    if (!read_options(argc, argv, &wanted)) {
        (void)fprintf(
            stderr,
            "usage: kill_sweep [--all] [--seed N] [--count N] [--first N] [--scene NAME]\n");
        return 2;
    }
    const gateway_folder gateway("kt-kill");
    (void)setenv("KT_CANOPEN_XLOG_USER_LEVEL", "OFF", 0);
    log_init_from_environment();
    (void)signal(SIGALRM, say_hang);
    uint64_t findings = 0;
    for (uint64_t cycle = wanted.first; cycle < wanted.first + wanted.count; cycle++) {
        run_cycle(wanted, cycle);
        findings = 0;
        for (const tally &sums : tallies) {
            findings += sums.findings;
        }
        if (findings >= findings_shown) {
            (void)fprintf(stderr, "kill_sweep: enough\n");
            break;
        }
    }
    findings = print_table(wanted);
    for (tally &sums : tallies) {
        sums.stage.reset();
    }
    return findings == 0 ? 0 : 1;
}
