#include "can/module.h"

#include "core/log.h"
#include "core/state.h"
#include "device/clock.h"

#include <array>
#include <limits>
#include <utility>

namespace {

struct queue_rule {
    uint8_t type;
    uint8_t trigger;
    list_id queue;
};

constexpr std::array<queue_rule, 4> queue_rules = {{
    {TRANSACTION_PRODUCE, TRIGGER_CYCLIC, PRODUCE_CYCLIC_QUEUE},
    {TRANSACTION_REQUEST, TRIGGER_CYCLIC, REQUEST_CYCLIC_QUEUE},
    {TRANSACTION_PRODUCE, TRIGGER_ON_CHANGE, PRODUCE_CHANGE_QUEUE},
    {TRANSACTION_REQUEST, TRIGGER_ON_CHANGE, REQUEST_CHANGE_QUEUE},
}};

const queue_rule *find_queue(const transaction_config *config) {
    for (const queue_rule &rule : queue_rules) {
        if (rule.type == config->transactionType && rule.trigger == config->triggerMode) {
            return &rule;
        }
    }
    return nullptr;
}

/** Milliseconds until a node is due, negative when it is overdue; half a turn is still to come. */
int64_t time_left(const trans_list_node *node, uint32_t now) {
    const int64_t left = clock_difference(node->transaction->next_send, now);
    return left == std::numeric_limits<int32_t>::min() ? -left : left;
}

} // namespace

can_module *can_module_get(int32_t port_index) {
    can_module *module = g_can_module_list;
    const int32_t count = g_can_port_count.load(std::memory_order_relaxed);
    for (int32_t i = 0; i < count; i++) {
        if (module == nullptr) {
            log_error("can_module %d is NULL\n", i);
            return nullptr;
        }
        if (i == port_index) {
            return module;
        }
        module = module->next;
    }
    log_error("can_module %d is NULL\n", port_index);
    return nullptr;
}

void lower_deadline(uint32_t &earliest, uint32_t deadline) {
    const uint32_t usable = deadline == no_deadline ? deadline - 1 : deadline;
    if (earliest == no_deadline || clock_difference(usable, earliest) < 0) {
        earliest = usable;
    }
}

void list_append(trans_list *list, trans_list_node *node) {
    node->next = nullptr;
    if (list->tail == nullptr) {
        list->head = node;
    } else {
        list->tail->next = node;
    }
    list->tail = node;
}

void list_insert_by_time(trans_list *list, trans_list_node *node, uint32_t now) {
    // Seen from now, since two times may lie further apart than a difference can tell.
    const int64_t left = time_left(node, now);
    trans_list_node **link = &list->head;
    while (*link != nullptr && time_left(*link, now) <= left) {
        link = &(*link)->next;
    }
    if (*link == nullptr) {
        list_append(list, node);
        return;
    }
    node->next = *link;
    *link = node;
}

void can_module_order_cyclic(can_module *module) {
    const uint32_t now = sys_clock_ms();
    for (const list_id id : {PRODUCE_CYCLIC, REQUEST_CYCLIC}) {
        trans_list_node *node = std::exchange(list_of(module, id), {}).head;
        while (node != nullptr) {
            trans_list_node *next = node->next;
            list_insert_by_time(&list_of(module, id), node, now);
            node = next;
        }
    }
}

int can_proprietary_remove_list(trans_list *list, trans_list_node *node) {
    if (list == nullptr) {
        log_error("list is NULL\n");
        return -1;
    }
    if (node == nullptr) {
        log_error("transaction is NULL\n");
        return -1;
    }
    trans_list_node *previous = nullptr;
    trans_list_node *current = list->head;
    while (current != nullptr && current != node) {
        previous = current;
        current = current->next;
    }
    if (current == nullptr) {
        return -1;
    }
    (previous == nullptr ? list->head : previous->next) = node->next;
    if (list->tail == node) {
        list->tail = previous;
    }
    node->next = nullptr;
    return 0;
}

int can_proprietary_move_to_wait_send(can_module *module, trans_list_node *entry) {
    if (module == nullptr) {
        log_error("can_module is NULL\n");
        return -1;
    }
    if (entry == nullptr) {
        log_error("entry is NULL\n");
        return -1;
    }
    if (can_proprietary_remove_list(entry->home, entry) != 0) {
        return -3;
    }
    const queue_rule *rule = find_queue(entry->transaction->config);
    if (rule == nullptr) {
        log_error("unknown transaction\n");
        return -1;
    }
    list_append(&list_of(module, rule->queue), entry);
    return 0;
}
