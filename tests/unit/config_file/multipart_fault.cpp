#include "multipart_fault.h"

#include <kt/rest.h>
#include <kt/rest_time.h>

#include <cstdio>

multipart_fault g_multipart_fault;

extern "C" {

int __real_mp_parse(mp_part **, const char *, size_t, const char *, size_t);
int __real_timed_intf_getlocaltimeval(timeval *);
int __real_timed_intf_gettimestamp(const timeval *, char *, size_t);

int __wrap_mp_parse(mp_part **parts,
                    const char *boundary,
                    size_t boundary_length,
                    const char *body,
                    size_t body_length) {
    return g_multipart_fault.no_part
               ? REST_OK
               : __real_mp_parse(parts, boundary, boundary_length, body, body_length);
}

int __wrap_timed_intf_getlocaltimeval(timeval *now) {
    return g_multipart_fault.no_time ? -1 : __real_timed_intf_getlocaltimeval(now);
}

int __wrap_timed_intf_gettimestamp(const timeval *time, char *text, size_t size) {
    const std::string &wanted = g_multipart_fault.timestamp;
    if (g_multipart_fault.no_timestamp) {
        return -1;
    }
    if (wanted.empty()) {
        return __real_timed_intf_gettimestamp(time, text, size);
    }
    (void)snprintf(text, size, "%s", wanted.c_str());
    return 0;
}

} // extern "C"
