#include "can/transmit.h"

#include "can/codec.h"
#include "can/fault_protection.h"
#include "can/module.h"
#include "core/guards.h"
#include "core/log.h"
#include "device/clock.h"
#include "device/diag.h"
#include "tags/status_tag.h"
#include "traffic/recorder.h"

#include <algorithm>
#include <cstring>
#include <net/if.h>
#include <sys/socket.h>

namespace {

/** A queue of requests, of which only the head is ever under way. */
struct request_queue {
    const char *handler; /* named in messages */
    list_id queue;
    can_frame *frame; /* the head's, kept for resends */
};

enum class outcome { sent, refused };

bool is_on_change(const transaction_config *config) {
    return config->triggerMode == TRIGGER_ON_CHANGE;
}

bool is_cyclic(const transaction_config *config) {
    return config->triggerMode == TRIGGER_CYCLIC;
}

void set_result(const can_module *module, trans_list_node *node, transaction_result result) {
    node->transaction->state = result;
    can_proprietary_diag_set_result(module->port_index, node->transaction->diag_slot, result);
}

void swap_blocks(frame_info *frame, frame_buffer &copy) {
    for (const function_block_info *block = frame->blocks; block != nullptr; block = block->next) {
        if (block->kind == BLOCK_TAG) {
            const tag_block_config *tag = block->data->config;
            codec_swap(block_bytes(copy, tag->startOffset, block->data->tag_size), tag->swap);
        }
    }
}

/** From a transaction's first frame to what goes on the bus. */
void build_frame(can_module *module, transaction_info *info, bool clear_changed, can_frame *out) {
    frame_info *frame = info->frames;
    const size_t length = std::min<size_t>(frame->config->dataLength, CAN_MAX_DLEN);
    frame_buffer copy{}; // a swap finds zeros where its block leaves the frame
    {
        const mutex_guard guard(&module->mutex);
        memcpy(copy.data(), frame->data.data(), length);
        if (clear_changed) {
            info->data_changed = 0;
        }
    }
    swap_blocks(frame, copy);
    *out = {};
    out->can_id = static_cast<canid_t>(frame->config->canId);
    if (module->settings.frameFormat == 1) {
        out->can_id |= CAN_EFF_FLAG;
    }
    out->len = frame->config->dataLength;
    memcpy(out->data, copy.data(), length);
}

outcome send_frame(can_module *module, const transaction_info *info, const can_frame &frame) {
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(module->interface_index);
    const ssize_t sent = sendto(module->socket,
                                &frame,
                                sizeof frame,
                                MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr *>(&address),
                                sizeof address);
    module->clock.forget();
    if (sent != static_cast<ssize_t>(sizeof frame)) {
        can_proprietary_diag_set_result(module->port_index, info->diag_slot, RESULT_FAILED);
        return outcome::refused;
    }
    if (diag_record *record = can_proprietary_diag_get(module->port_index); record != nullptr) {
        diag_count(record->txCount);
        diag_count_bits(record, frame.len);
    }
    // A frame that cannot be recorded is still sent.
    (void)can_proprietary_traffic_record_log(
        frame.data, TRAFFIC_SEND, frame.can_id, 0, frame.len, module->port_index);
    return outcome::sent;
}

/** Build and send a produced frame and note its success. */
outcome produce(can_module *module, trans_list_node *node, bool clear_changed) {
    transaction_info *info = node->transaction;
    if (info->frames == nullptr) {
        // Nothing to send; waiting for it would block the queue behind it for good.
        set_result(module, node, RESULT_FAILED);
        return outcome::sent;
    }
    can_frame frame;
    build_frame(module, info, clear_changed, &frame);
    if (send_frame(module, info, frame) == outcome::refused) {
        return outcome::refused;
    }
    set_result(module, node, RESULT_SUCCESS);
    return outcome::sent;
}

trans_list_node *take_head(trans_list *list) {
    trans_list_node *node = list->head;
    list->head = node->next;
    if (list->head == nullptr) {
        list->tail = nullptr;
    }
    return node;
}

void schedule_next(transaction_info *info, uint32_t now) {
    info->next_send = now + static_cast<uint32_t>(info->config->cyclicInterval);
}

bool data_changed(can_module *module, const transaction_info *info) {
    const mutex_guard guard(&module->mutex);
    return info->data_changed != 0;
}

/** Take the finished head of a request queue home. */
void return_home(can_module *module, const request_queue &queue, uint32_t now) {
    trans_list_node *node = take_head(&list_of(module, queue.queue));
    transaction_info *info = node->transaction;
    if (is_cyclic(info->config)) {
        schedule_next(info, now);
        list_insert_by_time(node->home, node, now);
    } else {
        list_append(node->home, node);
    }
    module->waiting = nullptr;
    // A write that came while the request was under way is still to be sent.
    if (is_on_change(info->config) && data_changed(module, info)) {
        can_module_wake(module);
    }
}

void update_status(const transaction_info *info, uint32_t status) {
    if (info->device_status_index != no_device_index) {
        (void)can_proprietary_update_status_tag(info->device_status_index, status); // logged
    }
}

/** @return true when the request is over */
bool wait_for_response(can_module *module, const request_queue &queue, trans_list_node *node) {
    transaction_info *info = node->transaction;
    const uint32_t now = sys_clock_ms();
    if (!clock_is_due(now, info->deadline)) {
        return false;
    }
    if (info->retry_count < info->config->timeoutRetry) {
        if (send_frame(module, info, *queue.frame) == outcome::sent) {
            info->retry_count++;
            info->deadline = now + static_cast<uint32_t>(info->config->responseTimeout);
        }
        return false;
    }
    set_result(module, node, RESULT_TIMEOUT);
    return_home(module, queue, now);
    update_status(info, DEVICE_TIMEOUT);
    return true;
}

void send_request(can_module *module, const request_queue &queue, trans_list_node *node) {
    transaction_info *info = node->transaction;
    if (info->frames == nullptr) {
        set_result(module, node, RESULT_FAILED);
        return;
    }
    if (is_cyclic(info->config) && has_fault_protection(info->config)) {
        check_fault_protection(module, node);
    }
    build_frame(module, info, is_on_change(info->config), queue.frame);
    if (send_frame(module, info, *queue.frame) == outcome::refused) {
        return;
    }
    info->retry_count = 0;
    info->state = STATE_WAITING;
    info->deadline = sys_clock_ms() + static_cast<uint32_t>(info->config->responseTimeout);
    module->waiting = node;
}

void request_step(can_module *module, const request_queue &queue) {
    while (trans_list_node *node = head_of(module, queue.queue)) {
        switch (node->transaction->state) {
        case STATE_WAITING:
            (void)wait_for_response(module, queue, node);
            return;
        case STATE_READY:
            send_request(module, queue, node);
            return;
        case STATE_SUCCESS:
        case STATE_FAILED:
            return_home(module, queue, sys_clock_ms());
            break;
        default:
            log_write_error(queue.handler,
                            __LINE__,
                            "unknown request trans state: %d\n",
                            node->transaction->state);
            return;
        }
    }
}

void bootup_request_send_handler(can_module *module) {
    request_step(module, {__func__, REQUEST_BOOTUP, module->bootup_request});
}

/** True while that queue's head has a request out: only one of a port may be. */
bool is_awaiting(const can_module *module, list_id queue) {
    const trans_list_node *node = head_of(module, queue);
    return node != nullptr && node->transaction->state == STATE_WAITING;
}

void dx_request_send_handler(can_module *module) {
    if (head_of(module, REQUEST_CHANGE_QUEUE) != nullptr &&
        !is_awaiting(module, REQUEST_CYCLIC_QUEUE)) {
        request_step(module, {__func__, REQUEST_CHANGE_QUEUE, module->change_request});
    }
}

void cyclic_request_send_handler(can_module *module) {
    if (head_of(module, REQUEST_CYCLIC_QUEUE) != nullptr &&
        !is_awaiting(module, REQUEST_CHANGE_QUEUE)) {
        request_step(module, {__func__, REQUEST_CYCLIC_QUEUE, module->cyclic_request});
    }
}

void bootup_phase(can_module *module) {
    bootup_request_send_handler(module);
    trans_list &bootup = list_of(module, PRODUCE_BOOTUP);
    while (bootup.head != nullptr && produce(module, bootup.head, false) == outcome::sent) {
        trans_list_node *node = take_head(&bootup);
        list_append(node->home, node);
    }
}

/** The cyclic lists are ordered, so the due nodes stand in front. */
void queue_due(can_module *module, list_id cyclic) {
    for (trans_list_node *node = head_of(module, cyclic);
         node != nullptr && clock_is_due(module->clock.now(), node->transaction->next_send);
         node = head_of(module, cyclic)) {
        (void)can_proprietary_move_to_wait_send(module, node); // it stands at its home's head
        if (cyclic == REQUEST_CYCLIC) {
            node->transaction->state = STATE_READY;
        }
    }
}

void answer_remote_request(can_module *module) {
    trans_list_node *node = module->pending_answer;
    if (node == nullptr) {
        return;
    }
    module->pending_answer = nullptr;
    (void)produce(module, node, false); // a failed answer is not tried again, on purpose
}

void send_changed(can_module *module) {
    trans_list &queue = list_of(module, PRODUCE_CHANGE_QUEUE);
    while (queue.head != nullptr && produce(module, queue.head, true) == outcome::sent) {
        trans_list_node *node = take_head(&queue);
        list_append(node->home, node);
    }
}

void send_cyclic(can_module *module) {
    trans_list &queue = list_of(module, PRODUCE_CYCLIC_QUEUE);
    while (queue.head != nullptr) {
        trans_list_node *node = queue.head;
        if (has_fault_protection(node->transaction->config)) {
            check_fault_protection(module, node);
        }
        if (produce(module, node, false) == outcome::refused) {
            return;
        }
        (void)take_head(&queue);
        const uint32_t now = sys_clock_ms();
        schedule_next(node->transaction, now);
        list_insert_by_time(node->home, node, now);
    }
}

} // namespace

