#include "can/codec.h"
#include "can_journal.h"
#include "config/row.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

/** The bytes 0, 1, 2 ... of a length after a swap. */
std::string swapped(uint8_t mode, size_t length) {
    // Exactly that many bytes on the heap, so that the address sanitizer sees a step beyond.
    const auto bytes = std::make_unique<uint8_t[]>(length);
    std::iota(bytes.get(), bytes.get() + length, uint8_t{0});
    codec_swap({bytes.get(), length}, mode);
    std::string text;
    for (size_t i = 0; i < length; i++) {
        text += static_cast<char>('0' + bytes[i]);
    }
    return text;
}

void expect_swaps(uint8_t mode, const std::vector<std::string> &by_length) {
    for (size_t length = 0; length < by_length.size(); length++) {
        EXPECT_EQ(swapped(mode, length), by_length[length]) << int{mode} << ", length " << length;
    }
}

TEST(codec, swap_1_exchanges_the_bytes_of_each_whole_pair) {
    expect_swaps(1, {"", "0", "10", "102", "1032", "10324", "103254", "1032546", "10325476"});
}

TEST(codec, swap_2_exchanges_the_halves_of_each_whole_group_of_four) {
    expect_swaps(2, {"", "0", "01", "012", "2301", "23014", "230145", "2301456", "23016745"});
}

TEST(codec, swap_3_reverses_each_whole_group_of_four) {
    expect_swaps(3, {"", "0", "01", "012", "3210", "32104", "321045", "3210456", "32107654"});
}

TEST(codec, swap_4_reverses_the_whole_length) {
    expect_swaps(4, {"", "0", "10", "210", "3210", "43210", "543210", "6543210", "76543210"});
}

TEST(codec, swap_5_reverses_the_whole_length_and_then_exchanges_each_pair) {
    expect_swaps(5, {"", "0", "01", "120", "2301", "34120", "452301", "5634120", "67452301"});
}

TEST(codec, other_swap_modes_leave_the_bytes_alone) {
    for (const uint8_t mode : {uint8_t{0}, uint8_t{6}, uint8_t{7}, uint8_t{255}}) {
        expect_swaps(mode,
                     {"", "0", "01", "012", "0123", "01234", "012345", "0123456", "01234567"});
    }
}

template <typename Value>
struct scaled {
    int result;
    Value value;
};

template <typename Value>
scaled<Value> scale(int type, Value value, uint8_t function, scaling_numbers numbers) {
    tag_block_config tag{};
    tag.tagType = static_cast<uint8_t>(type);
    tag.scalingFunc = function;
    tag.scaling = numbers;
    const auto bytes = std::make_unique<uint8_t[]>(sizeof value);
    memcpy(bytes.get(), &value, sizeof value);
    scaled<Value> out{};
    out.result = codec_scale({bytes.get(), sizeof value}, &tag);
    memcpy(&out.value, bytes.get(), sizeof value);
    return out;
}

/** slope * value + offset by scaling function 1 */
template <typename Value>
Value line(int type, Value value, double slope, double offset) {
    const scaled<Value> out =
        scale<Value>(type, value, SCALING_INTERCEPT, {slope, offset, 111, 222});
    EXPECT_EQ(out.result, 1);
    return out.value;
}

template <typename Value>
Value points(int type, Value value, scaling_numbers numbers) {
    const scaled<Value> out = scale<Value>(type, value, SCALING_POINTS, numbers);
    EXPECT_EQ(out.result, 1);
    return out.value;
}

template <typename Value>
void expect_both_scalings(int type) {
    SCOPED_TRACE(type);
    EXPECT_EQ(line<Value>(type, 20, 2, 3), Value{43});
    EXPECT_EQ(line<Value>(type, 20, 0.25, 1), Value{6});
    EXPECT_EQ(points<Value>(type, 20, {0, 40, 0, 100}), Value{50});
    EXPECT_EQ(points<Value>(type, 20, {10, 30, 50, 70}), Value{60});
}

