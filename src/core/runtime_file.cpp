#include "core/runtime_file.h"

#include <fcntl.h>

namespace {

int flags_of(const char *mode) {
    switch (mode[0]) {
    case 'w':
        return O_WRONLY | O_CREAT | O_TRUNC;
    case 'a':
        return O_WRONLY | O_CREAT | O_APPEND;
    default:
        return mode[1] == '+' ? O_RDWR : O_RDONLY;
    }
}

} // namespace

unique_fd open_runtime_fd(const char *path, const char *mode) {
    constexpr int safe = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return unique_fd(open(path, flags_of(mode) | safe, 0666));
}

file_ptr open_runtime_file(const char *path, const char *mode) {
    unique_fd fd = open_runtime_fd(path, mode);
    file_ptr file(fd.get() < 0 ? nullptr : fdopen(fd.get(), mode));
    if (file != nullptr) {
        (void)fd.release(); // the file's now
    }
    return file;
}
