#ifndef KT_TESTS_NEW_FAULT_H
#define KT_TESTS_NEW_FAULT_H

#include "fault_countdown.h"

/*
 * Failing allocations of operator new, with which texts and containers allocate, in the whole
 * program: they throw.
 *
 * THREAD SAFETY: each thread has its own countdown.
 */

namespace new_fault {

/** The thread sanitizer has an operator new of its own, which cannot be replaced. */
#ifdef __SANITIZE_THREAD__
constexpr bool available = false;
#else
constexpr bool available = true;
#endif

/** Let the nth allocation of this thread from now on fail, and no other; 1 is the next one. */
void arm(int nth);

/** @return whether an allocation has failed since arm() */
bool disarm();

/** As sweep_faults(). @return number of allocations that were made to fail */
template <typename Attempt, typename Check>
int sweep(Attempt attempt, Check check) {
    return sweep_faults(arm, disarm, attempt, check);
}

} // namespace new_fault

#endif
