#include "replace.h"
#include "rooted.h"

#include <kt/protocol_common.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// 0 or -1 with errno.
int copy_bytes(int to, int from) {
    char buffer[16384];
    for (;;) {
        const ssize_t got = read(from, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return static_cast<int>(got);
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = write(to, buffer + done, static_cast<size_t>(got - done));
            if (put < 0 && errno != EINTR) {
                return -1;
            }
            done += put > 0 ? put : 0;
        }
    }
}

} // namespace

int file_copy(const char *destination, const char *source) {
    if (!destination || !source) {
        errno = EINVAL;
        return -1;
    }
    const unique_fd from(open(source, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info;
    if (!from || fstat(from.get(), &info) != 0) {
        return -1;
    }
    if (!S_ISREG(info.st_mode)) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    replacement copy(destination);
    if (!copy.made() || copy_bytes(copy.fd(), from.get()) != 0) {
        return -1;
    }
    return copy.commit(info.st_mode);
}

int mkdir_p(const char *path) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    return make_folders(path);
}
