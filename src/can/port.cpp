#include "can/port.h"

#include "can/hash_table.h"
#include "can/link.h"
#include "can/module.h"
#include "can/receive.h"
#include "can/transaction_list.h"
#include "can/transmit.h"
#include "config/read.h"
#include "core/log.h"
#include "core/state.h"
#include "device/clock.h"
#include "device/diag.h"
#include "device/led.h"
#include "tags/tag.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr const char *thread_function = "can_port_handler";

/** Ahead of request handling, but never so that the wanted busy waiting takes the core for good. */
constexpr int port_thread_nice = -5;

void prepare_thread(const char *port_name) {
    std::array<char, 16> name{};
    (void)snprintf(name.data(), name.size(), "%.10s-port", port_name);
    (void)pthread_setname_np(pthread_self(), name.data());
    // Without the privilege the port runs at the common priority.
    const auto thread = static_cast<id_t>(syscall(SYS_gettid));
    (void)setpriority(PRIO_PROCESS, thread, port_thread_nice);
}

/** The link to the next module stays: other port threads walk the list at the same time. */
void clear_module(can_module *module, uint8_t port_index) {
    static_cast<can_module_pass &>(*module) = {};
    module->port_index = port_index;
}

int open_socket(can_module *module) {
    int32_t fd = -1;
    if (can_fd_init(module->port_index, &fd) != 0) {
        log_write_error(
            thread_function, __LINE__, "port_idx = %d, cfd = %d\n", module->port_index, fd);
        return -1;
    }
    return 0;
}

int open_event_fd(can_module *module) {
    const int fd = eventfd(0, EFD_CLOEXEC);
    if (fd < 0) {
        log_write_error(
            thread_function, __LINE__, "port_idx = %d, efd = %d\n", module->port_index, fd);
        return -1;
    }
    module->event_fd = fd;
    return 0;
}

/** Reading the configuration took far more than what stays of it, and the allocator keeps that. */
void give_free_memory_back() {
    (void)malloc_trim(0); // whether there was any
}

/** @retval 0 the port can run @retval -1 it cannot (logged); release what stands */
int start_port(can_module *module) {
    const int port_id = module->port_index + 1;
    if (can_proprietary_conf_get_port_config(&module->configuration, port_id) != 0) {
        log_write_error(thread_function, __LINE__, "can_module_get_port_config fail\n");
        return -1;
    }
    if (const char *name = can_port_name(module->port_index); name != nullptr) {
        prepare_thread(name);
        can_link_bring_up(module, name);
    }
    if (open_socket(module) != 0 || open_event_fd(module) != 0) {
        return -1;
    }
    can_proprietary_diag_set_bus_state(module->port_index, CANBUS_NORMAL);
    can_proprietary_led_set(LED_NORMAL);
    can_proprietary_diag_set_bit_rate(module->port_index, module->settings.baudrate);
    if (can_proprietary_transaction_list_init(module, sys_clock_ms()) != 0) {
        return -1;
    }
    if (module->configuration != nullptr) {
        can_proprietary_tag_commit();
    }
    can_module_build_tables(module); // where the later of the configuration wins
    can_module_order_cyclic(module);
    give_free_memory_back();
    return 0;
}

void run_port(can_module *module) {
    do {
        if (const int result = can_tx_handler(module); result != 0) {
            log_write_error(thread_function, __LINE__, "can_tx_handler fail: %d\n", result);
        }
        (void)can_rx_continue(module); // a failed wait is simply followed by the next one
    } while (!stop_requested() && !restart_requested());
}

void close_if_open(int32_t fd) {
    if (fd > 0) {
        (void)close(fd);
    }
}

void tear_down(can_module *module) {
    hash_table_free(module->receive_table);
    hash_table_free(module->remote_request_table);
    can_proprietary_transaction_list_free(module);
    free(module->bootup_request);
    free(module->cyclic_request);
    free(module->change_request);
    (void)pthread_mutex_destroy(&module->mutex);
    close_if_open(module->socket);
    close_if_open(module->event_fd);
    can_proprietary_diag_forget_transactions(module->port_index);
    conf_free_device_list(module->configuration);
    module->configuration = nullptr;
}

} // namespace

void *can_port_handler(void *port_index) {
    const auto index = static_cast<int32_t>(*static_cast<const uint32_t *>(port_index));
    can_module *module = can_module_get(index);
    if (module == nullptr) {
        log_error("can_module_get fail\n");
        return nullptr;
    }
    clear_module(module, static_cast<uint8_t>(index));
    (void)pthread_mutex_init(&module->mutex, nullptr); // cannot fail for a plain mutex
    if (start_port(module) == 0) {
        run_port(module);
    }
    tear_down(module);
    return nullptr; // pthread_exit() loads what unwinds, and aborts without memory for that
}
