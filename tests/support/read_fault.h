#ifndef KT_TESTS_READ_FAULT_H
#define KT_TESTS_READ_FAULT_H

#include <string>

/* access() and fread() of the code that is linked into the test program, which can fail with EIO
 * once. One thread. */

struct read_fault {
    std::string looked_for; /* the path whose next access() fails */
    bool next_read = false; /* the next fread() gets half of what there is and fails then */
};

extern read_fault g_read_fault;

#endif
