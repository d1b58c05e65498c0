#include "rest/file_download.h"

#include "core/guards.h"
#include "core/log.h"
#include "core/runtime_file.h"

#include <kt/rest.h>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

/** What a file has up to a size; less where it has become shorter or cannot be read. */
size_t read_up_to(int fd, char *bytes, size_t size) {
    size_t have = 0;
    while (have < size) {
        const ssize_t got = pread(fd, bytes + have, size - have, static_cast<off_t>(have));
        if (got > 0) {
            have += static_cast<size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    return have;
}

} // namespace

int rest_export_file(const char *path, const char *download_name, const char *open_message) {
    const unique_fd file = open_runtime_fd(path, "r");
    if (file.get() < 0) {
        const int error = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        log_error(open_message, path);
#pragma GCC diagnostic pop
        errno = error;
        perror("Error: ");
        return -1;
    }
    const off_t end = lseek(file.get(), 0, SEEK_END);
    const size_t size = end < 0 ? 0 : static_cast<size_t>(end);
    const heap_ptr<char> body(static_cast<char *>(malloc(size + 1)));
    if (body == nullptr) {
        log_error("malloc response_body fail\n");
        return -1;
    }
    const size_t read = read_up_to(file.get(), body.get(), size);
    if (rest_write_file(download_name, body.get(), read) != 0) {
        log_error("write to handle fail\n");
        return -1;
    }
    return 0;
}
