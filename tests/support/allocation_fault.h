#ifndef KT_TESTS_ALLOCATION_FAULT_H
#define KT_TESTS_ALLOCATION_FAULT_H

/*
 * Failing allocations of the code that is linked into the test program: malloc(), calloc(),
 * strdup() and new (std::nothrow). What shared libraries allocate is not touched.
 *
 * THREAD SAFETY: each thread has its own countdown.
 */

namespace allocation_fault {

/** Let the nth allocation of this thread from now on fail, and no other; 1 is the next one. */
void arm(int nth);

/** @return whether an allocation has failed since arm() */
bool disarm();

/**
 * Call attempt() with the first allocation failing, then with the second, until none is left.
 * @param check  called with the result and the number of the failed allocation
 * @return number of allocations that were made to fail
 */
template <typename Attempt, typename Check>
int sweep(Attempt attempt, Check check) {
    for (int nth = 1;; nth++) {
        arm(nth);
        const auto result = attempt();
        if (!disarm()) {
            return nth - 1;
        }
        check(result, nth);
    }
}

} // namespace allocation_fault

#endif
