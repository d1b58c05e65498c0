#include "call_fault.h"

#include <kt/rest_time.h>
#include <parson.h>

#include <cstdio>
#include <sqlite3.h>

call_fault g_call_fault;

extern "C" {

int __real_sqlite3_exec(sqlite3 *db,
                        const char *sql,
                        int (*row)(void *, int, char **, char **),
                        void *context,
                        char **message);
int __real_timed_intf_getlocaltimeval(timeval *now);
int __real_timed_intf_gettimestamp(const timeval *time, char *text, size_t size);
int __real__Z31can_proprietary_traffic_get_logPP12json_value_ti(JSON_Value **log, int port);
int __real__Z39can_proprietary_traffic_init_start_timei(int port);

int __wrap_sqlite3_exec(sqlite3 *db,
                        const char *sql,
                        int (*row)(void *, int, char **, char **),
                        void *context,
                        char **message) {
    return g_call_fault.no_memory_for == sql ? SQLITE_NOMEM
                                             : __real_sqlite3_exec(db, sql, row, context, message);
}

int __wrap__Z39can_proprietary_traffic_init_start_timei(int port) {
    return g_call_fault.no_start_time ? -1
                                      : __real__Z39can_proprietary_traffic_init_start_timei(port);
}

int __wrap_timed_intf_getlocaltimeval(timeval *now) {
    return g_call_fault.no_time ? -1 : __real_timed_intf_getlocaltimeval(now);
}

int __wrap_timed_intf_gettimestamp(const timeval *time, char *text, size_t size) {
    if (g_call_fault.no_timestamp) {
        return -1;
    }
    if (g_call_fault.timestamp.empty()) {
        return __real_timed_intf_gettimestamp(time, text, size);
    }
    (void)snprintf(text, size, "%s", g_call_fault.timestamp.c_str());
    return 0;
}

int __wrap__Z31can_proprietary_traffic_get_logPP12json_value_ti(JSON_Value **log, int port) {
    return g_call_fault.no_log
               ? 0
               : __real__Z31can_proprietary_traffic_get_logPP12json_value_ti(log, port);
}

} // extern "C"
