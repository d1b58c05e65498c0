#ifndef KT_TESTS_STANDING_CLOCK_H
#define KT_TESTS_STANDING_CLOCK_H

/*
 * A clock that moves by nothing but the waiting of the code under test, so that a run depends on
 * its input alone and no wait takes time. In force while a standing_clock lives; the fuzzer's own
 * clock goes on. Calls of the system reach it by the linker's --wrap.
 */
class standing_clock {
public:
    standing_clock();
    ~standing_clock();
    standing_clock(const standing_clock &) = delete;
    standing_clock &operator=(const standing_clock &) = delete;
};

#endif
