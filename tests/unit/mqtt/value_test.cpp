#include "value.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>

namespace {

constexpr int raw = 13;

dx_tag_info info_of(int type, size_t size) {
    dx_tag_info info{};
    info.type = type;
    info.size = size;
    return info;
}

template <typename T>
std::string json_of(int type, T number) {
    uint8_t bytes[DX_VALUE_MAX] = {};
    memcpy(bytes, &number, sizeof number);
    return value_json(info_of(type, sizeof number), bytes);
}

/** The text read back as number, or the reason why not. */
template <typename T>
std::string read_as(int type, std::string_view text) {
    uint8_t bytes[DX_VALUE_MAX] = {};
    std::string error;
    if (!value_bytes(info_of(type, sizeof(T)), text, bytes, error)) {
        return error;
    }
    return value_json(info_of(type, sizeof(T)), bytes);
}

TEST(value, integers_are_exact_to_the_limits_of_their_types) {
    EXPECT_EQ(json_of<int8_t>(1, -128), "-128");
    EXPECT_EQ(json_of<int16_t>(2, 32767), "32767");
    EXPECT_EQ(json_of(3, std::numeric_limits<int32_t>::min()), "-2147483648");
    EXPECT_EQ(json_of(4, std::numeric_limits<int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(json_of<uint8_t>(5, 255), "255");
    EXPECT_EQ(json_of<uint16_t>(6, 65535), "65535");
    EXPECT_EQ(json_of(7, std::numeric_limits<uint32_t>::max()), "4294967295");
    EXPECT_EQ(json_of(8, std::numeric_limits<uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(json_of<uint64_t>(8, (uint64_t{1} << 53) + 1), "9007199254740993");
}

TEST(value, floats_are_the_shortest_text_that_reads_back) {
    EXPECT_EQ(json_of(9, 0.1F), "0.1");
    EXPECT_EQ(json_of(9, -1.5F), "-1.5");
    EXPECT_EQ(json_of(10, 0.1), "0.1");
    EXPECT_EQ(json_of(10, 1e300), "1e+300");
}

TEST(value, a_float_that_is_no_number_is_a_text) {
    EXPECT_EQ(json_of(9, std::numeric_limits<float>::quiet_NaN()), "\"NaN\"");
    EXPECT_EQ(json_of(10, -std::numeric_limits<double>::quiet_NaN()), "\"NaN\"");
    EXPECT_EQ(json_of(9, std::numeric_limits<float>::infinity()), "\"Infinity\"");
    EXPECT_EQ(json_of(10, -std::numeric_limits<double>::infinity()), "\"-Infinity\"");
}

TEST(value, other_types_are_hexadecimal_text) {
    const uint8_t bytes[DX_VALUE_MAX] = {0x01, 0xAB, 0xFF};
    EXPECT_EQ(value_json(info_of(raw, 3), bytes), "\"01ABFF\"");
    EXPECT_EQ(value_json(info_of(0, 1), bytes), "\"01\"");
    EXPECT_EQ(value_json(info_of(-7, 2), bytes), "\"01AB\"");
}

TEST(value, what_is_published_can_be_sent_back) {
    EXPECT_EQ(read_as<uint64_t>(8, "18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(read_as<int64_t>(4, "-9223372036854775808"), "-9223372036854775808");
    EXPECT_EQ(read_as<float>(9, "0.1"), "0.1");
    EXPECT_EQ(read_as<float>(9, "NaN"), "\"NaN\"");
    EXPECT_EQ(read_as<double>(10, "Infinity"), "\"Infinity\"");
    EXPECT_EQ(read_as<double>(10, "-Infinity"), "\"-Infinity\"");
    EXPECT_EQ(read_as<uint16_t>(raw, "01AB"), "\"01AB\"");
}

TEST(value, an_integer_may_have_a_fraction_of_zeros) {
    EXPECT_EQ(read_as<uint16_t>(6, "1500.0"), "1500");
    EXPECT_EQ(read_as<int16_t>(2, "-12.000"), "-12");
    EXPECT_EQ(read_as<uint16_t>(6, "1500.5"), "'1500.5' is not an integer (decimal or 0x)");
    EXPECT_EQ(read_as<uint16_t>(6, "1500."), "'1500.' is not an integer (decimal or 0x)");
    EXPECT_EQ(read_as<uint16_t>(6, ".0"), "'.0' is not an integer (decimal or 0x)");
}

TEST(value, a_float_keeps_its_fraction) {
    EXPECT_EQ(read_as<double>(10, "12.0"), "12");
    EXPECT_EQ(read_as<double>(10, "12.25"), "12.25");
}

TEST(value, a_value_that_does_not_fit_is_refused) {
    EXPECT_EQ(read_as<uint8_t>(5, "256"), "'256' is out of range for uint8 (0 to 255)");
    EXPECT_EQ(read_as<uint8_t>(5, "-1"), "'-1' is out of range for uint8 (0 to 255)");
    EXPECT_EQ(read_as<int8_t>(1, "-129"), "'-129' is out of range for int8 (-128 to 127)");
    EXPECT_EQ(read_as<float>(9, "1e39"), "'1e39' is out of range for float");
    EXPECT_EQ(read_as<uint8_t>(5, "true"), "'true' is not an integer (decimal or 0x)");
    EXPECT_EQ(read_as<float>(9, "null"), "'null' is not a number");
    EXPECT_EQ(read_as<float>(9, "+-5"), "'+-5' is not a number");
    EXPECT_EQ(read_as<int8_t>(1, "+-5"), "'+-5' is not an integer (decimal or 0x)");
    EXPECT_EQ(read_as<uint16_t>(raw, "01ABCD"),
              "'01ABCD': the tag has 2 raw bytes, give 4 hexadecimal digits");
    EXPECT_EQ(read_as<uint16_t>(raw, "01AX"), "'01AX' is not hexadecimal text");
}

TEST(value, a_refused_text_leaves_the_bytes_alone) {
    uint8_t bytes[DX_VALUE_MAX] = {7, 8};
    std::string error;
    EXPECT_FALSE(value_bytes(info_of(6, 2), "70000", bytes, error));
    EXPECT_EQ(bytes[0], 7);
    EXPECT_EQ(bytes[1], 8);
}

} // namespace
