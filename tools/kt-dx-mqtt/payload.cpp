#include "payload.h"

#include "json.h"
#include "program/text.h"
#include "value.h"
#include "value_text.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace {

struct release_text {
    void operator()(char *text) const noexcept { free(text); }
};
using malloc_text = std::unique_ptr<char, release_text>;

/** Members of one object, in the order in which they come. */
class object_text {
public:
    /** value: JSON text */
    object_text &member(std::string_view name, std::string_view value) {
        text_ += text_.empty() ? "{" : ",";
        text_ += program::json_string(name);
        text_ += ':';
        text_ += value;
        return *this;
    }
    object_text &text(std::string_view name, std::string_view value) {
        return member(name, program::json_string(value));
    }
    object_text &count(std::string_view name, uint64_t value) {
        return member(name, std::to_string(value));
    }
    object_text &timestamp(int64_t unix_ms) { return text("timestamp", rfc3339_text(unix_ms)); }
    std::string end() { return (text_.empty() ? "{" : text_) + "}"; }

private:
    std::string text_;
};

std::string dumped(const json_t *json) {
    const malloc_text text(json_dumps(json, JSON_COMPACT));
    return text ? text.get() : "";
}

/** A member that is a text, empty when it is none. */
std::string_view text_of(const json_t *object, const char *name) {
    const json_t *member = json_object_get(object, name);
    return {json_string_value(member) ? json_string_value(member) : "", json_string_length(member)};
}

} // namespace

std::string rfc3339_text(int64_t unix_ms) {
    const int64_t milliseconds = (unix_ms % 1000 + 1000) % 1000;
    const time_t seconds = static_cast<time_t>((unix_ms - milliseconds) / 1000);
    struct tm utc {};
    char text[64];
    if (!gmtime_r(&seconds, &utc)) {
        return "1970-01-01T00:00:00.000Z"; // a year that no calendar has
    }
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    (void)snprintf(text + length, // room for five more characters is left
                   sizeof text - length,
                   ".%03dZ",
                   static_cast<int>(milliseconds));
    return text;
}

std::string value_payload(const tag_snapshot &tag) {
    dx_tag_info info{};
    info.type = tag.type;
    info.size = tag.size;
    return object_text()
        .member("value", value_json(info, tag.value))
        .text("type", type_name(tag.type))
        .text("quality", quality_text(tag.quality.grade))
        .text("reason", reason_text(tag.quality.reason))
        .timestamp(tag.time_ms)
        .count("sequence", tag.sequence)
        .end();
}

std::string result_payload(const write_result &result) {
    return object_text()
        .member("id", result.id.empty() ? "null" : result.id)
        .text("outcome", outcome_text(result.outcome))
        .text("reason", result.reason)
        .timestamp(result.time_ms)
        .end();
}

std::string event_payload(std::string_view line) {
    const json_ptr event(json_loadb(line.data(), line.size(), JSON_ALLOW_NUL, nullptr));
    if (!json_is_object(event.get()) || !json_is_string(json_object_get(event.get(), "name"))) {
        return {};
    }
    return object_text()
        .text("name", text_of(event.get(), "name"))
        .text("host", text_of(event.get(), "host"))
        .text("message", text_of(event.get(), "message"))
        .text("timestamp", text_of(event.get(), "time"))
        .end();
}

std::string diagnostics_payload(int port, std::string_view json, int64_t now_ms) {
    const json_ptr data(json_loadb(json.data(), json.size(), 0, nullptr));
    const json_ptr whole(json_object());
    if (!json_is_object(data.get()) || !whole ||
        json_object_set_new(whole.get(), "port", json_integer(port)) != 0 ||
        json_object_update_missing(whole.get(), data.get()) != 0 ||
        json_object_set_new(whole.get(), "timestamp", json_string(rfc3339_text(now_ms).c_str())) !=
            0) {
        return {};
    }
    return dumped(whole.get());
}

std::string online_payload(std::string_view version, int64_t timestamp_ms) {
    return object_text()
        .text("state", "online")
        .text("version", version)
        .timestamp(timestamp_ms)
        .end();
}

std::string will_payload() {
    return object_text().text("state", "offline").text("reason", "connection lost").end();
}

std::string stopped_payload(int64_t timestamp_ms) {
    return object_text()
        .text("state", "offline")
        .text("reason", "stopped")
        .timestamp(timestamp_ms)
        .end();
}

std::string statistics_payload(std::span<const std::pair<std::string_view, uint64_t>> counters,
                               int64_t timestamp_ms) {
    object_text object;
    for (const auto &[name, value] : counters) {
        object.count(name, value);
    }
    return object.timestamp(timestamp_ms).end();
}
