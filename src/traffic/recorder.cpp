#include "traffic/recorder.h"

#include "core/guards.h"
#include "core/log.h"
#include "core/runtime_file.h"
#include "core/state.h"
#include "device/clock.h"
#include "traffic/frame_text.h"

#include <kt/protocol_common.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/can.h>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

constexpr const char *traffic_folder = "/run/tmp/kt-can-proprietary";
constexpr const char *path_prefix = "/run/tmp/kt-can-proprietary/traffic-log";
constexpr const char *record_function = "can_proprietary_traffic_record_log";
constexpr size_t longest_line_bytes = 2048;
constexpr const char *csv_header = "No.,Time,Direction,CAN-ID,RTR,Data length,Data\n";

struct can_proprietary_traffic {
    pthread_mutex_t mutex;               /* changes of control_state */
    std::atomic<uint32_t> control_state; /* read without the mutex for every frame */
    std::atomic<int64_t> start_time_us;
    std::string csv_path; /* both for as long as the record */
    std::string json_path;
};

/** Keeps the records from being released under a caller that is not a port thread. */
std::shared_mutex lifetime;
std::unique_ptr<can_proprietary_traffic[]> records;
std::atomic<uint32_t> record_count{0};

/** Numbers the CSV rows of all ports; unlocked, so two ports may share or skip numbers. */
std::atomic<int32_t> row_counter{1};

using json_ptr = std::unique_ptr<JSON_Value, call_on_delete<json_value_free>>;
using file_lock_ptr = std::unique_ptr<kt_semaphore, call_on_delete<semaphoreUp>>;

std::string traffic_path(uint8_t port, const char *extension) {
    std::array<char, 50> path{};
    (void)snprintf(path.data(), path.size(), "%s%d.%s", path_prefix, port, extension);
    return rooted_path(path.data());
}

can_proprietary_traffic &record_of(int port) {
    return records[static_cast<size_t>(port)];
}

bool is_valid(const char *function, int port) {
    if (port >= 0 && static_cast<uint32_t>(port) < record_count.load(std::memory_order_relaxed)) {
        return true;
    }
    log_write_error(function, __LINE__, "port_idx(%d) invalid.\n", port);
    return false;
}

void lock_reporting(pthread_mutex_t *mutex) {
    if (const int result = pthread_mutex_lock(mutex); result != 0) {
        (void)printf("Err, pthread_mutex_lock() return %d\n", result);
    }
}

void unlock_reporting(pthread_mutex_t *mutex) {
    if (const int result = pthread_mutex_unlock(mutex); result != 0) {
        (void)printf("Err, pthread_mutex_unlock() return %d\n", result);
    }
}

void set_control_state(int port, uint32_t state) {
    can_proprietary_traffic &record = record_of(port);
    lock_reporting(&record.mutex);
    record.control_state.store(state, std::memory_order_relaxed);
    unlock_reporting(&record.mutex);
}

uint32_t control_state(int port) {
    can_proprietary_traffic &record = record_of(port);
    lock_reporting(&record.mutex);
    const uint32_t state = record.control_state.load(std::memory_order_relaxed);
    unlock_reporting(&record.mutex);
    return state;
}

