#ifndef KT_CAN_MODULE_H
#define KT_CAN_MODULE_H

#include "can/runtime.h"

#include <cstdint>

/** The record of a port index, nullptr (logged) when there is none. Any thread. */
can_module *can_module_get(int32_t port_index);

inline trans_list &list_of(can_module *module, list_id id) {
    return module->lists[id];
}

inline trans_list_node *head_of(const can_module *module, list_id id) {
    return module->lists[id].head;
}

/** Lower an earliest deadline, no_deadline at first, to a new one; right across the wrap. */
void lower_deadline(uint32_t &earliest, uint32_t deadline);

/** Append at the tail. */
void list_append(trans_list *list, trans_list_node *node);

/**
 * Insert after every node that is not due later: stable for equal times, right across the wrap and
 * for intervals of half a turn of the clock.
 */
void list_insert_by_time(trans_list *list, trans_list_node *node, uint32_t now);

/** Bring the cyclic lists, in the order of the configuration at first, into that order. */
void can_module_order_cyclic(can_module *module);

/** Unlink a node. @retval 0 @retval -1 missing argument (logged) or not in the list */
int can_proprietary_remove_list(trans_list *list, trans_list_node *node);

/**
 * Move a node from its home list to the tail of the queue of its kind.
 * @retval  0
 * @retval -1  missing argument or a kind without a queue (logged)
 * @retval -3  not in its home list
 */
int can_proprietary_move_to_wait_send(can_module *module, trans_list_node *entry);

#endif
