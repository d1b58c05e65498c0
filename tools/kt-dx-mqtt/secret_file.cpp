#include "secret_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t secret_max_bytes = 4096;

class open_file {
public:
    // Opening must not wait for the other end of a pipe.
    explicit open_file(const std::string &file)
        : fd_(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~open_file() {
        if (fd_ >= 0) {
            (void)close(fd_); // nothing was written
        }
    }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool is_own_group(gid_t group) {
    if (group == 0 || group == getegid()) {
        return true;
    }
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? static_cast<size_t>(count) : 0);
    if (count <= 0 || getgroups(count, groups.data()) != count) {
        return false;
    }
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string mode_text(const struct stat &info) {
    char text[16];
    (void)snprintf(text, sizeof text, "%03o", info.st_mode & 0777u); // three digits
    return text;
}

/** @return what is wrong, empty for nothing */
std::string judge(const struct stat &info) {
    if (!S_ISREG(info.st_mode)) {
        return "is not a regular file";
    }
    if (info.st_uid != 0 && info.st_uid != geteuid()) {
        return "belongs to user " + std::to_string(info.st_uid) +
               ": give it to root or to the user who runs the bridge (chown)";
    }
    if ((info.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
        return "is open to others (mode " + mode_text(info) + "): take their rights away (chmod " +
               (info.st_uid == 0 ? "640" : "600") + ")";
    }
    if ((info.st_mode & S_IRGRP) != 0 && (info.st_uid != 0 || !is_own_group(info.st_gid))) {
        return "can be read by its group (mode " + mode_text(info) +
               "): allowed only when it belongs to root and its group is one of the bridge's own "
               "(chmod 600)";
    }
    return {};
}

bool fail(std::string &problem, const std::string &file, const std::string &text) {
    problem = file + " " + text;
    return false;
}

bool open_well(const open_file &opened, const std::string &file, std::string &problem) {
    struct stat info {};
    if (opened.get() < 0 || fstat(opened.get(), &info) != 0) {
        return fail(problem, file, std::string("cannot be read: ") + strerror(errno));
    }
    const std::string wrong = judge(info);
    return wrong.empty() || fail(problem, file, wrong);
}

/** Up to one byte more than a secret may have. */
bool read_bytes(int fd, std::string &text) {
    text.resize(secret_max_bytes + 1);
    size_t length = 0;
    while (length < text.size()) {
        const ssize_t got = read(fd, text.data() + length, text.size() - length);
        if (got == 0) {
            break;
        }
        if (got < 0 && errno != EINTR) {
            return false;
        }
        length += got > 0 ? static_cast<size_t>(got) : 0;
    }
    text.resize(length);
    return true;
}

} // namespace

int read_secret(const std::string &file, std::string &secret, std::string &problem) {
    const open_file opened(file);
    if (!open_well(opened, file, problem)) {
        return -1;
    }
    std::string text;
    if (!read_bytes(opened.get(), text)) {
        (void)fail(problem, file, std::string("cannot be read: ") + strerror(errno));
        return -1;
    }
    const bool too_large = text.size() > secret_max_bytes;
    text.resize(text.find_last_not_of("\r\n") + 1);
    const char *wrong = too_large      ? "has more than 4096 bytes"
                        : text.empty() ? "is empty"
                        : text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos
                            ? "must hold one line of text"
                            : nullptr;
    if (wrong) {
        (void)fail(problem, file, wrong);
        return -1;
    }
    secret = text;
    return 0;
}

int check_secret(const std::string &file, std::string &problem) {
    const open_file opened(file);
    return open_well(opened, file, problem) ? 0 : -1;
}
