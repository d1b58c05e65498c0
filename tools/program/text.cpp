#include "program/text.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace program {

std::size_t utf8_length(std::string_view text) {
    struct range {
        uint8_t first, last, second_first, second_last;
        std::size_t length;
    };
    // The narrowed second bytes keep out overlong forms, surrogates and what lies above U+10FFFF.
    static constexpr range ranges[] = {
        {0x00, 0x7F, 0, 0, 1},
        {0xC2, 0xDF, 0x80, 0xBF, 2},
        {0xE0, 0xE0, 0xA0, 0xBF, 3},
        {0xE1, 0xEC, 0x80, 0xBF, 3},
        {0xED, 0xED, 0x80, 0x9F, 3},
        {0xEE, 0xEF, 0x80, 0xBF, 3},
        {0xF0, 0xF0, 0x90, 0xBF, 4},
        {0xF1, 0xF3, 0x80, 0xBF, 4},
        {0xF4, 0xF4, 0x80, 0x8F, 4},
    };
    const auto byte = [text](std::size_t i) { return static_cast<uint8_t>(text[i]); };
    for (const range &row : ranges) {
        if (byte(0) < row.first || byte(0) > row.last) {
            continue;
        }
        if (row.length > text.size() ||
            (row.length > 1 && (byte(1) < row.second_first || byte(1) > row.second_last))) {
            return 0;
        }
        for (std::size_t i = 2; i < row.length; ++i) {
            if ((byte(i) & 0xC0) != 0x80) {
                return 0;
            }
        }
        return row.length;
    }
    return 0;
}

namespace {

std::string escape(const char *format, char byte) {
    char text[8];
    (void)snprintf(text, sizeof text, format, static_cast<uint8_t>(byte)); // at most 6 characters
    return text;
}

bool is_control(std::string_view character) {
    const auto first = static_cast<uint8_t>(character[0]);
    const bool second_set = character.size() == 2 && first == 0xC2 &&
                            static_cast<uint8_t>(character[1]) < 0xA0; // U+0080 to U+009F
    return first < 0x20 || first == 0x7F || second_set;
}

} // namespace

std::string printable(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || is_control(character)) {
            for (const char byte : character) {
                out += escape("\\x%02X", byte);
            }
        } else {
            out += character;
        }
        text.remove_prefix(character.size());
    }
    return out;
}

std::string json_string(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const char first = text[0];
        if (length == 0) {
            out += "\xEF\xBF\xBD"; // U+FFFD
        } else if (first == '"' || first == '\\') {
            out += '\\';
            out += first;
        } else if (static_cast<uint8_t>(first) < 0x20) {
            out += escape("\\u%04x", first);
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out + "\"";
}

} // namespace program
