#ifndef KT_TESTS_DX_FIXTURE_H
#define KT_TESTS_DX_FIXTURE_H

#include "layout.h"
#include "scratch_folder.h"

#include <kt/dx.h>
#include <kt/dx_client.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

inline constexpr auto dx_deadline = std::chrono::seconds(30);

struct dx_handle_deleter {
    void operator()(dx_handle *handle) const { dx_destroy(handle); }
};
struct dx_client_deleter {
    void operator()(dx_client *client) const { dx_client_close(client); }
};
using handle_ptr = std::unique_ptr<dx_handle, dx_handle_deleter>;
using client_ptr = std::unique_ptr<dx_client, dx_client_deleter>;

inline handle_ptr new_provider(dx_dispatch dispatch = nullptr, const char *name = "unit") {
    return handle_ptr(dx_new(name, dispatch));
}

inline client_ptr open_client() {
    dx_client *client = nullptr;
    (void)dx_client_open(&client);
    return client_ptr(client);
}

inline bool eventually(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + dx_deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/** A 64-bit value both halves of which are the same. */
inline uint64_t twin(uint32_t half) {
    return static_cast<uint64_t>(half) << 32 | half;
}
inline bool is_twin(uint64_t value) {
    return static_cast<uint32_t>(value >> 32) == static_cast<uint32_t>(value);
}

/** A line of communication between a test and its child. */
class signal_pipe {
public:
    signal_pipe() { EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0); }
    ~signal_pipe() {
        (void)close(ends_[0]);
        (void)close(ends_[1]);
    }
    signal_pipe(const signal_pipe &) = delete;
    signal_pipe &operator=(const signal_pipe &) = delete;
    bool send() const { return write(ends_[1], "x", 1) == 1; }
    bool wait() const {
        struct pollfd end = {ends_[0], POLLIN, 0};
        const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(dx_deadline);
        char byte = 0;
        return poll(&end, 1, static_cast<int>(limit.count())) == 1 && read(ends_[0], &byte, 1) == 1;
    }

private:
    int ends_[2];
};

/** Runs a function in a forked process, whose exit status is what it returns. */
class child_process {
public:
    explicit child_process(const std::function<int()> &work) : pid_(fork()) {
        if (pid_ == 0) {
            _exit(work());
        }
    }
    ~child_process() { kill_hard(); }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;

    pid_t pid() const { return pid_; }

    void kill_hard() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    /** Exit status; -signal when one ended the child, 1000 when it still runs at the deadline. */
    int wait() {
        int status = 0;
        if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
            return 1000;
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_;
};

/** A writable view of the store file, beside the library's own. */
class store_view {
public:
    explicit store_view(const std::string &path) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        void *memory =
            mmap(nullptr, sizeof(kt_dx::store_layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        EXPECT_NE(memory, MAP_FAILED);
        (void)close(fd);
        map_ = static_cast<kt_dx::store_layout *>(memory);
    }
    ~store_view() { (void)munmap(map_, sizeof *map_); }
    store_view(const store_view &) = delete;
    store_view &operator=(const store_view &) = delete;
    kt_dx::store_layout *operator->() const { return map_; }
    kt_dx::store_layout &operator*() const { return *map_; }

private:
    kt_dx::store_layout *map_;
};

class dx_test : public scratch_root {
protected:
    std::string store_path() const { return path("run/kt-dx/tags"); }

    static dx_tag *
    add(const handle_ptr &handle, const std::string &name, int type = 8, int mode = DX_WRITE_ONLY) {
        return dx_tag_provider_new(handle.get(), name.c_str(), type, 8, mode);
    }
    static int write_u64(const client_ptr &client, const dx_tag_info &info, uint64_t value) {
        return dx_client_write(client.get(), &info, &value, sizeof value);
    }
    static uint64_t read_u64(dx_tag *tag) {
        uint64_t value = 0;
        EXPECT_EQ(dx_tag_read(tag, &value, sizeof value), 8);
        return value;
    }
    static dx_tag_info find(const client_ptr &client, const std::string &name) {
        dx_tag_info info{};
        EXPECT_EQ(dx_client_find(client.get(), name.c_str(), &info), DX_OK) << name;
        return info;
    }
    static bool known(const client_ptr &client, const std::string &name) {
        dx_tag_info info;
        return dx_client_find(client.get(), name.c_str(), &info) == DX_OK;
    }
    /** Names of the tags that match, in the order of the store. */
    static std::vector<std::string> list(const client_ptr &client, const char *pattern = nullptr) {
        std::vector<std::string> names;
        const auto visit = [](void *context, const dx_tag_info *info, const dx_sample *) {
            static_cast<std::vector<std::string> *>(context)->emplace_back(info->name);
            return 0;
        };
        const int count = dx_client_list(client.get(), pattern, visit, &names);
        EXPECT_EQ(count, static_cast<int>(names.size()));
        return names;
    }
};

#endif
