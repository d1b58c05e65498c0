#include "fake_sleep.h"

#include <ctime>

fake_sleep g_fake_sleep;

extern "C" int __wrap_nanosleep(const timespec *wanted, timespec * /*remaining*/) {
    g_fake_sleep.slept_ms.push_back(static_cast<long>(wanted->tv_sec) * 1000 +
                                    wanted->tv_nsec / 1000000);
    if (g_fake_sleep.during) {
        g_fake_sleep.during();
    }
    return 0;
}
