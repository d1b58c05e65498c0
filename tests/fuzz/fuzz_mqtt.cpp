#include "always.h"
#include "fuzz_input.h"
#include "payload.h"
#include "program/text.h"
#include "set_request.h"
#include "sparkplug.h"
#include "topic.h"
#include "value.h"

#include <kt/dx.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/*
 * Any topic and payload that a broker may deliver, to the bridge's set topics and to its Sparkplug
 * B node. A message writes the tag that it names with the value that it holds, or is refused with a
 * reason. What a value is, is worked out here once more: JSON by another parser, numbers by the C
 * library.
 */

namespace {

constexpr std::string_view prefix = "plant/gw";

struct release_json {
    void operator()(json_t *value) const noexcept { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, release_json>;

const std::array<tag_snapshot, 16> &tags() {
    static const std::array<tag_snapshot, 16> all = [] {
        std::array<tag_snapshot, 16> made;
        for (size_t i = 0; i < made.size(); i++) {
            tag_snapshot &tag = made[i];
            tag.name =
                (i % 5 == 4 ? "other/count" : "can_proprietary/drive/state_t") + std::to_string(i);
            tag.type = i < 11 ? static_cast<int>(i) : 13; // 0 and 13 are raw bytes
            tag.size = dx_get_value_size(tag.type, i < 11 ? 1 + i % 4 : i - 8);
            tag.mode = i == 5 ? DX_READ_ONLY : DX_WRITE_ONLY;
            tag.quality = {quality::good, quality_reason::none};
            tag.index = static_cast<uint32_t>(i);
        }
        return made;
    }();
    return all;
}

const tag_snapshot *find_tag(std::string_view name) {
    for (const tag_snapshot &tag : tags()) {
        if (tag.name == name) {
            return &tag;
        }
    }
    return nullptr;
}

dx_tag_info info_of(const tag_snapshot &tag) {
    dx_tag_info info{};
    info.type = tag.type;
    info.size = tag.size;
    info.mode = tag.mode;
    return info;
}

// Values

using value_bytes_array = std::array<uint8_t, DX_VALUE_MAX>;

bool all_of(std::string_view text, const char *characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

std::optional<value_bytes_array> reference_integer(std::string_view text, int type) {
    const size_t point = text.find('.');
    if (point != std::string_view::npos && point != 0 && all_of(text.substr(point + 1), "0")) {
        text = text.substr(0, point);
    }
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (!all_of(hexadecimal ? text.substr(2) : text,
                hexadecimal ? "0123456789abcdefABCDEF" : "0123456789")) {
        return std::nullopt;
    }
    errno = 0;
    const uint64_t magnitude = strtoull(std::string(text).c_str(), nullptr, hexadecimal ? 16 : 10);
    const int width = 1 << (type - 1) % 4;
    const bool is_signed = type <= 4;
    const uint64_t most = UINT64_MAX >> (64 - 8 * width + (is_signed ? 1 : 0));
    const uint64_t limit = !negative ? most : is_signed ? most + 1 : 0;
    if (errno == ERANGE || magnitude > limit) {
        return std::nullopt;
    }
    const uint64_t number = negative ? 0 - magnitude : magnitude;
    value_bytes_array bytes{};
    memcpy(bytes.data(), &number, static_cast<size_t>(width));
    return bytes;
}

bool is_decimal(std::string_view text) {
    size_t digits = 0;
    const auto take_digits = [&] {
        while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
            text.remove_prefix(1);
            digits++;
        }
    };
    if (text.starts_with('+') || text.starts_with('-')) {
        text.remove_prefix(1);
    }
    take_digits();
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        take_digits();
    }
    if (digits == 0) {
        return false;
    }
    if (text.starts_with('e') || text.starts_with('E')) {
        text.remove_prefix(text.size() > 1 && (text[1] == '+' || text[1] == '-') ? 2 : 1);
        return all_of(text, "0123456789");
    }
    return text.empty();
}

/** "nan", "inf" and their longer forms mean what they mean to the C library. */
bool is_no_number(std::string_view text) {
    const std::string copy(text.substr(text.starts_with('+') || text.starts_with('-') ? 1 : 0));
    char *end = nullptr;
    const double value = strtod(copy.c_str(), &end);
    return !copy.empty() && strchr("nNiI", copy.front()) != nullptr && *end == '\0' &&
           end == copy.c_str() + copy.size() && !std::isfinite(value);
}

template <typename Real>
std::optional<value_bytes_array> reference_real(std::string_view text) {
    if (!is_decimal(text) && !is_no_number(text)) {
        return std::nullopt;
    }
    const std::string copy(text);
    errno = 0;
    const Real number = sizeof(Real) == sizeof(float)
                            ? static_cast<Real>(strtof(copy.c_str(), nullptr))
                            : static_cast<Real>(strtod(copy.c_str(), nullptr));
    const bool out_of_range =
        errno == ERANGE && (number == 0 || std::isinf(number)); // the smallest ones are fine
    if (out_of_range) {
        return std::nullopt;
    }
    value_bytes_array bytes{};
    memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

std::optional<value_bytes_array> reference_raw(std::string_view text, size_t size) {
    if (text.size() != 2 * size || !all_of(text, "0123456789abcdefABCDEF")) {
        return std::nullopt;
    }
    value_bytes_array bytes{};
    for (size_t i = 0; i < size; i++) {
        const std::string digits(text.substr(2 * i, 2));
        bytes[i] = static_cast<uint8_t>(strtoul(digits.c_str(), nullptr, 16));
    }
    return bytes;
}

std::optional<value_bytes_array> reference_value(const tag_snapshot &tag, std::string_view text) {
    if (tag.type >= 1 && tag.type <= 8) {
        return reference_integer(text, tag.type);
    }
    switch (tag.type) {
    case 9:
        return reference_real<float>(text);
    case 10:
        return reference_real<double>(text);
    default:
        return reference_raw(text, tag.size);
    }
}

bool both_nan(const tag_snapshot &tag, const value_bytes_array &a, const value_bytes_array &b) {
    const auto is_nan = [&tag](const value_bytes_array &bytes) {
        float single = 0;
        double real = 0;
        memcpy(&single, bytes.data(), sizeof single);
        memcpy(&real, bytes.data(), sizeof real);
        return tag.type == 9 ? std::isnan(single) : tag.type == 10 && std::isnan(real);
    };
    return is_nan(a) && is_nan(b);
}

/** The other parser knows no integers beyond 64 bits with a sign. */
bool is_beyond(const json_error_t &error) {
    return json_error_code(&error) == json_error_numeric_overflow;
}

void expect_json(const std::string &text) {
    json_error_t error;
    const json_ptr parsed(json_loads(text.c_str(), JSON_REJECT_DUPLICATES, &error));
    KT_ALWAYS(parsed != nullptr || is_beyond(error));
}

/** The tag takes the value that the text means, or it stays and there is a reason. */
void write(const tag_snapshot &tag, const std::string &text) {
    value_bytes_array untouched;
    untouched.fill(0xA5);
    uint8_t bytes[DX_VALUE_MAX];
    memcpy(bytes, untouched.data(), sizeof bytes);
    std::string error;
    const bool written = value_bytes(info_of(tag), text, bytes, error);
    const std::optional<value_bytes_array> expected = reference_value(tag, text);
    KT_ALWAYS(written == expected.has_value());
    value_bytes_array found;
    memcpy(found.data(), bytes, sizeof bytes);
    if (!written) {
        KT_ALWAYS(!error.empty() && found == untouched);
        return;
    }
    KT_ALWAYS(memcmp(found.data(), expected->data(), tag.size) == 0 ||
              both_nan(tag, found, *expected));
    for (size_t i = tag.size; i < DX_VALUE_MAX; i++) {
        KT_ALWAYS(found[i] == untouched[i]);
    }
    expect_json("[" + value_json(info_of(tag), bytes) + "]");
}

// Set messages

/** What another parser says that the JSON text holds. */
void expect_same_json(std::string_view payload, const set_request &request) {
    json_error_t error;
    const json_ptr parsed(json_loadb(
        payload.data(), payload.size(), JSON_DECODE_ANY | JSON_REJECT_DUPLICATES, &error));
    if (parsed == nullptr) {
        KT_ALWAYS(is_beyond(error));
        return;
    }
    const json_t *value =
        json_is_object(parsed.get()) ? json_object_get(parsed.get(), "value") : parsed.get();
    KT_ALWAYS(value != nullptr);
    const char *const text = request.value.c_str();
    switch (json_typeof(value)) {
    case JSON_STRING:
        KT_ALWAYS(request.value ==
                  std::string(json_string_value(value), json_string_length(value)));
        break;
    case JSON_INTEGER:
        KT_ALWAYS(strtoll(text, nullptr, 10) == json_integer_value(value));
        break;
    case JSON_REAL:
        KT_ALWAYS(strtod(text, nullptr) == json_real_value(value));
        break;
    case JSON_TRUE:
        KT_ALWAYS(request.value == "true");
        break;
    case JSON_FALSE:
        KT_ALWAYS(request.value == "false");
        break;
    default:
        KT_ALWAYS(json_is_null(value) && request.value == "null");
        break;
    }
    const json_t *id = json_object_get(parsed.get(), "id"); // NULL of what is no object
    KT_ALWAYS((id != nullptr) == !request.id.empty());
    const json_ptr shown(json_loads(request.id.c_str(), JSON_DECODE_ANY, nullptr));
    KT_ALWAYS(id == nullptr || (shown != nullptr && json_equal(shown.get(), id)));
}

void expect_shown(const std::string &tag, const set_request &request, const std::string &reason) {
    expect_json(result_payload({tag, request.id, write_outcome::refused, reason, 1}));
}

void set(const std::string &name, std::string_view payload) {
    set_request request;
    std::string error;
    const bool good = parse_set_request(payload, request, error);
    expect_shown(name, request, error);
    if (!good) {
        KT_ALWAYS(!error.empty() && program::printable(error) == error);
        return;
    }
    const size_t first = payload.find_first_not_of(" \t\r\n");
    const std::string_view trimmed =
        payload.substr(first, payload.find_last_not_of(" \t\r\n") - first + 1);
    if (trimmed.front() == '{' || trimmed.front() == '"') {
        expect_same_json(trimmed, request);
    } else {
        KT_ALWAYS(request.value == trimmed && request.id.empty());
    }
    if (const tag_snapshot *tag = find_tag(name); tag != nullptr && tag->mode == DX_WRITE_ONLY) {
        write(*tag, request.value);
    }
}

/** A topic says one name, and a name has topics of its own. */
void expect_topic_of(const std::string &name) {
    std::string back;
    const std::string value = value_topic(prefix, name);
    KT_ALWAYS(parse_value_topic(prefix, value, back) && back == name);
    KT_ALWAYS(!parse_set_topic(prefix, value, back));
    KT_ALWAYS(parse_set_topic(prefix, value + "/set", back) && back == name);
    KT_ALWAYS(!parse_value_topic(prefix, value + "/set", back));
    KT_ALWAYS(!parse_value_topic(prefix, result_topic(prefix, name), back));
    KT_ALWAYS(value.find_first_of("+#") == std::string::npos);
    for (size_t at = 0; at < value.size();) {
        const size_t length = program::utf8_length(std::string_view(value).substr(at));
        KT_ALWAYS(length > 0);
        at += length;
    }
}

void receive_set(std::string_view topic, std::string_view payload) {
    std::string name;
    if (parse_value_topic(prefix, topic, name)) {
        expect_topic_of(name);
    }
    if (parse_set_topic(prefix, topic, name)) {
        KT_ALWAYS(!name.empty() && name.size() <= DX_NAME_MAX);
        KT_ALWAYS(name.find('\0') == std::string::npos);
        expect_topic_of(name);
        set(name, payload);
    }
}

// Sparkplug B

const sparkplug_node &node() {
    static const sparkplug_node made = [] {
        sparkplug_node born;
        bridge_settings settings;
        settings.sparkplug_group = "plant";
        settings.sparkplug_node = "gw";
        sparkplug_start(born, settings, 7);
        sparkplug_messages messages;
        sparkplug_update(born, tags(), 1000, messages);
        sparkplug_connected(born, 1000, messages);
        return born;
    }();
    return made;
}

constexpr std::array<const char *, 2> command_topics = {"spBv1.0/plant/NCMD/gw",
                                                        "spBv1.0/plant/DCMD/gw/drive"};

sparkplug_command command(std::string_view topic, std::string_view payload) {
    sparkplug_command read;
    const bool ours = sparkplug_read_command(node(), topic, payload, read);
    const bool named = topic == command_topics[0] || topic.starts_with("spBv1.0/plant/DCMD/gw/");
    KT_ALWAYS(ours == named);
    for (const sparkplug_write &each : read.writes) {
        const tag_snapshot *tag = find_tag(each.tag);
        KT_ALWAYS(tag != nullptr &&
                  node().places.at(each.tag) == (topic == command_topics[0] ? "" : "drive"));
        if (tag->mode == DX_WRITE_ONLY) {
            write(*tag, each.value);
        }
    }
    for (const std::string &reason : read.refused) {
        KT_ALWAYS(!reason.empty());
    }
    return read;
}

// The wire format, as far as a command needs it
void append_varint(std::string &out, uint64_t number) {
    for (; number >= 0x80; number >>= 7) {
        out += static_cast<char>(0x80 | (number & 0x7F));
    }
    out += static_cast<char>(number);
}

void append_key(std::string &out, unsigned field, unsigned wire_type) {
    append_varint(out, field << 3 | wire_type);
}

void append_bytes(std::string &out, unsigned field, std::string_view bytes) {
    append_key(out, field, 2);
    append_varint(out, bytes.size());
    out += bytes;
}

template <typename Number>
void append_fixed(std::string &out, unsigned field, Number number) {
    append_key(out, field, sizeof number == 4 ? 5 : 1);
    out.append(reinterpret_cast<const char *>(&number), sizeof number);
}

/** What a command asks of a tag; without a text it holds no value. */
struct wanted_write {
    const tag_snapshot *tag = nullptr;
    std::optional<std::string> text;
    std::optional<double> real;
};

template <typename Number>
std::string text_of(Number number) {
    return std::to_string(number);
}

void add_value(fuzz_input &in, std::string &metric, wanted_write &wanted) {
    const bool is_signed = wanted.tag->type >= 1 && wanted.tag->type <= 4;
    switch (in.below(8)) {
    case 0: {
        const auto number = in.take<uint32_t>();
        append_key(metric, 10, 0);
        append_varint(metric, number);
        wanted.text = is_signed ? text_of(static_cast<int32_t>(number)) : text_of(number);
        break;
    }
    case 1: {
        const auto number = in.take<uint64_t>();
        append_key(metric, 11, 0);
        append_varint(metric, number);
        wanted.text = is_signed ? text_of(static_cast<int64_t>(number)) : text_of(number);
        break;
    }
    case 2: {
        const auto number = in.take<float>();
        append_fixed(metric, 12, number);
        wanted.real = number;
        break;
    }
    case 3: {
        const auto number = in.take<double>();
        append_fixed(metric, 13, number);
        wanted.real = number;
        break;
    }
    case 4: {
        const bool on = in.flag();
        append_key(metric, 14, 0);
        append_varint(metric, on ? 1 : 0);
        wanted.text = on ? "1" : "0";
        break;
    }
    case 5: {
        wanted.text = in.take_text(in.below(40));
        append_bytes(metric, 15, *wanted.text);
        break;
    }
    case 6: {
        const std::string_view bytes = in.take_text(in.below(10));
        append_bytes(metric, 16, bytes);
        wanted.text = "";
        for (const char byte : bytes) {
            std::array<char, 3> digits;
            (void)snprintf(digits.data(), digits.size(), "%02X", static_cast<uint8_t>(byte));
            *wanted.text += digits.data();
        }
        break;
    }
    default:
        break;
    }
    if (in.below(16) == 1) {
        append_key(metric, 7, 0);
        append_varint(metric, 1);
        wanted.text.reset();
        wanted.real.reset();
    }
}

bool is_wanted(const wanted_write &wanted, const sparkplug_write &found) {
    if (found.tag != wanted.tag->name) {
        return false;
    }
    if (!wanted.real) {
        return found.value == *wanted.text;
    }
    const double value = strtod(found.value.c_str(), nullptr);
    // A float is told in as few digits as tell it from other floats.
    return value == *wanted.real || static_cast<float>(value) == static_cast<float>(*wanted.real) ||
           (std::isnan(value) && std::isnan(*wanted.real));
}

/** A command of the usual form: every metric is told in its order, by name or alias. */
void command_of_metrics(fuzz_input &in) {
    const size_t place = in.below(command_topics.size());
    const char *const owner = place == 0 ? "" : "drive";
    const auto &metrics = node().devices.at(owner).metrics;
    std::string payload;
    std::vector<wanted_write> wanted;
    const size_t count = 1 + in.below(4);
    for (size_t i = 0; i < count; i++) {
        const auto metric =
            std::next(metrics.begin(), static_cast<ptrdiff_t>(in.below(metrics.size())));
        std::string bytes;
        if (in.flag()) {
            append_key(bytes, 2, 0);
            append_varint(bytes, metric->second.alias);
        } else {
            append_bytes(bytes, 1, metric->second.name);
        }
        wanted.push_back({find_tag(metric->first), {}, {}});
        add_value(in, bytes, wanted.back());
        append_bytes(payload, 2, bytes);
    }
    const sparkplug_command read = command(command_topics[place], payload);
    if (read.writes.empty() && read.refused.size() == 1 && !payload.empty()) {
        return; // refused as a whole, or its only metric
    }
    size_t next = 0;
    size_t refused = 0;
    for (const wanted_write &each : wanted) {
        const bool written = next < read.writes.size() && (each.text || each.real) &&
                             is_wanted(each, read.writes[next]);
        next += written ? 1 : 0;
        refused += written ? 0 : 1;
        KT_ALWAYS(written || !(each.text || each.real) || !read.refused.empty());
    }
    KT_ALWAYS(next == read.writes.size() && refused == read.refused.size());
}

void receive(fuzz_input &in) {
    const size_t kind = in.below(6);
    switch (kind) {
    case 0: {
        const std::string_view topic = in.take_text(in.byte());
        receive_set(topic, in.take_text(SIZE_MAX));
        break;
    }
    case 1: {
        const tag_snapshot &tag = tags()[in.below(tags().size())];
        receive_set(value_topic(prefix, tag.name) + "/set", in.take_text(SIZE_MAX));
        break;
    }
    case 2: {
        const std::string name(in.take_text(DX_NAME_MAX));
        if (!name.empty() && name.find('\0') == std::string::npos) {
            expect_topic_of(name);
        }
        break;
    }
    case 3: {
        const std::string_view topic = in.take_text(in.byte());
        (void)command(topic, in.take_text(SIZE_MAX));
        break;
    }
    case 4: {
        const char *topic = command_topics[in.below(command_topics.size())];
        (void)command(topic, in.take_text(SIZE_MAX));
        break;
    }
    default:
        command_of_metrics(in);
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_the_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    receive(in);
    return 0;
}
