#include "can/codec.h"

#include <kt/protocol_common.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

static_assert(std::endian::native == std::endian::little, "values lie in frames as in memory");

namespace {

void reverse_groups(std::span<uint8_t> bytes, size_t group) {
    for (size_t start = 0; start + group <= bytes.size(); start += group) {
        std::reverse(bytes.begin() + static_cast<ptrdiff_t>(start),
                     bytes.begin() + static_cast<ptrdiff_t>(start + group));
    }
}

void exchange_halves(std::span<uint8_t> bytes) {
    constexpr size_t half = 2;
    for (size_t start = 0; start + 2 * half <= bytes.size(); start += 2 * half) {
        std::swap(bytes[start], bytes[start + half]);
        std::swap(bytes[start + 1], bytes[start + half + 1]);
    }
}

/** NaN gives 0, as the processors of the gateways convert. */
template <typename Integer>
Integer saturate(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value <= static_cast<double>(std::numeric_limits<Integer>::min())) {
        return std::numeric_limits<Integer>::min();
    }
    if (value >= static_cast<double>(std::numeric_limits<Integer>::max())) {
        return std::numeric_limits<Integer>::max();
    }
    return static_cast<Integer>(value);
}

struct line {
    double slope;
    double offset;
};

line line_of(const tag_block_config *tag) {
    const auto &[a, b, c, d] = tag->scaling;
    if (tag->scalingFunc == SCALING_INTERCEPT) {
        return {a, b};
    }
    return {(d - c) / (b - a), (a * c - a * d) / (b - a) + c};
}

/**
 * @tparam Value  how the value lies in the frame
 * @tparam Wide   what the result is saturated to before it is cut to Value
 */
template <typename Value, typename Wide>
int scale_as(std::span<uint8_t> bytes, const line &line) {
    // A block shorter than its type keeps its length: the neighbours are not its own.
    const size_t length = std::min(bytes.size(), sizeof(Value));
    Value value{};
    memcpy(&value, bytes.data(), length);
    const double result = line.offset + static_cast<double>(value) * line.slope;
    if constexpr (std::is_floating_point_v<Value>) {
        value = static_cast<Value>(result);
    } else {
        value = static_cast<Value>(saturate<Wide>(result));
    }
    memcpy(bytes.data(), &value, length);
    return 1;
}

std::array<uint8_t, sizeof(uint64_t)> little_endian(uint64_t value) {
    return std::bit_cast<std::array<uint8_t, sizeof(uint64_t)>>(value);
}

} // namespace

void codec_swap(std::span<uint8_t> bytes, uint8_t mode) {
    switch (mode) {
    case 1:
        reverse_groups(bytes, 2);
        break;
    case 2:
        exchange_halves(bytes);
        break;
    case 3:
        reverse_groups(bytes, 4);
        break;
    case 4:
        std::reverse(bytes.begin(), bytes.end());
        break;
    case 5:
        std::reverse(bytes.begin(), bytes.end());
        reverse_groups(bytes, 2);
        break;
    default:
        break;
    }
}

int codec_scale(std::span<uint8_t> bytes, const tag_block_config *tag) {
    if (tag->scalingFunc != SCALING_INTERCEPT && tag->scalingFunc != SCALING_POINTS) {
        return 0;
    }
    const line line = line_of(tag);
    switch (tag->tagType) {
    case TAG_INT8:
        return scale_as<int8_t, int32_t>(bytes, line);
    case TAG_INT16:
        return scale_as<int16_t, int32_t>(bytes, line);
    case TAG_INT32:
        return scale_as<int32_t, int32_t>(bytes, line);
    case TAG_INT64:
        return scale_as<int64_t, int64_t>(bytes, line);
    case TAG_UINT8:
        return scale_as<uint8_t, uint32_t>(bytes, line);
    case TAG_UINT16:
        return scale_as<uint16_t, uint32_t>(bytes, line);
    case TAG_UINT32:
        return scale_as<uint32_t, uint32_t>(bytes, line);
    case TAG_UINT64:
        return scale_as<uint64_t, uint64_t>(bytes, line);
    case TAG_FLOAT:
        return scale_as<float, float>(bytes, line);
    case TAG_DOUBLE:
        return scale_as<double, double>(bytes, line);
    default:
        return 0;
    }
}

void codec_lay_constant(frame_buffer &buffer, const constant_block_config *constant) {
    const std::span<uint8_t> bytes =
        block_bytes(buffer, constant->startOffset, constant->constantSize);
    memcpy(bytes.data(), little_endian(constant->constantValue).data(), bytes.size());
}

bool codec_match_constant(const frame_buffer &buffer, const constant_block_config *constant) {
    const size_t start = std::min<size_t>(constant->startOffset, CAN_MAX_DLEN);
    const size_t length = std::min<size_t>(constant->constantSize, CAN_MAX_DLEN - start);
    return memcmp(buffer.data() + start, little_endian(constant->constantValue).data(), length) ==
           0;
}

void codec_fault_value(const char *fp_data, std::span<uint8_t> bytes) {
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    (void)atoh(fp_data, bytes.data(), bytes.size());
}
