#ifndef KT_TESTS_CAN_CAPTURE_H
#define KT_TESTS_CAN_CAPTURE_H

#include <gtest/gtest.h>
#include <regex>
#include <string>

/* Texts that the service prints. */

/** What a call writes to standard error, with "(#)" for the source line of each message. */
template <typename Call>
std::string can_errors_of(Call &&call) {
    testing::internal::CaptureStderr();
    call();
    const std::string text = testing::internal::GetCapturedStderr();
    return std::regex_replace(text, std::regex("(ERROR: [A-Za-z_0-9]+)\\([0-9]+\\)"), "$1(#)");
}

/** What a call writes to standard output. */
template <typename Call>
std::string can_output_of(Call &&call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

/** A whole error message as can_errors_of() shows it. */
inline std::string can_error(const std::string &function, const std::string &message) {
    return "\033[91mERROR: " + function + "(#): " + message + "\033[0m";
}

#endif
