#include "fake_broker.h"
#include "leftovers.h"
#include "topic.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace {

std::string tag_of(std::string_view topic) {
    std::string name;
    return parse_value_topic("kt/gw", topic, name) ? name : "(none)";
}

} // namespace

TEST(leftovers, a_kept_value_is_bad_with_its_old_timestamp) {
    EXPECT_EQ(outdated_payload(R"({"value":5,"type":"int8","quality":"good","reason":"",)"
                               R"("timestamp":"2026-01-31T12:00:00.000Z","sequence":7})"),
              R"({"value":5,"type":"int8","quality":"bad","reason":"service_down",)"
              R"("timestamp":"2026-01-31T12:00:00.000Z","sequence":7})");
}

TEST(leftovers, what_is_no_value_goes) {
    for (const char *text : {"", "5", "[1]", "{\"value\":", "no"}) {
        EXPECT_EQ(outdated_payload(text), "") << text;
    }
}

TEST(leftovers, topics_of_values_are_told_from_others) {
    EXPECT_EQ(tag_of("kt/gw/tags/a/b%2Bc"), "a/b+c");
    EXPECT_EQ(tag_of("kt/gw/tags/a/b/set"), "(none)");
    EXPECT_EQ(tag_of("kt/gw/tags/a/b/result"), "(none)");
    EXPECT_EQ(tag_of("kt/gw/status"), "(none)");
    EXPECT_EQ(tag_of("kt/gateway/tags/a"), "(none)");
    EXPECT_EQ(tag_of("kt/gw/tags/"), "(none)");
}

TEST(leftovers, only_values_that_the_broker_has_kept_are_found) {
    fake_broker server;
    bridge_settings settings;
    settings.broker_port = server.port();
    settings.client_id = "unit";
    settings.prefix = "kt/gw";
    leftover_values found(settings);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (server.filters().empty() && std::chrono::steady_clock::now() < end) {
        EXPECT_FALSE(found.look(1));
    }
    EXPECT_EQ(server.client_id(), "unit-start");
    server.send("kt/gw/tags/old", "{}", true);
    server.send("kt/gw/tags/live", "{}", false);
    server.send("kt/gw/tags/old/set", "5", true);
    server.send("kt/gw/tags/last", "{}", true);
    std::vector<std::string> tags;
    while (tags.size() < 2 && std::chrono::steady_clock::now() < end) {
        EXPECT_FALSE(found.look(1));
        tags.clear();
        found.review([&](const std::string &, const std::string &tag, const std::string &) {
            tags.push_back(tag);
            return true;
        });
    }
    EXPECT_EQ(tags, (std::vector<std::string>{"last", "old"}));
    EXPECT_FALSE(found.look(1));
    EXPECT_TRUE(found.look(2001));
    found.review([&](const std::string &, const std::string &tag, const std::string &) {
        return tag == "old";
    });
    EXPECT_FALSE(found.empty());
    found.review(
        [](const std::string &, const std::string &, const std::string &) { return false; });
    EXPECT_TRUE(found.empty());
}
