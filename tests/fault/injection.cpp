#include "injection.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <spawn.h>
#include <unistd.h>

namespace {

injection::plan planned;
std::atomic<bool> is_armed{false};
std::atomic<bool> has_happened{false};
std::atomic<uint32_t> occasions{0};
std::atomic<uint32_t> all_activity{0};
std::atomic<bool> telling{false};
thread_local bool subject = false;

using thread_function = void *(*)(void *);
using create_function = int (*)(pthread_t *, const pthread_attr_t *, thread_function, void *);
using spawn_function = int (*)(pid_t *,
                               const char *,
                               const posix_spawn_file_actions_t *,
                               const posix_spawnattr_t *,
                               char *const *,
                               char *const *);

template <typename Call>
Call next_call(const char *name) {
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

// Looked up before there is a subject: the look-up allocates.
const auto next_create = next_call<create_function>("pthread_create");
const auto next_spawn = next_call<spawn_function>("posix_spawn");

struct start {
    thread_function function;
    void *argument;
};

/** A thread may end by pthread_exit(), which runs destructors. */
struct subject_life {
    subject_life() {
        subject = true;
        system_calls::enter_thread();
    }
    ~subject_life() {
        system_calls::leave_thread();
        subject = false;
    }
};

void *run_subject(void *argument) {
    const start begun = *static_cast<start *>(argument);
    delete static_cast<start *>(argument);
    const subject_life life;
    return begun.function(begun.argument);
}

int create_subject(pthread_t *thread, const pthread_attr_t *attributes, const start &begun) {
    const bool before = subject;
    subject = false; // the start record is the test's own
    auto *copy = new start(begun);
    subject = before;
    const int result = next_create(thread, attributes, run_subject, copy);
    if (result != 0) {
        subject = false;
        delete copy;
        subject = before;
    }
    return result;
}

pthread_t started;

struct work_item {
    void (*work)(void *);
    void *argument;
};

work_item item;

void *do_work(void * /*unused*/) {
    item.work(item.argument);
    return nullptr;
}

} // namespace

void injection::arm(const plan &what) {
    planned = what;
    occasions.store(0);
    has_happened.store(false);
    is_armed.store(true);
}

bool injection::disarm() {
    is_armed.store(false);
    return has_happened.load();
}

uint32_t injection::seen() {
    return occasions.load();
}

uint32_t injection::activity() {
    return all_activity.load();
}

bool injection::is_in_vain() {
    constexpr uint32_t often = 5'000'000; // half a second of nothing else
    return is_armed.load() && planned.what == fault::NO_MEMORY && planned.lasting &&
           occasions.load() > often;
}

/** Interruptions end some time. */
uint32_t injection::length_of(const plan &what) {
    constexpr uint32_t interruptions = 16;
    if (!what.lasting) {
        return 1;
    }
    return what.what == fault::CALL_FAILS && what.error == EINTR ? interruptions : UINT32_MAX;
}

bool injection::happens_now(fault what) {
    all_activity.fetch_add(1, std::memory_order_relaxed);
    if (!is_armed.load() || planned.what != what) {
        return false;
    }
    const uint32_t number = occasions.fetch_add(1) + 1;
    if (planned.nth == 0 || number < planned.nth || number - planned.nth >= length_of(planned)) {
        return false;
    }
    if (!has_happened.exchange(true) && is_telling()) {
        print_stack();
    }
    return true;
}

void injection::tell_where() {
    void *frames[1];
    (void)backtrace(frames, 1); // the first call allocates
    telling.store(true);
}

bool injection::is_telling() {
    return telling.load(std::memory_order_relaxed);
}

void injection::print_stack() {
    constexpr int depth = 40;
    void *frames[depth];
    (void)dprintf(STDERR_FILENO, "the fault is met at\n");
    backtrace_symbols_fd(frames, backtrace(frames, depth), STDERR_FILENO);
}

const injection::plan &injection::current() {
    return planned;
}

bool injection::is_subject() {
    return subject;
}

void injection::start_subject(void (*work)(void *), void *argument) {
    item = {work, argument};
    if (create_subject(&started, nullptr, {do_work, nullptr}) != 0) {
        abort();
    }
}

void injection::join_subject() {
    (void)pthread_join(started, nullptr);
}

void injection::run_as_subject(void (*work)(void *), void *argument) {
    start_subject(work, argument);
    join_subject();
}

extern "C" int pthread_create(pthread_t *thread,
                              const pthread_attr_t *attributes,
                              thread_function function,
                              void *argument) noexcept {
    if (!subject) {
        return next_create(thread, attributes, function, argument);
    }
    const system_calls::unseen guard;
    const heap::kept stack; // the C library keeps stacks for threads to come
    return create_subject(thread, attributes, {function, argument});
}

extern "C" int posix_spawn(pid_t *child,
                           const char *path,
                           const posix_spawn_file_actions_t *actions,
                           const posix_spawnattr_t *attributes,
                           char *const *arguments,
                           char *const *environment) noexcept {
    // The child shares this memory until it runs the program.
    const system_calls::unseen guard;
    return next_spawn(child, path, actions, attributes, arguments, environment);
}
