#ifndef KT_REST_REPORT_H
#define KT_REST_REPORT_H

/** One line to standard error, "kt-rest: " before it; control characters become "?". */
[[gnu::format(printf, 1, 2)]] void report(const char *format, ...);

#endif
