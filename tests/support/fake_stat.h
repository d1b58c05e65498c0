#ifndef KT_TESTS_FAKE_STAT_H
#define KT_TESTS_FAKE_STAT_H

/* stat() of the code that is linked into the test program, which can fail with EIO. One thread. */

struct fake_stat {
    bool fails = false;
};

extern fake_stat g_fake_stat;

#endif
