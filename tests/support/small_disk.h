#ifndef KT_TESTS_SMALL_DISK_H
#define KT_TESTS_SMALL_DISK_H

#include <sched.h>
#include <string>
#include <sys/mount.h>

/** A memory file system of a few KiB over a folder, seen by this process alone. Root only. */
class small_disk {
public:
    small_disk(const std::string &folder, const char *options) : folder_(folder) {
        static const bool own_mounts =
            unshare(CLONE_NEWNS) == 0 &&
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        mounted_ = own_mounts && mount("tmpfs", folder.c_str(), "tmpfs", 0, options) == 0;
    }
    small_disk(const small_disk &) = delete;
    small_disk &operator=(const small_disk &) = delete;
    ~small_disk() {
        if (mounted_) {
            (void)umount2(folder_.c_str(), MNT_DETACH);
        }
    }
    [[nodiscard]] bool mounted() const { return mounted_; }
    [[nodiscard]] bool make_read_only() const {
        return mount(nullptr, folder_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }

private:
    std::string folder_;
    bool mounted_ = false;
};

#endif
