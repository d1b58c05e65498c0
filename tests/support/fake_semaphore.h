#ifndef KT_TESTS_FAKE_SEMAPHORE_H
#define KT_TESTS_FAKE_SEMAPHORE_H

#include <functional>
#include <string>
#include <vector>

/* semaphoreDown() and semaphoreUp() that can fail, and that record the locks taken. One thread. */

struct fake_semaphore {
    bool fails = false;
    std::vector<std::string> taken;
    int held = 0;
    std::function<void()> while_held; /* called when a lock has been taken */
};

extern fake_semaphore g_fake_semaphore;

#endif
