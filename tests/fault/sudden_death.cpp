#include "sudden_death.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <syscall.h>
#include <unistd.h>

namespace {

constexpr int stopped_at_call = SIGTRAP | 0x80;

int64_t now_us() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

[[noreturn]] void be_child(moment when, const std::function<int()> &work) {
    if (when != moment::time) {
        (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); // the parent sees when it failed
        (void)raise(SIGSTOP);
    }
    try {
        _exit(work());
    } catch (const found &finding) {
        (void)dprintf(STDERR_FILENO, "in the child: %s\n", finding.what());
        _exit(9);
    }
}

ended judge(int status) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
        return ended::killed;
    }
    expect(!WIFSIGNALED(status), "signal " + std::to_string(WTERMSIG(status)));
    expect(WEXITSTATUS(status) == 0, "exit status " + std::to_string(WEXITSTATUS(status)));
    return ended::by_itself;
}

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

ended kill_after(pid_t child, uint64_t microseconds, const std::function<void()> &beside) {
    const int64_t end = now_us() + static_cast<int64_t>(microseconds);
    int64_t left = static_cast<int64_t>(microseconds);
    std::string seen;
    while (left > 0 && seen.empty()) {
        if (beside) {
            try {
                beside();
            } catch (const found &finding) {
                seen = finding.what();
            }
        } else {
            const timespec pause{left / 1000000, left % 1000000 * 1000};
            (void)nanosleep(&pause, nullptr); // what is left is slept again
        }
        left = end - now_us();
    }
    (void)kill(child, SIGKILL); // not reaped yet, so it is there
    const int status = wait_for(child);
    expect(seen.empty(), seen);
    return judge(status);
}

/** Whether a write begins where the child stands, then cut to its half. */
bool halve_write(pid_t child) {
#ifdef __x86_64__
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, child, nullptr, &registers) != 0) {
        return false;
    }
    const bool writes = registers.orig_rax == SYS_write || registers.orig_rax == SYS_pwrite64;
    if (!writes || registers.rdx < 2) {
        return false;
    }
    registers.rdx /= 2;
    return ptrace(PTRACE_SETREGS, child, nullptr, &registers) == 0;
#else
    (void)child;
    return false;
#endif
}

/** Let the child go on to its next stop. @return whether it is one of a system call */
bool go_on(pid_t child, int *status, int signal) {
    expect(ptrace(PTRACE_SYSCALL, child, nullptr, signal) == 0, "a child cannot be traced");
    *status = wait_for(child);
    return WIFSTOPPED(*status) && WSTOPSIG(*status) == stopped_at_call;
}

ended kill_at_call(pid_t child, const death &how) {
    int status = wait_for(child);
    expect(WIFSTOPPED(status), "a child cannot be traced");
    constexpr int options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
    expect(ptrace(PTRACE_SETOPTIONS, child, nullptr, options) == 0, "a child cannot be traced");
    int signal = 0;
    bool entering = false;
    for (uint64_t stops = 0; stops < how.after;) {
        const bool call = go_on(child, &status, signal);
        if (!WIFSTOPPED(status)) {
            return judge(status);
        }
        signal = call ? 0 : WSTOPSIG(status);
        stops += call ? 1 : 0;
        entering = call ? !entering : entering;
    }
    if (how.when == moment::half_write && entering && halve_write(child)) {
        (void)go_on(child, &status, 0); // to its end
    }
    (void)kill(child, SIGKILL); // traced, so it is there
    return judge(wait_for(child));
}

} // namespace

ended run_until(const death &how,
                const std::function<int()> &work,
                const std::function<void()> &beside) {
    const pid_t child = fork();
    if (child < 0) {
        throw found("fork fails");
    }
    if (child == 0) {
        be_child(how.when, work);
    }
    return how.when == moment::time ? kill_after(child, how.after, beside)
                                    : kill_at_call(child, how);
}
