#include "can_reference.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

namespace {

struct receiver {
    const device_config *device = nullptr;
    const transaction_config *transaction = nullptr;
};

/** Everything that is neither sent nor asked for in one of the three known ways is received. */
bool is_consumer(const transaction_config *transaction) {
    const bool known_trigger = transaction->triggerMode <= 2;
    const bool sends = transaction->transactionType == 0 || transaction->transactionType == 2;
    return !(sends && known_trigger);
}

bool has_id(const transaction_config *transaction, uint32_t id) {
    for (const frame_config *frame = transaction->frames; frame != nullptr; frame = frame->next) {
        if (static_cast<uint32_t>(frame->canId) == id) {
            return true;
        }
    }
    return false;
}

/** The last of the configuration; one with a timeout comes before those without. */
receiver find_consumer(const device_config *devices, uint32_t id) {
    std::array<receiver, 2> found;
    for (const device_config *device = devices; device != nullptr; device = device->next) {
        for (const transaction_config *each = device->transactions; each != nullptr;
             each = each->next) {
            if (each->transactionEnable != 0 && is_consumer(each) && has_id(each, id)) {
                found[each->consumeToutEnable != 0 ? 1 : 0] = {device, each};
            }
        }
    }
    return found[1].transaction != nullptr ? found[1] : found[0];
}

const device_config *device_of(const device_config *devices, const transaction_config *wanted) {
    for (const device_config *device = devices; device != nullptr; device = device->next) {
        for (const transaction_config *each = device->transactions; each != nullptr;
             each = each->next) {
            if (each == wanted) {
                return device;
            }
        }
    }
    return nullptr;
}

const frame_config *second_frame(const transaction_config *transaction) {
    return transaction->frames == nullptr ? nullptr : transaction->frames->next;
}

receiver
find_receiver(const device_config *devices, const transaction_config *awaiting, uint32_t id) {
    const receiver consumer = find_consumer(devices, id);
    if (consumer.transaction != nullptr || awaiting == nullptr) {
        return consumer;
    }
    const frame_config *response = second_frame(awaiting);
    const bool matches = response != nullptr && static_cast<uint32_t>(response->canId) == id;
    return matches ? receiver{device_of(devices, awaiting), awaiting} : receiver{};
}

const frame_config *compared_frame(const transaction_config *transaction) {
    switch (transaction->transactionType) {
    case 1:
        return transaction->frames;
    case 2:
        return second_frame(transaction);
    default:
        return nullptr;
    }
}

/** The byte of the block that comes to place i. */
size_t swapped_index(size_t i, size_t size, uint8_t mode) {
    switch (mode) {
    case 1:
        return (i | 1) < size ? i ^ 1 : i;
    case 2:
        return (i | 3) < size ? i ^ 2 : i;
    case 3:
        return (i | 3) < size ? i ^ 3 : i;
    case 4:
        return size - 1 - i;
    case 5: {
        const size_t pair = (i | 1) < size ? i ^ 1 : i;
        return size - 1 - pair;
    }
    default:
        return i;
    }
}

struct extent {
    size_t start;
    size_t size;
};

extent extent_of(uint8_t offset, uint8_t size) {
    return {std::min<size_t>(offset, 8), std::min<size_t>(size, 8)};
}

void swap_in(reference_buffer &data, const tag_block_config *tag) {
    const auto [start, size] = extent_of(tag->startOffset, tag->tagSize);
    const reference_buffer before = data;
    for (size_t i = 0; i < size; i++) {
        data[start + i] = before[start + swapped_index(i, size, tag->swap)];
    }
}

uint8_t constant_byte(const constant_block_config *constant, size_t i) {
    return static_cast<uint8_t>(constant->constantValue >> (8 * i));
}

bool constant_matches(const reference_buffer &data, const constant_block_config *constant) {
    for (size_t i = 0; i < constant->constantSize && constant->startOffset + i < 8; i++) {
        if (data[constant->startOffset + i] != constant_byte(constant, i)) {
            return false;
        }
    }
    return true;
}

bool is_good(const reference_buffer &data, uint8_t length, const frame_config *frame) {
    for (const block_config *block = frame->blocks; block != nullptr; block = block->next) {
        if (block->blockType == 1 && !constant_matches(data, block->constant)) {
            return false;
        }
    }
    return length == frame->dataLength;
}

template <typename Value>
double load_as(const uint8_t *bytes, size_t size) {
    Value value{};
    memcpy(&value, bytes, std::min(size, sizeof value));
    return static_cast<double>(value);
}

double load(const uint8_t *bytes, size_t size, uint8_t type) {
    switch (type) {
    case 1:
        return load_as<int8_t>(bytes, size);
    case 2:
        return load_as<int16_t>(bytes, size);
    case 3:
        return load_as<int32_t>(bytes, size);
    case 4:
        return load_as<int64_t>(bytes, size);
    case 5:
        return load_as<uint8_t>(bytes, size);
    case 6:
        return load_as<uint16_t>(bytes, size);
    case 7:
        return load_as<uint32_t>(bytes, size);
    case 8:
        return load_as<uint64_t>(bytes, size);
    case 9:
        return load_as<float>(bytes, size);
    default:
        return load_as<double>(bytes, size);
    }
}

/** Saturated by the bounds as powers of two, which a double holds exactly. */
uint64_t integer_of(double value, bool is_signed, int bits) {
    const double lowest = is_signed ? -std::ldexp(1.0, bits - 1) : 0.0;
    const double beyond = std::ldexp(1.0, is_signed ? bits - 1 : bits);
    const uint64_t greatest = UINT64_MAX >> (64 - bits + (is_signed ? 1 : 0));
    if (std::isnan(value)) {
        return 0;
    }
    if (value <= lowest) {
        return is_signed ? ~greatest : 0;
    }
    if (value >= beyond) {
        return greatest;
    }
    return value < 0 ? 0 - static_cast<uint64_t>(-value) : static_cast<uint64_t>(value);
}

void store(uint8_t *bytes, size_t size, uint8_t type, double value) {
    constexpr std::array<size_t, 9> widths = {0, 1, 2, 4, 8, 1, 2, 4, 8};
    if (type == 9) {
        const auto single = static_cast<float>(value);
        memcpy(bytes, &single, std::min(size, sizeof single));
    } else if (type == 10) {
        memcpy(bytes, &value, std::min(size, sizeof value));
    } else {
        const bool wide = type == 4 || type == 8;
        const uint64_t number = integer_of(value, type <= 4, wide ? 64 : 32);
        memcpy(bytes, &number, std::min(size, widths[type]));
    }
}

void scale_in(reference_buffer &data, const tag_block_config *tag) {
    const auto [start, size] = extent_of(tag->startOffset, tag->tagSize);
    const bool scaled = tag->scalingFunc == 1 || tag->scalingFunc == 2;
    if (!scaled || tag->tagType < 1 || tag->tagType > 10) {
        return;
    }
    const scaling_numbers &n = tag->scaling;
    const bool points = tag->scalingFunc == 2;
    const double slope = points ? (n.d - n.c) / (n.b - n.a) : n.a;
    const double offset = points ? (n.a * n.c - n.a * n.d) / (n.b - n.a) + n.c : n.b;
    const double value = load(&data[start], size, tag->tagType);
    store(&data[start], size, tag->tagType, offset + value * slope);
}

expected_value decode(reference_buffer &data, const receiver &owner, const tag_block_config *tag) {
    swap_in(data, tag);
    scale_in(data, tag);
    const auto [start, size] = extent_of(tag->startOffset, tag->tagSize);
    return {reference_tag_name(owner.device, owner.transaction, tag),
            {&data[start], &data[start] + size},
            tag->tagType == 9 && size == sizeof(float),
            tag->tagType == 10 && size == sizeof(double)};
}

bool both_nan(const expected_value &expected, const std::vector<uint8_t> &bytes) {
    if (expected.is_float) {
        return std::isnan(load_as<float>(expected.bytes.data(), sizeof(float))) &&
               std::isnan(load_as<float>(bytes.data(), sizeof(float)));
    }
    return expected.is_double &&
           std::isnan(load_as<double>(expected.bytes.data(), sizeof(double))) &&
           std::isnan(load_as<double>(bytes.data(), sizeof(double)));
}

} // namespace

