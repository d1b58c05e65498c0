// Instructions of a transmit pass in which nothing is due, for ports of several sizes: on the
// emulated machine a nanosecond is an instruction.

#include "can/module.h"
#include "can/transaction_list.h"
#include "can/transmit.h"
#include "can_config.h"
#include "device/diag.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>

namespace {

constexpr int passes = 1000;
constexpr int batches = 50;

int64_t now_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/** A quarter each: produced and requested, cyclic and on a change, the latter with fault values. */
void add_transactions(device_config *device, int count) {
    constexpr int32_t an_hour = 3600 * 1000;
    constexpr uint16_t a_minute = 60000;
    for (int i = 0; i < count; i++) {
        const transaction_type type = i % 2 == 0 ? TRANSACTION_PRODUCE : TRANSACTION_REQUEST;
        const trigger_mode trigger = i % 4 < 2 ? TRIGGER_CYCLIC : TRIGGER_ON_CHANGE;
        transaction_config *made =
            can_add_transaction(device, ("t" + std::to_string(i)).c_str(), type, trigger);
        made->cyclicInterval = an_hour;
        made->fpFunc = FAULT_PROTECTION_ZERO;
        made->fpTimeout = a_minute;
        (void)can_add_frame(made, i, 8, FRAME_PRODUCED);
    }
}

/** The least of many batches: the others hold interrupts of the machine. */
int64_t least_pass(can_module *module) {
    int64_t least = std::numeric_limits<int64_t>::max();
    for (int batch = 0; batch < batches; batch++) {
        const int64_t start = now_ns();
        for (int i = 0; i < passes; i++) {
            (void)can_tx_handler(module);
        }
        least = std::min(least, now_ns() - start);
    }
    return least;
}

void measure(int transactions) {
    auto *module = new can_module{};
    (void)pthread_mutex_init(&module->mutex, nullptr);
    module->event_fd = -1;
    module->earliest_fp_deadline = no_deadline;
    module->earliest_consume_deadline = no_deadline;
    add_transactions(can_add_device(&module->configuration, "d"), transactions);
    if (can_proprietary_transaction_list_init(module, sys_clock_ms()) != 0) {
        exit(1);
    }
    can_module_order_cyclic(module);
    (void)printf("%d %.1f\n", transactions, static_cast<double>(least_pass(module)) / passes);
}

} // namespace

int main() {
    if (can_proprietary_diag_create_infos(1) != 0) {
        return 1;
    }
    for (const int transactions : {1, 100, 250}) {
        measure(transactions);
    }
    return 0;
}
