#ifndef KT_INTERNAL_REPLACE_H
#define KT_INTERNAL_REPLACE_H

#include "guards.h"

#include <climits>
#include <sys/types.h>

/**
 * A new file that takes the place of another one in a single step. It is built under a temporary
 * name in the same folder; unless commit() succeeds it vanishes with the guard, errno kept.
 */
class replacement {
public:
    /** Makes the empty temporary file, readable by its owner alone. */
    explicit replacement(const char *destination) noexcept;
    ~replacement();
    replacement(const replacement &) = delete;
    replacement &operator=(const replacement &) = delete;

    /** False when the constructor failed; errno says why. */
    bool made() const noexcept { return static_cast<bool>(fd_); }
    int fd() const noexcept { return fd_.get(); }
    const char *temporary_path() const noexcept { return temporary_; }

    /**
     * Writes the content to the disk and renames it.
     * @param mode  permissions of the file unless it replaces one, whose permissions stay
     * @return 0 or -1 with errno
     */
    int commit(mode_t mode) noexcept;

private:
    const char *destination_;
    char temporary_[PATH_MAX];
    unique_fd fd_;
    bool renamed_ = false;
};

#endif
