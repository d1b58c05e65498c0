#include "replace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

unique_fd open_folder_of(const char *path) {
    char folder[PATH_MAX];
    const char *slash = strrchr(path, '/');
    const size_t length = slash ? static_cast<size_t>(slash - path) : 0;
    memcpy(folder, path, length);
    folder[length] = '\0';
    const char *name = !slash ? "." : length == 0 ? "/" : folder;
    return unique_fd(open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

} // namespace

replacement::replacement(const char *destination) noexcept : destination_(destination) {
    const int length = snprintf(temporary_, sizeof temporary_, "%s.XXXXXX", destination);
    if (length < 0 || static_cast<size_t>(length) >= sizeof temporary_) {
        errno = ENAMETOOLONG;
        return;
    }
    fd_ = unique_fd(mkostemp(temporary_, O_CLOEXEC));
}

replacement::~replacement() {
    if (made() && !renamed_) {
        const int reason = errno;
        (void)unlink(temporary_); // best effort: the caller already reports a failure
        errno = reason;
    }
}

int replacement::commit(mode_t mode) noexcept {
    const unique_fd folder = open_folder_of(destination_);
    struct stat replaced;
    if (stat(destination_, &replaced) == 0) {
        mode = replaced.st_mode;
    }
    if (!folder || fchmod(fd_.get(), mode & 0777) != 0 || fsync(fd_.get()) != 0 ||
        rename(temporary_, destination_) != 0) {
        return -1;
    }
    renamed_ = true;
    // Some file systems cannot sync a folder and say EINVAL; their rename is all there is.
    return fsync(folder.get()) == 0 || errno == EINVAL ? 0 : -1;
}
