#ifndef KT_TESTS_CAN_HEAP_H
#define KT_TESTS_CAN_HEAP_H

#include <cstdint>

/*
 * Makes the n-th allocation fail, once: new(std::nothrow), malloc(), calloc() and strdup() of the
 * code under test. Needs the wrapped calls of can_wrapped_calls.cmake.
 */

/** @param n  0 for the next allocation */
void can_heap_fail_nth(uint32_t n);

/** Stop failing. @return true when the chosen allocation was reached and has failed */
bool can_heap_stop();

#endif