void check_dx_transaction(can_module *module) {
    module->fp_check_wanted = true;
    for (const list_id id : {PRODUCE_ON_CHANGE, REQUEST_ON_CHANGE}) {
        trans_list_node *next = nullptr;
        for (trans_list_node *node = head_of(module, id); node != nullptr; node = next) {
            next = node->next;
            if (!data_changed(module, node->transaction)) {
                continue;
            }
            if (id == REQUEST_ON_CHANGE) {
                node->transaction->state = STATE_READY;
            }
            (void)can_proprietary_move_to_wait_send(module, node); // it stands in its home list
        }
    }
}

int can_tx_handler(can_module *module) {
    if (module == nullptr) {
        log_error("can_module is NULL\n");
        return -1;
    }
    module->clock.forget();
    if (head_of(module, REQUEST_BOOTUP) != nullptr || head_of(module, PRODUCE_BOOTUP) != nullptr) {
        bootup_phase(module);
        return 0;
    }
    if (module->earliest_fp_deadline != no_deadline || module->fp_check_wanted) {
        check_on_change_fp(module, module->clock.now());
    }
    queue_due(module, PRODUCE_CYCLIC);
    queue_due(module, REQUEST_CYCLIC);
    answer_remote_request(module);
    dx_request_send_handler(module);
    send_changed(module);
    cyclic_request_send_handler(module);
    send_cyclic(module);
    return 0;
}
