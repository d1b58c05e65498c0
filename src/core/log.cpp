#include "core/log.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::array<const char *, 8> level_names = {
    "ALL", "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "OFF"};

std::atomic<int> current_level{LOG_LEVEL_WARN};

} // namespace

int log_current_level() {
    return current_level.load(std::memory_order_relaxed);
}

void log_set_level(int level) {
    current_level.store(level, std::memory_order_relaxed);
}

const char *log_level_name(int level) {
    if (level < 0 || level >= static_cast<int>(level_names.size())) {
        return nullptr;
    }
    return level_names[static_cast<size_t>(level)];
}

int log_level_from_text(const char *text) {
    for (size_t level = 0; text != nullptr && level < level_names.size(); level++) {
        if (strncmp(text, level_names[level], strlen(level_names[level])) == 0) {
            return static_cast<int>(level);
        }
    }
    return log_current_level();
}

void log_init_from_environment() {
    log_set_level(log_level_from_text(getenv("KT_CANOPEN_XLOG_USER_LEVEL")));
}

void log_write_error(const char *function, int line, const char *format, ...) {
    if (log_current_level() >= LOG_LEVEL_FATAL) {
        return;
    }
    const int saved_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    // Nobody is left to tell when standard error itself cannot be written.
    flockfile(stderr);
    (void)fprintf(stderr, "\033[91m%s: %s(%d): ", level_names[LOG_LEVEL_ERROR], function, line);
    (void)vfprintf(stderr, format, arguments);
    (void)fputs("\033[0m", stderr);
    (void)fflush(stderr);
    funlockfile(stderr);
    va_end(arguments);
    errno = saved_errno;
}
