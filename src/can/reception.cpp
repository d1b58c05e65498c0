#include "can/reception.h"

#include "can/codec.h"
#include "can/hash_table.h"
#include "can/module.h"
#include "device/clock.h"
#include "device/diag.h"
#include "tags/status_tag.h"
#include "tags/tag.h"

#include <algorithm>
#include <cstring>

namespace {

void set_result(const can_module *module, transaction_info *info, transaction_result result) {
    info->state = result;
    can_proprietary_diag_set_result(module->port_index, info->diag_slot, result);
}

void update_status(const transaction_info *info, uint32_t status) {
    if (info->device_status_index != no_device_index) {
        (void)can_proprietary_update_status_tag(info->device_status_index, status); // logged
    }
}

frame_info *response_of(const trans_list_node *request) {
    frame_info *first = request->transaction->frames;
    return first == nullptr ? nullptr : first->next;
}

trans_list_node *find_receiver(const can_module *module, uint32_t id) {
    if (trans_list_node *node = hash_table_find(module->receive_table, id); node != nullptr) {
        return node;
    }
    if (module->waiting == nullptr) {
        return nullptr;
    }
    const frame_info *response = response_of(module->waiting);
    const bool matches =
        response != nullptr && static_cast<uint32_t>(response->config->canId) == id;
    return matches ? module->waiting : nullptr;
}

frame_info *expected_frame(const trans_list_node *node) {
    switch (node->transaction->config->transactionType) {
    case TRANSACTION_CONSUME:
        return node->transaction->frames;
    case TRANSACTION_REQUEST:
        return response_of(node);
    default:
        return nullptr;
    }
}

bool matches_constants(const frame_info *expected, const frame_buffer &data) {
    for (const function_block_info *block = expected->blocks; block != nullptr;
         block = block->next) {
        if (block->kind == BLOCK_CONSTANT && !codec_match_constant(data, block->constant)) {
            return false;
        }
    }
    return true;
}

bool is_good(const transaction_info *info,
             const frame_info *expected,
             uint8_t dlc,
             const frame_buffer &data) {
    return dlc == expected->config->dataLength &&
           (!info->has_constants || matches_constants(expected, data));
}

/** The frame's bytes; zeros beyond them, whatever the sender left there. */
frame_buffer data_of(const can_frame &frame) {
    frame_buffer data{};
    if (frame.len >= CAN_MAX_DLEN) {
        memcpy(data.data(), frame.data, CAN_MAX_DLEN);
    } else {
        memcpy(data.data(), frame.data, frame.len);
    }
    return data;
}

/** Blocks are decoded in place and in order: where two overlap, the later sees the decoded bytes.
 */
void publish(const frame_info *expected, frame_buffer &data) {
    for (const function_block_info *block = expected->blocks; block != nullptr;
         block = block->next) {
        if (block->kind != BLOCK_TAG) {
            continue;
        }
        uint8_t *start = data.data() + block->start;
        if (block->decoding != DECODE_NOTHING) {
            codec_decode(block, start);
        }
        (void)can_proprietary_tag_write(block->tag, {start, block->length});
    }
    can_proprietary_tag_commit();
}

} // namespace

void can_proprietary_receive_data(can_module *module, const can_frame &frame) {
    trans_list_node *node = find_receiver(module, frame.can_id & CAN_EFF_MASK);
    if (node == nullptr) {
        return;
    }
    transaction_info *info = node->transaction;
    update_status(info, DEVICE_COMMUNICATING);
    const frame_info *expected = expected_frame(node);
    if (expected == nullptr) {
        return;
    }
    frame_buffer data = data_of(frame);
    if (info->config->transactionType == TRANSACTION_CONSUME &&
        info->config->consumeToutEnable != 0) {
        info->deadline = sys_clock_ms() + info->config->consumeTimeout;
    }
    if (!is_good(info, expected, frame.len, data)) {
        set_result(module, info, RESULT_FAILED);
        return;
    }
    set_result(module, info, RESULT_SUCCESS);
    publish(expected, data);
}

void can_proprietary_check_consume_timeout(can_module *module, uint32_t now) {
    if (module->earliest_consume_deadline == no_deadline ||
        !clock_is_due(now, module->earliest_consume_deadline)) {
        return;
    }
    module->earliest_consume_deadline = no_deadline;
    for (trans_list_node *node = head_of(module, CONSUME_WITH_TIMEOUT); node != nullptr;
         node = node->next) {
        transaction_info *info = node->transaction;
        if (clock_is_due(now, info->deadline)) {
            info->state = STATE_TIMEOUT;
            info->deadline = now + info->config->consumeTimeout;
            update_status(info, DEVICE_TIMEOUT);
            can_proprietary_diag_set_result(module->port_index, info->diag_slot, RESULT_TIMEOUT);
        }
        lower_deadline(module->earliest_consume_deadline, info->deadline);
    }
}
