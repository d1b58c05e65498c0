#include "program/output.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

/** Puts another descriptor in the place of standard output while it lives. */
class redirected_output {
public:
    explicit redirected_output(int fd) : saved_(dup(STDOUT_FILENO)) {
        (void)fflush(stdout);
        (void)dup2(fd, STDOUT_FILENO);
        (void)close(fd);
    }
    ~redirected_output() {
        (void)dup2(saved_, STDOUT_FILENO);
        (void)close(saved_);
    }
    redirected_output(const redirected_output &) = delete;
    redirected_output &operator=(const redirected_output &) = delete;

private:
    int saved_;
};

int closed_pipe() {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    (void)close(ends[0]);
    return ends[1];
}

} // namespace

TEST(program_output, complaints_name_the_program) {
    program::begin("kt-test");
    CaptureStderr();
    EXPECT_EQ(program::complain(7, "a\x1B"), 7);
    EXPECT_EQ(GetCapturedStderr(), "kt-test: a\\x1B\n");
    CaptureStderr();
    EXPECT_EQ(program::complain_of_usage("no"), program::status_usage);
    EXPECT_EQ(program::complain_of_usage("no", 125), 125);
    EXPECT_EQ(GetCapturedStderr(),
              "kt-test: no\nTry 'kt-test --help'.\nkt-test: no\nTry 'kt-test --help'.\n");
}

// A write error is kept for the life of the program: each of these needs a process of its own.

TEST(program_output, a_full_disk_fails_and_is_told) {
    const auto fill = [] {
        program::begin("kt-test");
        const redirected_output full(open("/dev/full", O_WRONLY | O_CLOEXEC));
        const bool refused = !program::print("a") && !program::print("b");
        _exit(refused && program::output_abandoned() ? program::output_status() : 99);
    };
    EXPECT_EXIT(fill(),
                ::testing::ExitedWithCode(1),
                "^kt-test: standard output: No space left on device\n$");
}

TEST(program_output, a_reader_that_has_gone_is_no_failure) {
    const auto abandon = [] {
        program::begin("kt-test");
        program::ignore_closed_pipes();
        const redirected_output gone(closed_pipe());
        const bool seen = program::output_abandoned();
        _exit(seen && !program::print("a") ? program::output_status() : 99);
    };
    EXPECT_EXIT(abandon(), ::testing::ExitedWithCode(0), "^$");
}

TEST(program_output, files_opened_later_are_not_printed_into) {
    const auto open_late = [] {
        (void)close(STDIN_FILENO);
        (void)close(STDOUT_FILENO);
        program::begin("kt-test");
        const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        _exit(fd > STDERR_FILENO && !program::print("a") ? program::output_status() : 99);
    };
    EXPECT_EXIT(open_late(),
                ::testing::ExitedWithCode(1),
                "^kt-test: standard output: Bad file descriptor\n$");
}

TEST(program_output, what_is_printed_is_out_at_once) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    char text[8] = {};
    {
        const redirected_output into(ends[1]);
        EXPECT_TRUE(program::print("abc"));
        EXPECT_FALSE(program::output_abandoned());
        EXPECT_EQ(read(ends[0], text, sizeof text), 3);
    }
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(program::output_status(), 0);
    (void)close(ends[0]);
}
