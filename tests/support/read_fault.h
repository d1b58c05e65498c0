#ifndef KT_TESTS_READ_FAULT_H
#define KT_TESTS_READ_FAULT_H

#include <string>

/* access() and fread() of the code that is linked into the test program, which can fail with EIO
 * once. One thread. */

struct read_fault {
    std::string looked_for; /* the path whose next access() fails */
    int read = 0;           /* the fread() that gets half and fails then: 1 the next, 0 none */
};

extern read_fault g_read_fault;

#endif
