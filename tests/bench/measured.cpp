#include "measured.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name) (void)(name)
#endif

namespace {

void print_line(
    const measured_case &about, const char *quantity, double value, size_t runs, double spread) {
    (void)printf(R"({"case": "%s", "who": "%s", "quantity": "%s", "value": %.10g, "runs": %zu, )"
                 R"("spread": %.2f})"
                 "\n",
                 about.name.c_str(),
                 about.who,
                 quantity,
                 value,
                 runs,
                 spread);
}

} // namespace

void print_values(const measured_case &about, const char *quantity, std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    const double median =
        values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    const double range = values.back() - values.front();
    print_line(about, quantity, median, values.size(), median > 0 ? 50 * range / median : 0);
}

void print_value(const measured_case &about, const char *quantity, double value) {
    print_line(about, quantity, value, 1, 0);
}

double processor_us() {
    timespec time{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

bool is_counted() {
    return RUNNING_ON_VALGRIND != 0;
}

void counting_starts() {
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
}

void counting_ends(const std::string &name) {
    CALLGRIND_DUMP_STATS_AT(name.c_str());
    CALLGRIND_STOP_INSTRUMENTATION;
}
