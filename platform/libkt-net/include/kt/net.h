#ifndef KT_NET_H
#define KT_NET_H

#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * IPv4 address of one of the gateway's network interfaces.
 *
 * @param interface     0-based position among the interfaces that are up and not loopback, in the
 *                      kernel's order
 * @param[out] address  network byte order; untouched on failure
 * @retval  0  found
 * @retval -1  no such interface, or it has no IPv4 address
 */
int net_get_my_ip(int interface, struct in_addr *address);

#ifdef __cplusplus
}
#endif

#endif
