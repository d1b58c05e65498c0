#include "net_thread.h"

#include "log.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int stop_limit_ms = 5000;
constexpr int look_ms = 10;

} // namespace

int make_wake_descriptor() {
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    return fd;
}

void wake_descriptor(int fd) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof one); // full: it is awake
}

void drain_descriptor(int fd) {
    uint64_t ignored = 0;
    [[maybe_unused]] const ssize_t got = read(fd, &ignored, sizeof ignored); // empty: nothing came
}

void join_net_thread(std::thread &thread, const std::atomic<bool> &ended) {
    for (int waited = 0; !ended.load(); waited += look_ms) {
        if (waited >= stop_limit_ms) {
            log_line("stopped while the broker was being looked for");
            _exit(0);
        }
        if (waited > farewell_ms) {
            (void)pthread_kill(thread.native_handle(), SIGALRM); // ends a connection attempt
        }
        const timespec pause = {0, look_ms * 1000000L};
        (void)nanosleep(&pause, nullptr); // a shorter pause does no harm
    }
    thread.join();
}
