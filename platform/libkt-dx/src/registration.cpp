#include "registration.h"

#include "registry.h"
#include "sync.h"

#include <cerrno>
#include <sched.h>

namespace kt_dx {

namespace {

constexpr int yield_attempts = 20;

/** The C library aborts the process on a mutex whose kind it does not know. */
bool mutex_kind_intact(const pthread_mutex_t &mutex) {
#ifdef __GLIBC__
    pthread_mutex_t fresh{};
    return init_registration_mutex(fresh) == 0 && mutex.__data.__kind == fresh.__data.__kind;
#else
    (void)mutex;
    return true;
#endif
}

/**
 * Tries instead of sleeping in the lock: the monotonic deadline holds whatever happens to the wall
 * clock and to the lock word. The lock is held for microseconds and by whoever registers tags only.
 */
int lock_within(pthread_mutex_t &mutex, int timeout_ms) {
    constexpr timespec pause = {0, 1000000};
    const uint64_t start_ms = clock_ms(CLOCK_MONOTONIC);
    for (int attempt = 0;; ++attempt) {
        const int code = pthread_mutex_trylock(&mutex);
        if (code != EBUSY) {
            return code;
        }
        if (clock_ms(CLOCK_MONOTONIC) - start_ms >= static_cast<uint64_t>(timeout_ms)) {
            return ETIMEDOUT;
        }
        if (attempt < yield_attempts) {
            (void)sched_yield(); // always succeeds
        } else {
            (void)nanosleep(&pause, nullptr); // a signal may cut it short
        }
    }
}

} // namespace

int init_registration_mutex(pthread_mutex_t &mutex) {
    pthread_mutexattr_t attributes;
    int code = pthread_mutexattr_init(&attributes);
    if (code != 0) {
        return -code;
    }
    code = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    code = code ? code : pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    code = code ? code : pthread_mutex_init(&mutex, &attributes);
    (void)pthread_mutexattr_destroy(&attributes); // holds nothing
    return -code;
}

registration::registration(const store &locked, int timeout_ms) : store_(locked), code_(-EACCES) {
    if (!locked.writable) {
        return;
    }
    pthread_mutex_t &mutex = locked.map->header.registration;
    if (!mutex_kind_intact(mutex)) {
        code_ = -ENOTRECOVERABLE;
        return;
    }
    const int code = lock_within(mutex, timeout_ms);
    if (code != 0 && code != EOWNERDEAD) {
        code_ = -code;
        return;
    }
    if (code == EOWNERDEAD) {
        rebuild_index(locked);
        (void)pthread_mutex_consistent(&mutex); // fails only for a mutex that is not ours
    }
    code_ = 0;
}

registration::~registration() {
    if (code_ == 0) {
        (void)pthread_mutex_unlock(&store_.map->header.registration); // held since the constructor
    }
}

} // namespace kt_dx