TEST(codec, every_numeric_type_is_scaled_by_intercept_and_by_points) {
    expect_both_scalings<int8_t>(TAG_INT8);
    expect_both_scalings<int16_t>(TAG_INT16);
    expect_both_scalings<int32_t>(TAG_INT32);
    expect_both_scalings<int64_t>(TAG_INT64);
    expect_both_scalings<uint8_t>(TAG_UINT8);
    expect_both_scalings<uint16_t>(TAG_UINT16);
    expect_both_scalings<uint32_t>(TAG_UINT32);
    expect_both_scalings<uint64_t>(TAG_UINT64);
    expect_both_scalings<float>(TAG_FLOAT);
    expect_both_scalings<double>(TAG_DOUBLE);
}

TEST(codec, signed_types_are_read_with_their_sign) {
    EXPECT_EQ(line<int8_t>(TAG_INT8, -5, 2, -1), -11);
    EXPECT_EQ(line<int16_t>(TAG_INT16, -500, 2, -1), -1001);
    EXPECT_EQ(line<int32_t>(TAG_INT32, -500000, 2, -1), -1000001);
    EXPECT_EQ(line<int64_t>(TAG_INT64, -5000000000, 2, -1), -10000000001);
}

TEST(codec, unsigned_types_are_read_without_a_sign) {
    EXPECT_EQ(line<uint8_t>(TAG_UINT8, 255, 0.5, 0), 127);
    EXPECT_EQ(line<uint16_t>(TAG_UINT16, 65535, 0.5, 0), 32767);
    EXPECT_EQ(line<uint32_t>(TAG_UINT32, 4294967295U, 0.5, 0), 2147483647U);
    EXPECT_EQ(line<uint64_t>(TAG_UINT64, 1ULL << 63, 0.5, 0), 1ULL << 62);
}

TEST(codec, fractions_are_cut_towards_zero) {
    EXPECT_EQ(line<int8_t>(TAG_INT8, 7, 0.5, 0), 3);
    EXPECT_EQ(line<int8_t>(TAG_INT8, -7, 0.5, 0), -3);
    EXPECT_EQ(line<uint64_t>(TAG_UINT64, 7, 0.5, 0), 3U);
    EXPECT_EQ(line<uint8_t>(TAG_UINT8, 1, -0.5, 0), 0);
}

TEST(codec, scaling_happens_in_double_precision) {
    EXPECT_EQ(line<uint64_t>(TAG_UINT64, (1ULL << 53) + 1, 1, 0), 1ULL << 53);
    EXPECT_EQ(line<double>(TAG_DOUBLE, 0.1, 3, 0.5), 0.5 + 0.1 * 3);
    EXPECT_EQ(line<float>(TAG_FLOAT, 0.1F, 3, 0.5),
              static_cast<float>(0.5 + static_cast<double>(0.1F) * 3));
}

TEST(codec, small_types_saturate_to_32_bits_and_are_then_cut) {
    EXPECT_EQ(line<uint8_t>(TAG_UINT8, 100, 3, 0), 44); // 300
    EXPECT_EQ(line<int8_t>(TAG_INT8, 100, 2, 0), -56);  // 200
    EXPECT_EQ(line<uint16_t>(TAG_UINT16, 40000, 2, 0), 14464);
    EXPECT_EQ(line<int16_t>(TAG_INT16, 20000, 2, 0), -25536);
    EXPECT_EQ(line<uint8_t>(TAG_UINT8, 1, 1e300, 0), 0xff);
    EXPECT_EQ(line<uint16_t>(TAG_UINT16, 1, 1e300, 0), 0xffff);
    EXPECT_EQ(line<int8_t>(TAG_INT8, 1, 1e300, 0), -1);   // 0x7fffffff
    EXPECT_EQ(line<int8_t>(TAG_INT8, 1, -1e300, 0), 0);   // 0x80000000
    EXPECT_EQ(line<int16_t>(TAG_INT16, 1, 1e300, 0), -1); // 0x7fffffff
    EXPECT_EQ(line<int16_t>(TAG_INT16, 1, -1e300, 0), 0); // 0x80000000
}

