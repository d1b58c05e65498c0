#ifndef KT_TESTS_CAN_DEVICE_FAKE_H
#define KT_TESTS_CAN_DEVICE_FAKE_H

#include "config/model.h"
#include "device/diag.h"

#include <cstdint>
#include <string>

/*
 * What a port uses of the other subsystems and of the gateway: diagnostics, events, LED, traffic
 * recorder, configuration and termination resistor. Notes "register", "result", "forget", "bus",
 * "rate", "event", "led", "traffic", "resistor".
 */

struct can_device_settings {
    bool has_diag_record = true;
    bool has_platform_port = true;
    int port_config_result = 0;
    device_config *port_config = nullptr; /* handed out once, with its ownership */
    int interface_result = 0;
    interface_config interface = {};
    uint32_t first_slot = 0; /* of the diagnostic slots given out next */
};

can_device_settings &can_device();

/** Defaults, a cleared diagnostic record, no ports held. Releases a configuration not fetched. */
void can_device_reset();

/** The record of every port. */
diag_record &can_device_record();

/** Platform handles obtained and not yet released. */
int can_device_open_ports();

#endif
