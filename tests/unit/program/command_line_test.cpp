#include "program/command_line.h"

#include <gmock/gmock.h>

namespace {

using program::command_line;
using program::takes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr program::option_row rows[] = {
    {"--json", takes::nothing},
    {"--count", takes::value},
    {"--node", takes::values},
};

class program_command_line : public ::testing::Test {
protected:
    std::string parse(std::vector<std::string> texts,
                      const std::function<bool()> &words_end_options = {}) {
        std::vector<char *> arguments;
        for (std::string &text : texts) {
            arguments.push_back(text.data());
        }
        line = {};
        return program::parse(rows, arguments, line, words_end_options);
    }

    command_line line;
};

TEST_F(program_command_line, options_stand_at_any_place) {
    EXPECT_EQ(parse({"--json", "get", "--count", "5", "a"}), "");
    EXPECT_THAT(line.words, ElementsAre("get", "a"));
    EXPECT_THAT(line.options, ElementsAre(Pair("--json", ""), Pair("--count", "5")));
    EXPECT_TRUE(line.has("--json"));
    EXPECT_EQ(*line.value("--count"), "5");
    EXPECT_EQ(line.value("--node"), nullptr);
}

TEST_F(program_command_line, a_value_may_follow_an_equals_sign) {
    EXPECT_EQ(parse({"--count=a=b", "--node="}), "");
    EXPECT_THAT(line.options, ElementsAre(Pair("--count", "a=b"), Pair("--node", "")));
}

TEST_F(program_command_line, a_value_may_look_like_an_option) {
    EXPECT_EQ(parse({"--count", "--json"}), "");
    EXPECT_THAT(line.options, ElementsAre(Pair("--count", "--json")));
}

TEST_F(program_command_line, two_dashes_end_the_options) {
    EXPECT_EQ(parse({"--json", "--", "--count", "--"}), "");
    EXPECT_THAT(line.words, ElementsAre("--count", "--"));
}

TEST_F(program_command_line, negative_numbers_and_a_dash_are_words) {
    EXPECT_EQ(parse({"-5", "-.5", "-inf", "-nan", "-", ""}), "");
    EXPECT_THAT(line.words, ElementsAre("-5", "-.5", "-inf", "-nan", "-", ""));
}

TEST_F(program_command_line, words_may_end_the_options) {
    EXPECT_EQ(parse({"run", "--json", "ls", "--count", "--bogus"},
                    [this] { return line.words.size() == 2; }),
              "");
    EXPECT_THAT(line.words, ElementsAre("run", "ls", "--count", "--bogus"));
    EXPECT_THAT(line.options, ElementsAre(Pair("--json", "")));
}

TEST_F(program_command_line, problems_are_named) {
    EXPECT_EQ(parse({"--bogus=1"}), "unknown option --bogus");
    EXPECT_EQ(parse({"--coun", "1"}), "unknown option --coun");
    EXPECT_EQ(parse({"-x"}), "unknown option -x");
    EXPECT_EQ(parse({"--json=1"}), "--json takes no value");
    EXPECT_EQ(parse({"--count"}), "--count needs a value");
    EXPECT_EQ(parse({"--count", "1", "--count=1"}), "--count is given twice");
}

TEST_F(program_command_line, some_options_may_be_given_again) {
    EXPECT_EQ(parse({"--node", "a", "--node", "b", "--json", "--json"}), "");
    EXPECT_THAT(
        line.options,
        ElementsAre(
            Pair("--node", "a"), Pair("--node", "b"), Pair("--json", ""), Pair("--json", "")));
}

TEST_F(program_command_line, help_and_version_need_no_row) {
    EXPECT_EQ(parse({"-h"}), "");
    EXPECT_TRUE(line.has("--help") && program::asks_about(line));
    EXPECT_EQ(parse({"--version"}), "");
    EXPECT_TRUE(program::asks_about(line));
    EXPECT_EQ(parse({"--json", "--", "--help"}), "");
    EXPECT_FALSE(program::asks_about(line));
}

TEST_F(program_command_line, help_before_a_problem_is_seen) {
    EXPECT_EQ(parse({"--help", "--bogus"}), "unknown option --bogus");
    EXPECT_TRUE(program::asks_about(line));
    EXPECT_EQ(parse({"--bogus", "--help"}), "unknown option --bogus");
    EXPECT_FALSE(program::asks_about(line));
}

TEST_F(program_command_line, a_command_has_its_own_options_and_number_of_words) {
    constexpr program::command_row get = {"get", 1, 2, "--json --nodes"};
    EXPECT_EQ(parse({"get", "a", "--json"}), "");
    EXPECT_EQ(program::check_command(get, line), "");
    EXPECT_EQ(parse({"get", "a", "--node", "b"}), "");
    EXPECT_EQ(program::check_command(get, line), "--node is no option of get");
    EXPECT_EQ(parse({"get"}), "");
    EXPECT_EQ(program::check_command(get, line), "too few arguments for get");
    EXPECT_EQ(parse({"get", "a", "b", "c", "d"}), "");
    EXPECT_EQ(program::check_command(get, line), "too many arguments for get: c");
}

} // namespace