TEST(codec, unsigned_types_saturate_at_zero) {
    EXPECT_EQ(line<uint8_t>(TAG_UINT8, 5, -1, 0), 0);
    EXPECT_EQ(line<uint16_t>(TAG_UINT16, 5, -1, 0), 0);
    EXPECT_EQ(line<uint32_t>(TAG_UINT32, 5, -1, 0), 0U);
    EXPECT_EQ(line<uint64_t>(TAG_UINT64, 5, -1, 0), 0U);
}

TEST(codec, wide_types_saturate_at_their_limits) {
    EXPECT_EQ(line<int32_t>(TAG_INT32, 1, 1, 2147483646.5), 2147483647);
    EXPECT_EQ(line<int32_t>(TAG_INT32, 1, 1e300, 0), 2147483647);
    EXPECT_EQ(line<int32_t>(TAG_INT32, 1, -1e300, 0), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(line<uint32_t>(TAG_UINT32, 1, 1e300, 0), 4294967295U);
    EXPECT_EQ(line<uint32_t>(TAG_UINT32, 1, 1, 4294967293.5), 4294967294U);
    EXPECT_EQ(line<int64_t>(TAG_INT64, 1, 9223372036854775808.0, 0),
              std::numeric_limits<int64_t>::max());
    EXPECT_EQ(line<int64_t>(TAG_INT64, 1, -infinity, 0), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(line<uint64_t>(TAG_UINT64, 1, 18446744073709551616.0, 0),
              std::numeric_limits<uint64_t>::max());
}

template <typename Value>
void expect_not_a_number_gives_zero(int type) {
    // 0 / 0 in the slope
    EXPECT_EQ(points<Value>(type, 20, {5, 5, 7, 7}), Value{0}) << type;
}

TEST(codec, not_a_number_becomes_zero_in_the_integer_types) {
    expect_not_a_number_gives_zero<int8_t>(TAG_INT8);
    expect_not_a_number_gives_zero<int16_t>(TAG_INT16);
    expect_not_a_number_gives_zero<int32_t>(TAG_INT32);
    expect_not_a_number_gives_zero<int64_t>(TAG_INT64);
    expect_not_a_number_gives_zero<uint8_t>(TAG_UINT8);
    expect_not_a_number_gives_zero<uint16_t>(TAG_UINT16);
    expect_not_a_number_gives_zero<uint32_t>(TAG_UINT32);
    expect_not_a_number_gives_zero<uint64_t>(TAG_UINT64);
    EXPECT_TRUE(std::isnan(points<float>(TAG_FLOAT, 20, {5, 5, 7, 7})));
    EXPECT_TRUE(std::isnan(points<double>(TAG_DOUBLE, 20, {5, 5, 7, 7})));
}

TEST(codec, the_offset_of_points_is_the_difference_of_two_products) {
    // 1e308 * 10 overflows: offset infinity - infinity, where 1e308 * (10 - 10) would be 0
    EXPECT_EQ(points<int32_t>(TAG_INT32, 20, {1e308, -1e308, 10, 10}), 0);
    EXPECT_TRUE(std::isnan(points<double>(TAG_DOUBLE, 20, {1e308, -1e308, 10, 10})));
    // 1e300 * 1 - 1e300 * 1 is 0, whatever stands beside it
    EXPECT_EQ(points<double>(TAG_DOUBLE, 20, {1e300, 2e300, 1, 1}), 1.0);
}

TEST(codec, equal_source_points_divide_by_zero_and_saturate) {
    // slope +inf, offset 0 / 0 + c with a source of 0: -0 * inf is not a number
    EXPECT_EQ(points<uint8_t>(TAG_UINT8, 20, {0, 0, 0, 10}), 0);
    // slope +inf, offset -inf: their sum is not a number
    EXPECT_EQ(points<int32_t>(TAG_INT32, 20, {5, 5, 0, 10}), 0);
    // slope +inf, offset +inf
    EXPECT_EQ(points<int32_t>(TAG_INT32, 20, {-5, -5, 0, 10}), 2147483647);
    EXPECT_EQ(points<uint8_t>(TAG_UINT8, 20, {-5, -5, 0, 10}), 0xff);
    EXPECT_EQ(points<double>(TAG_DOUBLE, 20, {-5, -5, 0, 10}), infinity);
    // slope -inf, offset -inf
    EXPECT_EQ(points<int32_t>(TAG_INT32, 20, {-5, -5, 10, 0}), std::numeric_limits<int32_t>::min());
}

TEST(codec, a_value_that_is_not_a_number_is_scaled_as_such) {
    EXPECT_TRUE(std::isnan(line<float>(TAG_FLOAT, NAN, 2, 3)));
    EXPECT_EQ(line<double>(TAG_DOUBLE, infinity, 2, 3), infinity);
    EXPECT_EQ(line<float>(TAG_FLOAT, 3e38F, 10, 0), std::numeric_limits<float>::infinity());
}

TEST(codec, scaling_functions_other_than_1_and_2_change_nothing) {
    for (const int function : {0, 3, 255}) {
        const auto out =
            scale<uint8_t>(TAG_UINT8, 20, static_cast<uint8_t>(function), {2, 3, 4, 5});
        EXPECT_EQ(out.result, 0);
        EXPECT_EQ(out.value, 20);
    }
}

TEST(codec, types_without_a_number_are_left_untouched) {
    for (const int type : {0, 11, 12, 13, 14, 255}) {
        const auto out = scale<uint64_t>(type, 20, SCALING_INTERCEPT, {2, 3, 0, 0});
        EXPECT_EQ(out.result, 0) << type;
        EXPECT_EQ(out.value, 20U) << type;
    }
}

TEST(codec, a_type_wider_than_its_block_keeps_to_the_blocks_bytes) {
    tag_block_config tag{};
    tag.scalingFunc = SCALING_INTERCEPT;
    tag.scaling = {2, 1, 0, 0};
    for (const int type : {TAG_INT16, TAG_INT32, TAG_INT64, TAG_UINT16, TAG_UINT32, TAG_UINT64}) {
        tag.tagType = static_cast<uint8_t>(type);
        const auto byte = std::make_unique<uint8_t>(uint8_t{200});
        EXPECT_EQ(codec_scale({byte.get(), 1}, &tag), 1);
        EXPECT_EQ(*byte, (200 * 2 + 1) & 0xff) << type;
    }
    for (const int type : {TAG_FLOAT, TAG_DOUBLE}) {
        tag.tagType = static_cast<uint8_t>(type);
        const auto byte = std::make_unique<uint8_t>(uint8_t{200});
        EXPECT_EQ(codec_scale({byte.get(), 1}, &tag), 1);
    }
}

TEST(codec, a_type_narrower_than_its_block_leaves_the_other_bytes) {
    tag_block_config tag{};
    tag.tagType = TAG_UINT8;
    tag.scalingFunc = SCALING_INTERCEPT;
    tag.scaling = {2, 1, 0, 0};
    std::vector<uint8_t> bytes = {10, 11, 12, 13};
    EXPECT_EQ(codec_scale(bytes, &tag), 1);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{21, 11, 12, 13}));
}

