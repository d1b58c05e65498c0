#ifndef KT_TESTS_RAISED_KEYS_H
#define KT_TESTS_RAISED_KEYS_H

/** Keys that a rule of the schema may raise, in the order in which they are searched. */
inline constexpr const char *raised_keys[] = {"missing-necessary-parameter",
                                              "column-name-failed",
                                              "duplicate-name",
                                              "invalid-name",
                                              "syntax-err",
                                              "invalid-val",
                                              "tagsize-exceeds-limit",
                                              "invalid-frame"};

#endif
