#include "store_watch.h"

#include <kt/dx.h>
#include <kt/dx_client.h>

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <linux/futex.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <vector>

namespace {

constexpr int tags_per_frame = 8;
constexpr int frames_per_round = 16;

thread_local uint64_t system_calls = 0; // of the tag library on this thread

} // namespace

extern "C" {
long __real_syscall(long number, ...); // NOLINT(bugprone-reserved-identifier): the linker's name

/** The futex is the only system call that the library makes by its number. */
long __wrap_syscall(long number, ...) { // NOLINT(bugprone-reserved-identifier): the linker's name
    long arguments[6] = {};
    va_list list;
    va_start(list, number);
    for (long &argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    ++system_calls;
    return __real_syscall(
        number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
}

namespace {

/** A store below a folder in memory, with the tags of one frame. */
class frame_tags {
public:
    frame_tags() {
        const char *folder = getenv("TMPDIR");
        root_ = std::string(folder != nullptr ? folder : "/dev/shm") + "/kt-bench-XXXXXX";
        if (mkdtemp(root_.data()) != nullptr) {
            (void)setenv("KT_ROOT", root_.c_str(), 1);
            handle_ = dx_new("can_proprietary", nullptr);
        }
        for (int i = 0; handle_ != nullptr && i < tags_per_frame; ++i) {
            const std::string name = "can_proprietary/bench/frame_" + std::to_string(i);
            tags_.push_back(dx_tag_provider_new(handle_, name.c_str(), 7, 4, DX_READ_ONLY));
        }
    }
    ~frame_tags() {
        dx_destroy(handle_);
        std::error_code ignored; // the numbers are out
        std::filesystem::remove_all(root_, ignored);
    }
    frame_tags(const frame_tags &) = delete;
    frame_tags &operator=(const frame_tags &) = delete;

    bool good() const { return handle_ != nullptr; }

    /** What the port thread does with the tags of a received frame. */
    void publish() {
        ++value_;
        for (dx_tag *tag : tags_) {
            benchmark::DoNotOptimize(dx_tag_write(handle_, tag, &value_, sizeof value_));
        }
        benchmark::DoNotOptimize(dx_tag_notify(handle_));
    }

private:
    std::string root_;
    dx_handle *handle_ = nullptr;
    std::vector<dx_tag *> tags_;
    uint32_t value_ = 0;
};

/** Looks at every commit at once: the watcher that costs a provider most. */
class eager_watcher {
public:
    eager_watcher() : thread_([this] { run(); }) {}
    ~eager_watcher() {
        stop_ = true;
        thread_.join();
    }
    eager_watcher(const eager_watcher &) = delete;
    eager_watcher &operator=(const eager_watcher &) = delete;

private:
    void run() {
        dx_client *client = nullptr;
        const auto visit = [](void *, const dx_tag_info *, const dx_sample *) { return 0; };
        if (dx_client_open(&client) == DX_OK) {
            while (!stop_) {
                (void)dx_client_changes(client, visit, nullptr);
                (void)dx_client_wait(client, 50);
            }
        }
        dx_client_close(client);
    }
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/** The bridge's own watcher with its table. */
class bridge_watcher {
public:
    bridge_watcher() {
        watch_.tables = {&table_};
        watch_.statistics = &statistics_;
        watch_.changed = [this] { // as if everything were published at once
            while (const auto tag = table_.take()) {
                table_.published(tag->index);
            }
        };
        store_watch_start(watch_);
    }
    ~bridge_watcher() { store_watch_stop(watch_); }
    bridge_watcher(const bridge_watcher &) = delete;
    bridge_watcher &operator=(const bridge_watcher &) = delete;

private:
    tag_table table_;
    bridge_statistics statistics_;
    store_watch watch_;
};

struct nobody {};

/** Time of one frame's tags, with a frame each pause_us or, for 0, as fast as it goes. */
template <typename watcher>
void publish_frames(benchmark::State &state) {
    using clock = std::chrono::steady_clock;
    frame_tags tags;
    if (!tags.good()) {
        state.SkipWithError("no tag store");
        return;
    }
    tags.publish();
    [[maybe_unused]] const watcher watching;
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // until it watches
    const auto pause = std::chrono::microseconds(state.range(0));
    uint64_t frames = 0;
    system_calls = 0;
    for ([[maybe_unused]] auto turn : state) {
        clock::duration spent{};
        for (int i = 0; i < frames_per_round; ++i) {
            const auto start = clock::now();
            tags.publish();
            spent += clock::now() - start;
            ++frames;
            if (pause.count() > 0) {
                std::this_thread::sleep_for(pause);
            }
        }
        state.SetIterationTime(std::chrono::duration<double>(spent).count() / frames_per_round);
    }
    state.counters["wake_ups"] = static_cast<double>(system_calls) / static_cast<double>(frames);
    if (system_calls > frames) {
        state.SkipWithError("more than one system call for a commit");
    }
}

/** So many turns: the pauses between frames take long and are not what is measured. */
void frames(benchmark::internal::Benchmark *run) {
    run->Arg(0)->Arg(1000)->Arg(20000)->Iterations(10)->UseManualTime();
}

} // namespace

BENCHMARK(publish_frames<nobody>)->Name("frame_nobody")->Apply(frames);
BENCHMARK(publish_frames<eager_watcher>)->Name("frame_eager")->Apply(frames);
BENCHMARK(publish_frames<bridge_watcher>)->Name("frame_bridge")->Apply(frames);

BENCHMARK_MAIN();
