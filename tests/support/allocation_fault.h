#ifndef KT_TESTS_ALLOCATION_FAULT_H
#define KT_TESTS_ALLOCATION_FAULT_H

#include "fault_countdown.h"

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

/** As sweep_faults(). @return number of allocations that were made to fail */
template <typename Attempt, typename Check>
int sweep(Attempt attempt, Check check) {
    return sweep_faults(arm, disarm, attempt, check);
}

} // namespace allocation_fault

#endif
