#include "allocation_fault.h"
#include "rest_fixture.h"

#include <climits>

namespace {

class getters : public rest_unit {
protected:
    int number(const std::string &body, int32_t min, int32_t max) {
        const json_ptr value = parsed(body);
        return json_obj_get_number(object_of(value), "n", &read, min, max);
    }

    int string(const std::string &body, size_t minimum, size_t maximum) {
        const json_ptr value = parsed(body);
        char *out = nullptr;
        const int result = json_obj_get_string(object_of(value), "n", &out, minimum, maximum);
        has_text = out != nullptr;
        text = has_text ? out : "";
        free(out);
        return result;
    }

    int32_t read = 77;
    std::string text;
    bool has_text = false;
};

const std::string number_missing = "json_obj_get_number|Parameter n does not exist\n";
const std::string string_missing = "json_obj_get_string|Parameter n does not exist\n";
const std::string safe_missing = "json_obj_get_string_safe|Parameter n does not exist\n";
const std::string boolean_missing = "json_obj_get_boolean|Parameter n does not exist\n";

TEST_F(getters, a_number_is_truncated_toward_zero) {
    const struct {
        const char *body;
        int32_t value;
    } rows[] = {{R"({"n":2})", 2},
                {R"({"n":2.9})", 2},
                {R"({"n":-2.9})", -2},
                {R"({"n":-0.5})", 0},
                {R"({"n":1e2})", 100},
                {R"({"n":1e-300})", 0},
                {R"({"n":-0.0})", 0},
                {R"({"n":2147483647})", INT32_MAX},
                {R"({"n":-2147483648})", INT32_MIN}};
    for (const auto &row : rows) {
        EXPECT_EQ(number(row.body, INT32_MIN, INT32_MAX), 0) << row.body;
        EXPECT_EQ(read, row.value) << row.body;
    }
}

TEST_F(getters, a_number_is_held_within_32_bits) {
    for (const char *body : {R"({"n":1e10})", R"({"n":1e300})", R"({"n":2147483648})"}) {
        EXPECT_EQ(number(body, INT32_MIN, INT32_MAX), 0);
        EXPECT_EQ(read, INT32_MAX);
    }
    for (const char *body : {R"({"n":-1e10})", R"({"n":-1e300})", R"({"n":-2147483649})"}) {
        EXPECT_EQ(number(body, INT32_MIN, INT32_MAX), 0);
        EXPECT_EQ(read, INT32_MIN);
    }
}

TEST_F(getters, a_number_outside_its_limits_leaves_the_output) {
    EXPECT_THAT(
        messages_of([&] {
            EXPECT_EQ(number(R"({"n":1e10})", 0, 100), -1);
            EXPECT_EQ(number(R"({"n":9})", 10, 100), -1);
            EXPECT_EQ(number(R"({"n":101.9})", 10, 100), -1);
        }),
        ElementsAre("json_obj_get_number|The n input length 2147483647 does not meet the length "
                    "limit (0-100)\n",
                    "json_obj_get_number|The n input length 9 does not meet the length limit "
                    "(10-100)\n",
                    "json_obj_get_number|The n input length 101 does not meet the length limit "
                    "(10-100)\n"));
    EXPECT_EQ(read, 77);
}

TEST_F(getters, a_number_at_its_limits) {
    EXPECT_EQ(number(R"({"n":10})", 10, 100), 0);
    EXPECT_EQ(number(R"({"n":100.9})", 10, 100), 0);
    EXPECT_EQ(read, 100);
}

TEST_F(getters, a_number_that_is_missing_or_of_another_type) {
    for (const char *body : {"{}",
                             R"({"N":1})",
                             R"({"n":"5"})",
                             R"({"n":true})",
                             R"({"n":null})",
                             R"({"n":[1]})",
                             R"({"n":{"n":1}})",
                             "[]",
                             "5"}) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(number(body, 0, 9), -3) << body; }),
                    ElementsAre(number_missing));
    }
    EXPECT_EQ(read, 77);
}

TEST_F(getters, members_are_found_by_dotted_path) {
    const json_ptr value = parsed(R"({"a":{"b":5,"c":"x","d":true},"a.b":6})");
    JSON_Object *object = object_of(value);
    EXPECT_EQ(json_obj_get_number(object, "a.b", &read, 0, 9), 0);
    EXPECT_EQ(read, 5);
    char *out = nullptr;
    EXPECT_EQ(json_obj_get_string(object, "a.c", &out, 0, 9), 0);
    EXPECT_STREQ(out, "x");
    free(out);
    uint8_t flag = 0;
    EXPECT_EQ(json_obj_get_boolean(object, "a.d", &flag), 0);
    EXPECT_EQ(flag, 1);
}

TEST_F(getters, a_string_at_and_beyond_its_limits) {
    EXPECT_EQ(string(R"({"n":"abc"})", 3, 3), 0);
    EXPECT_EQ(text, "abc");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(string(R"({"n":"abc"})", 4, 9), -1); }),
                ElementsAre("json_obj_get_string|The n less than minium length (4)\n"));
    EXPECT_EQ(text, "abc"); // the caller's all the same
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(string(R"({"n":"abc"})", 0, 2), -1); }),
                ElementsAre("json_obj_get_string|The n exceeds the maximum length (2)\n"));
    EXPECT_EQ(text, "abc");
}

TEST_F(getters, a_string_is_measured_in_bytes) {
    EXPECT_EQ(string("{\"n\":\"\u20ac\"}", 3, 3), 0);
    EXPECT_EQ(string(R"({"n":"\u20ac"})", 3, 3), 0);
    EXPECT_EQ(text, "\u20ac");
}