expectation expect_received(const device_config *devices,
                            const interface_config &settings,
                            const transaction_config *awaiting,
                            const can_frame &frame) {
    const bool extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    const bool other = (frame.can_id & (CAN_ERR_FLAG | CAN_RTR_FLAG)) != 0;
    if (other || extended != (settings.frameFormat == 1)) {
        return {};
    }
    const receiver owner = find_receiver(devices, awaiting, frame.can_id & CAN_EFF_MASK);
    if (owner.transaction == nullptr) {
        return {};
    }
    expectation expected;
    expected.status_tag = "can_proprietary/" + std::string(owner.device->deviceName) + "/status";
    const frame_config *compared = compared_frame(owner.transaction);
    reference_buffer data{};
    std::copy_n(frame.data, std::min<size_t>(frame.len, 8), data.begin());
    if (compared == nullptr || !is_good(data, frame.len, compared)) {
        return expected;
    }
    expected.is_good = true;
    for (const block_config *block = compared->blocks; block != nullptr; block = block->next) {
        if (block->blockType == 0) {
            expected.values.push_back(decode(data, owner, block->tag));
        }
    }
    return expected;
}

reference_buffer reference_start(const frame_config *frame) {
    reference_buffer data{};
    for (const block_config *block = frame->blocks; block != nullptr; block = block->next) {
        if (block->blockType == 1) {
            const constant_block_config *constant = block->constant;
            const auto [start, size] = extent_of(constant->startOffset, constant->constantSize);
            for (size_t i = 0; i < size; i++) {
                data[start + i] = constant_byte(constant, i);
            }
        }
    }
    return data;
}

void reference_write(reference_buffer &data,
                     const tag_block_config *tag,
                     const std::vector<uint8_t> &value) {
    const auto [start, size] = extent_of(tag->startOffset, tag->tagSize);
    std::copy_n(value.begin(), std::min(size, value.size()), &data[start]);
}

std::vector<uint8_t> reference_sent(const reference_buffer &data, const frame_config *frame) {
    const size_t length = std::min<size_t>(frame->dataLength, 8);
    reference_buffer copy{};
    std::copy_n(data.begin(), length, copy.begin());
    for (const block_config *block = frame->blocks; block != nullptr; block = block->next) {
        if (block->blockType == 0) {
            swap_in(copy, block->tag);
        }
    }
    return {copy.begin(), copy.begin() + static_cast<ptrdiff_t>(length)};
}

std::string reference_tag_name(const device_config *device,
                               const transaction_config *transaction,
                               const tag_block_config *tag) {
    return "can_proprietary/" + std::string(device->deviceName) + "/" +
           transaction->transactionName + "_" + tag->tagName;
}

bool same_value(const expected_value &expected, const std::vector<uint8_t> &bytes) {
    std::vector<uint8_t> whole = expected.bytes;
    whole.resize(bytes.size()); // a tag may be wider than its block
    return whole == bytes || both_nan(expected, bytes);
}
