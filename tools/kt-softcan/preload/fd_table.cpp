#include "preload/fd_table.h"

#include "preload/next.h"
#include "world.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/un.h>
#include <unistd.h>

namespace softcan {
namespace {

std::atomic<std::uint32_t> table[max_fds]; // slot + 1, 0: not a CAN socket
std::atomic<int> owner_pid;                // of the memory this library lives in
std::atomic<bool> started;
std::atomic<world_region *> region;
char path_copy[sizeof(sockaddr_un::sun_path)];

// A child of vfork() closes its own descriptors, but the table it sees is its parent's.
bool borrowed_memory() {
    return owner_pid.load(std::memory_order_relaxed) != getpid();
}

void own_memory() {
    owner_pid.store(getpid(), std::memory_order_relaxed);
}

bool leads_to_hub(int fd) {
    sockaddr_un peer{};
    socklen_t length = sizeof(peer);
    if (next().getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) != 0) {
        return false;
    }
    return peer.sun_family == AF_UNIX &&
           strncmp(peer.sun_path, path_copy, sizeof(peer.sun_path)) == 0;
}

void adopt(int fd) {
    std::uint64_t cookie = 0;
    socklen_t length = sizeof(cookie);
    if (!leads_to_hub(fd) || world() == nullptr ||
        next().getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &length) != 0) {
        return;
    }
    for (const socket_slot &slot : world()->slots) {
        if (slot.cookie.load(std::memory_order_relaxed) == cookie) {
            (void)track(fd, slot_index(slot)); // beyond the table it stays a plain socket
            return;
        }
    }
}

void adopt_inherited() {
    DIR *folder = opendir("/proc/self/fd");
    if (folder == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(folder)) {
        char *end = nullptr;
        const long fd = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && fd != dirfd(folder)) {
            adopt(static_cast<int>(fd));
        }
    }
    (void)closedir(folder);
}

} // namespace

void start_preload() {
    if (started.load(std::memory_order_acquire) || started.exchange(true)) {
        return;
    }
    const int before = errno;
    own_memory();
    (void)pthread_atfork(nullptr, nullptr, own_memory); // without it a child merely keeps entries
    const char *path = getenv("KT_SOFTCAN");
    if (path != nullptr && *path != '\0' && strlen(path) < sizeof(path_copy)) {
        memcpy(path_copy, path, strlen(path) + 1);
        adopt_inherited();
    }
    errno = before;
}

const char *world_path() {
    start_preload();
    return path_copy[0] == '\0' ? nullptr : path_copy;
}

world_region *world() {
    world_region *known = region.load(std::memory_order_acquire);
    if (known != nullptr || world_path() == nullptr) {
        return known;
    }
    int error = 0;
    world_region *mapped = world_map(path_copy, &error);
    if (mapped == nullptr) {
        errno = error;
        return nullptr;
    }
    if (!region.compare_exchange_strong(known, mapped)) {
        (void)munmap(mapped, sizeof(*mapped)); // another thread was first
        return known;
    }
    return mapped;
}

socket_slot *find_socket(int fd) {
    if (static_cast<unsigned>(fd) >= max_fds) {
        return nullptr;
    }
    const std::uint32_t entry = table[fd].load(std::memory_order_relaxed);
    return entry == 0 ? nullptr : &world()->slots[entry - 1];
}

std::uint32_t slot_index(const socket_slot &slot) {
    return static_cast<std::uint32_t>(&slot - world()->slots);
}

bool track(int fd, std::uint32_t slot) {
    if (static_cast<unsigned>(fd) >= max_fds || slot >= max_sockets) {
        return false;
    }
    table[fd].store(slot + 1, std::memory_order_relaxed);
    return true;
}

void untrack(int fd) {
    if (find_socket(fd) != nullptr && !borrowed_memory()) {
        table[fd].store(0, std::memory_order_relaxed);
    }
}

void untrack_range(unsigned first, unsigned last) {
    for (unsigned fd = first; fd <= last && fd < max_fds; ++fd) {
        untrack(static_cast<int>(fd));
    }
}

void track_copy(int fd, int copy) {
    const socket_slot *slot = find_socket(fd);
    const bool involved = slot != nullptr || find_socket(copy) != nullptr;
    if (!involved || copy < 0 || copy == fd || borrowed_memory()) {
        return;
    }
    if (slot == nullptr) {
        untrack(copy);
    } else {
        (void)track(copy, slot_index(*slot)); // beyond the table it stays a plain socket
    }
}

} // namespace softcan

namespace {
[[gnu::constructor]] void load() {
    (void)softcan::next();
    softcan::start_preload();
}
} // namespace
