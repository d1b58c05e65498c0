#ifndef KT_TESTS_BENCH_MEASURED_H
#define KT_TESTS_BENCH_MEASURED_H

#include <string>
#include <vector>

/*
 * Numbers of a benchmark program on its way out: one JSON object a line, as the drivers beside it
 * read them.
 */

/** What a number is about. */
struct measured_case {
    std::string name;
    const char *who;
};

/** The median of the values, their count and half their range in percent of the median. */
void print_values(const measured_case &about, const char *quantity, std::vector<double> values);
void print_value(const measured_case &about, const char *quantity, double value);

/** Microseconds of processor time of this thread so far. */
double processor_us();

/** Whether the program runs under callgrind, which is then to count what is between the two. */
bool is_counted();
void counting_starts();

/** Ends the counting and makes a file of it that bears the name. */
void counting_ends(const std::string &name);

#endif
