#include "device.h"
#include "transmit.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace {

constexpr uint32_t climate_id = 0x281;
constexpr uint32_t sample_id = 0x282;
constexpr uint8_t climate_constant = 0xC3;
constexpr int slow_factor = 4; // sample frames come this much more rarely

constexpr int64_t ramp_period_ms = 60000; // 20 to 80 degrees and back

float temperature_celsius(int64_t now_ms) {
    const int64_t half = ramp_period_ms / 2;
    const int64_t up_ms = half - std::abs(half - now_ms % ramp_period_ms);
    return 20.0F + 60.0F * static_cast<float>(up_ms) / static_cast<float>(half);
}

void send_climate(device &unit, int64_t now_ms) {
    const auto wave = static_cast<uint16_t>(now_ms / 100 % 300);
    std::array<uint8_t, 8> data{};
    put(std::span(data), 0, temperature_celsius(now_ms));
    put_big(std::span(data), 4, static_cast<uint16_t>(10000 + wave)); // 0.1 hPa
    data[6] = static_cast<uint8_t>(40 + now_ms / 1000 % 20);          // percent
    data[7] = climate_constant;
    transmit(unit, climate_id, data, 7, now_ms);
}

void send_samples(device &unit, int64_t now_ms) {
    std::array<uint8_t, 8> data{};
    put_big(std::span(data), 0, ++unit.sensor.samples);
    put(std::span(data), 4, static_cast<uint32_t>(now_ms));
    transmit(unit, sample_id, data, no_constant, now_ms);
}

/** Keep the pace, without a burst after a standstill. */
int64_t next_time(int64_t planned_ms, int64_t interval_ms, int64_t now_ms) {
    return std::max(planned_ms + interval_ms, now_ms);
}

void receive(device &, const can_frame &, uint32_t, int64_t) {}

int64_t run(device &unit, int64_t now_ms) {
    sensor_state &sensor = unit.sensor;
    if (now_ms >= sensor.next_fast_ms) {
        send_climate(unit, now_ms);
        sensor.next_fast_ms = next_time(sensor.next_fast_ms, unit.interval_ms, now_ms);
    }
    if (now_ms >= sensor.next_slow_ms) {
        send_samples(unit, now_ms);
        sensor.next_slow_ms =
            next_time(sensor.next_slow_ms, slow_factor * unit.interval_ms, now_ms);
    }
    return std::min(sensor.next_fast_ms, sensor.next_slow_ms);
}

} // namespace

const node_kind sensor_node{"sensor", receive, run};
