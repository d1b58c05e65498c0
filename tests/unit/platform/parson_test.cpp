#include "allocation_fault.h"

#include <parson.h>

#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <jansson.h>
#include <limits>
#include <memory>
#include <string>

namespace {

using json_ptr = std::unique_ptr<JSON_Value, decltype(&json_value_free)>;

json_ptr own(JSON_Value *value) {
    return {value, json_value_free};
}
json_ptr parse(const std::string &text) {
    return own(json_parse_string(text.c_str()));
}
JSON_Object *object_of(const json_ptr &value) {
    return json_value_get_object(value.get());
}
JSON_Array *array_of(const json_ptr &value) {
    return json_value_get_array(value.get());
}

std::string text_of(const JSON_Value *value) {
    char *text = json_serialize_to_string(value);
    const std::string copy = text ? text : "(failed)";
    json_free_serialized_string(text);
    return copy;
}
std::string text_of(const json_ptr &value) {
    return text_of(value.get());
}
// What the text reads and prints as.
std::string again(const std::string &text) {
    return text_of(parse(text));
}

TEST(parson_value, each_kind_has_its_type) {
    EXPECT_EQ(json_value_get_type(own(json_value_init_object()).get()), JSONObject);
    EXPECT_EQ(json_value_get_type(own(json_value_init_array()).get()), JSONArray);
    EXPECT_EQ(json_value_get_type(own(json_value_init_string("s")).get()), JSONString);
    EXPECT_EQ(json_value_get_type(own(json_value_init_number(1)).get()), JSONNumber);
    EXPECT_EQ(json_value_get_type(own(json_value_init_boolean(1)).get()), JSONBoolean);
    EXPECT_EQ(json_value_get_type(own(json_value_init_boolean(0)).get()), JSONBoolean);
    EXPECT_EQ(json_value_get_type(own(json_value_init_null()).get()), JSONNull);
    EXPECT_EQ(json_value_get_type(nullptr), JSONError);
}

TEST(parson_value, content_reads_back) {
    EXPECT_STREQ(json_value_get_string(own(json_value_init_string("text")).get()), "text");
    EXPECT_EQ(json_value_get_number(own(json_value_init_number(12.345)).get()), 12.345);
    EXPECT_EQ(json_value_get_boolean(own(json_value_init_boolean(7)).get()), 1);
    EXPECT_EQ(json_value_get_boolean(own(json_value_init_boolean(0)).get()), 0);
}

TEST(parson_value, content_of_another_type_is_not_given) {
    const json_ptr number = own(json_value_init_number(1));
    const json_ptr text = own(json_value_init_string("1"));
    EXPECT_EQ(json_value_get_string(number.get()), nullptr);
    EXPECT_EQ(json_value_get_object(number.get()), nullptr);
    EXPECT_EQ(json_value_get_array(number.get()), nullptr);
    EXPECT_EQ(json_value_get_boolean(number.get()), -1);
    EXPECT_EQ(json_value_get_number(text.get()), 0);
    EXPECT_EQ(json_value_get_string(nullptr), nullptr);
    EXPECT_EQ(json_value_get_number(nullptr), 0);
    EXPECT_EQ(json_value_get_boolean(nullptr), -1);
    EXPECT_EQ(json_value_get_object(nullptr), nullptr);
    EXPECT_EQ(json_value_get_array(nullptr), nullptr);
    json_value_free(nullptr);
}

TEST(parson_value, unusable_content_is_refused) {
    EXPECT_EQ(json_value_init_string(nullptr), nullptr);
    EXPECT_EQ(json_value_init_string("\xff"), nullptr);
    EXPECT_EQ(json_value_init_number(std::nan("")), nullptr);
    EXPECT_EQ(json_value_init_number(std::numeric_limits<double>::infinity()), nullptr);
    EXPECT_EQ(json_value_init_number(-std::numeric_limits<double>::infinity()), nullptr);
}

TEST(parson_value, deep_copy_is_independent) {
    const json_ptr first = parse(R"({"a":{"b":[1,"x"]},"c":null})");
    const json_ptr second = own(json_value_deep_copy(first.get()));
    EXPECT_EQ(text_of(second), text_of(first));
    json_object_dotset_number(object_of(second), "a.new", 1);
    json_array_append_number(json_object_dotget_array(object_of(second), "a.b"), 2);
    EXPECT_EQ(text_of(first), R"({"a":{"b":[1,"x"]},"c":null})");
    EXPECT_EQ(text_of(second), R"({"a":{"b":[1,"x",2],"new":1},"c":null})");
    EXPECT_EQ(json_value_deep_copy(nullptr), nullptr);
}

TEST(parson_parse, every_kind_of_value_may_stand_alone) {
    for (const char *text :
         {"{}", "[]", "\"s\"", "1", "-2.5", "true", "false", "null", " [ ] \n"}) {
        EXPECT_NE(parse(text), nullptr) << text;
    }
}

TEST(parson_parse, what_is_not_one_json_value_is_refused) {
    for (const char *text :
         {"",     " ",      "{",        "}",         "[1,]",    "{\"a\":1,}", "{a:1}",
          "'s'",  "01",     "+1",       ".5",        "1.",      "NaN",        "Infinity",
          "TRUE", "\"open", "\"a\nb\"", "\"\\x41\"", "// c\n1", "[1 2]"}) {
        EXPECT_EQ(parse(text), nullptr) << text;
    }
    EXPECT_EQ(json_parse_string(nullptr), nullptr);
}

TEST(parson_parse, text_after_the_value_is_refused) {
    for (const char *text : {"{} x", "{}{}", "1 2", "[],", "null null", "\"a\" \"b\""}) {
        EXPECT_EQ(parse(text), nullptr) << text;
    }
}

TEST(parson_parse, invalid_utf8_is_refused) {
    for (const char *bad : {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
        EXPECT_EQ(parse(std::string("\"").append(bad).append("\"")), nullptr);
        EXPECT_EQ(parse(std::string("{\"").append(bad).append("\":1}")), nullptr);
    }
    EXPECT_NE(parse("\"\xc3\xa9 \xe2\x82\xac \xf0\x9f\x9a\x97\""), nullptr);
}

TEST(parson_parse, zero_bytes_in_strings_and_names_are_refused) {
    EXPECT_EQ(parse(R"("a\u0000b")"), nullptr);
    EXPECT_EQ(parse(R"({"a\u0000b":1})"), nullptr);
}

TEST(parson_parse, lone_surrogates_are_refused_and_pairs_read) {
    EXPECT_EQ(parse(R"("\ud83d")"), nullptr);
    EXPECT_EQ(parse(R"("\ude97")"), nullptr);
    EXPECT_STREQ(json_value_get_string(parse(R"("\ud83d\ude97\u00e9")").get()),
                 "\xf0\x9f\x9a\x97\xc3\xa9");
}

TEST(parson_parse, member_given_twice_is_refused) {
    EXPECT_EQ(parse(R"({"a":1,"a":1})"), nullptr);
    EXPECT_EQ(parse(R"({"o":{"a":1,"b":2,"a":3}})"), nullptr);
    EXPECT_NE(parse(R"({"a":{"a":1}})"), nullptr);
}

TEST(parson_parse, numbers_are_doubles) {
    EXPECT_EQ(json_value_get_number(parse("9007199254740993").get()), 9007199254740992.0);
    EXPECT_EQ(json_value_get_number(parse("18446744073709551616").get()), 18446744073709551616.0);
    EXPECT_EQ(json_value_get_number(parse("1e2").get()), 100.0);
    EXPECT_EQ(json_value_get_number(parse("1e-400").get()), 0.0);
    EXPECT_EQ(json_value_get_number(parse("1.7976931348623157e308").get()),
              std::numeric_limits<double>::max());
}

TEST(parson_parse, number_beyond_the_range_is_refused) {
    EXPECT_EQ(parse("1e400"), nullptr);
    EXPECT_EQ(parse("-1e400"), nullptr);
    EXPECT_EQ(parse(std::string("[1,").append(400, '9').append("]")), nullptr);
}

TEST(parson_parse, nesting_of_100_levels_is_the_deepest) {
    const auto nested = [](size_t levels) {
        return std::string(levels, '[') + std::string(levels, ']');
    };
    EXPECT_NE(parse(nested(100)), nullptr);
    EXPECT_EQ(parse(nested(101)), nullptr);
    EXPECT_EQ(parse(std::string(10000000, '[')), nullptr);
    std::string objects = "1";
    for (int i = 0; i < 100; ++i) {
        objects = std::string("{\"a\":").append(objects).append("}");
    }
    EXPECT_NE(parse(objects), nullptr);
    EXPECT_EQ(parse(std::string("[").append(objects).append("]")), nullptr);
}

TEST(parson_parse, brackets_in_strings_do_not_count_as_nesting) {
    EXPECT_NE(parse(std::string("\"").append(200, '[').append("\"")), nullptr);
    EXPECT_NE(parse(std::string("[\"\\\"").append(200, '{').append("\",\"\\\\\",[]]")), nullptr);
    EXPECT_EQ(parse("\"\\"), nullptr);
    std::string wide = "[[]";
    for (int i = 0; i < 1000; ++i) {
        wide += ",[]";
    }
    EXPECT_NE(parse(wide + "]"), nullptr);
}

TEST(parson_print, text_is_compact_and_members_keep_their_order) {
    EXPECT_EQ(again("{ \"z\" : 1 , \"a\" : [ true , false , null ] , \"m\" : { } }"),
              R"({"z":1,"a":[true,false,null],"m":{}})");
}

TEST(parson_print, integers_have_no_fraction) {
    for (const char *text : {"0",
                             "1",
                             "-1",
                             "100000",
                             "1000000",
                             "4294967295",
                             "9007199254740992",
                             "-9007199254740992",
                             "100000000000000000000"}) {
        EXPECT_EQ(again(text), text);
    }
    EXPECT_EQ(again("1.0"), "1");
    EXPECT_EQ(again("1e5"), "100000");
    EXPECT_EQ(again("1e21"), "1e+21");
    EXPECT_EQ(again("-0"), "-0");
}

TEST(parson_print, other_numbers_have_the_shortest_digits_that_read_back) {
    EXPECT_EQ(again("12.345"), "12.345");
    EXPECT_EQ(again("0.1"), "0.1");
    EXPECT_EQ(again("-0.5"), "-0.5");
    EXPECT_EQ(again("1.5e-7"), "1.5e-07");
    EXPECT_EQ(again("5e-324"), "5e-324");
    EXPECT_EQ(again("1.7976931348623157e308"), "1.7976931348623157e+308");
    EXPECT_EQ(again("0.30000000000000004"), "0.30000000000000004");
}

TEST(parson_print, strings_are_escaped_where_they_must_be) {
    const json_ptr value =
        own(json_value_init_string("\" \\ / \b\f\n\r\t \x01\x1f \x7f \xc3\xa9 \xf0\x9f\x9a\x97"));
    EXPECT_EQ(text_of(value),
              "\"\\\" \\\\ / \\b\\f\\n\\r\\t \\u0001\\u001f \x7f \xc3\xa9 \xf0\x9f\x9a\x97\"");
    EXPECT_STREQ(json_value_get_string(parse(text_of(value)).get()),
                 json_value_get_string(value.get()));
    const json_ptr object = own(json_value_init_object());
    json_object_set_null(object_of(object), "a\"\n");
    EXPECT_EQ(text_of(object), R"({"a\"\n":null})");
}

TEST(parson_print, null_gives_no_text) {
    EXPECT_EQ(json_serialize_to_string(nullptr), nullptr);
    json_free_serialized_string(nullptr);
}

TEST(parson_print, value_nested_too_deeply_gives_no_text) {
    const auto nest = [](int levels) {
        json_ptr value = own(json_value_init_array());
        for (int i = 0; i < levels; ++i) {
            json_ptr outer = own(json_value_init_array());
            EXPECT_EQ(json_array_append_value(array_of(outer), value.get()), JSONSuccess);
            (void)value.release();
            value = std::move(outer);
        }
        return value;
    };
    EXPECT_EQ(text_of(nest(2000)).size(), 2 * 2001u);
    EXPECT_EQ(text_of(nest(2001)), "(failed)");
}

class parson_object : public ::testing::Test {
protected:
    json_ptr root =
        parse(R"({"n":1.5,"s":"text","b":true,"o":{"p":{"q":2}},"a":[1],"z":null,"x.y":3})");
    JSON_Object *object = object_of(root);
    const std::string before = text_of(root);
};

TEST_F(parson_object, members_read_by_name) {
    EXPECT_EQ(json_object_get_number(object, "n"), 1.5);
    EXPECT_STREQ(json_object_get_string(object, "s"), "text");
    EXPECT_EQ(json_object_get_boolean(object, "b"), 1);
    EXPECT_EQ(json_object_get_count(json_object_get_object(object, "o")), 1u);
    EXPECT_EQ(json_array_get_count(json_object_get_array(object, "a")), 1u);
    EXPECT_EQ(json_value_get_type(json_object_get_value(object, "z")), JSONNull);
    EXPECT_EQ(json_object_get_number(object, "x.y"), 3);
}

TEST_F(parson_object, missing_members_and_other_types_read_as_nothing) {
    for (const char *name : {"missing", "a", ""}) {
        EXPECT_EQ(json_object_get_number(object, name), 0);
        EXPECT_EQ(json_object_get_string(object, name), nullptr);
        EXPECT_EQ(json_object_get_boolean(object, name), -1);
        EXPECT_EQ(json_object_get_object(object, name), nullptr);
    }
    EXPECT_EQ(json_object_get_array(object, "n"), nullptr);
    EXPECT_EQ(json_object_get_value(object, nullptr), nullptr);
    EXPECT_EQ(json_object_get_value(nullptr, "n"), nullptr);
    EXPECT_EQ(json_object_get_number(nullptr, "n"), 0);
    EXPECT_EQ(json_object_get_boolean(nullptr, "n"), -1);
}

TEST_F(parson_object, dotted_names_read_through_objects) {
    EXPECT_EQ(json_object_dotget_number(object, "o.p.q"), 2);
    EXPECT_EQ(json_object_dotget_number(object, "n"), 1.5);
    EXPECT_STREQ(json_object_dotget_string(object, "s"), "text");
    EXPECT_EQ(json_object_dotget_boolean(object, "b"), 1);
    EXPECT_NE(json_object_dotget_object(object, "o.p"), nullptr);
    EXPECT_NE(json_object_dotget_array(object, "a"), nullptr);
    EXPECT_NE(json_object_dotget_value(object, "o.p.q"), nullptr);
}

TEST_F(parson_object, dotted_names_that_lead_nowhere_read_as_nothing) {
    for (const char *name : {"o.p.q.r", "o.x", "x.y", "n.s", "a.0", ".", "o.", ".o", "o..p", ""}) {
        EXPECT_EQ(json_object_dotget_value(object, name), nullptr) << name;
        EXPECT_EQ(json_object_dothas_value(object, name), 0) << name;
    }
    EXPECT_EQ(json_object_dotget_value(object, nullptr), nullptr);
    EXPECT_EQ(json_object_dotget_value(nullptr, "o.p"), nullptr);
    EXPECT_EQ(json_object_dotget_number(object, "s"), 0);
    EXPECT_EQ(json_object_dotget_boolean(object, "n"), -1);
    EXPECT_EQ(json_object_dotget_string(object, "n"), nullptr);
    EXPECT_EQ(json_object_dotget_object(object, "n"), nullptr);
    EXPECT_EQ(json_object_dotget_array(object, "n"), nullptr);
}

TEST_F(parson_object, presence_and_type_can_be_asked) {
    const std::pair<const char *, int> members[] = {{"n", JSONNumber},
                                                    {"s", JSONString},
                                                    {"b", JSONBoolean},
                                                    {"o", JSONObject},
                                                    {"a", JSONArray},
                                                    {"z", JSONNull}};
    for (const auto &[name, type] : members) {
        EXPECT_EQ(json_object_has_value(object, name), 1);
        EXPECT_EQ(json_object_dothas_value(object, name), 1);
        for (int asked = JSONError; asked <= JSONBoolean; ++asked) {
            EXPECT_EQ(json_object_has_value_of_type(object, name, asked), asked == type);
            EXPECT_EQ(json_object_dothas_value_of_type(object, name, asked), asked == type);
        }
    }
    EXPECT_EQ(json_object_dothas_value_of_type(object, "o.p.q", JSONNumber), 1);
    EXPECT_EQ(json_object_has_value_of_type(object, "o.p.q", JSONNumber), 0);
    EXPECT_EQ(json_object_has_value_of_type(object, "missing", JSONError), 0);
    EXPECT_EQ(json_object_dothas_value_of_type(object, "missing", JSONError), 0);
    EXPECT_EQ(json_object_has_value(nullptr, "n"), 0);
}

TEST_F(parson_object, members_can_be_walked_in_order) {
    const char *names[] = {"n", "s", "b", "o", "a", "z", "x.y"};
    ASSERT_EQ(json_object_get_count(object), std::size(names));
    for (size_t i = 0; i < std::size(names); ++i) {
        EXPECT_STREQ(json_object_get_name(object, i), names[i]);
        EXPECT_EQ(json_object_get_value_at(object, i), json_object_get_value(object, names[i]));
    }
    EXPECT_EQ(json_object_get_name(object, std::size(names)), nullptr);
    EXPECT_EQ(json_object_get_value_at(object, std::size(names)), nullptr);
    EXPECT_EQ(json_object_get_count(nullptr), 0u);
    EXPECT_EQ(json_object_get_name(nullptr, 0), nullptr);
}

TEST(parson_set, members_of_every_kind) {
    const json_ptr root = own(json_value_init_object());
    JSON_Object *object = object_of(root);
    EXPECT_EQ(json_object_set_string(object, "s", "v"), JSONSuccess);
    EXPECT_EQ(json_object_set_number(object, "n", -1.25), JSONSuccess);
    EXPECT_EQ(json_object_set_boolean(object, "t", 2), JSONSuccess);
    EXPECT_EQ(json_object_set_boolean(object, "f", 0), JSONSuccess);
    EXPECT_EQ(json_object_set_null(object, "z"), JSONSuccess);
    EXPECT_EQ(json_object_set_value(object, "o", json_value_init_object()), JSONSuccess);
    EXPECT_EQ(json_object_set_number(object, "a.b", 1), JSONSuccess); // dots mean nothing here
    EXPECT_EQ(text_of(root), R"({"s":"v","n":-1.25,"t":true,"f":false,"z":null,"o":{},"a.b":1})");
}

TEST(parson_set, member_that_is_set_again_keeps_its_place) {
    const json_ptr root = parse(R"({"a":1,"b":2,"c":3})");
    EXPECT_EQ(json_object_set_string(object_of(root), "b", "new"), JSONSuccess);
    EXPECT_EQ(text_of(root), R"({"a":1,"b":"new","c":3})");
}

TEST(parson_set, dotted_names_make_the_objects_on_the_way) {
    const json_ptr root = own(json_value_init_object());
    JSON_Object *object = object_of(root);
    EXPECT_EQ(json_object_dotset_number(object, "error.code", -3), JSONSuccess);
    EXPECT_EQ(json_object_dotset_string(object, "error.message", "m"), JSONSuccess);
    EXPECT_EQ(json_object_dotset_boolean(object, "a.b.c", 1), JSONSuccess);
    EXPECT_EQ(json_object_dotset_null(object, "a.b.d"), JSONSuccess);
    EXPECT_EQ(json_object_dotset_value(object, "a.list", json_value_init_array()), JSONSuccess);
    EXPECT_EQ(json_object_dotset_number(object, "plain", 1), JSONSuccess);
    EXPECT_EQ(
        text_of(root),
        R"({"error":{"code":-3,"message":"m"},"a":{"b":{"c":true,"d":null},"list":[]},"plain":1})");
}

TEST(parson_set, dotted_name_through_something_else_fails_and_changes_nothing) {
    const json_ptr root = parse(R"({"n":1,"a":[{}],"z":null})");
    for (const char *name : {"n.x", "a.x", "z.x", "n.x.y"}) {
        EXPECT_EQ(json_object_dotset_number(object_of(root), name, 1), JSONFailure) << name;
    }
    EXPECT_EQ(text_of(root), R"({"n":1,"a":[{}],"z":null})");
}

TEST(parson_set, unusable_content_fails_and_changes_nothing) {
    const json_ptr root = parse(R"({"a":1})");
    JSON_Object *object = object_of(root);
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(json_object_set_number(object, "a", std::nan("")), JSONFailure);
    EXPECT_EQ(json_object_set_number(object, "a", infinity), JSONFailure);
    EXPECT_EQ(json_object_set_string(object, "a", "\xff"), JSONFailure);
    EXPECT_EQ(json_object_set_string(object, "a", nullptr), JSONFailure);
    EXPECT_EQ(json_object_set_value(object, "a", nullptr), JSONFailure);
    EXPECT_EQ(json_object_set_string(object, "\xff", "s"), JSONFailure);
    EXPECT_EQ(json_object_set_number(object, nullptr, 1), JSONFailure);
    EXPECT_EQ(json_object_set_null(nullptr, "a"), JSONFailure);
    EXPECT_EQ(json_object_dotset_number(object, "b.c", infinity), JSONFailure);
    EXPECT_EQ(json_object_dotset_string(object, "b.c", "\xff"), JSONFailure);
    EXPECT_EQ(json_object_dotset_string(object, "b.\xff", "s"), JSONFailure);
    EXPECT_EQ(json_object_dotset_string(object, "b.c.\xff", "s"), JSONFailure);
    EXPECT_EQ(json_object_dotset_value(object, "b.c", nullptr), JSONFailure);
    EXPECT_EQ(json_object_dotset_boolean(object, nullptr, 1), JSONFailure);
    EXPECT_EQ(json_object_dotset_null(nullptr, "a.b"), JSONFailure);
    EXPECT_EQ(text_of(root), R"({"a":1})");
}

TEST(parson_set, value_stays_with_the_caller_on_failure) {
    const json_ptr root = parse(R"({"n":1})");
    const json_ptr value = parse(R"({"kept":true})");
    EXPECT_EQ(json_object_set_value(object_of(root), nullptr, value.get()), JSONFailure);
    EXPECT_EQ(json_object_set_value(object_of(root), "\xff", value.get()), JSONFailure);
    EXPECT_EQ(json_object_set_value(nullptr, "a", value.get()), JSONFailure);
    EXPECT_EQ(json_object_dotset_value(object_of(root), "n.a", value.get()), JSONFailure);
    EXPECT_EQ(json_object_dotset_value(object_of(root), "x.\xff", value.get()), JSONFailure);
    EXPECT_EQ(json_array_append_value(nullptr, value.get()), JSONFailure);
    EXPECT_EQ(text_of(value), R"({"kept":true})");
    EXPECT_EQ(text_of(root), R"({"n":1})");
}

TEST(parson_set, value_cannot_be_put_into_itself) {
    const json_ptr object = own(json_value_init_object());
    const json_ptr array = own(json_value_init_array());
    EXPECT_EQ(json_object_set_value(object_of(object), "a", object.get()), JSONFailure);
    EXPECT_EQ(json_array_append_value(array_of(array), array.get()), JSONFailure);
}

TEST(parson_array, elements_read_by_position) {
    const json_ptr root = parse(R"([1.5,"text",true,{"a":1},[2],null])");
    const JSON_Array *array = array_of(root);
    ASSERT_EQ(json_array_get_count(array), 6u);
    EXPECT_EQ(json_array_get_number(array, 0), 1.5);
    EXPECT_STREQ(json_array_get_string(array, 1), "text");
    EXPECT_EQ(json_array_get_boolean(array, 2), 1);
    EXPECT_EQ(json_object_get_number(json_array_get_object(array, 3), "a"), 1);
    EXPECT_EQ(json_array_get_number(json_array_get_array(array, 4), 0), 2);
    EXPECT_EQ(json_value_get_type(json_array_get_value(array, 5)), JSONNull);
}

TEST(parson_array, elements_that_are_not_there_or_of_another_type_read_as_nothing) {
    const json_ptr root = parse("[null]");
    const JSON_Array *array = array_of(root);
    for (const size_t index : {size_t{0}, size_t{1}, std::numeric_limits<size_t>::max()}) {
        EXPECT_EQ(json_array_get_number(array, index), 0);
        EXPECT_EQ(json_array_get_string(array, index), nullptr);
        EXPECT_EQ(json_array_get_boolean(array, index), -1);
        EXPECT_EQ(json_array_get_object(array, index), nullptr);
        EXPECT_EQ(json_array_get_array(array, index), nullptr);
    }
    EXPECT_EQ(json_array_get_value(array, 1), nullptr);
    EXPECT_EQ(json_array_get_count(nullptr), 0u);
    EXPECT_EQ(json_array_get_value(nullptr, 0), nullptr);
}

TEST(parson_array, elements_are_appended) {
    const json_ptr root = own(json_value_init_array());
    JSON_Array *array = array_of(root);
    EXPECT_EQ(json_array_append_number(array, 1), JSONSuccess);
    EXPECT_EQ(json_array_append_string(array, "s"), JSONSuccess);
    EXPECT_EQ(json_array_append_boolean(array, 0), JSONSuccess);
    EXPECT_EQ(json_array_append_value(array, json_parse_string(R"({"a":1})")), JSONSuccess);
    EXPECT_EQ(json_array_append_value(array, json_value_init_null()), JSONSuccess);
    EXPECT_EQ(text_of(root), R"([1,"s",false,{"a":1},null])");
}

TEST(parson_array, unusable_elements_are_refused) {
    const json_ptr root = own(json_value_init_array());
    JSON_Array *array = array_of(root);
    EXPECT_EQ(json_array_append_number(array, std::nan("")), JSONFailure);
    EXPECT_EQ(json_array_append_string(array, "\xff"), JSONFailure);
    EXPECT_EQ(json_array_append_string(array, nullptr), JSONFailure);
    EXPECT_EQ(json_array_append_value(array, nullptr), JSONFailure);
    EXPECT_EQ(json_array_append_boolean(nullptr, 1), JSONFailure);
    EXPECT_EQ(text_of(root), "[]");
}

// Fails the n-th allocation, the library's underneath among them, for every n until the work
// succeeds.
template <typename Work>
int sweep(Work work) {
    return allocation_fault::sweep(work, [](bool succeeded, int nth) {
        EXPECT_FALSE(succeeded) << "without allocation " << nth;
    });
}

TEST(parson_memory, parsing_fails_cleanly) {
    const std::string longer(1000, 'x');
    for (const std::string &text : {std::string(R"({"a":[1,"text",{"b":null}],"c":true})"),
                                    std::string(R"(["more than sixteen characters"])"),
                                    std::string(R"(["0123456789abcde\u00e9\ud83d\ude00"])"),
                                    std::string("[123456789012345678901234567890.5e-10]"),
                                    "{\"" + longer + "\":\"" + longer + "\"}",
                                    "[\"" + longer + "\",truenotquite]"}) {
        const bool good = parse(text) != nullptr;
        const int failed = sweep([&] { return parse(text) != nullptr; });
        EXPECT_GT(failed, 3) << text;
        EXPECT_EQ(parse(text) != nullptr, good);
    }
}

TEST(parson_memory, values_of_one_parse_outlive_the_next_that_fails) {
    const json_ptr kept = parse(R"({"a":["kept"]})");
    allocation_fault::arm(5);
    EXPECT_EQ(parse(R"({"b":["more than sixteen characters"]})"), nullptr);
    EXPECT_TRUE(allocation_fault::disarm());
    EXPECT_EQ(text_of(kept), R"({"a":["kept"]})");
}

TEST(parson_memory, building_fails_cleanly_and_says_so) {
    (void)sweep([] {
        const json_ptr root = own(json_value_init_object());
        JSON_Object *object = object_of(root);
        JSON_Value *list = json_value_init_array();
        bool good = json_object_dotset_value(object, "a.b.c", list) == JSONSuccess;
        if (!good) {
            json_value_free(list);
        }
        JSON_Array *array = json_object_dotget_array(object, "a.b.c");
        EXPECT_EQ(array != nullptr, good);
        good = json_array_append_string(array, "s") == JSONSuccess && good;
        good = json_object_dotset_number(object, "x.y", 1) == JSONSuccess && good;
        const json_ptr copy = own(json_value_deep_copy(root.get()));
        const std::string text = text_of(root);
        if (good && text != "(failed)") {
            EXPECT_EQ(text, R"({"a":{"b":{"c":["s"]}},"x":{"y":1}})");
        }
        return good && copy && text != "(failed)";
    });
}

} // namespace
