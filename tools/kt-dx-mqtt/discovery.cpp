#include "discovery.h"

#include "json.h"
#include "topic.h"
#include "value_text.h"

#include <cctype>
#include <cfloat>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

constexpr size_t id_text_max_bytes = 64;
constexpr int64_t exact_integer_max = (int64_t{1} << 53) - 1; // what a double tells apart

struct release_text {
    void operator()(char *text) const noexcept { free(text); }
};

/** Ids hold letters, digits, "_" and "-" only. */
std::string id_text(std::string_view text) {
    std::string out(text.substr(0, id_text_max_bytes));
    for (char &c : out) {
        c = isalnum(static_cast<unsigned char>(c)) || c == '-' ? c : '_';
    }
    return out;
}

/** 64-bit FNV-1a: names that read alike as ids stay apart. */
std::string hash_text(std::string_view text) {
    uint64_t hash = 0xCBF29CE484222325;
    for (const char c : text) {
        hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
    }
    char digits[32];
    (void)snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

bool is_writable(const tag_snapshot &tag) {
    return tag.mode == DX_WRITE_ONLY;
}

const char *component(const tag_snapshot &tag) {
    if (!is_writable(tag)) {
        return "sensor";
    }
    return type_is_number(tag.type) ? "number" : "text";
}

std::string object_id(const tag_snapshot &tag) {
    return id_text(tag.name) + "_" + hash_text(tag.name);
}

std::string config_topic(const bridge_settings &settings, const tag_snapshot &tag) {
    return settings.discovery_prefix + "/" + component(tag) + "/" + id_text(settings.prefix) + "/" +
           object_id(tag) + "/config";
}

void set_text(json_t *object, const char *name, const std::string &text) {
    (void)json_object_set_new(object, name, json_string(text.c_str())); // out of memory: left out
}

json_t *availability(const std::string &topic, const char *value_template) {
    json_t *entry = json_object();
    set_text(entry, "topic", topic);
    set_text(entry, "value_template", value_template);
    return entry;
}

/** A tag that nobody has set yet is not good, and must be settable all the same. */
void set_availability(json_t *config, const bridge_settings &settings, const tag_snapshot &tag) {
    json_t *list = json_array();
    (void)json_array_append_new(
        list, availability(status_topic(settings.prefix), "{{ value_json.state }}"));
    if (!is_writable(tag)) {
        (void)json_array_append_new(
            list,
            availability(value_topic(settings.prefix, tag.name),
                         "{{ 'online' if value_json.quality == 'good' else 'offline' }}"));
    }
    (void)json_object_set_new(config, "availability", list);
    set_text(config, "availability_mode", "all");
}

/** Without limits a number goes from 1 to 100. */
void set_number_limits(json_t *config, int type) {
    json_t *least = nullptr;
    json_t *most = nullptr;
    if (type_is_integer(type)) {
        const bool is_signed = type <= 4;
        const int bits = 8 << ((type - 1) % 4);
        const int64_t high =
            bits == 64 ? exact_integer_max : (int64_t{1} << (is_signed ? bits - 1 : bits)) - 1;
        least = json_integer(!is_signed ? 0 : bits == 64 ? -high : -high - 1);
        most = json_integer(high);
    } else {
        const double high = type == 9 ? static_cast<double>(FLT_MAX) : DBL_MAX;
        least = json_real(-high);
        most = json_real(high);
    }
    (void)json_object_set_new(config, "min", least);
    (void)json_object_set_new(config, "max", most);
    (void)json_object_set_new(
        config, "step", type_is_integer(type) ? json_integer(1) : json_real(0.001));
    set_text(config, "mode", "box");
}

void set_text_limits(json_t *config, size_t size) {
    const json_int_t digits = 2 * static_cast<json_int_t>(size);
    (void)json_object_set_new(config, "min", json_integer(digits));
    (void)json_object_set_new(config, "max", json_integer(digits));
    set_text(config, "pattern", "[0-9A-Fa-f]*");
}

json_t *device_of(const bridge_settings &settings, const tag_snapshot &tag) {
    const std::string gateway = id_text(settings.prefix) + "_" + hash_text(settings.prefix);
    json_t *device = json_object();
    json_t *ids = json_array();
    if (tag.device.empty()) {
        (void)json_array_append_new(ids, json_string(gateway.c_str()));
        set_text(device, "name", settings.prefix);
    } else {
        const std::string id = gateway + "_" + hash_text(tag.device);
        (void)json_array_append_new(ids, json_string(id.c_str()));
        set_text(device, "name", encode_tag_name(tag.device));
        set_text(device, "via_device", gateway);
    }
    (void)json_object_set_new(device, "identifiers", ids);
    return device;
}

void set_kind(json_t *config, const bridge_settings &settings, const tag_snapshot &tag) {
    const bool number = type_is_number(tag.type);
    set_text(config,
             "value_template",
             number ? "{{ value_json.value if value_json.value is number else none }}"
                    : "{{ value_json.value }}");
    if (!is_writable(tag)) {
        if (number) {
            set_text(config, "state_class", "measurement");
        }
        return;
    }
    set_text(config, "command_topic", value_topic(settings.prefix, tag.name) + "/set");
    if (number) {
        set_number_limits(config, tag.type);
    } else {
        set_text_limits(config, tag.size);
    }
}

} // namespace

discovery_message discovery_config(const bridge_settings &settings, const tag_snapshot &tag) {
    const json_ptr config(json_object());
    set_text(config.get(), "name", encode_tag_name(tag.name));
    set_text(config.get(), "unique_id", id_text(settings.prefix) + "_" + object_id(tag));
    set_text(config.get(), "state_topic", value_topic(settings.prefix, tag.name));
    set_kind(config.get(), settings, tag);
    set_availability(config.get(), settings, tag);
    (void)json_object_set_new(config.get(), "device", device_of(settings, tag));
    const std::unique_ptr<char, release_text> text(json_dumps(config.get(), JSON_COMPACT));
    return {config_topic(settings, tag), text ? text.get() : ""};
}

discovery_message discovery_removal(const bridge_settings &settings, const tag_snapshot &tag) {
    return {config_topic(settings, tag), ""};
}
