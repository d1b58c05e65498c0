#include "always.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

void finding(const char *condition, const char *file, int line) {
    (void)dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", file, line, condition);
    abort();
}

void silence_the_log() {
    FILE *nowhere = fopen("/dev/null", "we");
    if (nowhere != nullptr) {
        stdout = nowhere;
        stderr = nowhere; // the fuzzer took its own before
    }
}

/*
 * SQLite allocates much and is not what is looked for, so freed memory is kept briefly; leaks and
 * bounds are watched as ever.
 */
extern "C" const char *__asan_default_options() {
    return "quarantine_size_mb=8:malloc_context_size=6:max_malloc_fill_size=0";
}
