#ifndef KT_TESTS_IMPORT_FAULTS_H
#define KT_TESTS_IMPORT_FAULTS_H

#include <functional>
#include <string>

/* Failures that files and databases do not show when asked to. One thread. */

struct import_faults {
    std::string interrupted; /* part of a statement; a step of it fails, none when empty */
    int nth = 1;             /* which of these steps */
    std::function<void(const char *sql)> before_step; /* called for each step */
    bool no_transaction = false;                      /* BEGIN has had no effect */
    bool unreadable = false; /* a stream says that reading or writing has failed */
};

extern import_faults g_import_faults;

#endif
