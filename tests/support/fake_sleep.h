#ifndef KT_TESTS_FAKE_SLEEP_H
#define KT_TESTS_FAKE_SLEEP_H

#include <functional>
#include <vector>

/* nanosleep() that returns at once. One thread. */

struct fake_sleep {
    std::vector<long> slept_ms;
    std::function<void()> during; /* called by each sleep */
};

extern fake_sleep g_fake_sleep;

#endif
