#include "device/led.h"

#include "core/log.h"
#include "device/diag.h"

#include <kt/platform.h>

#include <algorithm>
#include <atomic>

namespace {

constexpr int service_led_index = 3;

led *can_proprietary_led = nullptr;

/** The led_state last set, -1 after initialisation. */
std::atomic<int> prev_canpty_led_state{-1};

void show(int platform_state, int count, int on_ms, int period_ms, int remembered) {
    (void)led_set_state(can_proprietary_led, platform_state, count, on_ms, period_ms);
    prev_canpty_led_state.store(remembered, std::memory_order_relaxed);
}

void show_normal() {
    show(LED_GREEN, 0, 0, 0, LED_NORMAL);
}

void show_transaction_problem() {
    show(LED_BLINK, 1, 1000, 0, LED_TRANSACTION_PROBLEM);
}

bool shows(int platform_state) {
    return led_get_state(can_proprietary_led) == platform_state;
}

void remember(int state) {
    prev_canpty_led_state.store(state, std::memory_order_relaxed);
}

bool has_failed_transaction(const diag_record *record) {
    const auto *const end =
        record->slots.begin() + record->transaction_count.load(std::memory_order_relaxed);
    return std::any_of(record->slots.begin(), end, [](const diag_slot &slot) {
        const uint8_t state = slot.state.load(std::memory_order_relaxed);
        return slot.enabled && (state == RESULT_FAILED || state == RESULT_TIMEOUT);
    });
}

} // namespace

void can_proprietary_led_init() {
    can_proprietary_led = led_get(service_led_index);
    show(LED_OFF, 0, 0, 0, -1);
}

void can_proprietary_led_release() {
    (void)led_set_state(can_proprietary_led, LED_OFF, 0, 0, 0);
    led_free(can_proprietary_led);
    can_proprietary_led = nullptr;
}

void can_proprietary_led_set(int state) {
    if (can_proprietary_led == nullptr) {
        return;
    }
    const int previous = prev_canpty_led_state.load(std::memory_order_relaxed);
    switch (state) {
    case LED_NORMAL:
        shows(LED_GREEN) ? remember(LED_NORMAL) : show_normal();
        break;
    case LED_BUS_OFF:
        shows(LED_RED) ? remember(LED_BUS_OFF) : show(LED_RED, 0, 0, 0, LED_BUS_OFF);
        break;
    case LED_ERROR_PASSIVE:
        if (previous != LED_ERROR_PASSIVE) {
            show(LED_BLINK, 2, 50, 1000, LED_ERROR_PASSIVE);
        }
        break;
    case LED_TRANSACTION_PROBLEM:
        if (previous >= LED_BUS_OFF && previous <= LED_TRANSACTION_PROBLEM) {
            break;
        }
        shows(LED_BLINK) ? remember(LED_TRANSACTION_PROBLEM) : show_transaction_problem();
        break;
    default:
        log_error("unknown led_state %d\n", state);
        break;
    }
}

void can_proprietary_led_update(const diag_record *record) {
    if (can_proprietary_led == nullptr) {
        log_error("can_proprietary_led is NULL\n");
        return;
    }
    if (record == nullptr) {
        log_error("\n");
        return;
    }
    const char *bus_state = record->state.load(std::memory_order_relaxed);
    if (bus_state == canbus_state_str[CANBUS_ERROR_PASSIVE] ||
        bus_state == canbus_state_str[CANBUS_BUS_OFF]) {
        return;
    }
    const bool problem = has_failed_transaction(record);
    if (shows(problem ? LED_BLINK : LED_GREEN)) {
        return;
    }
    problem ? show_transaction_problem() : show_normal();
}
