#include "sparkplug_payload.h"

#include "sparkplug_b.pb-c.h"
#include "value_text.h"

#include <charconv>
#include <cstring>
#include <deque>

namespace {

using pb_payload = Kt__SparkplugB__Payload;
using pb_metric = Kt__SparkplugB__Payload__Metric;
using pb_property_set = Kt__SparkplugB__Payload__PropertySet;
using pb_property = Kt__SparkplugB__Payload__PropertyValue;

// The numbers of the types 1 to 10 are those of the tags.
constexpr uint32_t type_int32 = 3;
constexpr uint32_t type_int64 = 4;
constexpr uint32_t type_boolean = 11;
constexpr uint32_t type_string = 12;
constexpr uint32_t type_bytes = 17;
constexpr int tag_int64 = 4;
constexpr int tag_uint64 = 8;
constexpr int tag_float = 9;
constexpr int tag_double = 10;

constexpr uint32_t quality_good = 192;
constexpr uint32_t quality_bad = 0;
constexpr uint32_t quality_stale = 500;

uint32_t quality_code(quality grade) {
    switch (grade) {
    case quality::good:
        return quality_good;
    case quality::uncertain:
        return quality_stale;
    default:
        return quality_bad;
    }
}

/** The schema's fields are not const; encoding only reads them. */
char *text_field(const char *text) {
    return const_cast<char *>(text);
}

template <typename T>
T load(const uint8_t *bytes) {
    T number{};
    memcpy(&number, bytes, sizeof number);
    return number;
}

/** Signed numbers of up to 32 bits stand in a field of 32 bits, as two's complement. */
uint32_t load_32(int type, const uint8_t *bytes) {
    switch (type) {
    case 1:
        return static_cast<uint32_t>(load<int8_t>(bytes));
    case 2:
        return static_cast<uint32_t>(load<int16_t>(bytes));
    case 5:
        return load<uint8_t>(bytes);
    case 6:
        return load<uint16_t>(bytes);
    default:
        return load<uint32_t>(bytes);
    }
}

void set_value(pb_metric &metric, const tag_snapshot &tag) {
    if (!type_is_number(tag.type)) {
        metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_BYTES_VALUE;
        metric.bytes_value = {tag.size, const_cast<uint8_t *>(tag.value)}; // as text_field()
    } else if (tag.type == tag_float) {
        metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_FLOAT_VALUE;
        metric.float_value = load<float>(tag.value);
    } else if (tag.type == tag_double) {
        metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_DOUBLE_VALUE;
        metric.double_value = load<double>(tag.value);
    } else if (tag.type == tag_int64 || tag.type == tag_uint64) {
        metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_LONG_VALUE;
        metric.long_value = load<uint64_t>(tag.value);
    } else {
        metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_INT_VALUE;
        metric.int_value = load_32(tag.type, tag.value);
    }
}

template <typename T>
std::string number_text(T number) {
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

bool is_signed(int tag_type) {
    return tag_type >= 1 && tag_type <= tag_int64;
}

std::string hexadecimal_text(const std::string &bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

std::string text_of(const ProtobufCBinaryData &bytes) {
    return {reinterpret_cast<const char *>(bytes.data), bytes.len};
}

void take_value(const pb_metric &from, command_metric &to) {
    using holds = command_metric::holds;
    switch (from.value_case) {
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_INT_VALUE:
        to.value_in = holds::integer;
        to.integer = from.int_value;
        break;
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_LONG_VALUE:
        to.value_in = holds::long_integer;
        to.integer = from.long_value;
        break;
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_FLOAT_VALUE:
        to.value_in = holds::single;
        to.real = static_cast<double>(from.float_value);
        break;
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_DOUBLE_VALUE:
        to.value_in = holds::real;
        to.real = from.double_value;
        break;
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE:
        to.value_in = holds::boolean;
        to.boolean = from.boolean_value != 0;
        break;
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_STRING_VALUE:
        to.value_in = holds::text;
        to.text = text_of(from.string_value);
        break;
    case KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_BYTES_VALUE:
        to.value_in = holds::bytes;
        to.text = text_of(from.bytes_value);
        break;
    default:
        break;
    }
}

struct release_payload {
    void operator()(pb_payload *payload) const noexcept {
        kt__sparkplug_b__payload__free_unpacked(payload, nullptr);
    }
};

} // namespace

struct payload_writer::parts {
    /** A metric with its properties; deque keeps the addresses. */
    struct one {
        pb_metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
        pb_property_set properties = KT__SPARKPLUG_B__PAYLOAD__PROPERTY_SET__INIT;
        pb_property quality = KT__SPARKPLUG_B__PAYLOAD__PROPERTY_VALUE__INIT;
        pb_property reason = KT__SPARKPLUG_B__PAYLOAD__PROPERTY_VALUE__INIT;
        char *keys[2] = {text_field("Quality"), text_field("Reason")};
        pb_property *values[2] = {&quality, &reason};
    };

    pb_payload payload = KT__SPARKPLUG_B__PAYLOAD__INIT;
    std::deque<one> metrics;

    one &add(const char *name, uint32_t type, uint64_t time_ms) {
        one &added = metrics.emplace_back();
        if (name) {
            added.metric.has_name = 1;
            added.metric.name = {strlen(name), reinterpret_cast<uint8_t *>(text_field(name))};
        }
        added.metric.has_datatype = type != 0;
        added.metric.datatype = type;
        added.metric.has_timestamp = 1;
        added.metric.timestamp = time_ms;
        return added;
    }
};

payload_writer::payload_writer(int64_t now_ms) : parts_(std::make_unique<parts>()) {
    parts_->payload.has_timestamp = 1;
    parts_->payload.timestamp = static_cast<uint64_t>(now_ms);
}

payload_writer::~payload_writer() = default;

void payload_writer::set_seq(uint8_t seq) {
    parts_->payload.has_seq = 1;
    parts_->payload.seq = seq;
}

void payload_writer::add_integer(const char *name, uint64_t value) {
    pb_metric &metric = parts_->add(name, type_int64, parts_->payload.timestamp).metric;
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_LONG_VALUE;
    metric.long_value = value;
}

void payload_writer::add_switch(const char *name, bool value) {
    pb_metric &metric = parts_->add(name, type_boolean, parts_->payload.timestamp).metric;
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE;
    metric.boolean_value = value;
}

void payload_writer::add_tag(const sparkplug_metric &metric, metric_kind kind) {
    const tag_snapshot &tag = metric.tag;
    const bool birth = kind == birth_metric;
    const uint32_t type = type_is_number(tag.type) ? static_cast<uint32_t>(tag.type) : type_bytes;
    parts::one &added = parts_->add(birth ? metric.name.c_str() : nullptr,
                                    birth ? type : 0,
                                    static_cast<uint64_t>(tag.time_ms));
    added.metric.has_alias = 1;
    added.metric.alias = metric.alias;
    if (tag.quality.grade == quality::uncertain) {
        added.metric.has_is_null = 1;
        added.metric.is_null = 1;
    } else {
        set_value(added.metric, tag);
    }
    added.quality.has_type = added.reason.has_type = 1;
    added.quality.type = type_int32;
    added.quality.value_case = KT__SPARKPLUG_B__PAYLOAD__PROPERTY_VALUE__VALUE_INT_VALUE;
    added.quality.int_value = quality_code(tag.quality.grade);
    added.reason.type = type_string;
    added.reason.value_case = KT__SPARKPLUG_B__PAYLOAD__PROPERTY_VALUE__VALUE_STRING_VALUE;
    added.reason.string_value = text_field(reason_text(tag.quality.reason));
    added.properties.n_keys = added.properties.n_values = 2;
    added.properties.keys = added.keys;
    added.properties.values = added.values;
    added.metric.properties = &added.properties;
}

std::string payload_writer::bytes() {
    std::vector<pb_metric *> metrics;
    for (parts::one &part : parts_->metrics) {
        metrics.push_back(&part.metric);
    }
    parts_->payload.n_metrics = metrics.size();
    parts_->payload.metrics = metrics.data();
    std::string out(kt__sparkplug_b__payload__get_packed_size(&parts_->payload), '\0');
    (void)kt__sparkplug_b__payload__pack(&parts_->payload, // returns the size just asked for
                                         reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

bool read_command_payload(std::string_view bytes, std::vector<command_metric> &metrics) {
    const std::unique_ptr<pb_payload, release_payload> payload(kt__sparkplug_b__payload__unpack(
        nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
    if (!payload) {
        return false;
    }
    for (size_t i = 0; i < payload->n_metrics; ++i) {
        const pb_metric &from = *payload->metrics[i];
        command_metric &to = metrics.emplace_back();
        to.name = text_of(from.name);
        if (from.has_alias) {
            to.alias = from.alias;
        }
        if (!from.has_is_null || !from.is_null) {
            take_value(from, to);
        }
    }
    return true;
}

bool command_value(const command_metric &metric, int tag_type, std::string &text) {
    using holds = command_metric::holds;
    switch (metric.value_in) {
    case holds::integer:
        text = is_signed(tag_type) ? number_text(static_cast<int32_t>(metric.integer))
                                   : number_text(metric.integer);
        return true;
    case holds::long_integer:
        text = is_signed(tag_type) ? number_text(static_cast<int64_t>(metric.integer))
                                   : number_text(metric.integer);
        return true;
    case holds::single:
        text = number_text(static_cast<float>(metric.real));
        return true;
    case holds::real:
        text = number_text(metric.real);
        return true;
    case holds::boolean:
        text = number_text(metric.boolean ? 1 : 0);
        return true;
    case holds::text:
        text = metric.text;
        return true;
    case holds::bytes:
        text = hexadecimal_text(metric.text);
        return true;
    default:
        return false;
    }
}
