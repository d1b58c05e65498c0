#ifndef KT_TESTS_MULTIPART_FAULT_H
#define KT_TESTS_MULTIPART_FAULT_H

#include <string>

/* The REST library's multipart parser and the time library, as they may answer elsewhere. One
   thread. */

struct multipart_fault {
    bool no_part = false;      /* a body is split into nothing */
    bool no_time = false;      /* the local time cannot be read */
    bool no_timestamp = false; /* it cannot become text */
    std::string timestamp;     /* its text; the real one when empty */
};

extern multipart_fault g_multipart_fault;

#endif