TEST(codec, an_empty_block_is_scaled_without_touching_memory) {
    tag_block_config tag{};
    tag.tagType = TAG_UINT64;
    tag.scalingFunc = SCALING_INTERCEPT;
    uint8_t byte = 5;
    (void)codec_scale({&byte, 0}, &tag);
    EXPECT_EQ(byte, 5);
}

/** What was worked out when the port started does to a block what its configuration says. */
TEST(codec, a_prepared_block_is_swapped_then_scaled) {
    for (unsigned swap = 0; swap <= 6; swap++) {
        for (int type = TAG_INT8; type <= TAG_RAW; type++) {
            for (uint8_t function = 0; function <= 3; function++) {
                for (uint8_t length = 0; length <= 8; length++) {
                    tag_block_config tag{};
                    tag.swap = static_cast<uint8_t>(swap);
                    tag.tagType = static_cast<uint8_t>(type);
                    tag.scalingFunc = function;
                    tag.scaling = {2, 5, 7, 11};
                    data_info data{};
                    data.config = &tag;
                    function_block_info block{};
                    block.data = &data;
                    block.length = length;
                    block.decoding = codec_decoding(&tag, length);
                    const std::vector<uint8_t> source = {1, 2, 3, 4, 5, 6, 7, 8};
                    std::vector<uint8_t> decoded = source;
                    codec_decode(&block, decoded.data());
                    std::vector<uint8_t> wanted = source;
                    codec_swap({wanted.data(), length}, tag.swap);
                    if (type != TAG_RAW) {
                        (void)codec_scale({wanted.data(), length}, &tag);
                    }
                    EXPECT_EQ(decoded, wanted)
                        << swap << ' ' << type << ' ' << int{function} << ' ' << int{length};
                }
            }
        }
    }
}

