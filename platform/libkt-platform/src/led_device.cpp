#include "led_device.h"

#include "guards.h"

#include <kt/platform.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>

namespace {

// The attribute opened, or an empty guard with errno.
unique_fd open_attribute(const char *device, const char *name, int mode) {
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof path, "%s/%s", device, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        errno = ENAMETOOLONG;
        return unique_fd();
    }
    return unique_fd(open(path, mode | O_CLOEXEC));
}

int set_attribute(const char *device, const char *name, std::string_view text) {
    const unique_fd file = open_attribute(device, name, O_WRONLY | O_TRUNC);
    return file && write(file.get(), text.data(), text.size()) >= 0 ? 0 : -1;
}

int set_attribute(const char *device, const char *name, int number) {
    char text[16];
    const int length = snprintf(text, sizeof text, "%d", number);
    return set_attribute(device, name, std::string_view(text, static_cast<size_t>(length)));
}

// Text of an attribute, empty when it cannot be read.
template <size_t Size>
std::string_view get_attribute(const char *device, const char *name, char (&buffer)[Size]) {
    const unique_fd file = open_attribute(device, name, O_RDONLY);
    const ssize_t got = file ? read(file.get(), buffer, Size - 1) : -1;
    buffer[got > 0 ? got : 0] = '\0';
    return buffer;
}

int full_brightness(const char *device) {
    char text[32];
    (void)get_attribute(device, "max_brightness", text);
    const long value = strtol(text, nullptr, 10);
    return value > 0 && value <= INT_MAX ? static_cast<int>(value) : 255;
}

// Sets the share of each colour; a LED that has no colours to choose from is left alone.
int set_colour(const char *device, int state) {
    char buffer[128];
    const std::string_view names = get_attribute(device, "multi_index", buffer);
    const std::string_view wanted = state == LED_GREEN ? "green" : "red";
    char shares[2 * sizeof buffer] = ""; // no share is longer than twice its name
    size_t used = 0;
    for (size_t at = 0; (at = names.find_first_not_of(" \n", at)) != names.npos;) {
        const size_t end = std::min(names.find_first_of(" \n", at), names.size());
        const bool lit = names.substr(at, end - at) == wanted;
        const int length = snprintf(shares + used, sizeof shares - used, lit ? "255 " : "0 ");
        used += static_cast<size_t>(length);
        at = end;
    }
    return used == 0 ? 0 : set_attribute(device, "multi_intensity", {shares, used});
}

} // namespace

int show_on_led_device(const char *device, const led_order &order) {
    if (order.state == LED_OFF) {
        return set_attribute(device, "trigger", "none") == 0
                   ? set_attribute(device, "brightness", 0)
                   : -1;
    }
    if (set_colour(device, order.state) != 0) {
        return -1;
    }
    if (order.state != LED_BLINK) {
        return set_attribute(device, "trigger", "none") == 0
                   ? set_attribute(device, "brightness", full_brightness(device))
                   : -1;
    }
    const int flash_ms = order.period_ms > 0 ? order.period_ms / order.count : 0;
    const int off_ms = order.period_ms > 0 ? std::max(flash_ms - order.on_ms, 1) : order.on_ms;
    // The delays exist only once the trigger has been chosen.
    const bool shown = set_attribute(device, "trigger", "timer") == 0 &&
                       set_attribute(device, "delay_on", order.on_ms) == 0 &&
                       set_attribute(device, "delay_off", off_ms) == 0;
    return shown ? 0 : -1;
}
