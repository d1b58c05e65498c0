#include "device/bit_rate.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace {

TEST(bit_rate, codes_0_to_7_name_the_bit_rates) {
    EXPECT_EQ(can_bit_rate(0), 10000U);
    EXPECT_EQ(can_bit_rate(1), 20000U);
    EXPECT_EQ(can_bit_rate(2), 50000U);
    EXPECT_EQ(can_bit_rate(3), 125000U);
    EXPECT_EQ(can_bit_rate(4), 250000U);
    EXPECT_EQ(can_bit_rate(5), 500000U);
    EXPECT_EQ(can_bit_rate(6), 800000U);
    EXPECT_EQ(can_bit_rate(7), 1000000U);
}

TEST(bit_rate, codes_outside_run_at_125000) {
    for (const int32_t code : {8, 9, 255, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(can_bit_rate(code), 125000U) << code;
    }
}

} // namespace
