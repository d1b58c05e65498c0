#include "guards.h"
#include "led_device.h"
#include "rooted.h"

#include <kt/platform.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <new>

struct led {
    int index;
    int state;             // guarded by led_mutex
    char device[PATH_MAX]; // folder of the LED class device; empty: state file
};

namespace {

std::mutex led_mutex; // one for all handles, of which several may stand for the same LED

struct state_name {
    int state;
    const char *name;
};

constexpr state_name states[] = {
    {LED_OFF, "off"},
    {LED_GREEN, "normal"},
    {LED_RED, "fault"},
    {LED_BLINK, "blinking"},
};

const char *name_of(int state) {
    for (const state_name &entry : states) {
        if (entry.state == state) {
            return entry.name;
        }
    }
    return nullptr;
}

int write_new_file(const char *path, const char *text) {
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const unique_fd file(open(path, flags, 0644));
    const auto length = static_cast<ssize_t>(strlen(text));
    return file && write(file.get(), text, static_cast<size_t>(length)) == length ? 0 : -1;
}

// For machines without a service LED: a file that a person can read.
int show_in_file(int index, const led_order &order) {
    char name[64];
    char text[128];
    (void)snprintf(name, sizeof name, "/run/kt-platform/led%d", index); // always fits
    const path_text path = rooted(name);
    (void)snprintf(name, sizeof name, "/run/kt-platform/.led%d.%d", index, getpid());
    const path_text temporary = rooted(name);
    (void)snprintf(text, // four numbers and a word: always fits
                   sizeof text,
                   "state %d (%s) count %d on_ms %d period_ms %d\n",
                   order.state,
                   name_of(order.state),
                   order.count,
                   order.on_ms,
                   order.period_ms);
    if (make_folders(rooted("/run/kt-platform").text) != 0) {
        return -1;
    }
    if (write_new_file(temporary.text, text) != 0 || rename(temporary.text, path.text) != 0) {
        const int reason = errno;
        (void)unlink(temporary.text); // may never have been made
        errno = reason;
        return -1;
    }
    return 0;
}

// Folder of the LED that KT_LED names, empty when it names none; false when it cannot be had.
bool find_device(char (&folder)[PATH_MAX]) {
    const char *name = getenv("KT_LED");
    folder[0] = '\0';
    if (!name || !*name) {
        return true;
    }
    const bool plain = !strchr(name, '/') && name[0] != '.' && strlen(name) <= NAME_MAX;
    if (plain) {
        (void)snprintf(folder, sizeof folder, "/sys/class/leds/%s", name); // length checked above
    }
    if (!plain || access(folder, F_OK) != 0) {
        (void)fprintf(stderr, "KT_LED: no LED '%.64s' in /sys/class/leds\n", name);
        return false;
    }
    return true;
}

} // namespace

struct led *led_get(int index) {
    if (index < 0) {
        return nullptr;
    }
    std::unique_ptr<led> made(new (std::nothrow) led{index, LED_OFF, ""});
    return made && find_device(made->device) ? made.release() : nullptr;
}

int led_get_state(struct led *led) {
    if (!led) {
        return -1;
    }
    const std::lock_guard guard(led_mutex);
    return led->state;
}

int led_set_state(struct led *led, int state, int count, int on_ms, int period_ms) {
    const bool blink_refused = state == LED_BLINK && (count < 1 || on_ms < 1 || period_ms < 0);
    if (!led || !name_of(state) || blink_refused) {
        errno = EINVAL;
        return -1;
    }
    const led_order order = {state, count, on_ms, period_ms};
    const std::lock_guard guard(led_mutex);
    const int result =
        led->device[0] ? show_on_led_device(led->device, order) : show_in_file(led->index, order);
    led->state = result == 0 ? state : led->state;
    return result;
}

void led_free(struct led *led) {
    delete led;
}
