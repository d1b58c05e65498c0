#include "config/files.h"

#include "core/guards.h"
#include "core/log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool sync_path(const std::string &path, int flags) {
    const unique_fd fd(open(path.c_str(), flags | O_CLOEXEC));
    return fd.get() >= 0 && fsync(fd.get()) == 0;
}

} // namespace

bool remove_if_present(const std::string &path) {
    return remove(path.c_str()) == 0 || errno == ENOENT;
}

void remove_database(const std::string &path) {
    (void)remove_if_present(path);
    // A journal left behind would be rolled back into the next database of that name.
    (void)remove_if_present(path + "-journal");
}

bool install_file(const std::string &from, const std::string &to) {
    const std::string folder = to.substr(0, to.find_last_of('/') + 1);
    // A journal that outlived the database of that name would be played back into this one.
    return sync_path(from, O_RDONLY) && remove_if_present(to + "-journal") &&
           rename(from.c_str(), to.c_str()) == 0 && sync_path(folder, O_RDONLY | O_DIRECTORY);
}

bool file_exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

char *get_file_contents(const char *path, size_t *length, bool *is_cut) {
    const file_ptr file(fopen(path, "re"));
    if (file == nullptr) {
        log_error("Fail to open %s, Error : %s\n", path, strerror(errno));
        return nullptr;
    }
    const long size = fseek(file.get(), 0, SEEK_END) == 0 ? ftell(file.get()) : -1;
    if (size < 0) {
        log_error("Fail to get pos in %s\n", path);
        return nullptr;
    }
    rewind(file.get());
    auto *text = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
    if (text == nullptr) {
        log_error("Fail to malloc space for schema.\n");
        return nullptr;
    }
    *length = fread(text, 1, static_cast<size_t>(size), file.get());
    text[*length] = '\0';
    const bool failed = ferror(file.get()) != 0;
    if (*length == 0 || failed) {
        log_error("Fail to read schema. %s\n", path);
    }
    if (is_cut != nullptr) {
        *is_cut = failed;
    }
    return text;
}
