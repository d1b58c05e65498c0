#ifndef KT_REST_ENDPOINTS_H
#define KT_REST_ENDPOINTS_H

/**
 * Start the REST library and register every endpoint, in the order of the table.
 *
 * Called once at start; rest_cleanup() undoes it at exit.
 *
 * @param service_name  "CAN-proprietary"
 * @param handle        location for the library's handle
 * @retval 0 all registered
 * @retval 1 failed (logged); the endpoints before the failing one stay registered
 */
int can_proprietary_rest_init(const char *service_name, void **handle);

#endif
