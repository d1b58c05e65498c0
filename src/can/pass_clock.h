#ifndef KT_CAN_PASS_CLOCK_H
#define KT_CAN_PASS_CLOCK_H

#include "device/clock.h"

#include <cstdint>

/**
 * sys_clock_ms() of a pass of the port loop: read when it is first needed, which it is not where
 * nothing is scheduled, and once for what is decided at one moment.
 */
class pass_clock {
public:
    pass_clock() = default;
    explicit pass_clock(uint32_t now_ms) : now_(now_ms), known_(true) {}

    uint32_t now() {
        if (!known_) {
            now_ = sys_clock_ms();
            known_ = true;
        }
        return now_;
    }

    /** Time may have passed: a call that sends or waits. */
    void forget() { known_ = false; }

private:
    uint32_t now_ = 0;
    bool known_ = false;
};

#endif
