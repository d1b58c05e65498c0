#include "can_device_fake.h"

#include "can_journal.h"
#include "config/read.h"
#include "device/event.h"
#include "device/led.h"
#include "traffic/recorder.h"

#include <kt/platform.h>

#include <cstdio>
#include <map>
#include <memory>
#include <utility>

struct can_port {
    std::string name;
};

namespace {

can_device_settings settings;
auto record = std::make_unique<diag_record>();
std::map<uint32_t, std::string> slot_names;
int open_ports = 0;

std::string number(int64_t value) {
    return std::to_string(value);
}

const char *result_name(transaction_result result) {
    switch (result) {
    case RESULT_SUCCESS:
        return "success";
    case RESULT_FAILED:
        return "failed";
    case RESULT_TIMEOUT:
        return "timeout";
    default:
        return "unknown";
    }
}

} // namespace

can_device_settings &can_device() {
    return settings;
}

void can_device_reset() {
    conf_free_device_list(settings.port_config);
    settings = {};
    std::destroy_at(record.get()); // in place: a test may hold a reference
    std::construct_at(record.get());
    slot_names.clear();
    open_ports = 0;
}

diag_record &can_device_record() {
    return *record;
}

int can_device_open_ports() {
    return open_ports;
}

/* device/diag.h */

const std::array<const char *, 4> canbus_state_str = {
    "Normal", "Error active", "Error passive", "Bus off"};

diag_record *can_proprietary_diag_get(uint32_t) {
    return settings.has_diag_record ? record.get() : nullptr;
}

uint32_t can_proprietary_diag_register(uint32_t port,
                                       const char *device_name,
                                       const char *transaction_name,
                                       bool enabled) {
    const uint32_t slot = settings.first_slot++;
    slot_names[slot] = transaction_name;
    can_note("register " + number(port) + " " + device_name + "/" + transaction_name +
             (enabled ? " enabled" : " disabled"));
    return slot;
}

void can_proprietary_diag_forget_transactions(uint32_t port) {
    can_note("forget " + number(port));
}

void can_proprietary_diag_set_result(uint32_t, uint32_t slot, transaction_result result) {
    can_note("result " + slot_names[slot] + " " + result_name(result));
}

void can_proprietary_diag_set_bus_state(uint32_t port, canbus_state state) {
    can_note("bus " + number(port) + " " + canbus_state_str[state]);
}

void can_proprietary_diag_set_bit_rate(uint32_t port, int32_t baudrate) {
    can_note("rate " + number(port) + " " + number(baudrate));
}

/* device/event.h */

void can_proprietary_event_error_passive() {
    can_note("event error passive");
}

void can_proprietary_event_bus_off() {
    can_note("event bus off");
}

/* device/led.h */

void can_proprietary_led_set(int state) {
    can_note("led " + number(state));
}

void can_proprietary_led_update(const diag_record *shown) {
    can_note(shown == record.get() ? "led update" : "led update of a foreign record");
}

/* traffic/recorder.h */

int can_proprietary_traffic_record_log(const uint8_t *data,
                                       traffic_direction direction,
                                       uint32_t can_id,
                                       int rtr,
                                       uint8_t data_length,
                                       uint16_t port) {
    std::array<char, 16> id{};
    (void)snprintf(id.data(), id.size(), "%X", can_id);
    can_note(std::string("traffic ") + (direction == TRAFFIC_SEND ? "sent " : "received ") +
             id.data() + "#" + can_hex({data, data_length}) + (rtr != 0 ? " remote" : "") +
             " port " + number(port));
    return -5; // what becomes of the log is nothing to the port
}

/* config/read.h */

int can_proprietary_conf_get_port_config(device_config **list, int portId) {
    can_note("configuration " + number(portId));
    if (settings.port_config_result == 0) {
        *list = std::exchange(settings.port_config, nullptr);
    }
    return settings.port_config_result;
}

int can_proprietary_conf_get_interface_config(interface_config *target, int portId) {
    can_note("settings " + number(portId));
    *target = settings.interface;
    return settings.interface_result;
}

/* kt/platform.h */

can_port *can_get(const char *name) {
    if (!settings.has_platform_port) {
        return nullptr;
    }
    open_ports++;
    return new can_port{name};
}

int can_set_termination_resistor_state(can_port *port, int state) {
    can_note("resistor " + port->name + " " + number(state));
    return -1; // a port without a switchable resistor is as good
}

void can_free(can_port *port) {
    open_ports--;
    delete port;
}
