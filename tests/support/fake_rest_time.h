#ifndef KT_TESTS_FAKE_REST_TIME_H
#define KT_TESTS_FAKE_REST_TIME_H

#include <sys/time.h>

/* The time library. One thread. */

struct fake_rest_time {
    bool fails = false;
    timeval now{};
    timeval formatted{}; /* last time that was to become text */
};

extern fake_rest_time g_fake_rest_time;

#endif
