#ifndef KT_REST_TIME_H
#define KT_REST_TIME_H

#include <stddef.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The wall clock.
 * @retval 0 read
 * @retval -1 NULL argument or the clock cannot be read
 */
int timed_intf_getlocaltimeval(struct timeval *now);

/**
 * Compact local date and time as "YYYYMMDDhhmmss", fit for a file name.
 *
 * @param[out] text  room for size bytes, at least 15
 * @retval  0  written
 * @retval -1  NULL argument, text too small, or the time cannot be converted; text untouched
 */
int timed_intf_gettimestamp(const struct timeval *time, char *text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
