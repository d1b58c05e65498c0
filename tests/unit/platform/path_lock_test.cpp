#include "scratch_folder.h"

#include <kt/protocol_common.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// Whether the condition comes true within a generous time.
template <typename Condition>
bool comes_true(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

class path_lock : public scratch_folder {
protected:
    path_lock()
        : shared_(static_cast<std::atomic<int> *>(
              mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~path_lock() override {
        for (const pid_t child : children_) {
            (void)kill(child, SIGKILL);
            (void)waitpid(child, nullptr, 0);
        }
        munmap(shared_, 4096);
    }
    // Runs the function in a child process, which ends with its result.
    template <typename Function>
    pid_t spawn(Function function) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(function());
        }
        children_.push_back(child);
        return child;
    }
    int join(pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        children_.erase(std::find(children_.begin(), children_.end(), child));
        return status;
    }
    kt_semaphore *take(const std::string &name) {
        kt_semaphore *handle = nullptr;
        EXPECT_EQ(semaphoreDown(path(name).c_str(), &handle), 0) << strerror(errno);
        EXPECT_NE(handle, nullptr);
        return handle;
    }
    // Whether another open file could have the lock now.
    bool is_free(const std::string &name) const {
        const int fd = open(path(name + ".lock").c_str(), O_RDONLY | O_CLOEXEC);
        const bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
        close(fd);
        return free;
    }
    // Whether someone waits for the lock, as the kernel sees it.
    bool is_waited_for(const std::string &name) const {
        struct stat info = {};
        if (stat(path(name + ".lock").c_str(), &info) != 0) {
            return false;
        }
        const std::string inode = ":" + std::to_string(info.st_ino) + " ";
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);) {
            if (line.find("->") != line.npos && line.find(inode) != line.npos) {
                return true;
            }
        }
        return false;
    }

    std::vector<pid_t> children_;
    std::atomic<int> *shared_; // sixteen counters, shared with the children
};

TEST_F(path_lock, lock_is_taken_and_released) {
    kt_semaphore *handle = take("key");
    EXPECT_FALSE(is_free("key"));
    EXPECT_EQ(semaphoreUp(handle), 0);
    EXPECT_TRUE(is_free("key"));
    handle = take("key");
    EXPECT_FALSE(is_free("key"));
    EXPECT_EQ(semaphoreUp(handle), 0);
}

TEST_F(path_lock, key_file_is_neither_needed_nor_made) {
    EXPECT_EQ(semaphoreUp(take("key")), 0);
    EXPECT_FALSE(std::filesystem::exists(path("key")));
}

TEST_F(path_lock, different_keys_are_different_locks) {
    kt_semaphore *first = take("first");
    kt_semaphore *second = take("second");
    EXPECT_EQ(semaphoreUp(first), 0);
    EXPECT_FALSE(is_free("second"));
    EXPECT_EQ(semaphoreUp(second), 0);
}

