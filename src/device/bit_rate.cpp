#include "device/bit_rate.h"

#include <array>

namespace {

constexpr std::array<uint32_t, 8> bit_rates = {
    10000, 20000, 50000, 125000, 250000, 500000, 800000, 1000000};

constexpr uint32_t fallback_bit_rate = 125000;

} // namespace

uint32_t can_bit_rate(int32_t baudrate) {
    const auto index = static_cast<uint32_t>(baudrate);
    return index < bit_rates.size() ? bit_rates[index] : fallback_bit_rate;
}
