#ifndef KT_TESTS_HTTP_CLIENT_H
#define KT_TESTS_HTTP_CLIENT_H

#include "configuration.h"

/** Send a request to the service that listens on this loopback port. @return status, 0 without one
 */
int send_request(int port, const step &wanted);

#endif
