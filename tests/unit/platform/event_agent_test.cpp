#include "exact_time.h"
#include "scratch_folder.h"

#include <kt/event_agent.h>
#include <parson.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <regex>
#include <sstream>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using json_ptr = std::unique_ptr<JSON_Value, decltype(&json_value_free)>;

constexpr size_t file_max_bytes = 1024 * 1024;

/** The agent's pauses while another process holds the lock of its file. */
struct {
    int64_t asked_ns = 0;   // in all; nothing is slept
    std::string until_free; // a pause lasts until nobody has the lock of this file
} pauses;

} // namespace

extern "C" int __wrap_nanosleep(const timespec *wanted, timespec * /*remaining*/) {
    pauses.asked_ns += int64_t{wanted->tv_sec} * 1000000000 + wanted->tv_nsec;
    const int fd = open(pauses.until_free.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        EXPECT_EQ(flock(fd, LOCK_EX), 0);
        (void)close(fd);
    }
    return 0;
}

namespace {

class event_agent : public scratch_root {
protected:
    event_agent() { pauses = {}; }
    std::string file() const { return path("run/kt-event-agent/events.jsonl"); }
    std::string previous() const { return file() + ".1"; }
    std::vector<std::string> lines(const std::string &name) const {
        std::vector<std::string> found;
        std::istringstream text(read(name));
        for (std::string line; std::getline(text, line);) {
            found.push_back(line);
        }
        return found;
    }
    int notify(const std::string &message = "text") const {
        return event_notify(handle.get(), "name", "Host 1.2.3.4", message.c_str());
    }
    static json_ptr parse(const std::string &line) {
        return {json_parse_string(line.c_str()), json_value_free};
    }
    static std::string member(const std::string &line, const char *name) {
        const json_ptr value = parse(line);
        const char *text = json_object_get_string(json_value_get_object(value.get()), name);
        return text ? text : "(none)";
    }
    // Listens where the log service does.
    int open_log() const {
        std::filesystem::create_directory(path("dev"));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path("dev/log").c_str());
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    std::unique_ptr<event_handle, decltype(&event_destroy)> handle{event_create(nullptr, nullptr),
                                                                   event_destroy};
};

TEST_F(event_agent, event_is_one_json_line) {
    const time_t before = exact_time();
    ASSERT_EQ(event_notify(handle.get(),
                           "CAN Proprietary:CAN bus-off",
                           "Host 192.168.1.2",
                           "CAN Proprietary CAN bus-off"),
              0);
    const std::vector<std::string> found = lines(file());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_THAT(found[0],
                MatchesRegex("\\{\"time\":\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"
                             "\\.[0-9]{3}Z\",\"name\":\"CAN Proprietary:CAN bus-off\","
                             "\"host\":\"Host 192.168.1.2\","
                             "\"message\":\"CAN Proprietary CAN bus-off\"\\}"));
    struct tm utc = {};
    ASSERT_NE(strptime(member(found[0], "time").c_str(), "%Y-%m-%dT%H:%M:%S", &utc), nullptr);
    EXPECT_GE(timegm(&utc), before);
    EXPECT_LE(timegm(&utc), exact_time());
}

TEST_F(event_agent, file_ends_with_a_line_end_and_is_readable_by_all) {
    ASSERT_EQ(notify(), 0);
    ASSERT_EQ(notify(), 0);
    EXPECT_TRUE(read(file()).ends_with("}\n"));
    EXPECT_EQ(lines(file()).size(), 2u);
    struct stat info;
    ASSERT_EQ(stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0444, 0444u);
}

TEST_F(event_agent, any_text_reads_back) {
    const std::string odd =
        "quote \" backslash \\ line\nend tab\t bell\a \x7f \xc3\xa9 \xf0\x9f\x9a\x97 /";
    ASSERT_EQ(notify(odd), 0);
    EXPECT_EQ(member(lines(file())[0], "message"), odd);
}

TEST_F(event_agent, what_is_not_utf8_is_replaced) {
    const std::pair<const char *, const char *> cases[] = {
        {"a\xff"
         "b",
         "a\xef\xbf\xbd"
         "b"},
        {"\xc3", "\xef\xbf\xbd"},
        {"\xc0\x80", "\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xe0\x80\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xf4\x90\x80\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xf0\x8f\xbf\xbf", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
        {"\xe2\x82", "\xef\xbf\xbd\xef\xbf\xbd"},
    };
    for (const auto &[given, expected] : cases) {
        std::filesystem::remove(file());
        ASSERT_EQ(notify(given), 0);
        EXPECT_EQ(member(lines(file())[0], "message"), expected);
    }
}

TEST_F(event_agent, long_text_is_cut) {
    ASSERT_EQ(notify(std::string(100000, 'x')), 0);
    EXPECT_EQ(member(lines(file())[0], "message"), std::string(2048, 'x'));
}

TEST_F(event_agent, null_arguments_are_refused) {
    EXPECT_EQ(event_notify(nullptr, "n", "h", "m"), -1);
    EXPECT_EQ(event_notify(handle.get(), nullptr, "h", "m"), -1);
    EXPECT_EQ(event_notify(handle.get(), "n", nullptr, "m"), -1);
    EXPECT_EQ(event_notify(handle.get(), "n", "h", nullptr), -1);
    EXPECT_FALSE(std::filesystem::exists(file()));
    event_destroy(nullptr);
}

TEST_F(event_agent, callback_is_never_called) {
    bool called = false;
    event_handle *with_callback = event_create(
        [](event_handle *, void *context) { *static_cast<bool *>(context) = true; }, &called);
    ASSERT_NE(with_callback, nullptr);
    EXPECT_EQ(event_notify(with_callback, "n", "h", "m"), 0);
    event_destroy(with_callback);
    EXPECT_FALSE(called);
}

TEST_F(event_agent, full_file_becomes_the_one_previous_generation) {
    ASSERT_EQ(notify("first"), 0);
    const std::string line = read(file());
    // Fill up so that exactly one more line fits.
    const size_t room = file_max_bytes - line.size();
    write(file(), std::string(room - 1, 'x') + "\n");
    ASSERT_EQ(notify("final"), 0);
    EXPECT_EQ(std::filesystem::file_size(file()), file_max_bytes);
    EXPECT_FALSE(std::filesystem::exists(previous()));

    ASSERT_EQ(notify("after"), 0);
    EXPECT_EQ(std::filesystem::file_size(previous()), file_max_bytes);
    ASSERT_EQ(lines(file()).size(), 1u);
    EXPECT_EQ(member(lines(file())[0], "message"), "after");

    write(file(), std::string(file_max_bytes, 'y'));
    ASSERT_EQ(notify("later"), 0);
    EXPECT_EQ(read(previous()).substr(0, 3), "yyy");
    EXPECT_THAT(names("run/kt-event-agent"), ElementsAre("events.jsonl", "events.jsonl.1"));
}

TEST_F(event_agent, link_in_place_of_the_file_is_not_followed) {
    std::filesystem::create_directories(path("run/kt-event-agent"));
    write(path("victim"), "mine");
    std::filesystem::create_symlink(path("victim"), file());
    EXPECT_EQ(notify(), -1);
    EXPECT_EQ(read(path("victim")), "mine");
}

TEST_F(event_agent, pipe_in_place_of_the_file_does_not_block) {
    std::filesystem::create_directories(path("run/kt-event-agent"));
    ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
    EXPECT_EQ(notify(), -1);
    const int reader = open(file().c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(notify(), -1);
    close(reader);
}

TEST_F(event_agent, event_that_can_be_recorded_nowhere_fails) {
    write(path("run"), "a file where the folder should be");
    EXPECT_EQ(notify(), -1);
}

TEST_F(event_agent, log_service_gets_one_record_per_event) {
    const int log = open_log();
    ASSERT_EQ(event_notify(handle.get(), "the name", "Host 1.2.3.4", "the message"), 0);
    char record[2048];
    const ssize_t size = recv(log, record, sizeof record, MSG_DONTWAIT);
    ASSERT_GT(size, 0);
    const std::string expected = "^<28>[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} "
                                 "event_agent_tes[a-z]*\\[" +
                                 std::to_string(getpid()) +
                                 "\\]: the name: Host 1\\.2\\.3\\.4: the message$";
    EXPECT_TRUE(
        std::regex_match(std::string(record, static_cast<size_t>(size)), std::regex(expected)))
        << std::string(record, static_cast<size_t>(size));
    EXPECT_EQ(recv(log, record, sizeof record, MSG_DONTWAIT), -1);
    close(log);
}

TEST_F(event_agent, log_service_alone_is_enough) {
    const int log = open_log();
    write(path("run"), "a file where the folder should be");
    EXPECT_EQ(notify(), 0);
    close(log);
    EXPECT_EQ(notify(), -1); // nobody reads the socket any more
}

TEST_F(event_agent, log_service_that_does_not_read_blocks_nobody) {
    const int log = open_log();
    for (int i = 0; i < 2000; ++i) { // far more than its queue holds
        ASSERT_EQ(notify(std::to_string(i)), 0);
    }
    EXPECT_EQ(lines(file()).size(), 2000u);
    close(log);
}

TEST_F(event_agent, stopped_process_that_holds_the_lock_blocks_nobody) {
    ASSERT_EQ(notify("before"), 0);
    const int held = open(file().c_str(), O_RDONLY);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    EXPECT_EQ(notify("meanwhile"), 0);
    EXPECT_GT(pauses.asked_ns, 0);
    EXPECT_LT(pauses.asked_ns, 2000000000);
    EXPECT_EQ(lines(file()).size(), 2u);

    // Without the lock the file is not rotated and does not outgrow its limit either.
    write(file(), std::string(file_max_bytes, 'x'));
    EXPECT_EQ(notify("too much"), -1);
    EXPECT_EQ(std::filesystem::file_size(file()), file_max_bytes);
    EXPECT_FALSE(std::filesystem::exists(previous()));
    close(held);
    EXPECT_EQ(notify("again"), 0);
    EXPECT_TRUE(std::filesystem::exists(previous()));
}

TEST_F(event_agent, disk_that_fills_up_leaves_no_half_line) {
    ASSERT_EQ(notify("whole"), 0);
    const std::string before = read(file());
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {before.size() + 10, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = notify("does not fit");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    (void)signal(SIGXFSZ, old_handler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(read(file()), before);
    EXPECT_EQ(notify("fits"), 0);
    EXPECT_EQ(lines(file()).size(), 2u);
}

TEST_F(event_agent, processes_that_rotate_at_once_never_push_a_fresh_file_aside) {
    const std::string wide(2048, 'w');
    const auto line_bytes = static_cast<uintmax_t>(3 * wide.size() + 100);
    pauses.until_free = file(); // none of them counts as stopped, however slow
    std::vector<pid_t> children;
    for (int p = 0; p < 4; ++p) {
        const pid_t child = fork();
        if (child == 0) {
            for (int i = 0; i < 200; ++i) { // all together: about four rotations
                (void)event_notify(handle.get(), wide.c_str(), wide.c_str(), wide.c_str());
            }
            _exit(0);
        }
        children.push_back(child);
    }
    size_t running = children.size();
    while (running > 0) {
        struct stat info;
        if (stat(previous().c_str(), &info) == 0) {
            EXPECT_GT(static_cast<uintmax_t>(info.st_size) + line_bytes, file_max_bytes);
            EXPECT_LE(static_cast<uintmax_t>(info.st_size), file_max_bytes);
        }
        running -= waitpid(-1, nullptr, WNOHANG) > 0 ? 1 : 0;
    }
    EXPECT_LE(std::filesystem::file_size(file()), file_max_bytes);
}

TEST_F(event_agent, processes_and_threads_append_whole_lines_across_a_rotation) {
    constexpr int processes = 3;
    constexpr int threads = 2;
    constexpr int each = 300;
    const std::string padding(600, 'p'); // 1800 lines of about 700 bytes: one rotation
    pauses.until_free = file();          // none of them counts as stopped, however slow
    std::vector<pid_t> children;
    for (int p = 0; p < processes; ++p) {
        const pid_t child = fork();
        if (child == 0) {
            std::atomic<int> failed = 0;
            std::vector<std::thread> writers;
            for (int t = 0; t < threads; ++t) {
                writers.emplace_back([&, t] {
                    for (int i = 0; i < each; ++i) {
                        const std::string name = std::to_string(p * 1000000 + t * 100000 + i);
                        if (event_notify(handle.get(), name.c_str(), "h", padding.c_str()) != 0) {
                            ++failed;
                        }
                    }
                });
            }
            for (std::thread &writer : writers) {
                writer.join();
            }
            _exit(failed == 0 ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    std::vector<std::string> seen;
    for (const std::string &name : {previous(), file()}) {
        EXPECT_LE(std::filesystem::file_size(name), file_max_bytes);
        for (const std::string &line : lines(name)) {
            ASSERT_NE(parse(line), nullptr) << line;
            seen.push_back(member(line, "name"));
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(processes * threads * each));
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(std::unique(seen.begin(), seen.end()), seen.end());
}

} // namespace
