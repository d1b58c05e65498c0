#include "guards.h"
#include "rooted.h"

#include <kt/event_agent.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

struct event_handle {
    event_callback callback; // kept for agents that address events to us; this one has none
    void *context;
};

namespace {

constexpr std::string_view folder = "/run/kt-event-agent";
constexpr std::string_view file_name = "/run/kt-event-agent/events.jsonl";
constexpr off_t file_max_bytes = off_t{1024} * 1024;
constexpr size_t field_max_bytes = 2048;
constexpr int lock_attempts = 100; // 0.2 ms apart

// Length of the UTF-8 sequence that text starts with, 0 when it is not one.
size_t utf8_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    const size_t length = lead < 0x80                   ? 1
                          : lead >= 0xc2 && lead < 0xe0 ? 2
                          : lead >= 0xe0 && lead < 0xf0 ? 3
                          : lead >= 0xf0 && lead < 0xf5 ? 4
                                                        : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    // Overlong forms, surrogates and what lies beyond U+10FFFF show in the second byte.
    const bool refused = (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xed && byte(1) > 0x9f) ||
                         (lead == 0xf0 && byte(1) < 0x90) || (lead == 0xf4 && byte(1) > 0x8f);
    return refused ? 0 : length;
}

// A JSON string; what is not UTF-8 becomes U+FFFD.
void append_string(std::string &out, std::string_view text) {
    text = text.substr(0, field_max_bytes);
    out += '"';
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        const auto c = static_cast<unsigned char>(text[0]);
        if (length == 0) {
            out += "\\ufffd";
        } else if (c < 0x20) {
            char escape[8];
            (void)snprintf(escape, sizeof escape, "\\u%04x", c); // six characters
            out += escape;
        } else {
            out += c == '"' || c == '\\' ? "\\" : "";
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
}

std::string utc_time() {
    timespec now;
    struct tm utc;
    char text[64];
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || !gmtime_r(&now.tv_sec, &utc)) {
        return {};
    }
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    (void)snprintf(text + length, // room for five more characters is left
                   sizeof text - length,
                   ".%03dZ",
                   static_cast<int>(now.tv_nsec / 1000000));
    return text;
}

std::string json_line(const char *name, const char *host, const char *message) {
    std::string line = R"({"time":")" + utc_time() + R"(","name":)";
    append_string(line, name);
    line += R"(,"host":)";
    append_string(line, host);
    line += R"(,"message":)";
    append_string(line, message);
    return line += "}\n";
}

struct event_file {
    unique_fd fd; // empty: cannot be had
    off_t size = 0;
    bool locked = false; // nobody else appends or rotates
};

// Opens what now bears the name and tries to lock it. A lock that another process keeps for longer
// than this patience (it was stopped, say) is done without.
event_file open_event_file(const char *path) {
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    constexpr timespec pause = {0, 200000};
    event_file file;
    for (int attempt = 0; attempt < lock_attempts && !file.locked; ++attempt) {
        struct stat opened;
        struct stat named;
        file.fd = unique_fd(open(path, flags, 0644));
        if (!file.fd || fstat(file.fd.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) {
            return {};
        }
        if (flock(file.fd.get(), LOCK_EX | LOCK_NB) != 0) {
            (void)nanosleep(&pause, nullptr); // a shorter pause does no harm
        } else {
            file.locked = lstat(path, &named) == 0 && named.st_ino == opened.st_ino &&
                          named.st_dev == opened.st_dev;
        }
        file.size = fstat(file.fd.get(), &opened) == 0 ? opened.st_size : file_max_bytes;
    }
    return file;
}

// One write() per line, so that lines of several processes never mix.
int append_line(const event_file &file, const std::string &line) {
    const ssize_t written = file.fd ? write(file.fd.get(), line.data(), line.size()) : -1;
    if (written == static_cast<ssize_t>(line.size())) {
        return 0;
    }
    if (written > 0 && file.locked) {
        // Disk full: when this fails, too, half a line remains.
        [[maybe_unused]] const int cut = ftruncate(file.fd.get(), file.size);
    }
    return -1;
}

int append_to_file(const std::string &line) {
    const path_text path = rooted(file_name);
    if (path.text[0] == '\0' || make_folders(rooted(folder).text) != 0) {
        return -1;
    }
    event_file file = open_event_file(path.text);
    if (file.size + static_cast<off_t>(line.size()) > file_max_bytes) {
        const std::string previous = std::string(path.text) + ".1";
        if (!file.locked || rename(path.text, previous.c_str()) != 0) {
            return -1;
        }
        file = open_event_file(path.text);
    }
    return append_line(file, line);
}

// Not syslog(3): it waits when the log service does not take its messages.
int send_to_syslog(const char *name, const char *host, const char *message) {
    const path_text path = rooted("/dev/log");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path.text) >= sizeof address.sun_path || path.text[0] == '\0') {
        return -1;
    }
    memcpy(address.sun_path, path.text, strlen(path.text));
    const unique_fd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!log) {
        return -1;
    }
    const time_t now = time(nullptr);
    struct tm local;
    char stamp[32];
    char record[1024];
    if (!localtime_r(&now, &local) || strftime(stamp, sizeof stamp, "%b %e %T", &local) == 0) {
        return -1;
    }
    const int length = snprintf(record,
                                sizeof record,
                                "<%d>%s %s[%d]: %s: %s: %s",
                                LOG_DAEMON | LOG_WARNING,
                                stamp,
                                program_invocation_short_name,
                                static_cast<int>(getpid()),
                                name,
                                host,
                                message);
    const size_t size = static_cast<size_t>(length) < sizeof record ? static_cast<size_t>(length)
                                                                    : sizeof record - 1;
    const auto *to = reinterpret_cast<const sockaddr *>(&address);
    return length > 0 && sendto(log.get(), record, size, MSG_NOSIGNAL, to, sizeof address) >= 0
               ? 0
               : -1;
}

} // namespace

struct event_handle *event_create(event_callback callback, void *context) {
    return new (std::nothrow) event_handle{callback, context};
}

int event_notify(struct event_handle *handle,
                 const char *name,
                 const char *host,
                 const char *message) {
    static std::mutex file_mutex; // spares threads of one process the file lock's waiting
    if (!handle || !name || !host || !message) {
        return -1;
    }
    const int logged = send_to_syslog(name, host, message);
    try {
        const std::string line = json_line(name, host, message);
        const std::lock_guard guard(file_mutex);
        return append_to_file(line) == 0 || logged == 0 ? 0 : -1;
    } catch (const std::bad_alloc &) {
        return logged;
    }
}

void event_destroy(struct event_handle *handle) {
    delete handle;
}
