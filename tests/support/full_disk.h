#ifndef KT_TESTS_FULL_DISK_H
#define KT_TESTS_FULL_DISK_H

#include <csignal>
#include <cstddef>
#include <gtest/gtest.h>
#include <sys/resource.h>

/** A disk that is full at a size of each file; a write that would exceed it is cut there. */
class full_disk {
public:
    explicit full_disk(size_t size) {
        (void)signal(SIGXFSZ, SIG_IGN);
        (void)getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {size, before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    full_disk(const full_disk &) = delete;
    full_disk &operator=(const full_disk &) = delete;
    ~full_disk() { EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before_), 0); }

private:
    rlimit before_{};
};

#endif
