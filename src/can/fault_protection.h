#ifndef KT_CAN_FAULT_PROTECTION_H
#define KT_CAN_FAULT_PROTECTION_H

#include "can/runtime.h"

/* Fault values for sent tags that nobody updates. Port thread. */

/**
 * Put the fault value into every tag of a transaction's first frame that was not updated for
 * fpTimeout, and reckon when to look again. An on-change transaction whose value changed is marked
 * as changed and the port woken.
 */
void check_fault_protection(can_module *module, trans_list_node *node);

/** Check every node of a list that has fault protection. */
void check_transaction_list_fp(can_module *module, const trans_list *list);

/** Check all on-change transactions, if one may be due. */
void check_on_change_fp(can_module *module, uint32_t now);

#endif
