#ifndef KT_BENCH_SHARED_VALUE_H
#define KT_BENCH_SHARED_VALUE_H

#include "can_socket.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>

/** The least that two processes need to share a value that one waits for. */
struct shared_value {
    std::atomic<uint64_t> value;
    std::atomic<uint32_t> changes; // futex
};

inline shared_value *map_shared_value(const char *path) {
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0 || ftruncate(fd, sizeof(shared_value)) != 0) {
        fail(path);
    }
    void *mapped = mmap(nullptr, sizeof(shared_value), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        fail(path);
    }
    return static_cast<shared_value *>(mapped);
}

#endif
