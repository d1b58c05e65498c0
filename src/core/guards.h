#ifndef KT_CORE_GUARDS_H
#define KT_CORE_GUARDS_H

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <unistd.h>

/* Owners that release on every path out of a scope. */

template <auto Fn>
struct call_on_delete {
    void operator()(auto *pointer) const noexcept { (void)Fn(pointer); }
};

/** Anything from malloc(), calloc() or strdup(). */
template <typename T>
using heap_ptr = std::unique_ptr<T, call_on_delete<free>>;

using file_ptr = std::unique_ptr<FILE, call_on_delete<fclose>>;

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd() {
        if (fd_ >= 0) {
            (void)close(fd_);
        }
    }
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_ = -1;
};

/** Holds a pthread mutex for a scope. Ours are never error-checking, so locking cannot fail. */
class mutex_guard {
public:
    explicit mutex_guard(pthread_mutex_t *mutex) : mutex_(mutex) {
        (void)pthread_mutex_lock(mutex_);
    }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;
    ~mutex_guard() { (void)pthread_mutex_unlock(mutex_); }

private:
    pthread_mutex_t *mutex_;
};

/** A zeroed record from the heap, nullptr when memory runs out. */
template <typename T>
heap_ptr<T> allocate_zeroed() {
    return heap_ptr<T>(static_cast<T *>(calloc(1, sizeof(T))));
}

#endif
