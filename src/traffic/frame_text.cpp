#include "traffic/frame_text.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *hex_digits = "0123456789ABCDEF";

/** Grows at its end; its user knows that there is room. */
class text_end {
public:
    explicit text_end(char *begin) : end_(begin) {}

    template <size_t size>
    void put(const char (&text)[size]) {
        put(text, size - 1);
    }
    void put(const char *text, size_t length) {
        memcpy(end_, text, length);
        end_ += length;
    }
    void put_number(auto number) {
        constexpr ptrdiff_t longest = 20; // of 64 bits
        end_ = std::to_chars(end_, end_ + longest, number).ptr;
    }
    void put_hex(uint32_t number, int digits) {
        for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
            *end_++ = hex_digits[number >> shift & 0xf];
        }
    }
    [[nodiscard]] char *end() const { return end_; }

private:
    char *end_;
};

/**
 * The seconds are a double, so for a microsecond in the middle between two thousandths only
 * printf() knows which way it goes. For the others the error of the quotient is too small to
 * matter.
 */
constexpr int64_t sure_below_us = 1000000000000000; // 31 years

size_t print_time(std::array<char, 32> *time, int64_t us) {
    const double seconds = static_cast<double>(us) / 1000000.0;
    return static_cast<size_t>(snprintf(time->data(), time->size(), "%.3lf", seconds));
}

} // namespace

void put_time(traffic_texts *texts, int64_t us) {
    // 32 bits where they do: 64-bit division is a library routine on 32-bit ARM.
    const bool is_short = us >= 0 && us <= UINT32_MAX;
    if (!is_short && (us < 0 || us >= sure_below_us)) {
        texts->time_size = static_cast<uint8_t>(print_time(&texts->time, us));
        return;
    }
    auto seconds =
        is_short ? static_cast<uint32_t>(us) / 1000000U : static_cast<uint32_t>(us / 1000000);
    const uint32_t rest_us = static_cast<uint32_t>(us) - seconds * 1000000U; // modulo 2^32
    uint32_t thousandths = rest_us / 1000;
    const uint32_t cut_us = rest_us % 1000;
    if (cut_us == 500) {
        texts->time_size = static_cast<uint8_t>(print_time(&texts->time, us));
        return;
    }
    if (cut_us > 500 && ++thousandths == 1000) {
        thousandths = 0;
        seconds++;
    }
    text_end text(texts->time.data());
    text.put_number(seconds);
    char *digits = text.end();
    digits[0] = '.';
    digits[1] = static_cast<char>('0' + thousandths / 100);
    digits[2] = static_cast<char>('0' + thousandths / 10 % 10);
    digits[3] = static_cast<char>('0' + thousandths % 10);
    texts->time_size = static_cast<uint8_t>(digits + 4 - texts->time.data());
}

void put_data(traffic_texts *texts, const uint8_t *data) {
    char *out = texts->data.data();
    for (uint8_t i = 0; i < texts->data_length; i++) {
        out[0] = hex_digits[data[i] >> 4];
        out[1] = hex_digits[data[i] & 0xf];
        out[2] = ' ';
        out += 3;
    }
    const int blanks = texts->data_length == 0 ? 0 : 1; // the last one is cut
    texts->data_size = static_cast<uint8_t>(out - texts->data.data() - blanks);
}

traffic_line json_line(const traffic_texts &texts) {
    traffic_line line;
    text_end text(line.text.data());
    text.put("{\"time\":\"");
    text.put(texts.time.data(), texts.time_size);
    text.put("\",\"direction\":");
    text.put_number(static_cast<uint32_t>(texts.direction));
    text.put(",\"canId\":");
    text.put_number(texts.id);
    text.put(",\"RTR\":");
    text.put_number(texts.rtr);
    text.put(",\"dataLength\":");
    text.put_number(static_cast<uint32_t>(texts.data_length));
    text.put(",\"data\":\"");
    text.put(texts.data.data(), texts.data_size);
    text.put("\"}\n");
    line.length = static_cast<size_t>(text.end() - line.text.data());
    return line;
}

traffic_line csv_row(const traffic_texts &texts, int number) {
    traffic_line row;
    text_end text(row.text.data());
    text.put_number(number);
    text.put(",");
    text.put(texts.time.data(), texts.time_size);
    if (texts.direction == TRAFFIC_SEND) {
        text.put(",Send,");
    } else {
        text.put(",Receive,");
    }
    text.put("\"0x\""); // the quote closes before the digits, as the files have always had it
    text.put_hex(texts.id, texts.extended ? 8 : 3);
    if (texts.rtr == 1) {
        text.put(",Remote Frame,");
    } else {
        text.put(",Data frame,");
    }
    text.put_number(static_cast<uint32_t>(texts.data_length));
    text.put(",\"");
    text.put(texts.data.data(), texts.data_size);
    text.put("\"\n");
    row.length = static_cast<size_t>(text.end() - row.text.data());
    return row;
}
