#include "fake_led.h"

#include <kt/platform.h>

struct led {
    int index;
};

fake_led g_fake_led;

namespace {

led the_led;

void note(const led *handle, const std::string &call) {
    g_fake_led.calls.push_back(handle == nullptr ? call + " (null)" : call);
}

} // namespace

extern "C" {

led *led_get(int index) {
    note(&the_led, "get " + std::to_string(index));
    return g_fake_led.missing ? nullptr : &the_led;
}

int led_get_state(led *handle) {
    return handle == nullptr ? -1 : g_fake_led.state;
}

int led_set_state(led *handle, int state, int count, int on_ms, int period_ms) {
    note(handle,
         "set " + std::to_string(state) + " " + std::to_string(count) + " " +
             std::to_string(on_ms) + " " + std::to_string(period_ms));
    if (handle == nullptr) {
        return -1;
    }
    g_fake_led.state = state;
    return 0;
}

void led_free(led *handle) {
    note(handle, "free");
}

} // extern "C"
