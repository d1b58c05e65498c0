#ifndef KT_TESTS_CALL_FAULT_H
#define KT_TESTS_CALL_FAULT_H

#include <string>

/* What libraries and the recorder may do wrong. One thread. */

struct call_fault {
    std::string no_memory_for;  /* the statement that SQLite has no memory for */
    bool no_start_time = false; /* the start of a recording cannot be noted */
    bool no_log = false;        /* a log is read, and there is none */
    bool no_time = false;       /* the wall clock cannot be read */
    bool no_timestamp = false;  /* the time cannot become text */
    std::string timestamp = ""; /* the text that it becomes; empty: the library's */
};

extern call_fault g_call_fault;

#endif