/** Append a line whole or not at all: half a line would make the log unreadable. */
int append_line(int fd, off_t size, std::string_view line) {
    ssize_t written = 0;
    do {
        written = write(fd, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(line.size())) {
        return 0;
    }
    // The disk is full; when this fails, too, nothing else can be done.
    [[maybe_unused]] const int cut = ftruncate(fd, size);
    return -5;
}

long size_of(FILE *file) {
    return fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
}

int append_csv_row(int port, const traffic_texts &texts, off_t json_length) {
    const unique_fd file = open_runtime_fd(record_of(port).csv_path.c_str(), "a");
    if (file.get() < 0) {
        return -5;
    }
    const off_t size = lseek(file.get(), 0, SEEK_END);
    // Tested with the length of the JSON text, not of the row. On purpose: both files fill alike.
    if (size + json_length > traffic_file_limit_bytes) {
        set_control_state(port, 0);
        return 0;
    }
    const int number = row_counter.load(std::memory_order_relaxed);
    const traffic_line row = csv_row(texts, number);
    if (const int result = append_line(file.get(), size, row.view()); result != 0) {
        return result;
    }
    row_counter.store(number + 1, std::memory_order_relaxed);
    return 0;
}

int append_both(int port, const traffic_texts &texts, std::string_view line) {
    const char *path = record_of(port).json_path.c_str();
    kt_semaphore *taken = nullptr;
    if (semaphoreDown(path, &taken) != 0) {
        log_write_error(record_function, __LINE__, "traffic log semaphoreDown fail(%d)\n", -8);
        return -8;
    }
    const file_lock_ptr lock(taken);
    const unique_fd file = open_runtime_fd(path, "a");
    if (file.get() < 0) {
        log_write_error(record_function, __LINE__, "open file fail\n");
        return -5;
    }
    const off_t size = lseek(file.get(), 0, SEEK_END);
    const auto text_length = static_cast<off_t>(line.size()) - 1; // without its end
    if (size + text_length > traffic_file_limit_bytes) {
        set_control_state(port, 0);
        return 0;
    }
    if (const int result = append_line(file.get(), size, line); result != 0) {
        return result;
    }
    return append_csv_row(port, texts, text_length);
}

/** What fgets() gives, without what a stream costs beside. */
class line_reader {
public:
    explicit line_reader(int fd) : fd_(fd) {}

    /**
     * The next line with its end, or as much of it as there is room for.
     * @return false at the end of the file, and where it cannot be read any further
     */
    bool next(std::array<char, longest_line_bytes> *line) {
        size_t length = whole_line();
        while (length == 0 && fill()) {
            length = whole_line();
        }
        if (length == 0) {
            length = end_ - begin_;
        }
        memcpy(line->data(), text_.data() + begin_, length);
        (*line)[length] = '\0';
        begin_ += length;
        return length > 0;
    }

private:
    /** Length of the line that begins, 0 when there is more of it to read. */
    [[nodiscard]] size_t whole_line() const {
        const char *line = text_.data() + begin_;
        const size_t length = std::min(end_ - begin_, longest_line_bytes - 1);
        if (const void *end = memchr(line, '\n', length); end != nullptr) {
            return static_cast<size_t>(static_cast<const char *>(end) - line) + 1;
        }
        return length == longest_line_bytes - 1 ? length : 0;
    }

    bool fill() {
        end_ -= begin_;
        memmove(text_.data(), text_.data() + begin_, end_);
        begin_ = 0;
        ssize_t got = 0;
        do {
            got = read(fd_, text_.data() + end_, text_.size() - end_);
        } while (got < 0 && errno == EINTR);
        end_ += got > 0 ? static_cast<size_t>(got) : 0;
        return got > 0;
    }

    int fd_;
    std::array<char, 8 * longest_line_bytes> text_; // from begin_ to end_ what is still to be given
    size_t begin_ = 0;
    size_t end_ = 0;
};

int read_lines(int fd, JSON_Array *lines) {
    line_reader reader(fd);
    std::array<char, longest_line_bytes> text;
    while (reader.next(&text)) {
        json_ptr line(json_parse_string(text.data()));
        if (line == nullptr || json_array_append_value(lines, line.get()) != JSONSuccess) {
            return -6;
        }
        (void)line.release(); // the array's now
    }
    return 0;
}

/**
 * A process that was killed in the middle of a write leaves the beginning of a line, and a log with
 * one cannot be read.
 */
void cut_half_line(const std::string &path) {
    const file_ptr file = open_runtime_file(path.c_str(), "r+");
    const long size = file == nullptr ? 0 : size_of(file.get());
    std::array<char, longest_line_bytes> tail{};
    const long start = std::max(0L, size - static_cast<long>(tail.size()));
    if (size <= 0 || fseek(file.get(), start, SEEK_SET) != 0) {
        return;
    }
    const size_t length = fread(tail.data(), 1, tail.size(), file.get());
    const std::string_view text(tail.data(), length);
    const size_t end = text.rfind('\n');
    const long whole = end == std::string_view::npos ? 0 : start + static_cast<long>(end) + 1;
    if (length > 0 && whole < size && (whole > 0 || start == 0)) {
        // When this fails, nothing else can be done: reading says that the line is bad.
        [[maybe_unused]] const int cut = ftruncate(fileno(file.get()), whole);
    }
}

int read_log(JSON_Value **log, int port) {
    json_ptr lines(json_value_init_array());
    if (lines == nullptr) {
        return -7;
    }
    const char *path = record_of(port).json_path.c_str();
    kt_semaphore *taken = nullptr;
    if (semaphoreDown(path, &taken) != 0) {
        log_write_error("can_proprietary_traffic_get_log",
                        __LINE__,
                        "get traffic log semaphoreDown fail(%d)\n",
                        -8);
        return -8;
    }
    const file_lock_ptr lock(taken);
    const unique_fd file = open_runtime_fd(path, "r");
    if (file.get() < 0) {
        return -5;
    }
    if (const int result = read_lines(file.get(), json_value_get_array(lines.get())); result != 0) {
        return result;
    }
    *log = lines.release();
    return 0;
}

/** Nobody records yet, and readers wait. A missing folder is told by a start. */
void prepare_files(uint8_t port_count) {
    (void)mkdir_p(rooted_path(traffic_folder).c_str());
    for (uint8_t port = 0; port < port_count; port++) {
        can_proprietary_traffic &record = records[port];
        record.csv_path = traffic_path(port, "csv");
        record.json_path = traffic_path(port, "json");
        cut_half_line(record.json_path);
        cut_half_line(record.csv_path);
    }
}

/** Frames and requests find their paths made: only this can run out of memory for them. */
bool make_records(uint8_t port_count) {
    records.reset(new (std::nothrow) can_proprietary_traffic[port_count]());
    try {
        if (records != nullptr) {
            prepare_files(port_count);
        }
    } catch (const std::bad_alloc &) {
        records.reset();
    }
    return records != nullptr;
}

int create_file(const std::string &path, const char *content) {
    const file_ptr file = open_runtime_file(path.c_str(), "w");
    if (file == nullptr) {
        log_write_error(
            "can_proprietary_traffic_start", __LINE__, "open file %s fail.\n", path.c_str());
        return -5;
    }
    return fputs(content, file.get()) >= 0 && fflush(file.get()) == 0 ? 0 : -5;
}

/** Apart from the test whether to record, which every frame passes. */
[[gnu::noinline]] int record_frame(const uint8_t *data,
                                   traffic_direction direction,
                                   uint32_t can_id,
                                   int rtr,
                                   uint8_t data_length,
                                   uint16_t port) {
    if (data_length > CAN_MAX_DLEN) {
        log_write_error(record_function, __LINE__, "data length(%d) invalid.\n", data_length);
        return -1;
    }
    traffic_texts texts{};
    texts.direction = direction;
    texts.extended = (can_id & CAN_EFF_FLAG) != 0;
    texts.id = can_id & (texts.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
    texts.rtr = rtr;
    texts.data_length = data_length;
    put_data(&texts, data);
    const int64_t start = records[port].start_time_us.load(std::memory_order_relaxed);
    put_time(&texts, get_timestamp() - start);
    const traffic_line line = json_line(texts);
    return append_both(port, texts, line.view());
}

} // namespace

int can_proprietary_traffic_init(uint8_t port_count) {
    const std::unique_lock guard(lifetime);
    record_count.store(0, std::memory_order_relaxed);
    if (!make_records(port_count)) {
        log_error("malloc fail.\n");
        return -2;
    }
    for (uint8_t port = 0; port < port_count; port++) {
        (void)pthread_mutex_init(&records[port].mutex, nullptr); // cannot fail for a plain mutex
    }
    record_count.store(port_count, std::memory_order_relaxed);
    return 0;
}

void can_proprietary_traffic_deinit() {
    const std::unique_lock guard(lifetime);
    const uint32_t count = record_count.exchange(0, std::memory_order_relaxed);
    for (uint32_t port = 0; port < count; port++) {
        (void)pthread_mutex_destroy(&records[port].mutex);
    }
    records.reset();
}

int can_proprietary_traffic_start(int port) {
    const std::shared_lock guard(lifetime);
    if (!is_valid(__func__, port)) {
        return -1;
    }
    row_counter.store(1, std::memory_order_relaxed);
    const can_proprietary_traffic &record = record_of(port);
    if (create_file(record.csv_path, csv_header) != 0 || create_file(record.json_path, "") != 0) {
        return -5;
    }
    set_control_state(port, 1);
    return 0;
}

int can_proprietary_traffic_stop(int port) {
    const std::shared_lock guard(lifetime);
    if (!is_valid(__func__, port)) {
        return -1;
    }
    set_control_state(port, 0);
    return 0;
}

int can_proprietary_traffic_get_control_state(int port) {
    const std::shared_lock guard(lifetime);
    return is_valid(__func__, port) ? static_cast<int>(control_state(port)) : -1;
}

int can_proprietary_traffic_init_start_time(int port) {
    const std::shared_lock guard(lifetime);
    if (!is_valid(__func__, port)) {
        return -1;
    }
    record_of(port).start_time_us.store(get_timestamp(), std::memory_order_relaxed);
    return 0;
}

int can_proprietary_traffic_record_log(const uint8_t *data,
                                       traffic_direction direction,
                                       uint32_t can_id,
                                       int rtr,
                                       uint8_t data_length,
                                       uint16_t port) {
    // The caller is a port thread, and the records outlive those: no lifetime lock per frame.
    if (!is_valid(__func__, port)) {
        return -1;
    }
    if (records[port].control_state.load(std::memory_order_relaxed) == 0) {
        return 0;
    }
    return record_frame(data, direction, can_id, rtr, data_length, port);
}

int can_proprietary_traffic_get_log(JSON_Value **log, int port) {
    if (log != nullptr) {
        *log = nullptr;
    }
    const std::shared_lock guard(lifetime);
    if (!is_valid(__func__, port) || log == nullptr) {
        return -1;
    }
    return read_log(log, port);
}
