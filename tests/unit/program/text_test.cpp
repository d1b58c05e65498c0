#include "program/text.h"

#include <gtest/gtest.h>

using program::json_string;
using program::printable;

TEST(program_text, plain_text_and_utf8_stay) {
    EXPECT_EQ(printable("can0: \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "can0: \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(json_string("\xC3\xA4 \xF0\x9F\x98\x80"), "\"\xC3\xA4 \xF0\x9F\x98\x80\"");
}

TEST(program_text, control_characters_are_shown_as_bytes) {
    EXPECT_EQ(printable("a\x1B[2J\n\x7F"), "a\\x1B[2J\\x0A\\x7F");
    EXPECT_EQ(printable("\xC2\x9B"), "\\xC2\\x9B"); // U+009B begins a terminal sequence
    EXPECT_EQ(printable("\xC2\xA0"), "\xC2\xA0");
}

TEST(program_text, ill_formed_utf8_is_shown_byte_by_byte) {
    EXPECT_EQ(printable("\xFF"), "\\xFF");
    EXPECT_EQ(printable("\xC0\x80"), "\\xC0\\x80");                   // overlong
    EXPECT_EQ(printable("\xED\xA0\x80"), "\\xED\\xA0\\x80");          // surrogate
    EXPECT_EQ(printable("\xE2\x82"), "\\xE2\\x82");                   // cut off
    EXPECT_EQ(printable("\xF4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80"); // above U+10FFFF
}

TEST(program_text, a_json_string_escapes_what_json_wants_escaped) {
    EXPECT_EQ(json_string("q\"\\\n"), R"("q\"\\\u000a")");
    EXPECT_EQ(json_string("\xFF!"), "\"\xEF\xBF\xBD!\"");
    EXPECT_EQ(json_string(""), "\"\"");
}
