#include "fake_event_agent.h"

#include <kt/event_agent.h>
#include <kt/net.h>

#include <arpa/inet.h>

struct event_handle {
    int number;
};

fake_event_agent g_fake_event_agent;

namespace {

event_handle the_handle;

} // namespace

extern "C" {

event_handle *event_create(event_callback callback, void *context) {
    g_fake_event_agent.callback |= callback != nullptr || context != nullptr;
    if (g_fake_event_agent.missing) {
        return nullptr;
    }
    g_fake_event_agent.created++;
    return &the_handle;
}

int event_notify(event_handle *handle, const char *name, const char *host, const char *message) {
    g_fake_event_agent.events.push_back(std::string(handle == nullptr ? "no handle|" : "") + name +
                                        "|" + host + "|" + message);
    return handle == nullptr ? -1 : 0;
}

void event_destroy(event_handle *handle) {
    g_fake_event_agent.destroyed += handle == nullptr ? 0 : 1;
}

int net_get_my_ip(int interface, in_addr *address) {
    g_fake_event_agent.address_asked_of = interface;
    if (g_fake_event_agent.address == nullptr) {
        return -1;
    }
    return inet_pton(AF_INET, g_fake_event_agent.address, address) == 1 ? 0 : -1;
}

} // extern "C"
