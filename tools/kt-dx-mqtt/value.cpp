#include "value.h"

#include "value_text.h"

#include <cstring>

namespace {

dx_sample sample_of(const uint8_t (&bytes)[DX_VALUE_MAX]) {
    dx_sample sample{};
    memcpy(sample.value, bytes, sizeof sample.value);
    return sample;
}

/** "12.00" is an integer to people and to programs that know one kind of number. */
std::string_view without_zero_fraction(std::string_view text) {
    const size_t point = text.find('.');
    if (point == 0 || point == std::string_view::npos || point + 1 == text.size() ||
        text.find_first_not_of('0', point + 1) != std::string_view::npos) {
        return text;
    }
    return text.substr(0, point);
}

const char *text_of_no_number(const std::string &text) {
    if (text.find("inf") != std::string::npos) {
        return text.front() == '-' ? "\"-Infinity\"" : "\"Infinity\"";
    }
    return "\"NaN\"";
}

} // namespace

std::string value_json(const dx_tag_info &info, const uint8_t (&bytes)[DX_VALUE_MAX]) {
    const dx_sample sample = sample_of(bytes);
    const std::string text = value_text(info, sample);
    if (value_is_not_finite(info, sample)) {
        return text_of_no_number(text);
    }
    return type_is_number(info.type) ? text : "\"" + text + "\"";
}

bool value_bytes(const dx_tag_info &info,
                 std::string_view text,
                 uint8_t (&bytes)[DX_VALUE_MAX],
                 std::string &error) {
    return parse_value(
        info, type_is_integer(info.type) ? without_zero_fraction(text) : text, bytes, error);
}