TEST(codec, a_block_that_stays_as_it_is_needs_nothing) {
    tag_block_config tag{};
    tag.tagType = TAG_UINT16;
    EXPECT_EQ(codec_decoding(&tag, 2), DECODE_NOTHING);
    tag.swap = 1;
    EXPECT_EQ(codec_decoding(&tag, 2), DECODE_PAIR);
    EXPECT_EQ(codec_decoding(&tag, 1), DECODE_NOTHING);
    EXPECT_EQ(codec_decoding(&tag, 4), DECODE_SWAP);
    tag.scalingFunc = SCALING_POINTS;
    EXPECT_EQ(codec_decoding(&tag, 2), DECODE_PAIR | DECODE_SCALE);
    tag.tagType = TAG_RAW;
    EXPECT_EQ(codec_decoding(&tag, 2), DECODE_PAIR);
}

std::string laid(const char *text, uint8_t size, uint8_t offset) {
    const auto buffer = std::make_unique<frame_buffer>();
    const constant_block_config constant{0, 0, nullptr, offset, size, parse_constant_value(text)};
    codec_lay_constant(*buffer, &constant);
    EXPECT_TRUE(codec_match_constant(*buffer, &constant));
    return can_hex({buffer->data(), CAN_MAX_DLEN});
}

TEST(codec, a_constant_is_laid_with_its_last_digits_first) {
    EXPECT_EQ(laid("1234", 2, 0), "3412000000000000");
    EXPECT_EQ(laid("0102030405060708", 8, 0), "0807060504030201");
    EXPECT_EQ(laid("1234", 2, 3), "0000003412000000");
}

TEST(codec, a_constant_of_an_odd_number_of_digits_gets_a_leading_zero) {
    EXPECT_EQ(laid("ABC", 2, 0), "bc0a000000000000");
    EXPECT_EQ(laid("1", 1, 0), "0100000000000000");
    EXPECT_EQ(laid("123456789ABCDEF", 8, 0), "efcdab8967452301");
}

TEST(codec, a_constant_shorter_than_its_size_is_filled_with_zeros) {
    EXPECT_EQ(laid("1234", 4, 0), "3412000000000000");
    EXPECT_EQ(laid("", 4, 0), "0000000000000000");
}

TEST(codec, a_constant_longer_than_its_size_is_cut_to_its_last_digits) {
    EXPECT_EQ(laid("123456", 2, 0), "5634000000000000");
}

TEST(codec, a_constant_of_8_bytes_at_byte_7_puts_one_byte_into_the_frame) {
    EXPECT_EQ(laid("0102030405060708", 8, 7), "0000000000000008");
}

TEST(codec, no_offset_and_size_of_a_constant_leaves_the_buffer) {
    const auto buffer = std::make_unique<frame_buffer>();
    for (int offset = 0; offset <= 255; offset++) {
        for (int size = 0; size <= 255; size++) {
            const constant_block_config constant{0,
                                                 0,
                                                 nullptr,
                                                 static_cast<uint8_t>(offset),
                                                 static_cast<uint8_t>(size),
                                                 0x1122334455667788U};
            buffer->fill(0);
            codec_lay_constant(*buffer, &constant);
            ASSERT_TRUE(codec_match_constant(*buffer, &constant)) << offset << " " << size;
        }
    }
}

