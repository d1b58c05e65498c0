#ifndef KT_TESTS_CAPTURED_LOG_H
#define KT_TESTS_CAPTURED_LOG_H

#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

/**
 * Standard error from construction to take(), as log messages.
 *
 * A message in the service's format comes as "function|message", its line number checked to be a
 * number and left out; anything else on standard error comes as it stands.
 */
class captured_log {
public:
    captured_log() { ::testing::internal::CaptureStderr(); }
    captured_log(const captured_log &) = delete;
    captured_log &operator=(const captured_log &) = delete;
    ~captured_log() {
        if (capturing_) {
            (void)::testing::internal::GetCapturedStderr();
        }
    }

    std::vector<std::string> take() {
        capturing_ = false;
        return split(::testing::internal::GetCapturedStderr());
    }

    static std::vector<std::string> split(const std::string &text) {
        static const std::regex message("\033\\[91mERROR: (\\w+)\\([1-9][0-9]*\\): "
                                        "([^\033]*)\033\\[0m");
        std::vector<std::string> found;
        auto rest = text.cbegin();
        for (std::sregex_iterator at(text.begin(), text.end(), message), end; at != end; ++at) {
            if (rest != (*at)[0].first) {
                found.emplace_back(rest, (*at)[0].first);
            }
            found.push_back((*at)[1].str() + "|" + (*at)[2].str());
            rest = (*at)[0].second;
        }
        if (rest != text.cend()) {
            found.emplace_back(rest, text.cend());
        }
        return found;
    }

private:
    bool capturing_ = true;
};

/** The messages that a call logs. */
template <typename Call>
std::vector<std::string> messages_of(Call call) {
    captured_log log;
    call();
    return log.take();
}

#endif
