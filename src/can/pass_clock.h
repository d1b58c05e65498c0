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
    explicit pass_clock(uint32_t now_ms) : now_{now_ms, 0}, known_(true) {}

    uint32_t now() {
        if (!known_) {
            now_ = sys_clock_read();
            known_ = true;
        }
        return now_.ms;
    }

    [[nodiscard]] bool is_known() const { return known_; }

    /** Of the millisecond that now() gave. */
    [[nodiscard]] uint32_t us_passed() const { return now_.us_passed; }

    /** Time may have passed: a call that sends or waits. */
    void forget() { known_ = false; }

private:
    clock_reading now_{};
    bool known_ = false;
};

#endif
