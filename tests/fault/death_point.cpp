#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/types.h>
#include <unistd.h>

/*
 * A library to preload: the process ends with SIGKILL right after the call that KT_DEATH_POINT
 * names, NAME:N for the Nth. flock counts locks taken, so that the process dies with the lock held.
 */

namespace {

struct wish {
    char name[16] = "";
    long nth = 0;
    wish() {
        const char *text = getenv("KT_DEATH_POINT");
        if (text == nullptr || sscanf(text, "%15[^:]:%ld", name, &nth) != 2) {
            nth = 0;
        }
        (void)unsetenv("KT_DEATH_POINT"); // the shells that the service starts live on
    }
};

wish wanted;
std::atomic<long> calls{0};

void die_after(const char *name) {
    if (wanted.nth > 0 && strcmp(name, wanted.name) == 0 && ++calls == wanted.nth) {
        (void)kill(getpid(), SIGKILL);
    }
}

template <typename Call>
Call next(const char *name) {
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int flock(int fd, int operation) noexcept {
    static const auto call = next<int (*)(int, int)>("flock");
    const int result = call(fd, operation);
    if (operation == LOCK_EX && result == 0) {
        die_after("flock");
    }
    return result;
}

ssize_t pwrite64(int fd, const void *data, size_t size, off64_t at) {
    static const auto call = next<ssize_t (*)(int, const void *, size_t, off64_t)>("pwrite64");
    const ssize_t result = call(fd, data, size, at);
    die_after("pwrite");
    return result;
}

int rename(const char *from, const char *to) noexcept {
    static const auto call = next<int (*)(const char *, const char *)>("rename");
    const int result = call(from, to);
    die_after("rename");
    return result;
}

int unlink(const char *path) noexcept {
    static const auto call = next<int (*)(const char *)>("unlink");
    const int result = call(path);
    die_after("unlink");
    return result;
}

} // extern "C"
