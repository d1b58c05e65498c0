#include "events.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char file_name[] = "/events.jsonl";
constexpr size_t line_max_bytes = 16384; // an event has three fields of at most 2 KiB, escaped
constexpr size_t read_max_bytes = size_t{4} * 1024 * 1024; // in one look: more comes at the next

constexpr uint32_t folder_notices = IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_DELETE_SELF;

void close_descriptor(int &fd) {
    if (fd >= 0) {
        (void)close(fd); // only read from
        fd = -1;
    }
}

} // namespace

event_follower::event_follower() : watch_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    const char *root = getenv("KT_ROOT");
    folder_ = std::string(root != nullptr ? root : "") + "/run/kt-event-agent";
    path_ = folder_ + file_name;
    watch_folder();
    (void)open_file(false);
}

event_follower::~event_follower() {
    close_descriptor(file_);
    close_descriptor(watch_);
}

void event_follower::watch_folder() {
    if (watch_ >= 0 && folder_watch_ < 0) {
        folder_watch_ = inotify_add_watch(watch_, folder_.c_str(), folder_notices);
    }
}

/** What they say does not matter: the file is looked at. But for the end of the folder. */
void event_follower::forget_notices() {
    alignas(inotify_event) char buffer[4096];
    ssize_t length = 0;
    while ((length = ::read(watch_, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto *notice = reinterpret_cast<const inotify_event *>(buffer + at);
            if ((notice->mask & (IN_DELETE_SELF | IN_IGNORED)) != 0) {
                folder_watch_ = -1;
            }
            at += static_cast<ssize_t>(sizeof *notice + notice->len);
        }
    }
}

bool event_follower::open_file(bool from_start) {
    file_ = open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat info {};
    if (file_ < 0 || fstat(file_, &info) != 0 || !S_ISREG(info.st_mode)) {
        close_descriptor(file_);
        return false;
    }
    offset_ = from_start ? 0 : info.st_size;
    partial_.clear();
    skipping_ = false;
    return true;
}

bool event_follower::replaced() const {
    struct stat opened {};
    struct stat named {};
    return fstat(file_, &opened) != 0 || stat(path_.c_str(), &named) != 0 ||
           opened.st_ino != named.st_ino || opened.st_dev != named.st_dev;
}

int event_follower::read_rest(const std::function<void(std::string_view)> &line) {
    struct stat info {};
    if (fstat(file_, &info) == 0 && info.st_size < offset_) { // begun anew in place
        offset_ = 0;
        partial_.clear();
        skipping_ = false;
    }
    char buffer[16384];
    int lines = 0;
    size_t total = 0;
    ssize_t length = 0;
    while (total < read_max_bytes && (length = pread(file_, buffer, sizeof buffer, offset_)) > 0) {
        offset_ += length;
        total += static_cast<size_t>(length);
        std::string_view text(buffer, static_cast<size_t>(length));
        for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
            partial_ += text.substr(0, end);
            text.remove_prefix(end + 1);
            if (!skipping_ && !partial_.empty()) {
                line(partial_);
                ++lines;
            }
            partial_.clear();
            skipping_ = false;
        }
        partial_ += text;
        if (partial_.size() > line_max_bytes) {
            partial_.clear();
            skipping_ = true;
        }
    }
    return lines;
}

int event_follower::read(const std::function<void(std::string_view)> &line) {
    forget_notices();
    watch_folder();
    int lines = 0;
    if (file_ >= 0) {
        lines = read_rest(line); // also the end of a file that was replaced
        if (!replaced()) {
            return lines;
        }
        close_descriptor(file_);
    }
    return open_file(true) ? lines + read_rest(line) : lines;
}
