#ifndef KT_TESTS_FAKE_LED_H
#define KT_TESTS_FAKE_LED_H

#include <string>
#include <vector>

/* The platform's LED calls. One thread. */

struct fake_led {
    bool missing = false; /* led_get() gives nothing */
    int state = -1;       /* what led_get_state() shows */
    std::vector<std::string> calls;

    /** Calls since the last take, e.g. "get 3", "set 4 1 1000 0", "free"; "(null)" without handle.
     */
    std::vector<std::string> take() {
        std::vector<std::string> taken;
        taken.swap(calls);
        return taken;
    }
};

extern fake_led g_fake_led;

#endif
