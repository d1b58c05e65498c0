#include "allocation_fault.h"
#include "core/guards.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(guards, descriptor_is_closed_at_the_end_of_its_scope) {
    int fd = -1;
    {
        const unique_fd owner(open("/dev/null", O_RDONLY | O_CLOEXEC));
        fd = owner.get();
        EXPECT_TRUE(is_open(fd));
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(guards, released_descriptor_stays_open) {
    int fd = -1;
    {
        unique_fd owner(open("/dev/null", O_RDONLY | O_CLOEXEC));
        fd = owner.release();
        EXPECT_EQ(owner.get(), -1);
    }
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(close(fd), 0);
}

TEST(guards, empty_descriptor_closes_nothing) {
    errno = 0;
    { const unique_fd owner; }
    { const unique_fd owner(-1); }
    EXPECT_EQ(errno, 0);
}

TEST(guards, mutex_is_free_after_its_scope) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        const mutex_guard guard(&mutex);
        EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
}

TEST(guards, record_is_zeroed_or_missing) {
    struct record {
        char bytes[64];
    };
    const auto zeroed = allocate_zeroed<record>();
    ASSERT_NE(zeroed, nullptr);
    for (const char byte : zeroed->bytes) {
        EXPECT_EQ(byte, 0);
    }
    allocation_fault::arm(1);
    EXPECT_EQ(allocate_zeroed<record>(), nullptr);
    EXPECT_TRUE(allocation_fault::disarm());
}

} // namespace
