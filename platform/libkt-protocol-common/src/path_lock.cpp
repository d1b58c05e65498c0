#include "guards.h"

#include <kt/protocol_common.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <iterator>
#include <mutex>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>

// One lock. Kept ones stay in the table with their descriptor open, so that taking the lock again
// costs two system calls; since the threads of this process share that descriptor, the holder keeps
// them apart. A lock outside the table lives from semaphoreDown() to semaphoreUp().
//
// Processes are told apart by their id, because a child of fork() inherits the table: what its
// parent holds is not held here, and a descriptor opened by the parent would share its lock.
struct kt_semaphore {
    malloc_ptr<char> path;         // of the lock file; NULL: free slot. Guarded by table_mutex
    std::atomic<pid_t> holder = 0; // process with a thread that holds the lock
    unique_fd file;                // used by the holding thread alone
    pid_t opener = 0;              // process that opened the file; likewise
};

namespace {

constexpr size_t kept_max = 64;
std::mutex table_mutex; // held for looking a path up, never while waiting
kt_semaphore table[kept_max];

// The entry for a path, NULL when the table is full or there is no memory for another path.
kt_semaphore *find_kept(const char *path) {
    const std::lock_guard guard(table_mutex);
    for (kt_semaphore &entry : table) {
        if (!entry.path) {
            entry.path.reset(strdup(path));
            return entry.path ? &entry : nullptr;
        }
        if (strcmp(entry.path.get(), path) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

// Waits until no other thread of this process holds the entry.
kt_semaphore *hold(kt_semaphore *entry) {
    const pid_t self = getpid();
    for (pid_t seen = entry->holder;;) {
        if (seen == self) {
            entry->holder.wait(seen);
            seen = entry->holder;
        } else if (entry->holder.compare_exchange_weak(seen, self)) {
            return entry;
        }
    }
}

kt_semaphore *make_unkept(const char *path) {
    std::unique_ptr<kt_semaphore> made(new (std::nothrow) kt_semaphore);
    if (made) {
        made->path.reset(strdup(path));
    }
    if (!made || !made->path) {
        errno = ENOMEM;
        return nullptr;
    }
    return made.release();
}

void let_go(kt_semaphore *lock) {
    const std::less<> before;
    if (before(lock, std::begin(table)) || !before(lock, std::end(table))) {
        delete lock;
        return;
    }
    lock->holder = 0;
    lock->holder.notify_one();
}

// 0 or -1 with errno.
int flock_again(int fd, int operation) {
    int result;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

// Takes the kernel's lock on the file that now bears the path: one that has been removed meanwhile
// would be locked by this process alone.
int take_file_lock(kt_semaphore &lock) {
    for (;;) {
        if (!lock.file || lock.opener != getpid()) {
            constexpr int flags = O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
            lock.file = unique_fd(open(lock.path.get(), flags, 0644));
            lock.opener = getpid();
        }
        if (!lock.file || flock_again(lock.file.get(), LOCK_EX) != 0) {
            return -1;
        }
        struct stat info;
        if (fstat(lock.file.get(), &info) == 0 && info.st_nlink > 0) {
            return 0;
        }
        lock.file = unique_fd();
    }
}

} // namespace

int semaphoreDown(const char *key_path, struct kt_semaphore **handle) {
    char path[PATH_MAX];
    if (!key_path || key_path[0] == '\0' || !handle) {
        errno = EINVAL;
        return -1;
    }
    const int length = snprintf(path, sizeof path, "%s.lock", key_path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    kt_semaphore *lock = find_kept(path);
    lock = lock ? hold(lock) : make_unkept(path);
    if (!lock) {
        return -1;
    }
    if (take_file_lock(*lock) != 0) {
        const int reason = errno;
        let_go(lock);
        errno = reason;
        return -1;
    }
    *handle = lock;
    return 0;
}

int semaphoreUp(struct kt_semaphore *handle) {
    if (!handle) {
        errno = EINVAL;
        return -1;
    }
    if (flock_again(handle->file.get(), LOCK_UN) != 0) {
        handle->file = unique_fd(); // closing releases it as well
    }
    let_go(handle);
    return 0;
}
