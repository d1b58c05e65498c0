#include "core/log.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const int level_at_first = log_current_level();

class log_output : public ::testing::Test {
protected:
    log_output() { log_set_level(LOG_LEVEL_WARN); }
    ~log_output() override { log_set_level(LOG_LEVEL_WARN); }

    template <typename Call>
    static std::string written(Call call) {
        ::testing::internal::CaptureStderr();
        call();
        return ::testing::internal::GetCapturedStderr();
    }
};

TEST_F(log_output, message_has_colour_level_function_and_line) {
    EXPECT_EQ(written([] { log_write_error("open_db", 42, "port %d: %s\n", 7, "gone"); }),
              "\033[91mERROR: open_db(42): port 7: gone\n\033[0m");
}

TEST_F(log_output, reset_follows_a_message_without_a_newline_directly) {
    EXPECT_EQ(written([] { log_write_error("f", 1, "malloc fail"); }),
              "\033[91mERROR: f(1): malloc fail\033[0m");
    EXPECT_EQ(written([] { log_write_error("f", 1, "%s", ""); }), "\033[91mERROR: f(1): \033[0m");
}

TEST_F(log_output, macro_gives_the_function_and_line_of_its_caller) {
    const auto named = [] { log_error("x\n"); };
    const int line = __LINE__ - 1;
    EXPECT_EQ(written(named),
              "\033[91mERROR: operator()(" + std::to_string(line) + "): x\n\033[0m");
}

TEST_F(log_output, errors_are_silent_from_fatal_on) {
    for (int level = LOG_LEVEL_ALL; level <= LOG_LEVEL_OFF; level++) {
        log_set_level(level);
        EXPECT_EQ(written([] { log_write_error("f", 1, "x\n"); }).empty(), level >= LOG_LEVEL_FATAL)
            << level;
    }
}

TEST_F(log_output, message_leaves_a_buffered_standard_error_at_once) {
    std::array<char, 4096> buffer{};
    (void)written([&buffer] {
        ASSERT_EQ(setvbuf(stderr, buffer.data(), _IOFBF, buffer.size()), 0);
        log_write_error("f", 1, "x\n");
        EXPECT_GT(lseek(STDERR_FILENO, 0, SEEK_CUR), 0); // captured in a file
        ASSERT_EQ(setvbuf(stderr, nullptr, _IONBF, 0), 0);
    });
}

TEST_F(log_output, errno_is_kept) {
    (void)written([] {
        errno = ENOSPC;
        log_write_error("f", 1, "x\n");
        EXPECT_EQ(errno, ENOSPC);
    });
}

TEST_F(log_output, long_message_is_whole) {
    const std::string text(100000, 'x');
    EXPECT_EQ(written([&text] { log_write_error("f", 1, "%s\n", text.c_str()); }),
              "\033[91mERROR: f(1): " + text + "\n\033[0m");
}

TEST_F(log_output, messages_of_threads_are_not_mixed) {
    constexpr int each = 200;
    const std::string text = written([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; i++) {
            threads.emplace_back([i] {
                for (int n = 0; n < each; n++) {
                    log_write_error("f", i + 1, "%s\n", std::string(200, 'a').c_str());
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    });
    std::string rest = text;
    int messages = 0;
    for (size_t end; (end = rest.find("\033[0m")) != std::string::npos; messages++) {
        const std::string message = rest.substr(0, end);
        ASSERT_EQ(message.substr(0, 14), "\033[91mERROR: f(");
        ASSERT_EQ(message.substr(15), "): " + std::string(200, 'a') + "\n");
        rest.erase(0, end + 4);
    }
    EXPECT_EQ(messages, 4 * each);
    EXPECT_EQ(rest, "");
}

class log_levels : public log_output {};

TEST_F(log_levels, first_level_is_warn) {
    EXPECT_EQ(level_at_first, 4);
}

TEST_F(log_levels, are_named) {
    const char *names[] = {"ALL", "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "OFF"};
    for (int level = 0; level < 8; level++) {
        EXPECT_STREQ(log_level_name(level), names[level]);
        EXPECT_EQ(log_level_from_text(names[level]), level);
    }
    EXPECT_EQ(log_level_name(-1), nullptr);
    EXPECT_EQ(log_level_name(8), nullptr);
}

TEST_F(log_levels, text_may_go_on_after_the_name) {
    EXPECT_EQ(log_level_from_text("ERROR42"), LOG_LEVEL_ERROR);
    EXPECT_EQ(log_level_from_text("WARNING"), LOG_LEVEL_WARN);
    EXPECT_EQ(log_level_from_text("ALLOFF"), LOG_LEVEL_ALL);
    EXPECT_EQ(log_level_from_text("OFF "), LOG_LEVEL_OFF);
}

TEST_F(log_levels, text_without_a_name_gives_the_current_level) {
    for (const int level : {LOG_LEVEL_TRACE, LOG_LEVEL_FATAL}) {
        log_set_level(level);
        for (const char *text : {"", "error", "ERRO", "5", " WARN"}) {
            EXPECT_EQ(log_level_from_text(text), level) << text;
        }
        EXPECT_EQ(log_level_from_text(nullptr), level);
    }
}

TEST_F(log_levels, environment_sets_the_level_and_nothing_keeps_it) {
    constexpr const char *name = "KT_CANOPEN_XLOG_USER_LEVEL";
    (void)unsetenv(name);
    log_init_from_environment();
    EXPECT_EQ(log_current_level(), LOG_LEVEL_WARN);
    (void)setenv(name, "FATAL", 1);
    log_init_from_environment();
    EXPECT_EQ(log_current_level(), LOG_LEVEL_FATAL);
    (void)setenv(name, "nonsense", 1);
    log_init_from_environment();
    EXPECT_EQ(log_current_level(), LOG_LEVEL_FATAL);
    (void)unsetenv(name);
}

} // namespace
