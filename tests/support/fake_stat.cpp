#include "fake_stat.h"

#include <cerrno>
#include <sys/stat.h>

fake_stat g_fake_stat;

extern "C" {

int __real_stat(const char *path, struct stat *status);

int __wrap_stat(const char *path, struct stat *status) {
    if (g_fake_stat.fails) {
        errno = EIO;
        return -1;
    }
    return __real_stat(path, status);
}

} // extern "C"
