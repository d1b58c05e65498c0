#include "can_clock.h"

#include "device/clock.h"

#include <atomic>
#include <utility>

namespace {

std::atomic<uint32_t> current{0};
std::atomic<uint32_t> us_passed{0};
std::function<void()> on_read;

} // namespace

void can_clock_set(uint32_t now_ms) {
    current = now_ms;
    us_passed = 0;
}

void can_clock_advance(uint32_t ms) {
    current += ms;
}

uint32_t can_clock_now() {
    return current;
}

void can_clock_on_read(std::function<void()> hook) {
    on_read = std::move(hook);
}

void can_clock_set_us_passed(uint32_t us) {
    us_passed = us;
}

clock_reading sys_clock_read() {
    if (on_read) {
        on_read();
    }
    return {current, us_passed};
}

uint32_t sys_clock_ms() {
    return sys_clock_read().ms;
}

int64_t get_timestamp() {
    return static_cast<int64_t>(current) * 1000;
}
