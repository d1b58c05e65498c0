#ifndef KT_REST_ROUTES_H
#define KT_REST_ROUTES_H

#include <kt/rest.h>

#include <array>
#include <mutex>
#include <string_view>

struct route {
    char path[REST_PATH_MAX + 1];
    size_t length; // of the path
    int method;
    rest_callback callback;
};

/** Registrations. Any thread; the lock is held for a look-up or an addition only. */
struct route_table {
    std::mutex mutex;
    std::array<route, REST_ROUTES_MAX> rows; // guarded by mutex
    size_t count = 0;                        // guarded by mutex
};

/** What the longest registered path that matches offers. */
struct route_match {
    unsigned methods = 0;             // bit n stands for rest_method n; 0: no path matches
    rest_callback callback = nullptr; // for the method asked for
};

/** @retval REST_OK, REST_BAD_ARGUMENT, REST_ALREADY_THERE, REST_TABLE_FULL */
int routes_add(route_table &table, std::string_view path, int method, rest_callback callback);

/** @param path  below the base, without query */
route_match routes_find(route_table &table, std::string_view path, int method);

/** rest_method of an HTTP method's name, 0 for others. */
int method_code(std::string_view name);

/** Text of an Allow header. */
struct allow_text {
    char text[48];
};
allow_text format_allow(unsigned methods);

#endif
