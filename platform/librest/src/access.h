#ifndef KT_REST_ACCESS_H
#define KT_REST_ACCESS_H

#include <string_view>

/** Whether a Host header names this machine's loopback, or own_host, with any port or none. */
bool host_is_local(std::string_view host, std::string_view own_host);

/** Whether an Origin header names the host that the Host header names. */
bool origin_is_host(std::string_view origin, std::string_view host);

/** Whether an Authorization header carries the token. Its time says nothing about the token. */
bool bearer_is(std::string_view authorization, std::string_view token);

#endif
