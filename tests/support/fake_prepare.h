#ifndef KT_TESTS_FAKE_PREPARE_H
#define KT_TESTS_FAKE_PREPARE_H

#include <functional>

/* sqlite3_prepare_v2() that lets a test act before each statement. One thread. */

struct fake_prepare {
    std::function<void()> before;
};

extern fake_prepare g_fake_prepare;

#endif
