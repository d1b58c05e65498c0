#ifndef KT_CAN_TRANSACTION_LIST_H
#define KT_CAN_TRANSACTION_LIST_H

#include "can/runtime.h"

/* Runtime records of a port's enabled transactions. Port thread. */

/**
 * Build the records from the module's configuration, with their tags and diagnostic slots.
 * @retval  0
 * @retval -1  a row that cannot be served, or out of memory (logged); what was built stands in the
 *             lists and is released like a whole build
 */
int can_proprietary_transaction_list_init(can_module *module, uint32_t now);

/** Release every record of every list, each tag first withdrawn from the data-exchange service. */
void can_proprietary_transaction_list_free(can_module *module);

#endif
