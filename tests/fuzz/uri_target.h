#ifndef KT_TESTS_URI_TARGET_H
#define KT_TESTS_URI_TARGET_H

#include <string>

/** Check what the server takes from a request's target: proxies send it with scheme and host. */
void check_target(const std::string &target);

#endif
