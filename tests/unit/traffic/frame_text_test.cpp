#include "traffic/frame_text.h"

#include <parson.h>

#include <cstdio>
#include <gtest/gtest.h>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>

/* The bytes are compared with those of printf() and of a JSON object, which the files had at first.
 */

namespace {

std::string printed_time(int64_t us) {
    std::array<char, 64> text{};
    (void)snprintf(text.data(), text.size(), "%.3lf", static_cast<double>(us) / 1000000.0);
    return text.data();
}

std::string laid_out_time(int64_t us) {
    traffic_texts texts{};
    put_time(&texts, us);
    return {texts.time.data(), texts.time_size};
}

std::string printed_data(const uint8_t *data, uint8_t length) {
    std::string text;
    for (uint8_t i = 0; i < length; i++) {
        std::array<char, 4> byte{};
        (void)snprintf(byte.data(), byte.size(), "%02X ", data[i]);
        text += byte.data();
    }
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

struct frame {
    int64_t time_us;
    traffic_direction direction;
    uint32_t id;
    bool extended;
    int rtr;
    uint8_t length;
    std::array<uint8_t, CAN_MAX_DLEN> data;
};

traffic_texts texts_of(const frame &frame) {
    traffic_texts texts;
    texts.direction = frame.direction;
    texts.id = frame.id;
    texts.extended = frame.extended;
    texts.rtr = frame.rtr;
    texts.data_length = frame.length;
    put_time(&texts, frame.time_us);
    put_data(&texts, frame.data.data());
    return texts;
}

std::string printed_row(const frame &frame, int number) {
    std::array<char, 256> text{};
    (void)snprintf(text.data(),
                   text.size(),
                   frame.extended ? "%d,%s,%s,\"0x\"%08X,%s,%d,\"%s\"\n"
                                  : "%d,%s,%s,\"0x\"%03X,%s,%d,\"%s\"\n",
                   number,
                   printed_time(frame.time_us).c_str(),
                   frame.direction == TRAFFIC_SEND ? "Send" : "Receive",
                   frame.id,
                   frame.rtr == 1 ? "Remote Frame" : "Data frame",
                   frame.length,
                   printed_data(frame.data.data(), frame.length).c_str());
    return text.data();
}

std::string serialized_line(const frame &frame) {
    JSON_Value *value = json_value_init_object();
    JSON_Object *line = json_value_get_object(value);
    const std::string time = printed_time(frame.time_us);
    const std::string data = printed_data(frame.data.data(), frame.length);
    (void)json_object_dotset_string(line, "time", time.c_str());
    (void)json_object_dotset_number(line, "direction", frame.direction);
    (void)json_object_dotset_number(line, "canId", frame.id);
    (void)json_object_dotset_number(line, "RTR", frame.rtr);
    (void)json_object_dotset_number(line, "dataLength", frame.length);
    (void)json_object_dotset_string(line, "data", data.c_str());
    char *text = json_serialize_to_string(value);
    std::string made = text == nullptr ? "" : std::string(text) + "\n";
    json_free_serialized_string(text);
    json_value_free(value);
    return made;
}

void expect_lines_as_printed(const frame &frame, int number) {
    const traffic_texts texts = texts_of(frame);
    ASSERT_EQ(json_line(texts).view(), serialized_line(frame));
    ASSERT_EQ(csv_row(texts, number).view(), printed_row(frame, number));
}

void expect_times_as_printed_around(int64_t us) {
    for (int64_t time = us - 3; time <= us + 3; time++) {
        ASSERT_EQ(laid_out_time(time), printed_time(time)) << time;
    }
}

TEST(frame_text, every_time_of_the_first_three_seconds_is_as_printed) {
    for (int64_t us = 0; us < 3000000; us++) {
        ASSERT_EQ(laid_out_time(us), printed_time(us)) << us;
    }
}

TEST(frame_text, times_in_the_middle_between_two_thousandths_are_as_printed) {
    for (int64_t base = 1; base < int64_t{1} << 60; base *= 3) {
        for (int64_t thousandth = 0; thousandth < 200; thousandth++) {
            ASSERT_NO_FATAL_FAILURE(
                expect_times_as_printed_around((base / 1000 + thousandth) * 1000 + 500));
        }
    }
}

TEST(frame_text, times_that_round_up_to_the_next_second_are_as_printed) {
    for (const int64_t seconds : {0, 8, 9, 99, 999999, 4294966}) {
        ASSERT_NO_FATAL_FAILURE(expect_times_as_printed_around(seconds * 1000000 + 999500));
    }
    EXPECT_EQ(laid_out_time(9999501), "10.000");
}

TEST(frame_text, times_at_the_bounds_of_their_types_are_as_printed) {
    for (const int64_t us : {int64_t{0},
                             int64_t{UINT32_MAX},
                             int64_t{INT32_MAX},
                             int64_t{1} << 52,
                             int64_t{1} << 53,
                             int64_t{1000000000000000},
                             int64_t{UINT32_MAX} * 1000000,
                             INT64_MAX - 4,
                             INT64_MIN + 3}) {
        ASSERT_NO_FATAL_FAILURE(expect_times_as_printed_around(us));
    }
}

TEST(frame_text, negative_times_are_as_printed) {
    EXPECT_EQ(laid_out_time(-1), "-0.000");
    for (const int64_t us : {-1, -499, -500, -501, -1000, -1500, -999500, -1000000, -123456789}) {
        ASSERT_NO_FATAL_FAILURE(expect_times_as_printed_around(us));
    }
}

TEST(frame_text, times_of_any_size_are_as_printed) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 300000; i++) {
        const auto us = static_cast<int64_t>(random() >> random() % 64);
        ASSERT_EQ(laid_out_time(us), printed_time(us)) << us;
    }
}

