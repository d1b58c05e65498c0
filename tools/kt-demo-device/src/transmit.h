#ifndef KT_DEMO_DEVICE_TRANSMIT_H
#define KT_DEMO_DEVICE_TRANSMIT_H

#include "device.h"

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <span>

constexpr int no_constant = -1;

/**
 * Queue a frame of a node, changed by the faults in force.
 * @param constant_offset  the byte that tells receivers what the frame is, or no_constant
 */
void transmit(
    device &unit, uint32_t id, std::span<const uint8_t> data, int constant_offset, int64_t now_ms);

/** Queue a remote frame. */
void transmit_remote(device &unit, uint32_t id, uint8_t dlc, int64_t now_ms);

/** Queue a frame as it stands, whatever the faults. */
void transmit_plain(device &unit, const can_frame &frame, int64_t now_ms);

/**
 * Send what is due.
 * @param[out] next_ms  when to call again, never_ms when nothing waits
 * @return false when the port is gone
 */
bool flush_outbox(device &unit, int64_t now_ms, int64_t &next_ms);

/** Lay a number into data bytes, least significant byte first. */
template <typename number>
void put(std::span<uint8_t> data, size_t offset, number value) {
    static_assert(std::endian::native == std::endian::little);
    memcpy(data.subspan(offset, sizeof value).data(), &value, sizeof value);
}

template <typename number>
number take(std::span<const uint8_t> data, size_t offset) {
    number value;
    memcpy(&value, data.subspan(offset, sizeof value).data(), sizeof value);
    return value;
}

/** Most significant byte first. */
template <std::unsigned_integral number>
void put_big(std::span<uint8_t> data, size_t offset, number value) {
    for (size_t i = sizeof value; i-- > 0; value = static_cast<number>(value >> 8)) {
        data[offset + i] = static_cast<uint8_t>(value & 0xFF);
    }
}

#endif
