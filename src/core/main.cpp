#include "can/port.h"
#include "can/runtime.h"
#include "config/database_files.h"
#include "config/read.h"
#include "core/guards.h"
#include "core/log.h"
#include "core/state.h"
#include "core/usage.h"
#include "device/diag.h"
#include "device/event.h"
#include "device/led.h"
#include "rest/endpoints.h"
#include "tags/status_tag.h"
#include "tags/tag.h"
#include "traffic/recorder.h"

#include <kt/platform.h>
#include <kt/rest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <malloc.h>
#include <new>
#include <pthread.h>

namespace {

void request_stop(int /*signal*/) {
    g_stop_requested.store(1, std::memory_order_relaxed);
}

void route_signals() {
    struct sigaction action {};
    (void)sigemptyset(&action.sa_mask);
    action.sa_handler = SIG_IGN;
    (void)sigaction(SIGPIPE, &action, nullptr);
    action.sa_handler = request_stop;
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM}) {
        (void)sigaction(signal, &action, nullptr);
    }
}

/** A failed allocation leaves fewer modules than ports; the ports without one do not start. */
void can_module_init() {
    can_module **link = &g_can_module_list;
    const int32_t count = g_can_port_count.load(std::memory_order_relaxed);
    for (int32_t i = 0; i < count; i++) {
        *link = new (std::nothrow) can_module();
        if (*link == nullptr) {
            log_error("calloc fail\n");
            return;
        }
        link = &(*link)->next;
    }
}

void free_modules() {
    while (g_can_module_list != nullptr) {
        can_module *next = g_can_module_list->next;
        delete g_can_module_list;
        g_can_module_list = next;
    }
}

/**
 * The ports must be known before anything is done with the databases: the first start writes a row
 * for each, and no later one adds to them.
 */
bool find_ports() {
    if (g_can_port_list != nullptr) {
        return true;
    }
    g_can_port_list = can_list(0);
    if (g_can_port_list == nullptr) {
        log_error("can_list fail\n");
        return false;
    }
    g_can_port_count.store(can_get_number(g_can_port_list), std::memory_order_relaxed);
    can_module_init();
    return true;
}

void free_port_list() {
    if (g_can_port_list == nullptr) {
        return;
    }
    for (char **name = g_can_port_list; *name != nullptr; name++) {
        free(*name);
        *name = nullptr;
    }
    free(g_can_port_list);
    g_can_port_list = nullptr;
}

void run_port_threads(std::span<pthread_t> threads, std::span<uint32_t> indices) {
    size_t started = 0;
    for (size_t i = 0; i < threads.size(); i++) {
        indices[i] = static_cast<uint32_t>(i);
        if (pthread_create(&threads[started], nullptr, can_port_handler, &indices[i]) == 0) {
            started++; // a port whose thread cannot be had is missing; the others serve
        }
    }
    for (const pthread_t thread : threads.first(started)) {
        (void)pthread_join(thread, nullptr);
    }
}

/** Let time pass, up to a stop or a restart. */
void pause_unless_wanted(int slices) {
    constexpr timespec slice = {0, 100'000'000};
    for (int i = 0; i < slices && !stop_requested() && !restart_requested(); i++) {
        (void)nanosleep(&slice, nullptr); // a signal cuts it short
    }
}

/** Run every port until all have ended, then release the services of the pass. */
void can_ports_communication_start() {
    const auto count = static_cast<size_t>(g_can_port_count.load(std::memory_order_relaxed));
    const heap_ptr<pthread_t> threads(static_cast<pthread_t *>(calloc(count, sizeof(pthread_t))));
    const heap_ptr<uint32_t> indices(static_cast<uint32_t *>(calloc(count, sizeof(uint32_t))));
    if (threads == nullptr || indices == nullptr) {
        log_error("calloc fail\n");
        g_stop_requested.store(1, std::memory_order_relaxed);
        return;
    }
    run_port_threads({threads.get(), count}, {indices.get(), count});
    pause_unless_wanted(10); // no port could start: try again, at a pace that a log can bear
    can_proprietary_traffic_deinit();
    can_proprietary_led_release();
    can_proprietary_device_status_release();
    can_proprietary_diag_release_infos();
}

void run_pass() {
    const int32_t ports = g_can_port_count.load(std::memory_order_relaxed);
    if (ports < 1) {
        pause_unless_wanted(1); // stay alive without ports, but leave the processor to others
        return;
    }
    (void)can_proprietary_traffic_init(static_cast<uint8_t>(ports));      // logged
    (void)can_proprietary_diag_create_infos(static_cast<uint8_t>(ports)); // logged
    can_proprietary_led_init();
    uint8_t devices = 0;
    (void)can_proprietary_conf_get_device_num(&devices); // logged
    can_proprietary_device_status_init(devices);
    can_ports_communication_start();
}

} // namespace

int main(int argc, char **argv) {
    if (const int status = answer_usage(argc, argv); status >= 0) {
        return status;
    }
    // One heap: what the start of a port leaves free is there for the next, and for requests.
    (void)mallopt(M_ARENA_MAX, 1);
    // Sets it up while there is one thread, also where a sanitizer has the program's allocations:
    // port threads give memory back to it, and the first two to do so would set it up twice.
    (void)malloc_trim(0);
    // What is said there is said when it happens, to a file as to a terminal.
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    route_signals();
    log_init_from_environment();
    can_proprietary_event_create();
    void *rest_handle = nullptr;
    if (can_proprietary_rest_init("CAN-proprietary", &rest_handle) != 0) {
        log_error("can_proprietary rest init fail\n"); // the CAN side serves all the same
    }
    can_proprietary_dx_create();
    (void)find_ports(); // the loop asks again

    while (!stop_requested()) {
        if (!find_ports()) {
            pause_unless_wanted(10); // at a pace that a log can bear
        } else if (can_proprietary_db_init_user_config() != 0) {
            return -1;
        } else {
            run_pass();
        }
        can_proprietary_restart.store(0, std::memory_order_relaxed);
    }

    free_modules();
    can_proprietary_dx_destroy();
    can_proprietary_event_destroy();
    free_port_list();
    rest_cleanup();
    return 0;
}
