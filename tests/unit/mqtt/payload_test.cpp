#include "payload.h"

#include <cstring>
#include <gtest/gtest.h>
#include <jansson.h>
#include <memory>

namespace {

constexpr int64_t time_ms = 1767182400250; // 2025-12-31T12:00:00.250Z

tag_snapshot speed() {
    tag_snapshot tag;
    tag.name = "can_proprietary/drive/state_speed";
    tag.type = 6;
    tag.size = 2;
    tag.value[0] = 0xDC;
    tag.value[1] = 0x05;
    tag.sequence = 7;
    tag.time_ms = time_ms;
    tag.quality = {quality::good, quality_reason::none};
    return tag;
}

bool is_json(const std::string &text) {
    json_t *json = json_loadb(text.data(), text.size(), 0, nullptr);
    const bool good = json_is_object(json);
    json_decref(json);
    return good;
}

TEST(payload, times_are_utc_with_milliseconds) {
    EXPECT_EQ(rfc3339_text(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(rfc3339_text(time_ms), "2025-12-31T12:00:00.250Z");
    EXPECT_EQ(rfc3339_text(-1), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(rfc3339_text(4102444800000), "2100-01-01T00:00:00.000Z");
}

TEST(payload, a_good_value) {
    EXPECT_EQ(value_payload(speed()),
              R"({"value":1500,"type":"uint16","quality":"good","reason":"",)"
              R"("timestamp":"2025-12-31T12:00:00.250Z","sequence":7})");
}

TEST(payload, a_value_that_is_not_good_says_why) {
    tag_snapshot tag = speed();
    tag.quality = {quality::bad, quality_reason::device_timeout};
    EXPECT_EQ(value_payload(tag),
              R"({"value":1500,"type":"uint16","quality":"bad","reason":"device_timeout",)"
              R"("timestamp":"2025-12-31T12:00:00.250Z","sequence":7})");
    tag.quality = {quality::uncertain, quality_reason::no_frame_yet};
    EXPECT_NE(value_payload(tag).find(R"("quality":"uncertain","reason":"no_frame_yet")"),
              std::string::npos);
}

TEST(payload, raw_bytes_are_hexadecimal_text) {
    tag_snapshot tag = speed();
    tag.type = 13;
    EXPECT_EQ(value_payload(tag).substr(0, 30), R"({"value":"DC05","type":"raw",")");
}

TEST(payload, a_result_brings_its_id_back) {
    EXPECT_EQ(
        result_payload({"tag", "\"a1\"", write_outcome::refused, "tag is read-only", time_ms}),
        R"({"id":"a1","outcome":"refused","reason":"tag is read-only",)"
        R"("timestamp":"2025-12-31T12:00:00.250Z"})");
    EXPECT_EQ(result_payload({"tag", "", write_outcome::accepted, "", time_ms}),
              R"({"id":null,"outcome":"accepted","reason":"",)"
              R"("timestamp":"2025-12-31T12:00:00.250Z"})");
}

TEST(payload, a_reason_may_hold_anything) {
    const std::string text =
        result_payload({"tag", "7", write_outcome::refused, "'\"\\\n\xFF' is not a number", 0});
    EXPECT_TRUE(is_json(text)) << text;
}

TEST(payload, an_event_keeps_its_texts) {
    EXPECT_EQ(
        event_payload(R"({"time":"2025-12-31T12:00:00.250Z","name":"CAN Proprietary:CAN bus-off",)"
                      R"("host":"Host 10.0.0.1","message":"CAN Proprietary CAN bus-off"})"),
        R"({"name":"CAN Proprietary:CAN bus-off","host":"Host 10.0.0.1",)"
        R"("message":"CAN Proprietary CAN bus-off","timestamp":"2025-12-31T12:00:00.250Z"})");
}

TEST(payload, a_line_that_is_no_event_gives_nothing) {
    for (const char *line : {"", "{", "[]", "{}", R"({"name":1})", "name", "{\"name\":\"\xFF\"}"}) {
        EXPECT_EQ(event_payload(line), "") << line;
    }
    EXPECT_EQ(event_payload(R"({"name":"a"})"),
              R"({"name":"a","host":"","message":"","timestamp":""})");
}

TEST(payload, diagnostics_are_those_of_the_service_with_port_and_time) {
    EXPECT_EQ(
        diagnostics_payload(2, R"({"state":"Normal","rxCount":120,"busLoading":1.5})", time_ms),
        R"({"port":2,"state":"Normal","rxCount":120,"busLoading":1.5,)"
        R"("timestamp":"2025-12-31T12:00:00.250Z"})");
    for (const char *json : {"", "{", "[]", "1", "{\"a\":}"}) {
        EXPECT_EQ(diagnostics_payload(1, json, time_ms), "") << json;
    }
}

TEST(payload, the_gateway_is_online_or_offline) {
    EXPECT_EQ(online_payload("1.2.3", time_ms),
              R"({"state":"online","version":"1.2.3","timestamp":"2025-12-31T12:00:00.250Z"})");
    EXPECT_EQ(will_payload(), R"({"state":"offline","reason":"connection lost"})");
    EXPECT_EQ(stopped_payload(time_ms),
              R"({"state":"offline","reason":"stopped","timestamp":"2025-12-31T12:00:00.250Z"})");
}

TEST(payload, counters_keep_their_order) {
    const std::pair<std::string_view, uint64_t> counters[] = {{"published", 18446744073709551615U},
                                                              {"changes", 0}};
    EXPECT_EQ(statistics_payload(counters, time_ms),
              R"({"published":18446744073709551615,"changes":0,)"
              R"("timestamp":"2025-12-31T12:00:00.250Z"})");
}

} // namespace