TEST_F(path_lock, bad_arguments_are_refused) {
    auto *const untouched = reinterpret_cast<kt_semaphore *>(this);
    kt_semaphore *handle = untouched;
    EXPECT_EQ(semaphoreDown(nullptr, &handle), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(semaphoreDown("", &handle), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(semaphoreDown(path("key").c_str(), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(semaphoreDown(std::string(PATH_MAX, 'a').c_str(), &handle), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(semaphoreDown(path("no/folder").c_str(), &handle), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(handle, untouched);
    EXPECT_EQ(semaphoreUp(nullptr), -1);
}

TEST_F(path_lock, lock_that_failed_can_be_had_once_its_folder_is_there) {
    kt_semaphore *handle = nullptr;
    EXPECT_EQ(semaphoreDown(path("later/key").c_str(), &handle), -1);
    std::filesystem::create_directory(path("later"));
    EXPECT_EQ(semaphoreUp(take("later/key")), 0);
}

TEST_F(path_lock, link_in_place_of_the_lock_file_is_not_followed) {
    write(path("victim"), "");
    std::filesystem::create_symlink(path("victim"), path("key.lock"));
    kt_semaphore *handle = nullptr;
    EXPECT_EQ(semaphoreDown(path("key").c_str(), &handle), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(path_lock, threads_exclude_each_other) {
    int unguarded = 0;
    std::atomic<int> inside = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                kt_semaphore *handle = take("key");
                EXPECT_EQ(++inside, 1);
                std::this_thread::yield();
                ++unguarded;
                --inside;
                EXPECT_EQ(semaphoreUp(handle), 0);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(unguarded, 2000);
}

TEST_F(path_lock, another_thread_may_release_it) {
    kt_semaphore *handle = take("key");
    std::thread([&] { EXPECT_EQ(semaphoreUp(handle), 0); }).join();
    EXPECT_EQ(semaphoreUp(take("key")), 0);
}

TEST_F(path_lock, processes_exclude_each_other_also_after_fork) {
    EXPECT_EQ(semaphoreUp(take("key")), 0); // the children inherit the kept descriptor
    std::vector<pid_t> started;
    for (int p = 0; p < 3; ++p) {
        started.push_back(spawn([this] {
            for (int i = 0; i < 500; ++i) {
                kt_semaphore *handle = nullptr;
                if (semaphoreDown(path("key").c_str(), &handle) != 0 || ++shared_[0] != 1) {
                    return 1;
                }
                const int seen = shared_[1].load(std::memory_order_relaxed);
                shared_[1].store(seen + 1, std::memory_order_relaxed);
                --shared_[0];
                if (semaphoreUp(handle) != 0) {
                    return 2;
                }
            }
            return 0;
        }));
    }
    for (const pid_t child : started) {
        EXPECT_EQ(join(child), 0);
    }
    EXPECT_EQ(shared_[1], 1500);
}

TEST_F(path_lock, child_does_not_share_its_parents_lock) {
    kt_semaphore *handle = take("other"); // so that the table is not empty
    EXPECT_EQ(semaphoreUp(handle), 0);
    EXPECT_EQ(semaphoreUp(take("key")), 0);
    const pid_t child = spawn([this] {
        kt_semaphore *taken = nullptr;
        const int result = semaphoreDown(path("key").c_str(), &taken);
        shared_[0] = 1;
        pause();
        return result;
    });
    ASSERT_TRUE(comes_true([&] { return shared_[0] == 1; }));
    EXPECT_FALSE(is_free("key"));
    std::thread parent([this] {
        kt_semaphore *taken = take("key");
        shared_[1] = 1;
        EXPECT_EQ(semaphoreUp(taken), 0);
    });
    // The lock stays the child's for as long as the child lives.
    ASSERT_TRUE(comes_true([&] { return is_waited_for("key"); }));
    EXPECT_EQ(shared_[1], 0);
    EXPECT_EQ(kill(child, SIGKILL), 0);
    parent.join();
    EXPECT_EQ(shared_[1], 1);
    EXPECT_EQ(WTERMSIG(join(child)), SIGKILL);
}

TEST_F(path_lock, child_waits_for_the_lock_that_its_parent_held_at_fork) {
    kt_semaphore *handle = take("key");
    const pid_t child = spawn([this] {
        kt_semaphore *taken = nullptr;
        const int result = semaphoreDown(path("key").c_str(), &taken);
        shared_[0] = 1;
        return result;
    });
    ASSERT_TRUE(comes_true([&] { return is_waited_for("key"); }));
    EXPECT_EQ(shared_[0], 0);
    EXPECT_EQ(semaphoreUp(handle), 0);
    EXPECT_EQ(join(child), 0);
    EXPECT_EQ(shared_[0], 1);
}

TEST_F(path_lock, lock_of_a_killed_process_is_released) {
    const pid_t child = spawn([this] {
        kt_semaphore *taken = nullptr;
        shared_[0] = semaphoreDown(path("key").c_str(), &taken) == 0 ? 1 : -1;
        pause();
        return 0;
    });
    ASSERT_TRUE(comes_true([&] { return shared_[0] != 0; }));
    ASSERT_EQ(shared_[0], 1);
    EXPECT_FALSE(is_free("key"));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(semaphoreUp(take("key")), 0);
    EXPECT_TRUE(WIFSIGNALED(join(child)));
}

TEST_F(path_lock, removed_lock_file_is_made_anew) {
    EXPECT_EQ(semaphoreUp(take("key")), 0);
    std::filesystem::remove(path("key.lock"));
    kt_semaphore *handle = take("key");
    EXPECT_TRUE(std::filesystem::exists(path("key.lock")));
    EXPECT_FALSE(is_free("key"));
    EXPECT_EQ(semaphoreUp(handle), 0);
}

TEST_F(path_lock, waiter_moves_on_to_the_file_that_replaced_the_one_it_waited_for) {
    const int removed = open(path("key.lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(flock(removed, LOCK_EX), 0);
    std::atomic<bool> taken = false;
    kt_semaphore *handle = nullptr;
    std::thread waiter([&] {
        handle = take("key");
        taken = true;
    });
    ASSERT_TRUE(comes_true([&] { return is_waited_for("key"); }));
    EXPECT_FALSE(taken);
    std::filesystem::remove(path("key.lock"));
    close(removed);
    waiter.join();
    EXPECT_FALSE(is_free("key"));
    EXPECT_EQ(semaphoreUp(handle), 0);
}

TEST_F(path_lock, signals_do_not_end_the_wait) {
    struct sigaction act = {};
    act.sa_handler = [](int) {};
    struct sigaction before;
    ASSERT_EQ(sigaction(SIGUSR1, &act, &before), 0); // no SA_RESTART: system calls give EINTR
    const int held = open(path("key.lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    std::atomic<bool> done = false;
    std::thread waiter([&] {
        EXPECT_EQ(semaphoreUp(take("key")), 0);
        done = true;
    });
    ASSERT_TRUE(comes_true([&] { return is_waited_for("key"); }));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
        std::this_thread::yield();
    }
    EXPECT_FALSE(done);
    close(held);
    waiter.join();
    EXPECT_TRUE(done);
    (void)sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(path_lock, more_keys_than_are_kept_work_just_as_well) {
    std::vector<kt_semaphore *> handles;
    for (int i = 0; i < 200; ++i) {
        handles.push_back(take("key" + std::to_string(i)));
    }
    EXPECT_FALSE(is_free("key199"));
    const pid_t child = spawn([this] {
        kt_semaphore *handle = nullptr;
        shared_[0] = 1;
        const int result = semaphoreDown(path("key199").c_str(), &handle);
        shared_[0] = 2;
        return result;
    });
    ASSERT_TRUE(comes_true([&] { return is_waited_for("key199"); }));
    EXPECT_EQ(shared_[0], 1);
    for (kt_semaphore *handle : handles) {
        EXPECT_EQ(semaphoreUp(handle), 0);
    }
    EXPECT_EQ(join(child), 0);
    EXPECT_EQ(shared_[0], 2);
    EXPECT_TRUE(is_free("key199"));
}

TEST_F(path_lock, locks_beyond_the_kept_ones_leave_no_descriptor_open) {
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(semaphoreUp(take("kept" + std::to_string(i))), 0);
    }
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open_files();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(semaphoreUp(take("more" + std::to_string(i))), 0);
    }
    EXPECT_EQ(open_files(), before);
}

TEST_F(path_lock, programs_that_are_started_do_not_inherit_the_lock) {
    kt_semaphore *handle = take("key");
    const std::string command = "ls -l /proc/self/fd | grep -q 'key.lock'";
    EXPECT_NE(system(command.c_str()), 0);
    EXPECT_EQ(semaphoreUp(handle), 0);
}

} // namespace
