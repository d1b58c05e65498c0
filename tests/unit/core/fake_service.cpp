#include "fake_service.h"

#include "can/port.h"
#include "config/database_files.h"
#include "config/read.h"
#include "device/diag.h"
#include "device/event.h"
#include "device/led.h"
#include "rest/endpoints.h"
#include "tags/status_tag.h"
#include "tags/tag.h"
#include "traffic/recorder.h"

#include <kt/platform.h>
#include <kt/rest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

fake_service *g_fake_service = nullptr;

namespace {

void note(const std::string &call) {
    g_fake_service->calls.push_back(call);
}

} // namespace

void can_proprietary_event_create() {
    note("event create");
    if (g_fake_service->first_step) {
        g_fake_service->first_step();
    }
}

void can_proprietary_event_destroy() {
    note("event destroy");
}

int can_proprietary_rest_init(const char *service_name, void ** /*handle*/) {
    note(std::string("rest init ") + service_name);
    return g_fake_service->rest_result;
}

void can_proprietary_dx_create() {
    note("dx create");
}

void can_proprietary_dx_destroy() {
    note("dx destroy");
}

int can_proprietary_db_init_user_config() {
    note("databases");
    return g_fake_service->prepare_databases ? g_fake_service->prepare_databases() : 0;
}

int can_proprietary_traffic_init(uint8_t port_count) {
    note("traffic init " + std::to_string(port_count));
    return g_fake_service->pass_services_fail ? -2 : 0;
}

void can_proprietary_traffic_deinit() {
    note("traffic deinit");
    if (g_fake_service->pass_ends) {
        g_fake_service->pass_ends();
    }
}

int can_proprietary_diag_create_infos(uint8_t port_count) {
    note("diag create " + std::to_string(port_count));
    return g_fake_service->pass_services_fail ? -2 : 0;
}

void can_proprietary_diag_release_infos() {
    note("diag release");
}

void can_proprietary_led_init() {
    note("led init");
}

void can_proprietary_led_release() {
    note("led release");
}

int can_proprietary_conf_get_device_num(uint8_t *count) {
    note("device num " + std::to_string(*count));
    if (g_fake_service->pass_services_fail) {
        return -1;
    }
    *count = 7;
    return 0;
}

void can_proprietary_device_status_init(uint8_t count) {
    note("status init " + std::to_string(count));
}

void can_proprietary_device_status_release() {
    note("status release");
}

void *can_port_handler(void *argument) {
    const unsigned index = *static_cast<uint32_t *>(argument);
    {
        const std::lock_guard guard(g_fake_service->mutex);
        g_fake_service->port_threads.push_back(index);
    }
    if (g_fake_service->port_thread) {
        g_fake_service->port_thread(index);
    }
    return nullptr;
}

extern "C" {

char **can_list(int selector) {
    note("can list " + std::to_string(selector));
    if (g_fake_service->lists_in_vain-- > 0) {
        return nullptr;
    }
    const size_t count = g_fake_service->ports.size();
    auto **list = static_cast<char **>(calloc(count + 1, sizeof(char *)));
    for (size_t i = 0; i < count; i++) {
        list[i] = strdup(g_fake_service->ports[i].c_str());
    }
    if (g_fake_service->ports_listed) {
        g_fake_service->ports_listed();
    }
    return list;
}

int can_get_number(char **list) {
    int number = 0;
    while (list[number] != nullptr) {
        number++;
    }
    return number;
}

void rest_cleanup() {
    note("rest cleanup");
    if (g_fake_service->rest_cleaned_up) {
        g_fake_service->rest_cleaned_up();
    }
}

int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

int __wrap_pthread_create(pthread_t *thread,
                          const pthread_attr_t *attributes,
                          void *(*start)(void *),
                          void *argument) {
    const int number = g_fake_service->threads++;
    const int from = g_fake_service->threads_refused_from;
    return from >= 0 && number >= from ? EAGAIN
                                       : __real_pthread_create(thread, attributes, start, argument);
}

} // extern "C"
