#include "can/hash_table.h"

#include "can/module.h"
#include "core/log.h"

#include <cstdlib>

namespace {

uint32_t bucket_of(uint32_t id) {
    return (id ^ (id >> 16)) & (hash_bucket_count - 1);
}

void insert_all_frames(trans_list_node *node, hash_table &table) {
    for (const frame_info *frame = node->transaction->frames; frame != nullptr;
         frame = frame->next) {
        hash_table_insert(static_cast<uint32_t>(frame->config->canId), node, table);
    }
}

} // namespace

void hash_table_insert(uint32_t id, trans_list_node *node, hash_table &table) {
    auto *entry = static_cast<hash_node *>(malloc(sizeof(hash_node)));
    if (entry == nullptr) {
        log_error("hash node malloc fail\n");
        return;
    }
    hash_node *&head = table[bucket_of(id)];
    *entry = {id, node, head};
    head = entry;
}

trans_list_node *hash_table_find(const hash_table &table, uint32_t id) {
    const hash_node *entry = table[bucket_of(id)];
    while (entry != nullptr && entry->id != id) {
        entry = entry->next;
    }
    return entry == nullptr ? nullptr : entry->transaction;
}

void hash_table_free(hash_table &table) {
    for (hash_node *&head : table) {
        while (head != nullptr) {
            hash_node *next = head->next;
            free(head);
            head = next;
        }
    }
}

void can_module_build_tables(can_module *module) {
    for (const list_id id : {CONSUME, CONSUME_WITH_TIMEOUT}) {
        for (trans_list_node *node = head_of(module, id); node != nullptr; node = node->next) {
            insert_all_frames(node, module->receive_table);
        }
    }
    for (const list_id id : {PRODUCE_CYCLIC, PRODUCE_ON_CHANGE, PRODUCE_BOOTUP}) {
        for (trans_list_node *node = head_of(module, id); node != nullptr; node = node->next) {
            if (node->transaction->config->triggerByRTR == 1) {
                insert_all_frames(node, module->remote_request_table);
            }
        }
    }
}
