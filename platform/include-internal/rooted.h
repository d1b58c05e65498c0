#ifndef KT_INTERNAL_ROOTED_H
#define KT_INTERNAL_ROOTED_H

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <sys/stat.h>

/** A path in place; text is empty when it did not fit. */
struct path_text {
    char text[PATH_MAX] = "";
};

/** An absolute path below the folder that KT_ROOT names, the path itself where KT_ROOT is unset. */
inline path_text rooted(std::string_view path) {
    const char *root = getenv("KT_ROOT");
    path_text out;
    const int length = snprintf(out.text,
                                sizeof out.text,
                                "%s%.*s",
                                root ? root : "",
                                static_cast<int>(path.size()),
                                path.data());
    if (length < 0 || static_cast<size_t>(length) >= sizeof out.text) {
        out.text[0] = '\0';
    }
    return out;
}

/** Make a folder and its parents; 0 or -1 with errno. */
inline int make_folders(const char *path) {
    path_text part;
    const int length = snprintf(part.text, sizeof part.text, "%s", path);
    if (length < 1 || static_cast<size_t>(length) >= sizeof part.text) {
        errno = length < 1 ? ENOENT : ENAMETOOLONG;
        return -1;
    }
    for (char *end = part.text + 1;; ++end) {
        if (*end != '/' && *end != '\0') {
            continue;
        }
        const char separator = *end;
        *end = '\0';
        if (mkdir(part.text, 0755) != 0) {
            // Whatever mkdir() disliked (a read-only parent, say), an existing folder will do.
            const int reason = errno;
            struct stat info;
            if (stat(part.text, &info) != 0 || !S_ISDIR(info.st_mode)) {
                errno = reason == EEXIST ? ENOTDIR : reason;
                return -1;
            }
        }
        if (separator == '\0') {
            return 0;
        }
        *end = separator;
    }
}

#endif
