#include "worlds.h"

#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace softcan {
namespace {

constexpr std::string_view suffix = ".sock";

struct fd_guard {
    int fd;
    explicit fd_guard(int value) : fd(value) {}
    ~fd_guard() {
        if (fd >= 0) {
            (void)close(fd);
        }
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
};

// 0, or -errno when nobody serves that socket file.
int probe(const std::string &path) {
    const fd_guard connection(world_connect(path.c_str(), SOCK_CLOEXEC));
    return connection.fd < 0 ? connection.fd : 0;
}

std::string path_of(const std::string &wanted) {
    return wanted.find('/') != std::string::npos
               ? wanted
               : worlds_folder() + "/" + wanted + std::string(suffix);
}

// A folder somebody else prepared could send us to somebody else's hub.
bool prepare_folder(const std::string &folder, std::string *problem) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        *problem = "cannot create " + folder + ": " + strerror(errno);
        return false;
    }
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid()) {
        *problem = folder + " is not a folder of this user";
        return false;
    }
    return true;
}

// Listening descriptor or -errno.
int listen_at(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return -ENAMETOOLONG;
    }
    path.copy(address.sun_path, path.size());
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -errno;
    }
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(fd, SOMAXCONN) != 0) {
        const int error = errno;
        (void)close(fd);
        return -error;
    }
    return fd;
}

// Held while worlds begin, since a socket file that does not listen yet looks like a stale one.
int lock_folder(const std::string &folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 && flock(fd, LOCK_EX) != 0) {
        (void)close(fd);
        return -1;
    }
    return fd;
}

// Left by a hub that was killed.
void remove_stale(const std::string &folder, const std::string &path) {
    const fd_guard lock(lock_folder(folder));
    if (lock.fd >= 0 && probe(path) == -ECONNREFUSED) {
        (void)unlink(path.c_str());
    }
}

std::string parent_folder(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

std::string worlds_folder() {
    const char *chosen = getenv("KT_SOFTCAN_DIR");
    if (chosen != nullptr && *chosen != '\0') {
        return chosen;
    }
    return "/tmp/kt-softcan-" + std::to_string(geteuid());
}

std::vector<world_entry> running_worlds() {
    std::vector<world_entry> found;
    const std::string folder = worlds_folder();
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(folder.c_str()), closedir);
    while (const dirent *entry = entries ? readdir(entries.get()) : nullptr) {
        const std::string file = entry->d_name;
        if (!file.ends_with(suffix)) {
            continue;
        }
        const std::string path = path_of(file.substr(0, file.size() - suffix.size()));
        const int error = probe(path);
        if (error == 0) {
            found.push_back({file.substr(0, file.size() - suffix.size()), path});
        } else if (error == -ECONNREFUSED) {
            remove_stale(folder, path);
        }
    }
    std::sort(found.begin(), found.end(), [](const world_entry &a, const world_entry &b) {
        return a.name < b.name;
    });
    return found;
}

std::string choose_world(const std::string &wanted, bool use_environment, std::string *problem) {
    const char *inside = getenv("KT_SOFTCAN");
    std::string path;
    if (!wanted.empty()) {
        path = path_of(wanted);
    } else if (use_environment && inside != nullptr && *inside != '\0') {
        path = inside;
    }
    if (!path.empty()) {
        const int error = probe(path);
        if (error != 0) {
            *problem = "no world answers at " + path + ": " + strerror(-error);
            return {};
        }
        return path;
    }
    const std::vector<world_entry> worlds = running_worlds();
    if (worlds.size() == 1) {
        return worlds.front().path;
    }
    *problem = worlds.empty() ? "no world is running, start one with kt-softcan run"
                              : "several worlds are running, choose one with --world:";
    for (const world_entry &entry : worlds) {
        problem->append(" ").append(entry.name);
    }
    return {};
}

int create_world(const std::string &wanted, std::string *path, std::string *problem) {
    const std::string chosen = wanted.empty() ? "world-" + std::to_string(getpid()) : wanted;
    *path = path_of(chosen);
    const std::string folder = parent_folder(*path);
    if (chosen.find('/') == std::string::npos && !prepare_folder(folder, problem)) {
        return -1;
    }
    const fd_guard lock(lock_folder(folder));
    if (lock.fd < 0) {
        *problem = "cannot use " + folder + ": " + strerror(errno);
        return -1;
    }
    int fd = listen_at(*path);
    if (fd == -EADDRINUSE && probe(*path) == -ECONNREFUSED) {
        (void)unlink(path->c_str());
        fd = listen_at(*path);
    }
    if (fd < 0) {
        *problem = fd == -EADDRINUSE ? "a world is running already at " + *path
                                     : "cannot listen at " + *path + ": " + strerror(-fd);
        return -1;
    }
    return fd;
}

} // namespace softcan
