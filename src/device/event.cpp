#include "device/event.h"

#include <kt/event_agent.h>
#include <kt/net.h>

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cstdio>

namespace {

std::atomic<event_handle *> g_event_handle{nullptr};

event_handle *handle_of_service() {
    event_handle *handle = g_event_handle.load(std::memory_order_acquire);
    if (handle != nullptr) {
        return handle;
    }
    event_handle *created = event_create(nullptr, nullptr);
    if (!g_event_handle.compare_exchange_strong(handle, created, std::memory_order_acq_rel)) {
        event_destroy(created); // another sender was faster
        return handle;
    }
    return created;
}

void send(const char *name, const char *message) {
    in_addr address{};
    (void)net_get_my_ip(0, &address); // a gateway without an address reports 0.0.0.0
    std::array<char, INET_ADDRSTRLEN> ip{};
    (void)inet_ntop(AF_INET, &address, ip.data(), ip.size());
    std::array<char, 64> host{};
    (void)snprintf(host.data(), host.size(), "Host %s", ip.data());
    (void)event_notify(handle_of_service(), name, host.data(), message); // nobody could act on it
}

void send_for_transaction(const char *name,
                          const char *device_name,
                          const char *transaction_name,
                          const char *outcome) {
    std::array<char, 1024> message{};
    (void)snprintf(message.data(),
                   message.size(),
                   "%s/%s transaction %s",
                   device_name,
                   transaction_name,
                   outcome);
    send(name, message.data());
}

} // namespace

void can_proprietary_event_create() {
    (void)handle_of_service();
}

void can_proprietary_event_destroy() {
    event_destroy(g_event_handle.exchange(nullptr, std::memory_order_acq_rel));
}

void can_proprietary_event_error_passive() {
    send("CAN Proprietary:CAN Error Passive", "CAN Proprietary CAN Error Passive");
}

void can_proprietary_event_bus_off() {
    send("CAN Proprietary:CAN bus-off", "CAN Proprietary CAN bus-off");
}

void can_proprietary_event_transaction_success(const char *device_name,
                                               const char *transaction_name) {
    send_for_transaction(
        "CAN Proprietary:Transaction Success", device_name, transaction_name, "success");
}

void can_proprietary_event_transaction_failed(const char *device_name,
                                              const char *transaction_name) {
    send_for_transaction(
        "CAN Proprietary:Transaction Failed", device_name, transaction_name, "failed");
}

void can_proprietary_event_transaction_timeout(const char *device_name,
                                               const char *transaction_name) {
    send_for_transaction(
        "CAN Proprietary:Transaction Timeout", device_name, transaction_name, "timeout");
}
