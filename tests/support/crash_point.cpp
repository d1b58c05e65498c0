#include "crash_point.h"

#include "fault_countdown.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int crashed = 77;
fault_countdown countdown;
bool fails_only = false;

/** @return whether the change that follows has to fail */
bool change() {
    if (!countdown.fails_now()) {
        return false;
    }
    if (!fails_only) {
        _exit(crashed);
    }
    errno = EIO;
    return true;
}

ssize_t sqlite_write(int fd, const void *data, size_t size) {
    return change() ? -1 : ::write(fd, data, size);
}

ssize_t sqlite_pwrite(int fd, const void *data, size_t size, off_t at) {
    return change() ? -1 : ::pwrite(fd, data, size, at);
}

ssize_t sqlite_pwrite64(int fd, const void *data, size_t size, off64_t at) {
    return change() ? -1 : ::pwrite64(fd, data, size, at);
}

int sqlite_truncate(int fd, off_t size) {
    return change() ? -1 : ::ftruncate(fd, size);
}

int sqlite_unlink(const char *path) {
    return change() ? -1 : ::remove(path);
}

void watch_sqlite() {
    sqlite3_vfs *vfs = sqlite3_vfs_find(nullptr);
    const auto replace = [vfs](const char *name, auto *call) {
        (void)vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(call));
    };
    replace("write", sqlite_write);
    replace("pwrite", sqlite_pwrite);
    replace("pwrite64", sqlite_pwrite64);
    replace("ftruncate", sqlite_truncate);
    replace("unlink", sqlite_unlink);
}

} // namespace

bool crash_point::crashes(int nth, const std::function<void()> &work) {
    const pid_t child = fork();
    EXPECT_GE(child, 0);
    if (child == 0) {
        watch_sqlite();
        fails_only = false;
        countdown.arm(nth);
        work();
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == crashed);
    return WEXITSTATUS(status) == crashed;
}

void crash_point::fail_change(int nth) {
    watch_sqlite();
    fails_only = true;
    countdown.arm(nth);
}

bool crash_point::stop_failing() {
    return countdown.disarm();
}

extern "C" {

int __real_rename(const char *from, const char *to);
int __real_remove(const char *path);
int __real_unlink(const char *path);
int __real_mkdir(const char *path, mode_t mode);
int __real_fsync(int fd);
ssize_t __real_write(int fd, const void *data, size_t size);

int __wrap_rename(const char *from, const char *to) {
    return change() ? -1 : __real_rename(from, to);
}
int __wrap_remove(const char *path) {
    return change() ? -1 : __real_remove(path);
}
int __wrap_unlink(const char *path) {
    return change() ? -1 : __real_unlink(path);
}
int __wrap_mkdir(const char *path, mode_t mode) {
    return change() ? -1 : __real_mkdir(path, mode);
}
int __wrap_fsync(int fd) {
    return change() ? -1 : __real_fsync(fd);
}
ssize_t __wrap_write(int fd, const void *data, size_t size) {
    return change() ? -1 : __real_write(fd, data, size);
}

} // extern "C"
