#include "program/output.h"

#include "program/text.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace program {
namespace {

const char *own_name = "";
int write_error = 0;

} // namespace

void begin(const char *name) {
    own_name = name;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) >= 0) {
            continue;
        }
        // The wrong way round: using it fails as it would have, and programs that are started find
        // it closed as before. Left open for the life of the program.
        (void)open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    }
}

void ignore_closed_pipes() {
    (void)signal(SIGPIPE, SIG_IGN); // this signal can be ignored
}

int complain(int status, std::string_view text) {
    (void)fprintf(stderr, "%s: %s\n", own_name, printable(text).c_str());
    return status;
}

int complain_of_usage(std::string_view text, int status) {
    (void)complain(status, text);
    (void)fprintf(stderr, "Try '%s --help'.\n", own_name);
    return status;
}

bool print(std::string_view text) {
    if (write_error != 0) {
        return false;
    }
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        write_error = errno;
        return false;
    }
    return true;
}

bool output_abandoned() {
    struct pollfd output = {STDOUT_FILENO, 0, 0};
    return write_error != 0 || (poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0);
}

int output_status() {
    if (write_error == 0 || write_error == EPIPE) {
        return status_done;
    }
    return complain(status_failed, std::string("standard output: ") + strerror(write_error));
}

} // namespace program
