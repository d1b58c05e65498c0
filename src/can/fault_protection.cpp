#include "can/fault_protection.h"

#include "can/codec.h"
#include "can/module.h"
#include "core/guards.h"
#include "device/clock.h"
#include "tags/tag.h"

#include <algorithm>
#include <array>
#include <optional>

namespace {

uint32_t last_update_of(const data_info *data) {
    return data->last_update.load(std::memory_order_relaxed);
}

/** Call with the module mutex held. */
bool has_expired(const data_info *data, uint32_t now) {
    const uint32_t timeout = data->transaction->config->fpTimeout;
    return data->fault_mark == 0 && clock_difference(last_update_of(data) + timeout, now) < 0;
}

/** @return true when the fault value came into force now */
bool protect_tag(can_module *module, frame_info *frame, data_info *data, uint32_t now) {
    std::array<uint8_t, CAN_MAX_DLEN> value{};
    const std::span<uint8_t> bytes = bytes_of(frame, data);
    {
        const mutex_guard guard(&module->mutex);
        if (!has_expired(data, now)) {
            return false;
        }
        codec_fault_value(data->config->fpData, bytes);
        std::copy(bytes.begin(), bytes.end(), value.begin());
        data->fault_mark = 1;
    }
    // A missing tag has said so at start.
    (void)can_proprietary_tag_write(data->tag->tag, {value.data(), bytes.size()});
    return true;
}

bool is_in_fault(can_module *module, const data_info *data) {
    const mutex_guard guard(&module->mutex);
    return data->fault_mark != 0;
}

/** Earliest update of the tags not in fault, as an unsigned minimum; nothing without any. */
std::optional<uint32_t> earliest_update(can_module *module, const frame_info *frame) {
    std::optional<uint32_t> earliest;
    for (const function_block_info *block = frame->blocks; block != nullptr; block = block->next) {
        if (block->kind == BLOCK_TAG && !is_in_fault(module, block->data)) {
            earliest = std::min(earliest.value_or(UINT32_MAX), last_update_of(block->data));
        }
    }
    return earliest;
}

void announce_change(can_module *module, trans_list_node *node) {
    can_proprietary_tag_commit();
    if (node->transaction->config->triggerMode != TRIGGER_ON_CHANGE) {
        return;
    }
    {
        const mutex_guard guard(&module->mutex);
        node->transaction->data_changed = 1;
    }
    can_module_wake(module);
}

} // namespace

void check_fault_protection(can_module *module, trans_list_node *node) {
    transaction_info *info = node->transaction;
    const uint32_t now = sys_clock_ms();
    // A fault may last longer than the clock can tell, so no deadline is kept over it.
    const bool due = info->all_in_fault || clock_is_due(now, info->fp_deadline);
    if (!due || info->frames == nullptr) {
        return;
    }
    frame_info *frame = info->frames;
    bool changed = false;
    for (function_block_info *block = frame->blocks; block != nullptr; block = block->next) {
        changed =
            (block->kind == BLOCK_TAG && protect_tag(module, frame, block->data, now)) || changed;
    }
    const std::optional<uint32_t> earliest = earliest_update(module, frame);
    info->all_in_fault = !earliest.has_value();
    uint32_t from = earliest.value_or(now);
    if (clock_difference(now, from) < 0) {
        from = now;
    }
    info->fp_deadline = from + info->config->fpTimeout;
    if (changed) {
        announce_change(module, node);
    }
}

void check_transaction_list_fp(can_module *module, const trans_list *list) {
    for (trans_list_node *node = list->head; node != nullptr; node = node->next) {
        transaction_info *info = node->transaction;
        if (!has_fault_protection(info->config) || info->frames == nullptr) {
            continue;
        }
        check_fault_protection(module, node);
        // With every tag in fault only a tag write changes anything, and that wakes the port.
        if (info->config->triggerMode == TRIGGER_ON_CHANGE && !info->all_in_fault) {
            lower_deadline(module->earliest_fp_deadline, info->fp_deadline);
        }
    }
}

void check_on_change_fp(can_module *module, uint32_t now) {
    const bool due = module->earliest_fp_deadline != no_deadline &&
                     clock_is_due(now, module->earliest_fp_deadline);
    if (!due && !module->fp_check_wanted) {
        return;
    }
    module->fp_check_wanted = false;
    module->earliest_fp_deadline = no_deadline;
    for (const list_id id :
         {PRODUCE_ON_CHANGE, REQUEST_ON_CHANGE, PRODUCE_CHANGE_QUEUE, REQUEST_CHANGE_QUEUE}) {
        check_transaction_list_fp(module, &list_of(module, id));
    }
}
