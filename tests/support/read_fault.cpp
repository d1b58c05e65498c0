#include "read_fault.h"

#include <cerrno>
#include <cstdio>

read_fault g_read_fault;

extern "C" {

int __real_access(const char *path, int mode);
size_t __real_fread(void *to, size_t size, size_t number, FILE *file);

int __wrap_access(const char *path, int mode) {
    if (g_read_fault.looked_for == path) {
        g_read_fault.looked_for.clear();
        errno = EIO;
        return -1;
    }
    return __real_access(path, mode);
}

size_t __wrap_fread(void *to, size_t size, size_t number, FILE *file) {
    if (g_read_fault.read == 0 || --g_read_fault.read > 0) {
        return __real_fread(to, size, number, file);
    }
    const size_t got = __real_fread(to, size, number / 2, file);
    (void)fputc('x', file); // refused, and the stream keeps the error
    errno = EIO;
    return got;
}

} // extern "C"
