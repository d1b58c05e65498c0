#include "device/diag.h"

#include "core/log.h"
#include "device/bit_rate.h"
#include "device/clock.h"
#include "device/event.h"
#include "device/led.h"

#include <cmath>
#include <limits>
#include <memory>
#include <new>

const std::array<const char *, 4> canbus_state_str = {
    "Normal", "Error active", "Error passive", "Bus off"};

namespace {

/** Guards the life of the records and of the names in their slots, not their values. */
std::mutex lifetime;
std::unique_ptr<diag_record[]> records;
std::atomic<uint32_t> record_count{0};

uint32_t saturate(double value) {
    if (std::isnan(value) || value <= 0) {
        return 0;
    }
    constexpr double limit = std::numeric_limits<uint32_t>::max();
    return value >= limit ? std::numeric_limits<uint32_t>::max() : static_cast<uint32_t>(value);
}

void report_change(diag_record *record, const diag_slot &slot, transaction_result result) {
    switch (result) {
    case RESULT_SUCCESS:
        can_proprietary_event_transaction_success(slot.device_name, slot.transaction_name);
        can_proprietary_led_update(record);
        break;
    case RESULT_FAILED:
        can_proprietary_event_transaction_failed(slot.device_name, slot.transaction_name);
        can_proprietary_led_set(LED_TRANSACTION_PROBLEM);
        break;
    case RESULT_TIMEOUT:
        can_proprietary_event_transaction_timeout(slot.device_name, slot.transaction_name);
        can_proprietary_led_set(LED_TRANSACTION_PROBLEM);
        break;
    case RESULT_NONE:
        break;
    }
}

} // namespace

diag_read_lock::diag_read_lock() : lock_(lifetime) {}

int can_proprietary_diag_create_infos(uint8_t port_count) {
    const std::lock_guard guard(lifetime);
    records.reset(new (std::nothrow) diag_record[port_count]());
    if (records == nullptr) {
        record_count.store(0, std::memory_order_relaxed);
        log_error("malloc fail.\n");
        return -2;
    }
    record_count.store(port_count, std::memory_order_relaxed);
    return 0;
}

void can_proprietary_diag_release_infos() {
    const std::lock_guard guard(lifetime);
    record_count.store(0, std::memory_order_relaxed);
    records.reset();
}

diag_record *can_proprietary_diag_get(uint32_t port) {
    return port < record_count.load(std::memory_order_relaxed) ? &records[port] : nullptr;
}

uint32_t can_proprietary_diag_register(uint32_t port,
                                       const char *device_name,
                                       const char *transaction_name,
                                       bool enabled) {
    diag_record *record = can_proprietary_diag_get(port);
    if (record == nullptr) {
        return 0;
    }
    // Slots fill from the front and empty all at once: the first free one is the count.
    const uint32_t index = record->transaction_count.load(std::memory_order_relaxed);
    if (index >= diag_slot_count) {
        return 0;
    }
    diag_slot &slot = record->slots[index];
    slot.device_name = device_name;
    slot.transaction_name = transaction_name;
    slot.enabled = enabled;
    slot.state.store(RESULT_NONE, std::memory_order_relaxed);
    slot.failure_count.store(0, std::memory_order_relaxed);
    record->transaction_count.store(index + 1, std::memory_order_release);
    return index;
}

void can_proprietary_diag_forget_transactions(uint32_t port) {
    const std::lock_guard guard(lifetime);
    diag_record *record = can_proprietary_diag_get(port);
    if (record == nullptr) {
        return;
    }
    record->transaction_count.store(0, std::memory_order_relaxed);
    for (diag_slot &slot : record->slots) {
        slot.device_name = nullptr;
        slot.transaction_name = nullptr;
    }
}

void can_proprietary_diag_set_result(uint32_t port, uint32_t slot, transaction_result result) {
    diag_record *record = can_proprietary_diag_get(port);
    if (record == nullptr || slot >= diag_slot_count ||
        record->slots[slot].device_name == nullptr) {
        return;
    }
    diag_slot &entry = record->slots[slot];
    if (entry.state.load(std::memory_order_relaxed) != result) {
        entry.state.store(result, std::memory_order_relaxed);
        report_change(record, entry, result);
    }
    if (result == RESULT_FAILED || result == RESULT_TIMEOUT) {
        entry.failure_count.store(entry.failure_count.load(std::memory_order_relaxed) + 1,
                                  std::memory_order_relaxed);
    }
}

void can_proprietary_diag_set_bus_state(uint32_t port, canbus_state state) {
    if (diag_record *record = can_proprietary_diag_get(port); record != nullptr) {
        record->state.store(canbus_state_str[state], std::memory_order_relaxed);
    }
}

void can_proprietary_diag_set_bit_rate(uint32_t port, int32_t baudrate) {
    if (diag_record *record = can_proprietary_diag_get(port); record != nullptr) {
        record->bit_rate.store(can_bit_rate(baudrate), std::memory_order_relaxed);
    }
}

void can_proprietary_diag_update_bus_loading(uint32_t port, uint32_t bit_rate) {
    diag_record *record = can_proprietary_diag_get(port);
    if (record == nullptr) {
        return;
    }
    const uint32_t now = sys_clock_ms();
    const uint32_t elapsed = now - record->last_load_ms.exchange(now, std::memory_order_relaxed);
    const auto bits = static_cast<double>(record->bit_count.exchange(0, std::memory_order_relaxed));
    const double load = bits / ((elapsed / 1000.0) * bit_rate) * 100 * 1000;
    const auto kept = static_cast<uint16_t>(saturate(load));
    record->busLoading.store(kept / 1000.0, std::memory_order_relaxed);
}
