#ifndef KT_TESTS_FAULT_INJECTION_H
#define KT_TESTS_FAULT_INJECTION_H

#include <atomic>
#include <cstdint>

/*
 * One fault in this process: the n-th allocation, or the n-th system call that an error suits.
 *
 * Only subject threads are looked at: those that run_as_subject() starts and all that they start.
 * The thread that conducts the test is none of them, so what it does is never in the way.
 *
 * THREAD SAFETY: arm() and disarm() belong to the conductor, the rest to any thread.
 */

namespace injection {

enum class fault : uint8_t { NO_MEMORY, CALL_FAILS, CALL_IS_SHORT };

struct plan {
    fault what = fault::NO_MEMORY;
    int error = 0;        /* errno of CALL_FAILS */
    bool lasting = false; /* from the n-th on; see length_of() */
    uint32_t nth = 0;     /* 1 is the next one, 0 none */
};

/** Occasions in a row that are met. */
uint32_t length_of(const plan &what);

/** Count from now on, and let the planned fault happen. */
void arm(const plan &what);

/** @return whether it has happened since arm() */
bool disarm();

/** What could have failed between the last arm() and now, or the disarm() between. */
uint32_t seen();

/** Allocations and system calls of subject threads at any time, to see whether they are busy. */
uint32_t activity();

/**
 * Whether memory has been refused so often since arm() that whoever still asks asks for ever, as
 * libmicrohttpd's thread does before each of its waits.
 */
bool is_in_vain();

/** Count one occasion. @return whether the fault happens now */
bool happens_now(fault what);

/** Say on standard error from where the fault was met, and keep the origin of each allocation. */
void tell_where();
bool is_telling();
void print_stack();

[[nodiscard]] const plan &current();

/** Whether this thread is one of those under test. */
bool is_subject();

/** Run work(argument) in a subject thread to its end. */
void run_as_subject(void (*work)(void *argument), void *argument);

/** The same, without waiting. join_subject() waits. */
void start_subject(void (*work)(void *argument), void *argument);
void join_subject();

} // namespace injection

namespace system_calls {

/** Why system calls cannot be watched on this machine, nullptr when they can. */
const char *missing();

/** Watch those of the subject threads that start from now on. */
void watch();

/* What a thread does around and inside its life; for the thread functions. */
void enter_thread();
void leave_thread();

/** While it lives, this thread's calls go to the kernel unseen. */
class unseen {
public:
    unseen();
    ~unseen();
    unseen(const unseen &) = delete;
    unseen &operator=(const unseen &) = delete;

private:
    char before_;
};

} // namespace system_calls

namespace heap {

/** Blocks that subject threads allocated and nobody has freed. */
int64_t live();

/** Number of the latest allocation. */
uint64_t latest();

/** While it lives, what this thread allocates is not counted among the live blocks: it is kept. */
class kept {
public:
    kept();
    ~kept();
    kept(const kept &) = delete;
    kept &operator=(const kept &) = delete;
};

/** Say on standard error which live blocks are later than that allocation. */
void print_later_than(uint64_t number);

} // namespace heap

#endif
