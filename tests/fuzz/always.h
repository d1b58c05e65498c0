#ifndef KT_TESTS_ALWAYS_H
#define KT_TESTS_ALWAYS_H

/** End the run with a finding when something that always holds does not. */
#define KT_ALWAYS(condition)                                                                       \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            finding(#condition, __FILE__, __LINE__);                                               \
        }                                                                                          \
    } while (false)

[[noreturn]] void finding(const char *condition, const char *file, int line);

/** Log lines and output are formatted and thrown away from here on. */
void silence_the_log();

#endif
