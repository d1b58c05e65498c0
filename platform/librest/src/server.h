#ifndef KT_REST_SERVER_H
#define KT_REST_SERVER_H

#include "routes.h"
#include "settings.h"

struct rest_server;

/**
 * Listen and start the server thread.
 *
 * @param[out] out  release with server_stop(); untouched on failure
 * @retval REST_OK
 * @retval REST_NO_SERVER  also for a certificate or key that is no good; reported
 *
 * Throws std::bad_alloc.
 */
int server_start(const char *service, const rest_settings &settings, rest_server **out);

route_table &server_routes(rest_server &server);

/** Where it listens, with the port that it got. */
const address_text &server_address(const rest_server &server);

/** Let the running handler end and its answer leave, then close everything and release server. */
void server_stop(rest_server *server);

#endif
