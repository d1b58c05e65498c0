#include "core/usage.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

int answer(std::vector<const char *> arguments) {
    arguments.insert(arguments.begin(), "kt-can-proprietary");
    return answer_usage(static_cast<int>(arguments.size()), arguments.data());
}

TEST(usage, help_is_printed) {
    for (const char *option : {"--help", "-h"}) {
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(answer({option}), 0);
        const std::string text = ::testing::internal::GetCapturedStdout();
        EXPECT_THAT(text, StartsWith("Usage: kt-can-proprietary\n"));
        EXPECT_THAT(text, HasSubstr("KT_REST_LISTEN"));
    }
}

TEST(usage, version_is_printed) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(answer({"--version"}), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "kt-can-proprietary " KT_VERSION "\n");
}

TEST(usage, other_arguments_are_nobodys) {
    const char *none[] = {nullptr};
    EXPECT_EQ(answer_usage(0, none), -1);
    EXPECT_EQ(answer({}), -1);
    EXPECT_EQ(answer({""}), -1);
    EXPECT_EQ(answer({"--hel"}), -1);
    EXPECT_EQ(answer({"--help", "more"}), -1);
    EXPECT_EQ(answer({"-d", "--version"}), -1);
}

} // namespace
