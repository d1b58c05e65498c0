#ifndef KT_CAN_RECEPTION_H
#define KT_CAN_RECEPTION_H

#include "can/runtime.h"

/* The receiving half of the transaction engine. Port thread. */

/** Hand a data frame of the port's format to the transaction that expects it, if any does. */
void can_proprietary_receive_data(can_module *module, const can_frame &frame);

/** Time out every consumed frame whose deadline has passed. */
void can_proprietary_check_consume_timeout(can_module *module, uint32_t now);

#endif
