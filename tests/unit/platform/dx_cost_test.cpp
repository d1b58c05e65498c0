#include "dx_fixture.h"

#include <cstdlib>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KT_TESTS_SANITIZED 1
#else
#define KT_TESTS_SANITIZED 0
#endif

#if !KT_TESTS_SANITIZED
namespace {

thread_local unsigned long allocations = 0;

void *count_allocation(size_t size) {
    ++allocations;
    return malloc(size == 0 ? 1 : size);
}

} // namespace

void *operator new(size_t size) {
    void *memory = count_allocation(size);
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return count_allocation(size);
}
void operator delete(void *memory) noexcept {
    free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    free(memory);
}
void operator delete(void *memory, const std::nothrow_t &) noexcept {
    free(memory);
}
#endif

class dx_cost : public dx_test {};

namespace {

/** From now on any system call but an exit ends the process; reading the clock may be one where
 * the kernel offers no other way. */
bool forbid_system_calls() {
    const bool clock_is_memory = getauxval(AT_SYSINFO_EHDR) != 0;
    const auto clock = static_cast<uint32_t>(clock_is_memory ? SYS_exit : SYS_clock_gettime);
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, clock, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(filter)), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace

TEST_F(dx_cost, write_notify_and_read_make_no_system_call_while_nobody_watches) {
    if (KT_TESTS_SANITIZED) {
        GTEST_SKIP() << "the sanitizer makes system calls of its own";
    }
    const auto work = [this](bool watched) {
        const handle_ptr handle = new_provider();
        dx_tag *tag = add(handle, "tag");
        const store_view view(store_path());
        if (!tag || !forbid_system_calls()) {
            return 1;
        }
        for (uint64_t i = 0; i < 1000; ++i) {
            uint64_t value = i;
            if (dx_tag_write(handle.get(), tag, &value, 8) != 0 ||
                dx_tag_read(tag, &value, 8) != 8 || !dx_tag_has_read(tag)) {
                return 2;
            }
            if (watched) {
                view->header.commit |= 1;
            }
            if (dx_tag_notify(handle.get()) != 0) {
                return 3;
            }
        }
        _exit(0); // leaving the store makes system calls
        return 0;
    };
    child_process alone([&] { return work(false); });
    EXPECT_EQ(alone.wait(), 0);
    child_process watched([&] { return work(true); });
    EXPECT_EQ(watched.wait(), -SIGSYS); // the filter does catch the wake-up
}

TEST_F(dx_cost, write_notify_and_read_allocate_nothing) {
#if KT_TESTS_SANITIZED
    GTEST_SKIP() << "the sanitizer has its own allocator";
#else
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    const client_ptr client = open_client();
    const dx_tag_info info = find(client, "tag");
    const auto silent = [](void *, const dx_tag_info *, const dx_sample *) { return 0; };
    (void)dx_client_changes(client.get(), silent, nullptr);
    const unsigned long before = allocations;
    for (uint64_t i = 0; i < 100; ++i) {
        uint64_t value = i;
        (void)dx_tag_write(handle.get(), tag, &value, 8);
        (void)dx_tag_notify(handle.get());
        (void)dx_tag_read(tag, &value, 8);
        (void)dx_tag_has_read(tag);
        (void)dx_client_write(client.get(), &info, &value, 8);
        (void)dx_client_changes(client.get(), silent, nullptr);
    }
    EXPECT_EQ(allocations, before);
    const handle_ptr another = new_provider();
    EXPECT_GT(allocations, before); // they are counted
#endif
}

TEST_F(dx_cost, memory_of_the_store_grows_with_its_tags) {
    const auto file_bytes = [this] {
        struct stat info {};
        EXPECT_EQ(stat(store_path().c_str(), &info), 0);
        return static_cast<size_t>(info.st_blocks) * 512;
    };
    const handle_ptr handle = new_provider();
    const size_t empty = file_bytes();
    EXPECT_LE(empty, 128U * 1024);
    for (int i = 0; i < 1024; ++i) {
        ASSERT_TRUE(add(handle, "tag" + std::to_string(i)));
    }
    const size_t per_tag = (file_bytes() - empty) / 1024;
    EXPECT_GE(per_tag, sizeof(kt_dx::tag_slot) + sizeof(kt_dx::name_head));
    EXPECT_LE(per_tag, 144U); // a short name takes no room of a long one
    RecordProperty("bytes_empty", static_cast<int>(empty));
    RecordProperty("bytes_per_tag", static_cast<int>(per_tag));
}
