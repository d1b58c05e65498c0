#ifndef KT_TESTS_EXACT_TIME_H
#define KT_TESTS_EXACT_TIME_H

#include <chrono>
#include <ctime>

/** Unix time by the exact clock; time() reads one that begins a second some milliseconds later. */
inline time_t exact_time() {
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

#endif
