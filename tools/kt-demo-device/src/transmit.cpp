#include "transmit.h"

#include "can_socket.h"

#include <algorithm>

namespace {

constexpr int64_t retry_ms = 2;
constexpr size_t outbox_limit = 4096;

uint32_t wire_id(const device &unit, uint32_t id) {
    return unit.extended ? id | CAN_EFF_FLAG : id;
}

void queue(device &unit, const can_frame &frame, int64_t due_ms) {
    if (unit.outbox.size() < outbox_limit) {
        unit.outbox.push_back({due_ms, frame});
    }
}

} // namespace

void transmit(
    device &unit, uint32_t id, std::span<const uint8_t> data, int constant_offset, int64_t now_ms) {
    if (unit.fault.silent) {
        return;
    }
    can_frame frame{};
    frame.can_id = wire_id(unit, id);
    std::copy(data.begin(), data.end(), frame.data);
    frame.can_dlc = static_cast<uint8_t>(data.size());
    if (unit.fault.wrong_constant && constant_offset != no_constant) {
        uint8_t &byte = frame.data[constant_offset];
        byte = static_cast<uint8_t>(~byte);
    }
    if (unit.fault.wrong_length && frame.can_dlc > 0) {
        --frame.can_dlc;
    }
    queue(unit, frame, now_ms + unit.fault.late_ms);
}

void transmit_remote(device &unit, uint32_t id, uint8_t dlc, int64_t now_ms) {
    if (unit.fault.silent) {
        return;
    }
    can_frame frame{};
    frame.can_id = wire_id(unit, id) | CAN_RTR_FLAG;
    frame.can_dlc = dlc;
    queue(unit, frame, now_ms + unit.fault.late_ms);
}

void transmit_plain(device &unit, const can_frame &frame, int64_t now_ms) {
    queue(unit, frame, now_ms);
}

bool flush_outbox(device &unit, int64_t now_ms, int64_t &next_ms) {
    next_ms = never_ms;
    for (auto it = unit.outbox.begin(); it != unit.outbox.end();) {
        if (it->due_ms > now_ms) {
            next_ms = std::min(next_ms, it->due_ms);
            ++it;
            continue;
        }
        switch (send_frame(unit.fd, unit.port, it->frame)) {
        case io_result::done:
            it = unit.outbox.erase(it);
            break;
        case io_result::again: // the rest waits too, so that the order holds
            next_ms = now_ms + retry_ms;
            return true;
        case io_result::lost:
            return false;
        }
    }
    return true;
}
