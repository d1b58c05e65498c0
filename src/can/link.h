#ifndef KT_CAN_LINK_H
#define KT_CAN_LINK_H

#include "can/runtime.h"

#include <cstdint>

/* The port's network interface and its socket. Port thread. */

/**
 * Configure the interface by the port's settings and wait the initial delay, which a stop or
 * restart cuts short. Nothing is reported: what does not work shows at the socket.
 */
void can_link_bring_up(can_module *module, const char *name);

/**
 * Open the raw socket on the port's interface.
 * @param[out] socket  the descriptor, negative when there is none; stored in the module on success
 * @retval 0 @retval -1 no such port, no such interface, or no socket (logged where the cause shows)
 */
int can_fd_init(int32_t port_index, int32_t *socket);

/**
 * Follow a failed receive: an interface that is gone is looked for from then on. The kernel's
 * socket tells so once and then gives the frames that it has queued; one that tells again would be
 * readable for ever and is closed.
 */
void can_link_note_error(can_module *module, int error);

/** Take a returned interface back into service. Once a second while one is missing. */
void can_link_recover(can_module *module, uint32_t now);

/** Log the frames that the socket has dropped since the last call for want of buffer. */
void can_link_check_loss(can_module *module);

/**
 * Run a command through the shell and wait for it. Unlike system() this leaves the signal handlers
 * of the process in force meanwhile. @return its wait status, -1 when it could not be started
 */
int run_command(const char *command);

#endif
