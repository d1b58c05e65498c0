#include "injection.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

/*
 * The kernel hands each system call of a watched thread back as SIGSYS (syscall user dispatch), so
 * that those of the C library and of every other library are seen, whoever made them. The handler
 * makes the call in its place, or does not.
 */

#if defined(__x86_64__)

namespace {

/** Errors that a call can give. */
enum suits : uint8_t {
    IO = 1,     /* EIO */
    ROOM = 2,   /* ENOSPC, on files alone */
    SIGNAL = 4, /* EINTR, on anything but files */
    LIMIT = 8,  /* EMFILE */
    SHORT = 16, /* fewer bytes, on files and streams */
    DISK = 32   /* EIO from then on: the disk is broken, sockets go on */
};

struct call_rule {
    int number;
    unsigned suits;
};

constexpr std::array rules = {
    call_rule{SYS_read, IO | DISK | SIGNAL | SHORT},
    call_rule{SYS_readv, IO | DISK | SIGNAL | SHORT},
    call_rule{SYS_pread64, IO | DISK | SHORT},
    call_rule{SYS_recvfrom, IO | SIGNAL | SHORT},
    call_rule{SYS_recvmsg, IO | SIGNAL},
    call_rule{SYS_write, IO | DISK | ROOM | SIGNAL | SHORT},
    call_rule{SYS_writev, IO | DISK | ROOM | SIGNAL},
    call_rule{SYS_pwrite64, IO | DISK | ROOM | SHORT},
    call_rule{SYS_sendto, IO | SIGNAL | SHORT},
    call_rule{SYS_sendmsg, IO | SIGNAL},
    call_rule{SYS_open, IO | DISK | ROOM | LIMIT},
    call_rule{SYS_openat, IO | DISK | ROOM | LIMIT},
    call_rule{SYS_close, IO},
    call_rule{SYS_fsync, IO | DISK | ROOM},
    call_rule{SYS_fdatasync, IO | DISK | ROOM},
    call_rule{SYS_ftruncate, IO | DISK | ROOM},
    call_rule{SYS_fallocate, IO | DISK | ROOM},
    call_rule{SYS_rename, IO | DISK | ROOM},
    call_rule{SYS_renameat, IO | DISK | ROOM},
    call_rule{SYS_renameat2, IO | DISK | ROOM},
    call_rule{SYS_unlink, IO | DISK},
    call_rule{SYS_unlinkat, IO | DISK},
    call_rule{SYS_rmdir, IO | DISK},
    call_rule{SYS_mkdir, IO | DISK | ROOM},
    call_rule{SYS_mkdirat, IO | DISK | ROOM},
    call_rule{SYS_link, IO | DISK | ROOM},
    call_rule{SYS_symlink, IO | DISK | ROOM},
    call_rule{SYS_stat, IO | DISK},
    call_rule{SYS_fstat, IO | DISK},
    call_rule{SYS_lstat, IO | DISK},
    call_rule{SYS_newfstatat, IO | DISK},
    call_rule{SYS_statx, IO | DISK},
    call_rule{SYS_access, IO | DISK},
    call_rule{SYS_faccessat, IO | DISK},
    call_rule{SYS_faccessat2, IO | DISK},
    call_rule{SYS_readlink, IO | DISK},
    call_rule{SYS_getdents64, IO | DISK},
    call_rule{SYS_chmod, IO | DISK},
    call_rule{SYS_fchmod, IO | DISK},
    call_rule{SYS_chown, IO | DISK},
    call_rule{SYS_fchown, IO | DISK},
    call_rule{SYS_fcntl, IO | SIGNAL | LIMIT},
    call_rule{SYS_flock, IO | SIGNAL},
    call_rule{SYS_mmap, IO | DISK},
    call_rule{SYS_socket, IO | LIMIT},
    call_rule{SYS_socketpair, IO | LIMIT},
    call_rule{SYS_bind, IO},
    call_rule{SYS_listen, IO},
    call_rule{SYS_connect, IO | SIGNAL},
    call_rule{SYS_accept, IO | SIGNAL | LIMIT},
    call_rule{SYS_accept4, IO | SIGNAL | LIMIT},
    call_rule{SYS_getsockname, IO},
    call_rule{SYS_setsockopt, IO},
    call_rule{SYS_getsockopt, IO},
    call_rule{SYS_shutdown, IO},
    call_rule{SYS_ioctl, IO},
    call_rule{SYS_select, IO | SIGNAL},
    call_rule{SYS_pselect6, IO | SIGNAL},
    call_rule{SYS_poll, IO | SIGNAL},
    call_rule{SYS_ppoll, IO | SIGNAL},
    call_rule{SYS_epoll_wait, IO | SIGNAL},
    call_rule{SYS_epoll_pwait, IO | SIGNAL},
    call_rule{SYS_epoll_create1, LIMIT},
    call_rule{SYS_epoll_ctl, IO},
    call_rule{SYS_eventfd2, LIMIT},
    call_rule{SYS_pipe2, LIMIT},
    call_rule{SYS_memfd_create, LIMIT},
    call_rule{SYS_dup, LIMIT},
    call_rule{SYS_nanosleep, SIGNAL},
    call_rule{SYS_clock_nanosleep, SIGNAL},
    call_rule{SYS_wait4, SIGNAL},
    call_rule{SYS_futex, SIGNAL},
};

constexpr size_t numbers_max = 512;
constexpr char pass = 0; // SYSCALL_DISPATCH_FILTER_ALLOW
constexpr char stop = 1; // SYSCALL_DISPATCH_FILTER_BLOCK
constexpr uint64_t sigsys_bit = uint64_t{1} << (SIGSYS - 1);

std::array<uint8_t, numbers_max> suits_of_call;
bool is_watching = false;
thread_local char selector = pass;
thread_local bool is_in_handler = false;

struct call {
    long number;
    long arguments[6];
};

struct kernel_sigaction {
    void (*handler)(int, siginfo_t *, void *);
    unsigned long flags;
    void (*restorer)();
    uint64_t mask;
};

} // namespace

