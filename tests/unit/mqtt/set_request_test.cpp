#include "set_request.h"

#include <gtest/gtest.h>
#include <random>

namespace {

std::string value_of(std::string_view payload) {
    set_request request;
    std::string error;
    return parse_set_request(payload, request, error) ? request.value : "refused: " + error;
}

std::string id_of(std::string_view payload) {
    set_request request;
    std::string error;
    (void)parse_set_request(payload, request, error); // an id is kept of a refused message as well
    return request.id;
}

std::string refusal_of(std::string_view payload) {
    set_request request;
    std::string error;
    return parse_set_request(payload, request, error) ? "accepted: " + request.value : error;
}

TEST(set_request, a_bare_value_is_taken_as_it_stands) {
    EXPECT_EQ(value_of("1500"), "1500");
    EXPECT_EQ(value_of("-0x10"), "-0x10");
    EXPECT_EQ(value_of("01ABFF"), "01ABFF");
    EXPECT_EQ(value_of("18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(id_of("1500"), "");
}

TEST(set_request, blanks_and_line_ends_around_it_do_not_count) {
    EXPECT_EQ(value_of(" 12\r\n"), "12");
    EXPECT_EQ(value_of("\n{ \"value\" :\t12 }\n"), "12");
}

TEST(set_request, a_json_string_is_a_value) {
    EXPECT_EQ(value_of("\"01ABFF\""), "01ABFF");
    EXPECT_EQ(value_of("\"NaN\""), "NaN");
    EXPECT_EQ(value_of("\"\""), "");
}

TEST(set_request, an_object_holds_value_and_id) {
    EXPECT_EQ(value_of(R"({"value":1500,"id":"a1"})"), "1500");
    EXPECT_EQ(id_of(R"({"value":1500,"id":"a1"})"), "\"a1\"");
    EXPECT_EQ(id_of(R"({"id":42,"value":-1.5e3})"), "42");
    EXPECT_EQ(value_of(R"({"id":42,"value":-1.5e3})"), "-1.5e3");
    EXPECT_EQ(value_of(R"({"value":18446744073709551615})"), "18446744073709551615");
    EXPECT_EQ(value_of(R"({"value":"0x10"})"), "0x10");
    EXPECT_EQ(value_of(R"({"value":true})"), "true");
}

TEST(set_request, escapes_are_resolved) {
    EXPECT_EQ(value_of(R"("\u0031\u00e4\ud83d\ude00\/")"), "1ä\xF0\x9F\x98\x80/");
    EXPECT_EQ(value_of(R"({"\u0076alue":"a\"b\\c"})"), "a\"b\\c");
    EXPECT_EQ(id_of(R"({"value":1,"id":"a\"\u0001"})"), R"("a\"\u0001")");
    for (const char *text : {R"("\x")",
                             R"("\u12")",
                             R"("\u12g4")",
                             R"("\u0000")",
                             R"("\ud800")",
                             R"("\ud800\u0031")",
                             R"("\udc00")",
                             R"("\u+123")"}) {
        EXPECT_EQ(refusal_of(text), "a JSON string holds an escape that does not exist") << text;
    }
}

TEST(set_request, an_id_is_known_also_when_the_rest_is_refused) {
    EXPECT_EQ(id_of(R"({"id":"a1"})"), "\"a1\"");
    EXPECT_EQ(id_of(R"({"id":"a1","value":[1]})"), "\"a1\"");
    EXPECT_EQ(id_of(R"({"id":"a1","value":1)"), "\"a1\"");
    EXPECT_EQ(id_of(R"({"id":"a)"), "");
}

struct refused_payload {
    std::string payload;
    const char *reason;
};

TEST(set_request, hostile_payloads_are_refused_with_their_reason) {
    const refused_payload rows[] = {
        {"", "the message is empty"},
        {" \r\n\t", "the message is empty"},
        {std::string(1025, '1'), "the message has more than 1024 bytes"},
        {std::string("1\0", 2), "the message holds bytes that are no printable text in UTF-8"},
        {"\xFF", "the message holds bytes that are no printable text in UTF-8"},
        {"1\x1b[2J", "the message holds bytes that are no printable text in UTF-8"},
        {"\"\xED\xA0\x80\"", "the message holds bytes that are no printable text in UTF-8"},
        {"[1]", "a list cannot be written"},
        {"{", "the JSON text is cut off"},
        {"\"abc", "the JSON text is cut off"},
        {"\"abc\\", "the JSON text is cut off"},
        {R"({"value")", "the JSON text is cut off"},
        {R"({"value":)", "the JSON text is cut off"},
        {R"({"value":1)", "the JSON text is cut off"},
        {R"({"value":1,)", "the JSON text is cut off"},
        {"{}", "\"value\" is missing"},
        {R"({"id":1})", "\"value\" is missing"},
        {"{value:1}", "a member name is missing"},
        {R"({"value" 1})", "a \":\" is missing"},
        {R"({"value":,})", "a value is missing"},
        {R"({"value":1 2})", "a \",\" or \"}\" is missing"},
        {R"({"value":1,})", "a member name is missing"},
        {R"({"value":1}{)", "something follows the JSON text"},
        {R"("1" 2)", "something follows the JSON text"},
        {R"({"value":1,"value":2})", "\"value\" stands there twice"},
        {R"({"id":1,"id":2,"value":2})", "\"id\" stands there twice"},
        {R"({"value":1,"id":true})", "\"id\" must be a string or a number"},
        {R"({"value":1,"id":null})", "\"id\" must be a string or a number"},
        {R"({"value":1,"retain":1})", "only \"value\" and \"id\" may stand in a set message"},
        {R"({"value":0x10})", "a value is neither a JSON string nor a number"},
        {R"({"value":01})", "a value is neither a JSON string nor a number"},
        {R"({"value":1.})", "a value is neither a JSON string nor a number"},
        {R"({"value":-})", "a value is neither a JSON string nor a number"},
        {R"({"value":1e})", "a value is neither a JSON string nor a number"},
        {R"({"value":NaN})", "a value is neither a JSON string nor a number"},
        {R"({"value":[1]})", "a member must be a string or a number, not an object or a list"},
        {R"({"value":{"a":1}})", "a member must be a string or a number, not an object or a list"},
        {"{\"value\":\"a\nb\"}", "a JSON string holds a line end or a tab"},
    };
    for (const refused_payload &row : rows) {
        EXPECT_EQ(refusal_of(row.payload), row.reason) << row.payload;
    }
}

TEST(set_request, nesting_of_any_depth_costs_nothing) {
    EXPECT_EQ(refusal_of(std::string(1024, '[')), "a list cannot be written");
    std::string nested;
    for (int i = 0; i < 100; ++i) {
        nested += R"({"value":)";
    }
    EXPECT_EQ(refusal_of(nested), "a member must be a string or a number, not an object or a list");
}

TEST(set_request, an_id_is_bounded) {
    const std::string longest(128, 'i');
    EXPECT_EQ(id_of(R"({"value":1,"id":")" + longest + "\"}"), "\"" + longest + "\"");
    EXPECT_EQ(refusal_of(R"({"value":1,"id":")" + longest + "i\"}"),
              "\"id\" has more than 128 bytes");
}

TEST(set_request, every_prefix_of_a_message_is_harmless) {
    const std::string whole = R"({"value":"\u00e4\ud83d\ude00","id":"a\"1"})";
    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(refusal_of(whole.substr(0, length)).substr(0, 8), "accepted") << length;
    }
    EXPECT_EQ(refusal_of(whole).substr(0, 8), "accepted");
}

TEST(set_request, changed_bytes_anywhere_are_harmless) {
    const std::string whole = R"({"value":"\u00e4\ud83d\ude00","id":"a\"1"})";
    std::minstd_rand random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string changed = whole;
        for (unsigned count = random() % 4; count > 0; --count) {
            changed[random() % changed.size()] = static_cast<char>(random());
        }
        set_request request;
        std::string error;
        const bool good = parse_set_request(changed, request, error);
        EXPECT_EQ(good, error.empty()) << changed;
    }
}

} // namespace
