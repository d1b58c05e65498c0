#include "can/error_frame.h"

#include "device/diag.h"
#include "device/event.h"
#include "device/led.h"

#include <linux/can/error.h>

namespace {

void count_protocol_errors(diag_record *record, const can_frame &frame) {
    constexpr uint8_t any_bit_error = CAN_ERR_PROT_BIT0 | CAN_ERR_PROT_BIT1;
    if ((frame.data[2] & any_bit_error) != 0) {
        diag_count(record->bitError);
    }
    if ((frame.data[2] & CAN_ERR_PROT_STUFF) != 0) {
        diag_count(record->stuffError);
    }
    if (frame.data[3] == CAN_ERR_PROT_LOC_CRC_SEQ) {
        diag_count(record->crcError);
    }
}

void follow_controller(const can_module *module, diag_record *record, uint8_t status) {
    constexpr uint8_t warning = CAN_ERR_CRTL_RX_WARNING | CAN_ERR_CRTL_TX_WARNING;
    constexpr uint8_t passive = CAN_ERR_CRTL_RX_PASSIVE | CAN_ERR_CRTL_TX_PASSIVE;
    if ((status & CAN_ERR_CRTL_ACTIVE) != 0) {
        can_proprietary_diag_set_bus_state(module->port_index, CANBUS_NORMAL);
        can_proprietary_led_update(record);
    } else if ((status & warning) != 0) {
        can_proprietary_diag_set_bus_state(module->port_index, CANBUS_ERROR_ACTIVE);
        can_proprietary_led_update(record);
    } else if ((status & passive) != 0) {
        can_proprietary_diag_set_bus_state(module->port_index, CANBUS_ERROR_PASSIVE);
        can_proprietary_event_error_passive();
        can_proprietary_led_set(LED_ERROR_PASSIVE);
    }
}

} // namespace

void can_error_notification(const can_module *module, diag_record *record, const can_frame &frame) {
    if ((frame.can_id & CAN_ERR_PROT) != 0) {
        count_protocol_errors(record, frame);
    }
    if ((frame.can_id & CAN_ERR_BUSOFF) != 0) {
        can_proprietary_diag_set_bus_state(module->port_index, CANBUS_BUS_OFF);
        diag_count(record->busOffCount);
        can_proprietary_event_bus_off();
        can_proprietary_led_set(LED_BUS_OFF);
    } else if ((frame.can_id & CAN_ERR_RESTARTED) != 0) {
        can_proprietary_diag_set_bus_state(module->port_index, CANBUS_NORMAL);
        can_proprietary_led_set(LED_NORMAL);
    } else if ((frame.can_id & CAN_ERR_CRTL) != 0) {
        follow_controller(module, record, frame.data[1]);
    }
}
