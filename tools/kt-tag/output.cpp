#include "output.h"

#include "value_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace {

int write_error = 0;

/** Bytes of the well-formed UTF-8 character at the front of a text, 0 when there is none. */
size_t utf8_length(std::string_view text) {
    struct range {
        uint8_t first, last, second_first, second_last;
        size_t length;
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
    const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
    for (const range &row : ranges) {
        if (byte(0) < row.first || byte(0) > row.last) {
            continue;
        }
        if (row.length > text.size() ||
            (row.length > 1 && (byte(1) < row.second_first || byte(1) > row.second_last))) {
            return 0;
        }
        for (size_t i = 2; i < row.length; ++i) {
            if ((byte(i) & 0xC0) != 0x80) {
                return 0;
            }
        }
        return row.length;
    }
    return 0;
}

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

std::string json_string(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const size_t length = utf8_length(text);
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

const char *mode_name(int mode) {
    return mode == DX_READ_ONLY ? "ro" : "wo";
}

std::string json_value(const dx_tag_info &info, const dx_sample &sample) {
    if (value_is_not_finite(info, sample)) {
        return "null";
    }
    const std::string text = value_text(info, sample);
    return type_is_number(info.type) ? text : "\"" + text + "\"";
}

} // namespace

std::string printable_name(std::string_view name) {
    std::string out;
    while (!name.empty()) {
        const size_t length = utf8_length(name);
        const std::string_view character = name.substr(0, length == 0 ? 1 : length);
        if (length == 0 || is_control(character)) {
            for (const char byte : character) {
                out += escape("\\x%02X", byte);
            }
        } else {
            out += character;
        }
        name.remove_prefix(character.size());
    }
    return out;
}

std::string json_line(const dx_tag_info &info, const dx_sample &sample) {
    return "{\"name\":" + json_string(info.name) + ",\"type\":" + std::to_string(info.type) +
           ",\"size\":" + std::to_string(info.size) + ",\"mode\":\"" + mode_name(info.mode) +
           "\",\"value\":" + json_value(info, sample) +
           ",\"age_ms\":" + std::to_string(sample.age_ms) + "}";
}

std::string text_line(const dx_tag_info &info, const dx_sample &sample) {
    return printable_name(info.name) + " = " + value_text(info, sample) + " (" +
           type_name(info.type) + ", " + mode_name(info.mode) + ", " +
           std::to_string(sample.age_ms) + " ms)";
}

bool print_line(const std::string &line) {
    if (write_error != 0) {
        return false;
    }
    if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || putchar('\n') == EOF ||
        fflush(stdout) != 0) {
        write_error = errno;
        return false;
    }
    return true;
}

bool output_abandoned() {
    struct pollfd output = {STDOUT_FILENO, 0, 0};
    return write_error != 0 || (poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0);
}

int output_status() {
    if (write_error == 0 || write_error == EPIPE) {
        return 0;
    }
    (void)fprintf(stderr, "kt-tag: standard output: %s\n", strerror(write_error));
    return 1;
}
