#include "device/local_time.h"

#include "core/log.h"

#include <kt/rest_time.h>

int can_proprietary_time_get_localtimeval(timeval *now) {
    if (timed_intf_getlocaltimeval(now) != 0) {
        log_error("get time fail\n");
        return -10;
    }
    return 0;
}

int can_proprietary_time_get_timestamp(const timeval *time, char *text, size_t size) {
    if (timed_intf_gettimestamp(time, text, size) != 0) {
        log_error("get time fail\n");
        return -10;
    }
    return 0;
}
