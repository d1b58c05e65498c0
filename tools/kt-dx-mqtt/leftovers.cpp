#include "leftovers.h"

#include "quality.h"
#include "topic.h"

#include <kt/dx.h>

namespace {

constexpr int64_t quiet_ms = 2000;         // without a kept value: that was all
constexpr size_t values_max = 16384;       // as many as a tag store holds
constexpr size_t payload_max_bytes = 2048; // of a value that a bridge has published
constexpr int steps_per_look = 200;

} // namespace

std::string outdated_payload(std::string_view payload) {
    // The rest stays as it was written: a number read and written again may look different.
    const size_t from = payload.find(R"("quality":)");
    const size_t end = payload.find(R"(,"timestamp":)");
    if (!payload.starts_with('{') || end == std::string_view::npos || from >= end) {
        return "";
    }
    return std::string(payload.substr(0, from)) + R"("quality":")" + quality_text(quality::bad) +
           R"(","reason":")" + reason_text(quality_reason::service_down) + '"' +
           std::string(payload.substr(end));
}

leftover_values::leftover_values(const bridge_settings &settings) : settings_(settings) {
    settings_.client_id += "-start";
    broker_ = broker_open(settings_, statistics_, *this);
}

void leftover_values::connected() {
    subscribed_ = broker_subscribe(*broker_, {values_filter(settings_.prefix)}, settings_.qos) == 0;
}

void leftover_values::received(std::string_view topic, std::string_view payload, bool retained) {
    ++messages_;
    std::string tag;
    if (!retained || payload.empty() || payload.size() > payload_max_bytes ||
        found_.size() >= values_max || !parse_value_topic(settings_.prefix, topic, tag)) {
        return;
    }
    found_[std::string(topic)] = {tag, std::string(payload)};
    quiet_since_ms_ = 0;
}

bool leftover_values::look(int64_t now_ms) {
    for (int step = 0; step < steps_per_look && !done_; ++step) {
        const uint64_t before = messages_;
        broker_run(*broker_, {}, 0);
        if (messages_ == before) {
            break;
        }
    }
    if (!subscribed_ || done_) {
        return done_;
    }
    if (quiet_since_ms_ == 0) {
        quiet_since_ms_ = now_ms;
    }
    done_ = now_ms - quiet_since_ms_ >= quiet_ms;
    if (done_) {
        broker_finish(*broker_, 0);
        broker_.reset();
    }
    return done_;
}

void leftover_values::review(
    const std::function<
        bool(const std::string &topic, const std::string &tag, const std::string &payload)> &keep) {
    std::erase_if(found_, [&](const auto &one) {
        return !keep(one.first, one.second.tag, one.second.payload);
    });
}
