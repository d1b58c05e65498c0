#include <kt/rest_time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

int timed_intf_getlocaltimeval(struct timeval *now) {
    return now && gettimeofday(now, nullptr) == 0 ? 0 : -1;
}

int timed_intf_gettimestamp(const struct timeval *time, char *text, size_t size) {
    constexpr size_t text_size = sizeof "YYYYMMDDhhmmss";
    if (!time || !text || size < text_size) {
        return -1;
    }
    tzset(); // localtime_r() alone would keep the time zone of the first call for ever
    struct tm local;
    if (!localtime_r(&time->tv_sec, &local)) {
        return -1;
    }
    const int year = local.tm_year + 1900;
    if (year < 0 || year > 9999) {
        return -1;
    }
    char built[64];
    (void)snprintf(built, // four-digit year checked above: always fits
                   sizeof built,
                   "%04d%02d%02d%02d%02d%02d",
                   year,
                   local.tm_mon + 1,
                   local.tm_mday,
                   local.tm_hour,
                   local.tm_min,
                   local.tm_sec);
    memcpy(text, built, text_size);
    return 0;
}
