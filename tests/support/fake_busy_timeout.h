#ifndef KT_TESTS_FAKE_BUSY_TIMEOUT_H
#define KT_TESTS_FAKE_BUSY_TIMEOUT_H

#include <atomic>
#include <functional>

/*
 * sqlite3_busy_timeout() that notes what the code under test asks for. Instead of that time a lock
 * is waited for by used_ms; 0 is kept.
 */

struct fake_busy_timeout {
    std::atomic<int> asked_ms{0};
    std::atomic<int> used_ms{50};
    std::atomic<int> waits{0};        /* waits in full, in vain */
    std::function<void()> after_wait; /* called by each of them */
};

extern fake_busy_timeout g_fake_busy_timeout;

#endif
