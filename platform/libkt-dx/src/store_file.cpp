#include "store_file.h"

#include "registration.h"

#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace kt_dx {

namespace {

constexpr char store_folder[] = "/run/kt-dx";
constexpr char store_path[] = "/run/kt-dx/tags";
constexpr uint32_t replace_lock = max_providers; // byte whose lock allows to remove the file
constexpr int open_attempts = 100;

struct mapping {
    void *memory = MAP_FAILED;
    size_t bytes = 0;
    ~mapping() {
        if (memory != MAP_FAILED) {
            (void)munmap(memory, bytes); // a whole mapping always goes
        }
    }
};

void read_boot_id(char (&text)[sizeof(store_identity::boot_id)]) {
    memset(text, 0, sizeof text);
    const unique_fd fd(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    if (!fd || read(fd.get(), text, sizeof text - 1) < 0) {
        memset(text, 0, sizeof text); // without /proc every store counts as made since the start
    }
}

store_identity expected_identity() {
    store_identity identity{};
    memcpy(identity.magic, store_magic, sizeof identity.magic);
    identity.layout = layout_version;
    identity.abi = store_abi();
    identity.total_bytes = sizeof(store_layout);
    identity.tags = max_tags;
    identity.providers = max_providers;
    identity.name_bytes = DX_NAME_MAX;
    read_boot_id(identity.boot_id);
    identity.checksum = identity_checksum(identity);
    return identity;
}

/** Fill a new file of zeros; it has no name that anyone could open yet. */
int fill_new(const store &made, int fd) {
    if (fchmod(fd, 0660) != 0 || ftruncate(fd, sizeof(store_layout)) != 0) {
        return -errno;
    }
    mapping map;
    map.bytes = offsetof(store_layout, tags);
    const int code = fallocate(fd, 0, 0, static_cast<off_t>(map.bytes));
    if (code != 0 && errno != EOPNOTSUPP && errno != ENOSYS) {
        return -errno;
    }
    map.memory = mmap(nullptr, map.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map.memory == MAP_FAILED) {
        return -errno;
    }
    auto *header = static_cast<store_header *>(map.memory);
    if (const int error = init_registration_mutex(header->registration)) {
        complain(made, "cannot make a lock", strerror(-error));
        return error;
    }
    header->identity = expected_identity();
    return 0;
}

/** Racing creators agree: link() gives the name to one of them, the others open what he made. */
int create_file(const store &made) {
    path_text temporary;
    const int length = snprintf(temporary.text,
                                sizeof temporary.text,
                                "%s.%ld",
                                made.path.text,
                                static_cast<long>(gettid()));
    if (length < 0 || static_cast<size_t>(length) >= sizeof temporary.text) {
        return -ENAMETOOLONG;
    }
    (void)unlink(temporary.text); // left by a creator that was killed, most often not there
    const unique_fd fd(
        open(temporary.text, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0660));
    if (!fd) {
        return -errno;
    }
    int code = fill_new(made, fd.get());
    if (code == 0 && link(temporary.text, made.path.text) != 0 && errno != EEXIST) {
        code = -errno;
    }
    (void)unlink(temporary.text); // the other name stays
    return code;
}

int refuse(const store &file, const char *reason) {
    complain(file, reason);
    return -EBADF;
}

/** @retval 0 usable @retval -ESTALE left by an earlier start of the machine @retval <0 refused */
int check_file(const store &file) {
    struct stat info;
    if (fstat(file.fd.get(), &info) != 0) {
        return refuse(file, strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return refuse(file, "not a tag store (not a regular file)");
    }
    store_identity found;
    if (pread(file.fd.get(), &found, sizeof found, 0) != static_cast<ssize_t>(sizeof found)) {
        return refuse(file, "not a tag store (truncated)");
    }
    const store_identity expected = expected_identity();
    if (memcmp(found.magic, expected.magic, sizeof found.magic) != 0) {
        return refuse(file, "not a tag store (bad magic)");
    }
    if (found.layout != expected.layout) {
        char layouts[48];
        (void)snprintf(layouts, sizeof layouts, "layout %u, not %u", found.layout, expected.layout);
        complain(file, "made by another version", layouts);
        return -EBADF;
    }
    if (found.abi != expected.abi) {
        return refuse(file, "made by a build for another processor or C library");
    }
    if (found.checksum != identity_checksum(found)) {
        return refuse(file, "damaged (bad header checksum)");
    }
    if (found.total_bytes != expected.total_bytes || found.tags != expected.tags ||
        found.providers != expected.providers || found.name_bytes != expected.name_bytes) {
        return refuse(file, "made with other limits");
    }
    if (info.st_size != static_cast<off_t>(sizeof(store_layout))) {
        return refuse(file, "damaged (wrong file size)");
    }
    return memcmp(found.boot_id, expected.boot_id, sizeof found.boot_id) == 0 ? 0 : -ESTALE;
}

/** Only the holder of the lock byte unlinks, and only while the name still means this file. */
void remove_stale(const store &file) {
    struct stat opened;
    struct stat named;
    if (!lock_byte(file, replace_lock)) {
        return;
    }
    if (fstat(file.fd.get(), &opened) == 0 && lstat(file.path.text, &named) == 0 &&
        opened.st_dev == named.st_dev && opened.st_ino == named.st_ino) {
        (void)unlink(file.path.text); // a failure shows when the attempts are used up
    }
}

int open_file(store &file, open_mode mode) {
    constexpr int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK; // a FIFO must not block us
    file.writable = true;
    file.fd = unique_fd(open(file.path.text, O_RDWR | flags));
    if (!file.fd && mode == open_mode::existing && (errno == EACCES || errno == EROFS)) {
        file.writable = false;
        file.fd = unique_fd(open(file.path.text, O_RDONLY | flags));
    }
    return file.fd ? 0 : -errno;
}

int map_file(store &file) {
    const int protection = file.writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void *memory = mmap(nullptr, sizeof(store_layout), protection, MAP_SHARED, file.fd.get(), 0);
    if (memory == MAP_FAILED) {
        const int error = errno;
        complain(file, "cannot be mapped", strerror(error));
        return -error;
    }
    file.map = static_cast<store_layout *>(memory);
    return 0;
}

int make_store(const store &made) {
    const path_text folder = rooted(store_folder);
    if (make_folders(folder.text) != 0) {
        return -errno;
    }
    return create_file(made);
}

/** @retval 0 @retval -EAGAIN try once more @retval -ENOENT no store @retval <0 refused, printed */
int try_open(store &opened, open_mode mode) {
    int code = open_file(opened, mode);
    if (code == -ENOENT && mode == open_mode::create) {
        code = make_store(opened);
        if (code == 0 || code == -ENOENT) {
            return -EAGAIN;
        }
    }
    if (code != 0) {
        if (code != -ENOENT) {
            complain(opened, code == -ELOOP ? "is a symbolic link" : strerror(-code));
        }
        return code;
    }
    code = check_file(opened);
    if (code == -ESTALE && mode == open_mode::existing) {
        return -ENOENT;
    }
    if (code == -ESTALE) {
        remove_stale(opened);
        return -EAGAIN;
    }
    return code == 0 ? map_file(opened) : code;
}

} // namespace

store::~store() {
    if (map) {
        (void)munmap(map, sizeof(store_layout)); // a whole mapping always goes
    }
}

int open_store(store &opened, open_mode mode) {
    opened.path = rooted(store_path);
    if (opened.path.text[0] == '\0') {
        complain(opened, "KT_ROOT is too long");
        return -ENAMETOOLONG;
    }
    for (int attempt = 0; attempt < open_attempts; ++attempt) {
        const int code = try_open(opened, mode);
        if (code != -EAGAIN) {
            return code;
        }
        if (attempt > 0) {
            (void)usleep(1000); // another process is replacing the file
        }
    }
    complain(opened, "cannot be made");
    return -EBUSY;
}

void complain(const store &about, const char *reason, const char *detail) {
    (void)fprintf(stderr,
                  "kt-dx: %s: %s%s%s%s\n",
                  about.path.text,
                  reason,
                  detail ? " (" : "",
                  detail ? detail : "",
                  detail ? ")" : "");
}

namespace {

struct flock byte_range(uint32_t byte) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(byte);
    range.l_len = 1;
    return range;
}

} // namespace

bool lock_byte(const store &opened, uint32_t byte) {
    struct flock range = byte_range(byte);
    return fcntl(opened.fd.get(), F_OFD_SETLK, &range) == 0;
}

bool byte_locked_elsewhere(const store &opened, uint32_t byte) {
    struct flock range = byte_range(byte);
    return fcntl(opened.fd.get(), F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

int reserve_memory(const store &opened, size_t offset, size_t bytes) {
    if (fallocate(opened.fd.get(), 0, static_cast<off_t>(offset), static_cast<off_t>(bytes)) == 0) {
        return 0;
    }
    // A file system without reservation gives memory on the first store.
    return errno == EOPNOTSUPP || errno == ENOSYS ? 0 : -errno;
}

} // namespace kt_dx
