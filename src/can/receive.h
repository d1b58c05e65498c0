#ifndef KT_CAN_RECEIVE_H
#define KT_CAN_RECEIVE_H

#include "can/runtime.h"

#include <cstdint>

/* One receive pass. Port thread. */

/**
 * Wait for a frame, a tag write or the next thing that is due, and take at most one frame.
 * @return result of the wait; 0 for a frame that was handled or dropped; -1 no module (logged)
 */
int can_rx_handler(can_module *module);

/** The same right after can_tx_handler(), whose reading of the clock still holds unless it sent. */
int can_rx_continue(can_module *module);

/** How long the pass may wait at most, in milliseconds, 0 to 1000. */
int32_t receive_wait_ms(const can_module *module, uint32_t now);

#endif
