#ifndef KT_DEVICE_LOCAL_TIME_H
#define KT_DEVICE_LOCAL_TIME_H

#include <cstddef>
#include <sys/time.h>

/** The wall clock. @retval 0 @retval -10 time library failure (logged) */
int can_proprietary_time_get_localtimeval(timeval *now);

/** Compact local date and time for file names. @retval 0 @retval -10 failure (logged) */
int can_proprietary_time_get_timestamp(const timeval *time, char *text, size_t size);

#endif