// The kernel lets calls pass from which it would return to between these two labels.
extern "C" long kt_raw_call(long, long, long, long, long, long, long);
extern "C" void kt_raw_return();
extern "C" const char kt_raw_end;
asm(R"(
    .text
    .globl kt_raw_call
    .type kt_raw_call, @function
kt_raw_call:
    mov %rdi, %rax
    mov %rsi, %rdi
    mov %rdx, %rsi
    mov %rcx, %rdx
    mov %r8, %r10
    mov %r9, %r8
    mov 8(%rsp), %r9
    syscall
    ret
    .globl kt_raw_return
    .type kt_raw_return, @function
    nop
kt_raw_return:
    mov $15, %rax
    syscall
    nop
    .globl kt_raw_end
kt_raw_end:
    nop
)");

namespace {

long make(const call &wanted) {
    const long *a = wanted.arguments;
    return kt_raw_call(wanted.number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

long raw(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0) {
    return kt_raw_call(number, a, b, c, d, e, 0);
}

enum class descriptor : uint8_t { FILE, STREAM, OTHER };

descriptor descriptor_of(long fd) {
    struct stat status;
    if (raw(SYS_fstat, fd, reinterpret_cast<long>(&status)) != 0) {
        return descriptor::OTHER;
    }
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
        return descriptor::FILE;
    }
    int type = 0;
    socklen_t length = sizeof type;
    const long known = raw(SYS_getsockopt,
                           fd,
                           SOL_SOCKET,
                           SO_TYPE,
                           reinterpret_cast<long>(&type),
                           reinterpret_cast<long>(&length));
    return known == 0 && type == SOCK_STREAM ? descriptor::STREAM : descriptor::OTHER;
}

bool has_descriptor(long number) {
    switch (number) {
    case SYS_read:
    case SYS_readv:
    case SYS_pread64:
    case SYS_recvfrom:
    case SYS_recvmsg:
    case SYS_write:
    case SYS_writev:
    case SYS_pwrite64:
    case SYS_sendto:
    case SYS_sendmsg:
        return true;
    default:
        return false;
    }
}

unsigned narrowed_to_descriptor(const call &made, unsigned suits) {
    switch (descriptor_of(made.arguments[0])) {
    case descriptor::FILE:
        return suits & ~unsigned{SIGNAL};
    case descriptor::STREAM:
        return suits & ~unsigned{ROOM | DISK};
    default:
        return suits & ~unsigned{ROOM | SHORT | DISK};
    }
}

unsigned suits_of_fcntl(long command) {
    switch (command) {
    case F_SETLKW:
    case F_OFD_SETLKW:
        return IO | SIGNAL;
    case F_SETLK:
    case F_GETLK:
    case F_OFD_SETLK:
        return IO;
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
        return LIMIT;
    default:
        return 0;
    }
}

/** What the call can really end with, looking at its arguments. */
unsigned suits_of(const call &made) {
    if (made.number < 0 || static_cast<size_t>(made.number) >= numbers_max) {
        return 0;
    }
    const unsigned suits = suits_of_call[static_cast<size_t>(made.number)];
    if (suits == 0) {
        return 0;
    }
    const long *a = made.arguments;
    switch (made.number) {
    case SYS_open:
        return (a[1] & O_CREAT) != 0 ? suits : suits & ~unsigned{ROOM};
    case SYS_openat:
        return (a[2] & O_CREAT) != 0 ? suits : suits & ~unsigned{ROOM};
    case SYS_fcntl:
        return suits_of_fcntl(a[1]);
    case SYS_mmap:
        return (a[3] & MAP_ANONYMOUS) != 0 ? 0 : suits;
    case SYS_futex:
        return (a[1] & FUTEX_CMD_MASK) == FUTEX_WAIT || (a[1] & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET
                   ? suits
                   : 0;
    default:
        return has_descriptor(made.number) ? narrowed_to_descriptor(made, suits) : suits;
    }
}

unsigned suit_of(const injection::plan &plan) {
    if (plan.what == injection::fault::CALL_IS_SHORT) {
        return SHORT;
    }
    switch (plan.error) {
    case ENOSPC:
        return ROOM;
    case EINTR:
        return SIGNAL;
    case EMFILE:
        return LIMIT;
    default:
        return plan.lasting ? DISK : IO;
    }
}

long fail(const call &made) {
    if (made.number == SYS_close || made.number == SYS_shutdown) {
        (void)make(made); // whatever they say, the descriptor is gone, who waits is woken
    }
    return -injection::current().error;
}

long cut(call made) {
    long &length = made.arguments[2];
    length = length > 1 ? length / 2 : length;
    return make(made);
}

long make_or_fail(const call &made) {
    const injection::plan &plan = injection::current();
    if (plan.what == injection::fault::NO_MEMORY || (suits_of(made) & suit_of(plan)) == 0 ||
        !injection::happens_now(plan.what)) {
        return make(made);
    }
    return plan.what == injection::fault::CALL_IS_SHORT ? cut(made) : fail(made);
}

/** The mask of the interrupted thread is the one to change, and SIGSYS stays open in it. */
long change_mask(const call &made, ucontext_t &context) {
    uint64_t mask = 0;
    memcpy(&mask, &context.uc_sigmask, sizeof mask);
    const uint64_t before = mask;
    if (made.arguments[1] != 0) {
        uint64_t set = 0;
        memcpy(&set, reinterpret_cast<const void *>(made.arguments[1]), sizeof set);
        switch (made.arguments[0]) {
        case SIG_BLOCK:
            mask |= set;
            break;
        case SIG_UNBLOCK:
            mask &= ~set;
            break;
        default:
            mask = set;
            break;
        }
    }
    mask &= ~sigsys_bit;
    memcpy(&context.uc_sigmask, &mask, sizeof mask);
    if (made.arguments[2] != 0) {
        memcpy(reinterpret_cast<void *>(made.arguments[2]), &before, sizeof before);
    }
    return 0;
}

/** A handler's way back is a call, too, and has to come from where calls may pass. */
long set_handler(call made) {
    kernel_sigaction action;
    if (made.arguments[1] != 0) {
        memcpy(&action, reinterpret_cast<const void *>(made.arguments[1]), sizeof action);
        action.restorer = kt_raw_return;
        action.mask &= ~sigsys_bit;
        made.arguments[1] = reinterpret_cast<long>(&action);
    }
    return make(made);
}

long serve(const call &made, ucontext_t &context, bool is_nested) {
    switch (made.number) {
    case SYS_rt_sigprocmask:
        return change_mask(made, context);
    case SYS_rt_sigaction:
        return set_handler(made);
    default:
        return is_nested ? make(made) : make_or_fail(made);
    }
}

void on_call(int /*signal*/, siginfo_t *info, void *opaque) {
    auto &context = *static_cast<ucontext_t *>(opaque);
    greg_t *registers = context.uc_mcontext.gregs;
    const call made = {info->si_syscall,
                       {registers[REG_RDI],
                        registers[REG_RSI],
                        registers[REG_RDX],
                        registers[REG_R10],
                        registers[REG_R8],
                        registers[REG_R9]}};
    const bool is_nested = is_in_handler; // from what is told about a fault, or from a signal
    is_in_handler = true;
    const long result = serve(made, context, is_nested);
    is_in_handler = is_nested;
    registers[REG_RAX] = result;
}

} // namespace

const char *system_calls::missing() {
    const int result = prctl(PR_SET_SYSCALL_USER_DISPATCH, PR_SYS_DISPATCH_OFF, 0, 0, 0);
    return result == 0 ? nullptr : "the kernel has no syscall user dispatch";
}

void system_calls::watch() {
    for (const call_rule &rule : rules) {
        suits_of_call[static_cast<size_t>(rule.number)] = static_cast<uint8_t>(rule.suits);
    }
    kernel_sigaction action = {};
    action.handler = on_call;
    constexpr unsigned long own_restorer = 0x04000000; // SA_RESTORER
    action.flags = static_cast<unsigned long>(SA_SIGINFO | SA_NODEFER) | own_restorer;
    action.restorer = kt_raw_return;
    (void)raw(SYS_rt_sigaction, SIGSYS, reinterpret_cast<long>(&action), 0, sizeof action.mask);
    is_watching = true;
}

void system_calls::enter_thread() {
    if (!is_watching) {
        return;
    }
    sigset_t open;
    (void)sigemptyset(&open);
    (void)sigaddset(&open, SIGSYS);
    (void)pthread_sigmask(SIG_UNBLOCK, &open, nullptr);
    const auto *begin = reinterpret_cast<const char *>(kt_raw_call);
    (void)prctl(
        PR_SET_SYSCALL_USER_DISPATCH, PR_SYS_DISPATCH_ON, begin, &kt_raw_end - begin, &selector);
    selector = stop;
}

void system_calls::leave_thread() {
    selector = pass;
}

system_calls::unseen::unseen() : before_(selector) {
    selector = pass;
}

system_calls::unseen::~unseen() {
    selector = before_;
}

#else

const char *system_calls::missing() {
    return "system calls are watched on x86-64 alone";
}
void system_calls::watch() {}
void system_calls::enter_thread() {}
void system_calls::leave_thread() {}
system_calls::unseen::unseen() : before_(0) {}
system_calls::unseen::~unseen() = default;

#endif
