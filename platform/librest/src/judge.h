#ifndef KT_REST_JUDGE_H
#define KT_REST_JUDGE_H

#include "request.h"
#include "routes.h"

#include <cstdint>
#include <microhttpd.h>
#include <string>

/** What decides which requests reach a handler. */
struct judge_rules {
    std::string base;     // "/" and the service's name
    std::string token;    // empty: none needed
    std::string own_host; // address listened on, with brackets where it has them
    bool is_loopback;     // that address
    route_table *routes;
};

/** The headers that decide about a request; nullptr where it has none. */
struct request_head {
    const char *host = nullptr;
    const char *origin = nullptr;
    const char *authorization = nullptr;
    const char *content_length = nullptr;
    const char *transfer_encoding = nullptr;
    const char *expect = nullptr;
    bool is_doubled = false; // one of them stands there twice
};

request_head read_head(MHD_Connection *connection);

/** Bytes of the body that the head announces, 0 when it does not say. */
uint64_t announced_length(const request_head &head);

/**
 * Find the handler of a request: sets its callback and methods.
 * @return 0, or the HTTP status with which the request is refused
 */
int judge(const judge_rules &rules,
          const request_head &head,
          const char *method,
          rest_request &request);

#endif
