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

constexpr uint8_t no_swap = 0;
constexpr uint8_t swap_pairs = 1;

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
    constexpr Integer least = std::numeric_limits<Integer>::min();
    constexpr Integer most = std::numeric_limits<Integer>::max();
    if (value > static_cast<double>(least) && value < static_cast<double>(most)) {
        return static_cast<Integer>(value);
    }
    if (std::isnan(value)) {
        return 0;
    }
    return value <= static_cast<double>(least) ? least : most;
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
Value scaled(Value value, double slope, double offset) {
    const double result = offset + static_cast<double>(value) * slope;
    if constexpr (std::is_floating_point_v<Value>) {
        return static_cast<Value>(result);
    } else {
        return static_cast<Value>(saturate<Wide>(result));
    }
}

/** A block shorter than its type keeps its length: the neighbours are not its own. */
template <typename Value, typename Wide>
[[gnu::noinline]] int scale_part(uint8_t *start, size_t length, double slope, double offset) {
    Value value{};
    memcpy(&value, start, length);
    value = scaled<Value, Wide>(value, slope, offset);
    memcpy(start, &value, length);
    return 1;
}

template <typename Value, typename Wide>
int scale_as(uint8_t *start, size_t length, double slope, double offset) {
    if (length < sizeof(Value)) [[unlikely]] {
        return scale_part<Value, Wide>(start, length, slope, offset);
    }
    Value value;
    memcpy(&value, start, sizeof value);
    value = scaled<Value, Wide>(value, slope, offset);
    memcpy(start, &value, sizeof value);
    return 1;
}

int scale(uint8_t *start, size_t length, const tag_block_config *tag) {
    if (tag->scalingFunc != SCALING_INTERCEPT && tag->scalingFunc != SCALING_POINTS) {
        return 0;
    }
    const auto [slope, offset] = line_of(tag);
    switch (tag->tagType) {
    case TAG_INT8:
        return scale_as<int8_t, int32_t>(start, length, slope, offset);
    case TAG_INT16:
        return scale_as<int16_t, int32_t>(start, length, slope, offset);
    case TAG_INT32:
        return scale_as<int32_t, int32_t>(start, length, slope, offset);
    case TAG_INT64:
        return scale_as<int64_t, int64_t>(start, length, slope, offset);
    case TAG_UINT8:
        return scale_as<uint8_t, uint32_t>(start, length, slope, offset);
    case TAG_UINT16:
        return scale_as<uint16_t, uint32_t>(start, length, slope, offset);
    case TAG_UINT32:
        return scale_as<uint32_t, uint32_t>(start, length, slope, offset);
    case TAG_UINT64:
        return scale_as<uint64_t, uint64_t>(start, length, slope, offset);
    case TAG_FLOAT:
        return scale_as<float, float>(start, length, slope, offset);
    case TAG_DOUBLE:
        return scale_as<double, double>(start, length, slope, offset);
    default:
        return 0;
    }
}

bool is_scaled(const tag_block_config *tag) {
    return tag->scalingFunc != SCALING_NONE && tag->tagType != TAG_RAW;
}

std::array<uint8_t, sizeof(uint64_t)> little_endian(uint64_t value) {
    return std::bit_cast<std::array<uint8_t, sizeof(uint64_t)>>(value);
}

} // namespace

void codec_swap(std::span<uint8_t> bytes, uint8_t mode) {
    switch (mode) {
    case swap_pairs:
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
    return scale(bytes.data(), bytes.size(), tag);
}

uint8_t codec_decoding(const tag_block_config *tag, size_t length) {
    const uint8_t scaling = is_scaled(tag) ? DECODE_SCALE : DECODE_NOTHING;
    if (tag->swap == no_swap || length < 2) {
        return scaling;
    }
    return scaling | (tag->swap == swap_pairs && length == 2 ? DECODE_PAIR : DECODE_SWAP);
}

void codec_decode(const function_block_info *block, uint8_t *start) {
    if ((block->decoding & DECODE_PAIR) != 0) {
        std::swap(start[0], start[1]);
    }
    if ((block->decoding & DECODE_SWAP) != 0) [[unlikely]] {
        codec_swap({start, block->length}, block->data->config->swap);
    }
    if ((block->decoding & DECODE_SCALE) != 0) {
        (void)scale(start, block->length, block->data->config);
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
