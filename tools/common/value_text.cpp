#include "value_text.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <system_error>

namespace {

enum class kind { raw, signed_integer, unsigned_integer, real };

struct value_type {
    const char *name;
    kind what;
    size_t width; // bytes
};

constexpr value_type raw_type = {"raw", kind::raw, 0};
constexpr value_type types[] = {
    raw_type,
    {"int8", kind::signed_integer, 1},
    {"int16", kind::signed_integer, 2},
    {"int32", kind::signed_integer, 4},
    {"int64", kind::signed_integer, 8},
    {"uint8", kind::unsigned_integer, 1},
    {"uint16", kind::unsigned_integer, 2},
    {"uint32", kind::unsigned_integer, 4},
    {"uint64", kind::unsigned_integer, 8},
    {"float", kind::real, 4},
    {"double", kind::real, 8},
};

const value_type &find_type(int type) {
    const bool known = type > 0 && static_cast<size_t>(type) < std::size(types);
    return known ? types[type] : raw_type;
}

uint64_t load_unsigned(const uint8_t *bytes, size_t width) {
    uint64_t number = 0;
    memcpy(&number, bytes, width); // the store keeps values little-endian, as the machine does
    return number;
}

int64_t load_signed(const uint8_t *bytes, size_t width) {
    const auto unused_bits = static_cast<int>(64 - 8 * width);
    return static_cast<int64_t>(load_unsigned(bytes, width) << unused_bits) >> unused_bits;
}

float load_float(const uint8_t *bytes) {
    float number = 0;
    memcpy(&number, bytes, sizeof number);
    return number;
}

double load_double(const uint8_t *bytes) {
    double number = 0;
    memcpy(&number, bytes, sizeof number);
    return number;
}

/** Shortest text that reads back as the same number. */
template <typename T>
std::string number_text(T number) {
    char text[64];
    const std::to_chars_result end = std::to_chars(text, text + sizeof text, number);
    return {text, end.ptr};
}

std::string hexadecimal_text(const uint8_t *bytes, size_t size) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

bool take_prefix(std::string_view &text, std::string_view prefix) {
    if (text.substr(0, prefix.size()) != prefix) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::string out_of_range(const value_type &type, std::string_view text) {
    std::string range;
    if (type.what == kind::unsigned_integer) {
        range = " (0 to " + number_text(UINT64_MAX >> (64 - 8 * type.width)) + ")";
    } else if (type.what == kind::signed_integer) {
        const int64_t most = INT64_MAX >> (64 - 8 * type.width);
        range = " (" + number_text(-most - 1) + " to " + number_text(most) + ")";
    }
    return quoted(text) + " is out of range for " + type.name + range;
}

bool parse_integer(const value_type &type,
                   std::string_view text,
                   uint8_t *value,
                   std::string &error) {
    std::string_view digits = text;
    const bool negative = take_prefix(digits, "-");
    if (!negative) {
        (void)take_prefix(digits, "+"); // may stand there
    }
    const int base = take_prefix(digits, "0x") || take_prefix(digits, "0X") ? 16 : 10;
    uint64_t magnitude = 0;
    const auto [end, code] =
        std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
    if (code == std::errc::invalid_argument || end != digits.data() + digits.size()) {
        error = quoted(text) + " is not an integer (decimal or 0x)";
        return false;
    }
    const bool is_signed = type.what == kind::signed_integer;
    const uint64_t most = (is_signed ? INT64_MAX : UINT64_MAX) >> (64 - 8 * type.width);
    const uint64_t limit = negative ? (is_signed ? most + 1 : 0) : most;
    if (code != std::errc() || magnitude > limit) {
        error = out_of_range(type, text);
        return false;
    }
    const uint64_t number = negative ? 0 - magnitude : magnitude;
    memcpy(value, &number, type.width);
    return true;
}

template <typename T>
bool parse_real(const value_type &type, std::string_view text, uint8_t *value, std::string &error) {
    std::string_view digits = text;
    const bool two_signs = take_prefix(digits, "+") && digits.starts_with('-');
    T number = 0;
    const auto [end, code] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (two_signs || code == std::errc::invalid_argument || end != digits.data() + digits.size()) {
        error = quoted(text) + " is not a number";
        return false;
    }
    if (code != std::errc()) {
        error = out_of_range(type, text);
        return false;
    }
    memcpy(value, &number, sizeof number);
    return true;
}

bool parse_raw(size_t size, std::string_view text, uint8_t *value, std::string &error) {
    if (text.size() != 2 * size) {
        error = quoted(text) + ": the tag has " + number_text(size) + " raw bytes, give " +
                number_text(2 * size) + " hexadecimal digits";
        return false;
    }
    for (size_t i = 0; i < size; ++i) {
        const char *digits = text.data() + 2 * i;
        const auto [end, code] = std::from_chars(digits, digits + 2, value[i], 16);
        if (code != std::errc() || end != digits + 2) {
            error = quoted(text) + " is not hexadecimal text";
            return false;
        }
    }
    return true;
}

} // namespace

const char *type_name(int type) {
    return find_type(type).name;
}

bool type_is_number(int type) {
    return find_type(type).what != kind::raw;
}

bool type_is_integer(int type) {
    return type_is_number(type) && find_type(type).what != kind::real;
}

std::string value_text(const dx_tag_info &info, const dx_sample &sample) {
    const value_type &type = find_type(info.type);
    switch (type.what) {
    case kind::signed_integer:
        return number_text(load_signed(sample.value, type.width));
    case kind::unsigned_integer:
        return number_text(load_unsigned(sample.value, type.width));
    case kind::real:
        return type.width == sizeof(float) ? number_text(load_float(sample.value))
                                           : number_text(load_double(sample.value));
    default:
        return hexadecimal_text(sample.value, info.size);
    }
}

bool value_is_not_finite(const dx_tag_info &info, const dx_sample &sample) {
    const value_type &type = find_type(info.type);
    if (type.what != kind::real) {
        return false;
    }
    return type.width == sizeof(float) ? !std::isfinite(load_float(sample.value))
                                       : !std::isfinite(load_double(sample.value));
}

bool parse_value(const dx_tag_info &info,
                 std::string_view text,
                 uint8_t (&value)[DX_VALUE_MAX],
                 std::string &error) {
    const value_type &type = find_type(info.type);
    uint8_t parsed[DX_VALUE_MAX] = {}; // bytes beyond a number's width are zero
    bool good = false;
    switch (type.what) {
    case kind::signed_integer:
    case kind::unsigned_integer:
        good = parse_integer(type, text, parsed, error);
        break;
    case kind::real:
        good = type.width == sizeof(float) ? parse_real<float>(type, text, parsed, error)
                                           : parse_real<double>(type, text, parsed, error);
        break;
    default:
        good = parse_raw(info.size, text, parsed, error);
    }
    if (good) {
        memcpy(value, parsed, info.size);
    }
    return good;
}
