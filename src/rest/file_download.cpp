#include "rest/file_download.h"

#include "core/guards.h"
#include "core/log.h"
#include "core/runtime_file.h"

#include <kt/rest.h>

#include <cstdio>

int rest_export_file(const char *path, const char *download_name, const char *open_message) {
    const file_ptr file = open_runtime_file(path, "r");
    if (file == nullptr) {
        const int error = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        log_error(open_message, path);
#pragma GCC diagnostic pop
        errno = error;
        perror("Error: ");
        return -1;
    }
    const long end = fseek(file.get(), 0, SEEK_END) == 0 ? ftell(file.get()) : 0;
    const size_t size = end < 0 ? 0 : static_cast<size_t>(end);
    rewind(file.get());
    const heap_ptr<char> body(static_cast<char *>(calloc(size + 1, 1)));
    if (body == nullptr) {
        log_error("malloc response_body fail\n");
        return -1;
    }
    const size_t read = fread(body.get(), 1, size, file.get());
    if (rest_write_file(download_name, body.get(), read) != 0) {
        log_error("write to handle fail\n");
        return -1;
    }
    return 0;
}
