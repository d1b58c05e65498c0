#include "file_name.h"
#include "guards.h"

#include <kt/protocol_common.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <iterator>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string_view>
#include <sys/file.h>

// One lock. Kept ones stay in the table with their descriptor open, so that taking the lock again
// costs two system calls, flock and fstat; since the threads of this process share that descriptor,
// the holder keeps them apart. A lock outside the table lives from semaphoreDown() to
// semaphoreUp().
//
// Processes are told apart by their id, because a child of fork() inherits the table: what its
// parent holds is not held here, and a descriptor opened by the parent would share its lock.
struct kt_semaphore {
    malloc_ptr<char> path;         // of the lock file; NULL: free slot. Guarded by table_mutex
    size_t key_length = 0;         // how much of path is the key; likewise
    std::atomic<pid_t> holder = 0; // process with a thread that holds the lock
    unique_fd file;                // used by the holding thread alone
    pid_t opener = 0;              // process that opened the file; likewise
};

namespace {

constexpr char lock_suffix[] = ".lock";
constexpr size_t kept_max = 64;
std::mutex table_mutex; // held for looking a path up, never while waiting
kt_semaphore table[kept_max];

bool name(kt_semaphore &lock, std::string_view key) {
    lock.path.reset(static_cast<char *>(malloc(key.size() + sizeof lock_suffix)));
    if (!lock.path) {
        errno = ENOMEM;
        return false;
    }
    memcpy(lock.path.get(), key.data(), key.size());
    memcpy(lock.path.get() + key.size(), lock_suffix, sizeof lock_suffix);
    lock.key_length = key.size();
    return true;
}

// The entry for a key, NULL when the table is full or there is no memory for another path.
kt_semaphore *find_kept(std::string_view key) {
    const std::lock_guard guard(table_mutex);
    for (kt_semaphore &entry : table) {
        if (!entry.path) {
            return name(entry, key) ? &entry : nullptr;
        }
        if (std::string_view(entry.path.get(), entry.key_length) == key) {
            return &entry;
        }
    }
    return nullptr;
}

std::atomic<pid_t> kept_id = 0; // of this process, 0 where it has to be asked for

void forget_id() {
    kept_id.store(0, std::memory_order_relaxed);
}

// getpid(), as a system call only the first time in a process: a child of fork() forgets.
pid_t this_process() {
    static const bool can_keep = pthread_atfork(nullptr, nullptr, forget_id) == 0;
    pid_t id = kept_id.load(std::memory_order_relaxed);
    if (id == 0) {
        id = getpid();
        kept_id.store(can_keep ? id : 0, std::memory_order_relaxed);
    }
    return id;
}

// Waits until no other thread of this process holds the entry.
kt_semaphore *hold(kt_semaphore *entry) {
    const pid_t self = this_process();
    for (pid_t seen = entry->holder;;) {
        if (seen == self) {
            entry->holder.wait(seen);
            seen = entry->holder;
        } else if (entry->holder.compare_exchange_weak(seen, self)) {
            return entry;
        }
    }
}

kt_semaphore *make_unkept(std::string_view key) {
    std::unique_ptr<kt_semaphore> made(new (std::nothrow) kt_semaphore);
    if (!made) {
        errno = ENOMEM;
        return nullptr;
    }
    return name(*made, key) ? made.release() : nullptr;
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
        if (!lock.file || lock.opener != this_process()) {
            constexpr int flags = O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
            lock.file = unique_fd(open(lock.path.get(), flags, 0644));
            lock.opener = this_process();
        }
        if (!lock.file || flock_again(lock.file.get(), LOCK_EX) != 0) {
            return -1;
        }
        if (has_name(lock.file.get())) {
            return 0;
        }
        lock.file = unique_fd();
    }
}

} // namespace

int semaphoreDown(const char *key_path, struct kt_semaphore **handle) {
    if (!key_path || key_path[0] == '\0' || !handle) {
        errno = EINVAL;
        return -1;
    }
    const std::string_view key = key_path;
    if (key.size() + sizeof lock_suffix > PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    kt_semaphore *lock = find_kept(key);
    lock = lock ? hold(lock) : make_unkept(key);
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
