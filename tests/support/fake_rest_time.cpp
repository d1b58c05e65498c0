#include "fake_rest_time.h"

#include <kt/rest_time.h>

#include <cstdio>

fake_rest_time g_fake_rest_time;

extern "C" {

int timed_intf_getlocaltimeval(timeval *now) {
    if (g_fake_rest_time.fails) {
        return -1;
    }
    *now = g_fake_rest_time.now;
    return 0;
}

int timed_intf_gettimestamp(const timeval *time, char *text, size_t size) {
    if (g_fake_rest_time.fails) {
        return -1;
    }
    g_fake_rest_time.formatted = *time;
    (void)snprintf(text, size, "%ld", static_cast<long>(time->tv_sec));
    return 0;
}

} // extern "C"
