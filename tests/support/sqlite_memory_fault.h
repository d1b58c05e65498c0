#ifndef KT_TESTS_SQLITE_MEMORY_FAULT_H
#define KT_TESTS_SQLITE_MEMORY_FAULT_H

/* Failing allocations inside SQLite, in place from the start of the program. One thread. */

namespace sqlite_memory_fault {

/** Let the nth allocation from now on fail, and all that follow it as well when lasting. */
void arm(int nth, bool lasting);

/** @return whether an allocation has failed since arm() */
bool disarm();

} // namespace sqlite_memory_fault

#endif
