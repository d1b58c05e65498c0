#ifndef KT_PLATFORM_TERMINATION_H
#define KT_PLATFORM_TERMINATION_H

/**
 * Switch the termination resistor of a CAN controller through the kernel's interface settings.
 *
 * @retval  0  switched
 * @retval -1  errno: EOPNOTSUPP when the controller has none, else what the kernel said
 */
int set_termination(const char *interface, bool on);

/** The same over a routing socket that is open already. */
int set_termination_over(int route_socket, const char *interface, bool on);

#endif
