#ifndef KT_INTERNAL_GUARDS_H
#define KT_INTERNAL_GUARDS_H

#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

/** Deleter for std::unique_ptr that calls a C release function and ignores its result. */
template <auto Fn>
struct call_on_delete {
    void operator()(auto *p) const noexcept { (void)Fn(p); }
};

template <typename T>
using malloc_ptr = std::unique_ptr<T, call_on_delete<free>>;

/** Owns a file descriptor; a negative one is none. */
class unique_fd {
public:
    unique_fd() noexcept = default;
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_fd() {
        if (fd_ >= 0) {
            (void)close(fd_); // nothing written depends on it: writers fsync or look at write()
        }
    }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_ = -1;
};

#endif