TEST(frame_text, lines_of_every_length_kind_and_identifier_are_as_printed) {
    constexpr uint32_t wide = CAN_EFF_FLAG;
    constexpr std::array<uint32_t, 14> ids = {0,
                                              1,
                                              9,
                                              10,
                                              99,
                                              0x100,
                                              0x7FF,
                                              wide,
                                              wide | 1,
                                              wide | 0x7FF,
                                              wide | 0x800,
                                              wide | 0xFFFF,
                                              wide | 0x1ABCDEF0,
                                              wide | 0x1FFFFFFF};
    int number = 1;
    for (const uint32_t id : ids) {
        for (const int rtr : {0, 1, 2, -1, INT32_MAX, INT32_MIN}) {
            for (uint8_t length = 0; length <= CAN_MAX_DLEN; length++) {
                const frame frame{number * 1237,
                                  length % 2 ? TRAFFIC_SEND : TRAFFIC_RECEIVE,
                                  id & CAN_EFF_MASK,
                                  (id & wide) != 0,
                                  rtr,
                                  length,
                                  {0xFF, 0, 0x0A, 0xA0, 0x12}};
                ASSERT_NO_FATAL_FAILURE(expect_lines_as_printed(frame, number++));
            }
        }
    }
}

TEST(frame_text, the_longest_lines_fit) {
    frame longest{INT64_MIN, TRAFFIC_RECEIVE, CAN_EFF_MASK, true, INT32_MIN, CAN_MAX_DLEN, {}};
    longest.data.fill(0xEE);
    expect_lines_as_printed(longest, INT32_MIN);
    longest.rtr = 1;
    expect_lines_as_printed(longest, INT32_MAX);
}

TEST(frame_text, lines_of_any_frame_are_as_printed) {
    std::mt19937_64 random(2);
    for (int i = 0; i < 30000; i++) {
        frame frame{};
        frame.time_us = static_cast<int64_t>(random() >> random() % 64);
        frame.direction = random() % 2 ? TRAFFIC_SEND : TRAFFIC_RECEIVE;
        frame.extended = random() % 2 == 0;
        frame.id = static_cast<uint32_t>(random()) & (frame.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
        frame.rtr = static_cast<int>(random() % 3);
        frame.length = static_cast<uint8_t>(random() % (CAN_MAX_DLEN + 1));
        for (uint8_t &byte : frame.data) {
            byte = static_cast<uint8_t>(random());
        }
        ASSERT_NO_FATAL_FAILURE(expect_lines_as_printed(frame, static_cast<int>(random())));
    }
}

} // namespace
