#ifndef KT_TRAFFIC_FRAME_TEXT_H
#define KT_TRAFFIC_FRAME_TEXT_H

#include "traffic/recorder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <linux/can.h>
#include <string_view>

/*
 * The two lines of a recorded frame, laid out by hand: printf() and a JSON object take longer than
 * all that the files need of the kernel. The bytes are those that they gave.
 */

/** What both lines of a frame show. */
struct traffic_texts {
    traffic_direction direction;
    uint32_t id; /* without flags */
    bool extended;
    int rtr;
    uint8_t data_length; /* at most CAN_MAX_DLEN */
    uint8_t time_size;
    uint8_t data_size;
    std::array<char, 32> time;
    std::array<char, CAN_MAX_DLEN * 3> data;
};

/** A line with its end. */
struct traffic_line {
    std::array<char, 256> text;
    size_t length;

    [[nodiscard]] std::string_view view() const { return {text.data(), length}; }
};

/** The time as printf() gives it for "%.3lf" of us / 1000000.0. */
void put_time(traffic_texts *texts, int64_t us);

/** The data_length bytes as hexadecimal digits. */
void put_data(traffic_texts *texts, const uint8_t *data);

traffic_line json_line(const traffic_texts &texts);
traffic_line csv_row(const traffic_texts &texts, int number);

#endif
