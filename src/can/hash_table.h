#ifndef KT_CAN_HASH_TABLE_H
#define KT_CAN_HASH_TABLE_H

#include "can/runtime.h"

#include <cstdint>

/* From CAN identifier to transaction. Port thread. */

/** Insert at the head of its chain; out of memory is logged and leaves the frame unreachable. */
void hash_table_insert(uint32_t id, trans_list_node *node, hash_table &table);

/** The transaction inserted last for that identifier, nullptr when there is none. */
trans_list_node *hash_table_find(const hash_table &table, uint32_t id);

void hash_table_free(hash_table &table);

/** Enter the consumed frames and the frames that answer remote requests. */
void can_module_build_tables(can_module *module);

#endif
