#include "topic.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string deep_name(size_t levels) {
    std::string name = "a";
    for (size_t i = 1; i < levels; ++i) {
        name += "/a";
    }
    return name;
}

std::string decoded(std::string_view text) {
    std::string name;
    return decode_tag_name(text, name) ? name : "refused";
}

/** What a broker does with a filter that holds "+" only. */
bool filter_matches(std::string_view filter, std::string_view topic) {
    while (true) {
        const size_t filter_end = std::min(filter.find('/'), filter.size());
        const size_t topic_end = std::min(topic.find('/'), topic.size());
        const std::string_view level = filter.substr(0, filter_end);
        if (level != "+" && level != topic.substr(0, topic_end)) {
            return false;
        }
        if (filter_end == filter.size() || topic_end == topic.size()) {
            return filter_end == filter.size() && topic_end == topic.size();
        }
        filter.remove_prefix(filter_end + 1);
        topic.remove_prefix(topic_end + 1);
    }
}

int filters_matching(std::string_view topic) {
    int count = 0;
    for (const std::string &filter : set_filters("kt/a")) {
        count += filter_matches(filter, topic) ? 1 : 0;
    }
    return count;
}

TEST(topic, a_tag_name_stands_as_it_is) {
    EXPECT_EQ(value_topic("kt/a", "can_proprietary/drive 1/state_speed"),
              "kt/a/tags/can_proprietary/drive 1/state_speed");
    EXPECT_EQ(result_topic("kt/a", "can_proprietary/drive/set_speed"),
              "kt/a/tags/can_proprietary/drive/set_speed/result");
    EXPECT_EQ(encode_tag_name("Größe/\xF0\x9F\x98\x80"), "Größe/\xF0\x9F\x98\x80");
}

TEST(topic, what_a_topic_cannot_hold_is_percent_encoded) {
    EXPECT_EQ(encode_tag_name("a+b#c%d"), "a%2Bb%23c%25d");
    EXPECT_EQ(encode_tag_name("tab\there\x7F"), "tab%09here%7F");
    EXPECT_EQ(encode_tag_name("\xC2\x9B"), "%C2%9B");
    EXPECT_EQ(encode_tag_name("\xFF\xC3("), "%FF%C3(");
    EXPECT_EQ(encode_tag_name("\xED\xA0\x80"), "%ED%A0%80");
    EXPECT_EQ(encode_tag_name("\xEF\xBF\xBF"), "%EF%BF%BF");
    EXPECT_EQ(encode_tag_name("\xEF\xB7\x90"), "%EF%B7%90");
    EXPECT_EQ(encode_tag_name("\xF0\x9F\xBF\xBE"), "%F0%9F%BF%BE");
}

TEST(topic, a_last_level_that_reads_like_another_kind_of_topic_is_encoded) {
    EXPECT_EQ(encode_tag_name("can_proprietary/d/set"), "can_proprietary/d/%73et");
    EXPECT_EQ(encode_tag_name("result"), "%72esult");
    EXPECT_EQ(encode_tag_name("set/result/x"), "set/result/x");
    EXPECT_EQ(encode_tag_name("a/setting"), "a/setting");
}

TEST(topic, slashes_beyond_the_last_level_are_encoded) {
    EXPECT_EQ(encode_tag_name(deep_name(16)), deep_name(16));
    EXPECT_EQ(encode_tag_name(deep_name(18)), deep_name(16) + "%2Fa%2Fa");
}

TEST(topic, empty_levels_stay) {
    EXPECT_EQ(value_topic("p", "/a//b/"), "p/tags//a//b/");
    EXPECT_EQ(filters_matching("kt/a/tags//a//b//set"), 1);
}

TEST(topic, every_name_comes_back) {
    std::string every_byte;
    for (int byte = 1; byte < 256; ++byte) {
        every_byte += static_cast<char>(byte);
    }
    for (const std::string &name : {every_byte,
                                    std::string("a/set"),
                                    std::string("result"),
                                    deep_name(190),
                                    std::string("/"),
                                    std::string("%41"),
                                    std::string(386, '\xFF')}) {
        EXPECT_EQ(decoded(encode_tag_name(name)), name);
        std::string from_topic;
        EXPECT_TRUE(parse_set_topic("kt/a", value_topic("kt/a", name) + "/set", from_topic));
        EXPECT_EQ(from_topic, name);
        EXPECT_EQ(filters_matching(value_topic("kt/a", name) + "/set"), 1) << name;
    }
}

TEST(topic, escapes_in_small_letters_are_read) {
    EXPECT_EQ(decoded("a%2bb"), "a+b");
    EXPECT_EQ(decoded("%61"), "a");
}

TEST(topic, what_no_name_can_be_is_refused) {
    for (const char *text : {"", "%", "a%2", "a%zz", "%+1", "%00", "a%00b"}) {
        EXPECT_EQ(decoded(text), "refused") << text;
    }
    EXPECT_EQ(decoded(std::string(386, 'n')), std::string(386, 'n'));
    EXPECT_EQ(decoded(std::string(387, 'n')), "refused");
}

TEST(topic, a_refused_text_leaves_the_name_alone) {
    std::string name = "before";
    EXPECT_FALSE(decode_tag_name("a%0", name));
    EXPECT_FALSE(parse_set_topic("kt/a", "kt/a/tags/%00/set", name));
    EXPECT_EQ(name, "before");
}

TEST(topic, the_set_filters_match_nothing_that_is_published) {
    for (const char *name : {"set", "result", "a/set", "a/b/set", "set/set", "a/b/c/d/set"}) {
        EXPECT_EQ(filters_matching(value_topic("kt/a", name)), 0) << name;
        EXPECT_EQ(filters_matching(result_topic("kt/a", name)), 0) << name;
    }
    EXPECT_EQ(filters_matching(value_topic("kt/a", deep_name(17) + "/set")), 0);
    EXPECT_EQ(filters_matching(status_topic("kt/a")), 0);
    EXPECT_EQ(filters_matching(diagnostics_topic("kt/a", 1)), 0);
}

TEST(topic, a_topic_that_is_no_set_topic_is_refused) {
    std::string name;
    for (const char *topic : {"kt/b/tags/a/set",
                              "kt/a/tags/a",
                              "kt/a/tags/a/result",
                              "kt/a/tags/set",
                              "kt/a/tags//set",
                              "kt/a/status",
                              "kt/a/status/set",
                              "kt/ab/tags/a/set",
                              "kt/a",
                              ""}) {
        EXPECT_FALSE(parse_set_topic("kt/a", topic, name)) << topic;
    }
    EXPECT_TRUE(parse_set_topic("kt/a", "kt/a/tags/x/y/set", name));
    EXPECT_EQ(name, "x/y");
}

TEST(topic, the_gateway_has_topics_of_its_own) {
    EXPECT_EQ(status_topic("kt/a"), "kt/a/status");
    EXPECT_EQ(events_topic("kt/a"), "kt/a/events");
    EXPECT_EQ(diagnostics_topic("kt/a", 2), "kt/a/diagnostics/2");
    EXPECT_EQ(statistics_topic("kt/a"), "kt/a/statistics");
}

} // namespace
