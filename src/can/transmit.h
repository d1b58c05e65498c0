#ifndef KT_CAN_TRANSMIT_H
#define KT_CAN_TRANSMIT_H

#include "can/runtime.h"

/* The sending half of the transaction engine. Port thread. */

/** One transmit pass: everything that is due. @retval 0 @retval -1 no module (logged) */
int can_tx_handler(can_module *module);

/** Queue the on-change transactions whose tags were written. */
void check_dx_transaction(can_module *module);

#endif
