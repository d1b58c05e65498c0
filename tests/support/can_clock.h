#ifndef KT_TESTS_CAN_CLOCK_H
#define KT_TESTS_CAN_CLOCK_H

#include <cstdint>
#include <functional>

/* A clock that stands until a test moves it. Takes the place of the service's clock library. */

void can_clock_set(uint32_t now_ms);
void can_clock_advance(uint32_t ms);

/** How much of its millisecond has passed; can_clock_set() begins one. */
void can_clock_set_us_passed(uint32_t us);

uint32_t can_clock_now();

/** Called at every reading before its value is taken; an empty function for none. */
void can_clock_on_read(std::function<void()> hook);

#endif
