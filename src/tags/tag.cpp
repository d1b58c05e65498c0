#include "tags/tag.h"

#include "core/guards.h"
#include "core/log.h"
#include "device/clock.h"

#include <kt/dx.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>

dx_handle *g_dx_handle = nullptr;

namespace {

/** A tag's configured size is one byte. */
constexpr size_t value_size_max = UINT8_MAX;

/** What the dispatch function finds on the handle. */
struct dx_user {
    dx_handle *handle;
    void (*callback)(dx_tag *tag);
};

dx_user user;

/** Bits of a bitmap that are looked at together: usually one of them all is set. */
constexpr unsigned group_bits = 32;
static_assert(DX_INDEX_COUNT % group_bits == 0);

/** Put together from bytes, as the bitmap is defined; the compiler makes it one load. */
uint32_t group_of(const uint8_t *bitmap, unsigned first) {
    const uint8_t *bytes = bitmap + first / 8;
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

void dispatch_index(dx_handle *handle, const dx_user &registered, unsigned index) {
    for (dx_entry *entry = dx_lookup_head(handle, index); entry != nullptr; entry = entry->next) {
        if (entry->tag != nullptr && dx_tag_has_read(entry->tag) == 0) {
            registered.callback(entry->tag);
        }
    }
}

void dispatch(dx_handle *handle, const uint8_t *bitmap) {
    const auto *registered = static_cast<const dx_user *>(dx_get_user_data(handle));
    if (registered == nullptr || registered->callback == nullptr) {
        return;
    }
    for (unsigned first = 0; first < DX_INDEX_COUNT; first += group_bits) {
        for (uint32_t group = group_of(bitmap, first); group != 0; group &= group - 1) {
            const auto lowest = static_cast<unsigned>(std::countr_zero(group));
            dispatch_index(handle, *registered, first + lowest);
        }
    }
}

/**
 * The time of update is set with the mark, else the port could find the tag overdue once more.
 * @return true when the frame changed
 */
bool take_into_frame(const tag_info *info, const uint8_t *value) {
    const std::span<uint8_t> bytes = bytes_of(info->frame, info->data);
    const mutex_guard guard(&info->module->mutex);
    info->data->last_update.store(sys_clock_ms(), std::memory_order_relaxed);
    if (memcmp(bytes.data(), value, bytes.size()) == 0) {
        return false;
    }
    memcpy(bytes.data(), value, bytes.size());
    info->data->transaction->data_changed = 1;
    info->data->fault_mark = 0;
    return true;
}

} // namespace

void can_proprietary_dx_create() {
    g_dx_handle = dx_new("can_proprietary", dispatch);
    if (g_dx_handle != nullptr) {
        user = {g_dx_handle, can_proprietary_subscribe_callback};
        dx_set_user_data(g_dx_handle, &user);
    }
}

void can_proprietary_dx_destroy() {
    dx_destroy(g_dx_handle);
    g_dx_handle = nullptr;
}

int can_proprietary_tag_register(tag_info *info, const tag_block_config *block, int mode) {
    const size_t size = dx_get_value_size(block->tagType, block->tagSize);
    if (g_dx_handle != nullptr) {
        info->tag = dx_tag_provider_new(g_dx_handle, info->name, block->tagType, size, mode);
    }
    if (info->tag == nullptr) {
        (void)printf("de create dx_tag:%s fail, dx_tag_new return NULL\n", info->name);
        return -1;
    }
    // Not every tag service stops at the 8 bytes of a frame.
    constexpr std::array<uint8_t, value_size_max> zero{};
    (void)can_proprietary_tag_write(info->tag, {zero.data(), std::min(size, zero.size())});
    dx_tag_set_user_data(info->tag, info);
    return 0;
}

void can_proprietary_tag_release(tag_info *info) {
    dx_tag_destroy(info->tag);
    info->tag = nullptr;
}

int can_proprietary_tag_missing() {
    (void)printf("%s: dx_tag is NULL!\n", "can_proprietary_tag_write");
    return -1;
}

void can_proprietary_tag_commit() {
    if (g_dx_handle != nullptr) {
        (void)dx_tag_notify(g_dx_handle); // a commit without watchers has no one to miss it
    }
}

void can_proprietary_subscribe_callback(dx_tag *cur_tag) {
    if (cur_tag == nullptr) {
        log_error("cur_tag is NULL\n");
        return;
    }
    const auto *info = static_cast<const tag_info *>(dx_tag_get_user_data(cur_tag));
    if (info == nullptr) {
        log_error("tag_info is NULL\n");
        return;
    }
    if (info->data == nullptr) {
        log_error("data_info is NULL\n");
        return;
    }
    if (info->frame == nullptr) {
        log_error("frame_info is NULL\n");
        return;
    }
    if (is_received_frame(info->frame->config)) {
        return;
    }
    std::array<uint8_t, value_size_max> value{};
    if (dx_tag_read(cur_tag, value.data(), info->data->tag_size) <= 0) {
        log_error("can_proprietary_dx_tag_read fail\n");
        return;
    }
    if (take_into_frame(info, value.data())) {
        can_module_wake(info->module);
    }
}