TEST_F(getters, a_string_that_is_missing_or_of_another_type) {
    for (const char *body :
         {"{}", R"({"n":5})", R"({"n":true})", R"({"n":null})", R"({"n":["x"]})", "[]", "\"n\""}) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(string(body, 0, 9), -3) << body; }),
                    ElementsAre(string_missing));
        EXPECT_FALSE(has_text);
    }
}

TEST_F(getters, a_string_without_memory_for_its_copy_counts_as_missing) {
    const json_ptr value = parsed(R"({"n":"abc"})");
    char *out = nullptr;
    EXPECT_THAT(messages_of([&] {
                    allocation_fault::arm(1);
                    EXPECT_EQ(json_obj_get_string(object_of(value), "n", &out, 0, 9), -3);
                    EXPECT_TRUE(allocation_fault::disarm());
                }),
                ElementsAre(string_missing));
    EXPECT_EQ(out, nullptr);
}

TEST_F(getters, nothing_is_said_above_the_error_level) {
    log_set_level(LOG_LEVEL_OFF);
    const json_ptr value = parsed(R"({"n":"abc"})");
    char buffer[4];
    uint8_t flag = 0;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(number(R"({"n":1})", 2, 3), -1);
                    EXPECT_EQ(number("{}", 2, 3), -3);
                    EXPECT_EQ(string(R"({"n":"abc"})", 4, 9), -1);
                    EXPECT_EQ(string(R"({"n":"abc"})", 0, 2), -1);
                    EXPECT_EQ(
                        json_obj_get_string_safe(object_of(value), "n", buffer, sizeof buffer, 2),
                        -1);
                    EXPECT_EQ(json_obj_get_boolean(object_of(value), "n", &flag), -3);
                }),
                IsEmpty());
}

TEST_F(getters, a_string_replaces_what_the_output_held) {
    const json_ptr value = parsed(R"({"n":"new"})");
    char *out = strdup("old");
    EXPECT_EQ(json_obj_get_string(object_of(value), "n", &out, 0, 9), 0);
    EXPECT_STREQ(out, "new");
    free(out);
}

TEST_F(getters, a_string_for_a_buffer_is_cut_to_it_and_judged_whole) {
    const json_ptr value = parsed(R"({"n":"abcdef"})");
    char buffer[4] = "zzz";
    EXPECT_EQ(json_obj_get_string_safe(object_of(value), "n", buffer, sizeof buffer, 6), 0);
    EXPECT_STREQ(buffer, "abc");
    memcpy(buffer, "zzz", 4);
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(
                        json_obj_get_string_safe(object_of(value), "n", buffer, sizeof buffer, 5),
                        -1);
                }),
                ElementsAre("json_obj_get_string_safe|The n exceeds the maximum length (5)\n"));
    EXPECT_STREQ(buffer, "abc");
}

TEST_F(getters, a_string_for_a_buffer_may_be_empty_and_must_be_there) {
    char buffer[4] = "zzz";
    const json_ptr empty = parsed(R"({"n":""})");
    EXPECT_EQ(json_obj_get_string_safe(object_of(empty), "n", buffer, sizeof buffer, 3), 0);
    EXPECT_STREQ(buffer, "");
    for (const char *body : {"{}", R"({"n":5})", R"({"n":null})", "[]"}) {
        const json_ptr value = parsed(body);
        EXPECT_THAT(
            messages_of([&] {
                EXPECT_EQ(json_obj_get_string_safe(object_of(value), "n", buffer, sizeof buffer, 3),
                          -3);
            }),
            ElementsAre(safe_missing));
    }
}

TEST_F(getters, only_true_and_false_are_flags) {
    uint8_t flag = 7;
    EXPECT_EQ(json_obj_get_boolean(object_of(parsed(R"({"n":true})")), "n", &flag), 0);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(json_obj_get_boolean(object_of(parsed(R"({"n":false})")), "n", &flag), 0);
    EXPECT_EQ(flag, 0);
    flag = 7;
    for (const char *body :
         {"{}", R"({"n":0})", R"({"n":1})", R"({"n":"true"})", R"({"n":null})"}) {
        const json_ptr value = parsed(body);
        EXPECT_THAT(
            messages_of([&] { EXPECT_EQ(json_obj_get_boolean(object_of(value), "n", &flag), -3); }),
            ElementsAre(boolean_missing));
    }
    EXPECT_EQ(flag, 7);
}

TEST_F(getters, a_body_is_one_json_value) {
    for (const char *body : {"{}", "[]", "1", "\"x\"", "null", " {} \n"}) {
        EXPECT_NE(parse_body(body), nullptr) << body;
    }
    for (const char *body :
         {"",     " ",           "{",        "{}{}",   "{} x",        "nul",
          "NaN",  "Infinity",    "1e400",    "-1e400", "'x'",         "{a:1}",
          "[1,]", "\"\\u0000\"", "\"\xff\"", "\"\n\"", "\"\\ud800\"", R"({"a":1,"a":1})",
          "01",   "+1",          ".5",       "// x\n1"}) {
        EXPECT_EQ(parse_body(body), nullptr) << body;
    }
    EXPECT_EQ(parse_body(nullptr), nullptr);
}

TEST_F(getters, a_body_may_be_nested_100_deep) {
    EXPECT_NE(parse_body((std::string(100, '[') + std::string(100, ']')).c_str()), nullptr);
    EXPECT_EQ(parse_body((std::string(101, '[') + std::string(101, ']')).c_str()), nullptr);
    EXPECT_EQ(parse_body(std::string(1000000, '[').c_str()), nullptr);
}

} // namespace
