#include <kt/rest.h>

#include <gtest/gtest.h>
#include <string>

namespace {

// "=VALUE" or the code.
std::string find(const char *uri, const char *name) {
    char value[16] = "untouched";
    const int result = rest_find_uri_query_val(uri, name, value, sizeof value);
    if (result != REST_OK) {
        EXPECT_STREQ(value, "untouched");
        return std::to_string(result);
    }
    return "=" + std::string(value);
}

TEST(rest_query, value_is_found_by_exact_name) {
    EXPECT_EQ(find("/a/b?portId=1", "portId"), "=1");
    EXPECT_EQ(find("/a?x=0&portId=2&y=3", "portId"), "=2");
    EXPECT_EQ(find("/a?xportId=1&portIdx=2&PORTID=3", "portId"), "-8");
    EXPECT_EQ(find("/a?port=1", "portId"), "-8");
    EXPECT_EQ(find("/portId=1", "portId"), "-8");
    EXPECT_EQ(find("/a", "portId"), "-8");
    EXPECT_EQ(find("/a?", "portId"), "-8");
    EXPECT_EQ(find("", "portId"), "-8");
}

TEST(rest_query, first_of_a_name_counts) {
    EXPECT_EQ(find("/a?id=1&id=2", "id"), "=1");
    EXPECT_EQ(find("/a?id=%&id=2", "id"), "-10");
}

TEST(rest_query, empty_and_missing_values_are_empty) {
    EXPECT_EQ(find("/a?id=", "id"), "=");
    EXPECT_EQ(find("/a?id", "id"), "=");
    EXPECT_EQ(find("/a?&&id&", "id"), "=");
    EXPECT_EQ(find("/a?id=a=b", "id"), "=a=b");
    EXPECT_EQ(find("/a?id=a?b", "id"), "=a?b");
}

TEST(rest_query, fragment_does_not_belong_to_it) {
    EXPECT_EQ(find("/a?id=1#&id=2", "id"), "=1");
    EXPECT_EQ(find("/a#?id=1", "id"), "-8");
}

TEST(rest_query, percent_signs_are_decoded_and_plus_is_kept) {
    EXPECT_EQ(find("/a?id=%41%2f%2F%25+b%20c%ff", "id"), "=A//%+b c\xff");
}

TEST(rest_query, malformed_percent_signs_and_zero_bytes_are_refused) {
    for (const char *uri : {"/a?id=%",
                            "/a?id=%4",
                            "/a?id=1%zz",
                            "/a?id=%4g",
                            "/a?id=%G4",
                            "/a?id=%00",
                            "/a?id=x%00y",
                            "/a?id=%4&a=1"}) {
        EXPECT_EQ(find(uri, "id"), "-10") << uri;
    }
}

TEST(rest_query, value_that_fits_exactly_is_given_one_byte_more_is_too_long) {
    EXPECT_EQ(find("/a?id=123456789012345", "id"), "=123456789012345");
    EXPECT_EQ(find("/a?id=1234567890123456", "id"), "-9");
    EXPECT_EQ(find("/a?id=12345678901234%35", "id"), "=123456789012345");
    EXPECT_EQ(find("/a?id=12345678901234%356", "id"), "-9");
}

TEST(rest_query, null_and_empty_arguments_are_refused) {
    char value[8];
    EXPECT_EQ(rest_find_uri_query_val(nullptr, "id", value, sizeof value), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_find_uri_query_val("/a", nullptr, value, sizeof value), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_find_uri_query_val("/a?=1", "", value, sizeof value), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_find_uri_query_val("/a?id=1", "id", nullptr, 8), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_find_uri_query_val("/a?id=1", "id", value, 0), REST_BAD_ARGUMENT);
}

} // namespace
