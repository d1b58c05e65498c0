#ifndef KT_PLATFORM_LED_DEVICE_H
#define KT_PLATFORM_LED_DEVICE_H

/** What led_set_state() was asked for. */
struct led_order {
    int state; // led_platform_state
    int count; // flashes per period, at least 1
    int on_ms; // at least 1
    int period_ms;
};

/**
 * Show a state on a LED class device. A LED with a red and a green element lights the one that the
 * state is named after and blinks red; on a LED of one colour, normal and fault look the same.
 * Flashes are spread evenly over the period, since the kernel's timer knows no groups.
 *
 * @param device  its folder, e.g. /sys/class/leds/service
 * @return 0, or -1 with errno
 */
int show_on_led_device(const char *device, const led_order &order);

#endif