TEST(codec, blocks_are_cut_to_the_buffer_whatever_the_configuration_says) {
    const auto buffer = std::make_unique<frame_buffer>();
    for (int offset = 0; offset <= 255; offset++) {
        for (int size = 0; size <= 255; size++) {
            const auto bytes =
                block_bytes(*buffer, static_cast<uint8_t>(offset), static_cast<uint8_t>(size));
            ASSERT_EQ(bytes.size(), std::min<size_t>(static_cast<size_t>(size), 8));
            ASSERT_GE(bytes.data(), buffer->data());
            ASSERT_LE(bytes.data() + bytes.size(), buffer->data() + buffer->size());
        }
    }
}

bool matches(std::initializer_list<uint8_t> received, constant_block_config constant) {
    frame_buffer buffer{};
    std::copy(received.begin(), received.end(), buffer.begin());
    return codec_match_constant(buffer, &constant);
}

TEST(codec, a_constant_matches_its_own_bytes_only) {
    const constant_block_config constant{0, 0, nullptr, 1, 2, 0x1234};
    EXPECT_TRUE(matches({9, 0x34, 0x12, 9}, constant));
    EXPECT_FALSE(matches({9, 0x12, 0x34, 9}, constant));
    EXPECT_FALSE(matches({9, 0x34, 0x13, 9}, constant));
    EXPECT_FALSE(matches({9, 0x35, 0x12, 9}, constant));
    EXPECT_FALSE(matches({0x34, 0x12, 9, 9}, constant));
}

TEST(codec, bytes_of_a_constant_beyond_the_frame_do_not_count) {
    const constant_block_config constant{0, 0, nullptr, 7, 8, 0x1122334455667788U};
    EXPECT_TRUE(matches({0, 0, 0, 0, 0, 0, 0, 0x88}, constant));
    EXPECT_FALSE(matches({0, 0, 0, 0, 0, 0, 0, 0x77}, constant));
}

TEST(codec, an_empty_constant_matches_everything) {
    EXPECT_TRUE(matches({1, 2, 3}, {0, 0, nullptr, 0, 0, 0x1234}));
}

std::string fault_value(const char *text, size_t size) {
    std::vector<uint8_t> bytes(size, 0xee);
    codec_fault_value(text, bytes);
    return can_hex(bytes);
}

TEST(codec, a_fault_value_holds_the_texts_bytes_in_text_order) {
    EXPECT_EQ(fault_value("0102030405060708", 8), "0102030405060708");
    EXPECT_EQ(fault_value("12aBCd", 3), "12abcd");
}

TEST(codec, a_fault_value_takes_as_many_digits_as_the_tag_has_bytes) {
    EXPECT_EQ(fault_value("112233445566778899aabbcc", 2), "1122");
    EXPECT_EQ(fault_value("112233445566778899aabbcc", 8), "1122334455667788");
    EXPECT_EQ(fault_value("1122", 0), "");
}

TEST(codec, a_fault_value_of_an_odd_number_of_digits_lacks_its_first) {
    EXPECT_EQ(fault_value("123", 2), "0123");
    EXPECT_EQ(fault_value("1", 2), "0100");
    EXPECT_EQ(fault_value("12345", 2), "1234"); // enough of them
}

TEST(codec, missing_digits_of_a_fault_value_are_zero) {
    EXPECT_EQ(fault_value("11", 4), "11000000");
    EXPECT_EQ(fault_value("", 2), "0000");
    EXPECT_EQ(fault_value("zz", 2), "0000");
}

TEST(codec, twenty_four_zero_digits_give_zero_bytes) {
    EXPECT_EQ(fault_value("000000000000000000000000", 8), "0000000000000000");
}

} // namespace
