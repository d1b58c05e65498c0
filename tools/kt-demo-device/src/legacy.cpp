#include "device.h"
#include "report.h"
#include "transmit.h"

#include <array>

namespace {

constexpr uint32_t setpoint_id = 0x321; // asked for with a remote frame, answered with data
constexpr uint32_t command_id = 0x331;
constexpr uint32_t acknowledge_id = 0x3A1;
constexpr uint8_t setpoint_dlc = 4;
constexpr size_t command_size = 2;
constexpr int64_t request_interval_ms = 1000;

void acknowledge(device &unit, int64_t now_ms) {
    const legacy_state &legacy = unit.legacy;
    std::array<uint8_t, 4> data{legacy.answers, legacy.commands};
    put(std::span(data), 2, legacy.last_command);
    transmit(unit, acknowledge_id, data, no_constant, now_ms);
}

void receive(device &unit, const can_frame &frame, uint32_t id, int64_t now_ms) {
    legacy_state &legacy = unit.legacy;
    const std::span<const uint8_t> data(frame.data, frame.can_dlc);
    if ((frame.can_id & CAN_RTR_FLAG) != 0) {
        return;
    }
    if (id == setpoint_id && data.size() == setpoint_dlc) {
        ++legacy.answers;
        report_value(unit, "legacy", "setpoint", take<uint16_t>(data, 0));
        acknowledge(unit, now_ms);
    }
    if (id == command_id && data.size() == command_size) {
        ++legacy.commands;
        legacy.last_command = take<uint16_t>(data, 0);
        report_value(unit, "legacy", "command", legacy.last_command);
        acknowledge(unit, now_ms);
    }
}

int64_t run(device &unit, int64_t now_ms) {
    legacy_state &legacy = unit.legacy;
    if (now_ms >= legacy.next_request_ms) {
        transmit_remote(unit, setpoint_id, setpoint_dlc, now_ms);
        legacy.next_request_ms = now_ms + request_interval_ms;
    }
    return legacy.next_request_ms;
}

} // namespace

const node_kind legacy_node{"legacy", receive, run};
