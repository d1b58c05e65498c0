#include "tags/status_tag.h"

#include "config/model.h"
#include "core/guards.h"
#include "core/log.h"
#include "tags/tag.h"

#include <kt/dx.h>

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>

namespace {

struct status_table {
    uint8_t count;
    heap_ptr<dx_tag *> tags;
    heap_ptr<uint32_t> values;
    pthread_mutex_t mutex; /* the choice of a free slot */
};

status_table table{0, nullptr, nullptr, PTHREAD_MUTEX_INITIALIZER};

/** First free slot, the count when there is none. */
uint8_t free_slot() {
    uint8_t slot = 0;
    while (slot < table.count && table.tags.get()[slot] != nullptr) {
        slot++;
    }
    return slot;
}

std::span<const uint8_t> bytes_of(const uint32_t &value) {
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}

} // namespace

void can_proprietary_device_status_init(uint8_t count) {
    // One slot more than devices: an update may name the slot behind the last one and must find it
    // without a tag.
    const size_t slots = static_cast<size_t>(count) + 1;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): pointers are what it holds
    table.tags.reset(static_cast<dx_tag **>(calloc(slots, sizeof(dx_tag *))));
    table.values.reset(static_cast<uint32_t *>(calloc(slots, sizeof(uint32_t))));
    table.count = table.tags != nullptr && table.values != nullptr ? count : 0;
    for (size_t slot = 0; slot < table.count; slot++) {
        table.values.get()[slot] = DEVICE_UNKNOWN;
    }
}

void can_proprietary_device_status_release() {
    for (size_t slot = 0; slot < table.count; slot++) {
        dx_tag_destroy(table.tags.get()[slot]);
    }
    table.count = 0;
    table.tags.reset();
    table.values.reset();
}

int can_proprietary_create_device_status_tag(const char *device_name, uint8_t *device_index) {
    if (device_name == nullptr) {
        log_error("device_name is NULL\n");
        return -1;
    }
    if (device_index == nullptr) {
        log_error("device_index is NULL\n");
        return -1;
    }
    const mutex_guard guard(&table.mutex);
    const uint8_t slot = free_slot();
    if (slot == table.count) {
        log_error("fail to find unused device status tag\n");
        return -4;
    }
    std::array<char, tag_name_max_bytes + 1> name{};
    (void)snprintf(name.data(), name.size(), "%s/%s/%s", "can_proprietary", device_name, "status");
    constexpr size_t size = sizeof(uint32_t);
    dx_tag *tag =
        g_dx_handle == nullptr
            ? nullptr
            : dx_tag_provider_new(g_dx_handle, name.data(), TAG_INT32, size, DX_READ_ONLY);
    if (tag == nullptr) {
        (void)printf("de create dx_tag:%s fail, dx_tag_new return NULL\n", name.data());
        return -1;
    }
    table.tags.get()[slot] = tag;
    (void)can_proprietary_tag_write(tag, bytes_of(table.values.get()[slot]));
    *device_index = slot;
    return 0;
}

int can_proprietary_update_status_tag(uint8_t device_index, uint32_t value) {
    // The slot behind the last one passes this check. On purpose: it has no tag.
    if (device_index > table.count) {
        log_error("device_index: %d greater than %d\n", device_index, table.count);
        return -1;
    }
    dx_tag *tag = table.tags == nullptr ? nullptr : table.tags.get()[device_index];
    if (tag == nullptr) {
        log_error("dx tag is NULL");
        return -1;
    }
    uint32_t &current = table.values.get()[device_index];
    if (value == current) {
        return 0;
    }
    if (can_proprietary_tag_write(tag, bytes_of(value)) != 0) {
        log_error("dx tag wrtie fail");
        return -1;
    }
    current = value;
    can_proprietary_tag_commit();
    return 0;
}
