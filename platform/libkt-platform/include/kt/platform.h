#ifndef KT_PLATFORM_H
#define KT_PLATFORM_H

/*
 * CAN ports, termination resistors and LEDs of the gateway.
 *
 * THREAD SAFETY: every call may be made from any thread; a can_port handle belongs to one thread at
 * a time, a led handle may be shared.
 */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Names of the gateway's CAN interfaces, in the order in which the ports are numbered.
 *
 * @param selector  0: all CAN ports
 * @return NULL-terminated array; the caller frees each name, then the array, with free().
 *         NULL when memory or descriptors run out. A gateway without CAN ports gives an empty
 *         array.
 */
char **can_list(int selector);

/** Number of names in a list of can_list(); 0 for NULL. */
int can_get_number(char **list);

struct can_port;

/** Handle of the port of that interface name, NULL when there is none. Release with can_free(). */
struct can_port *can_get(const char *name);

/**
 * Switch the port's termination resistor.
 * @param state  0 off, anything else on
 * @retval  0  switched
 * @retval -1  the port has no switchable resistor, or the kernel refused; errno says why
 */
int can_set_termination_resistor_state(struct can_port *port, int state);

/** Release a handle of can_get(); NULL is accepted. */
void can_free(struct can_port *port);

/** LED states as the platform numbers them. */
enum led_platform_state { LED_OFF = 0, LED_GREEN = 1, LED_RED = 3, LED_BLINK = 4 };

struct led;

/** Handle of the service LED with that index, NULL when it cannot be had. Release with led_free().
 */
struct led *led_get(int index);

/** The state last set (led_platform_state), -1 for a NULL handle. */
int led_get_state(struct led *led);

/**
 * Set the LED.
 *
 * @param state      led_platform_state
 * @param count      LED_BLINK: flashes per period, else 0
 * @param on_ms      LED_BLINK: length of one flash in milliseconds, else 0
 * @param period_ms  LED_BLINK: length of a period in milliseconds, 0 for a period of 2 * on_ms
 * @retval  0  set
 * @retval -1  NULL handle, unknown state, or the device refused
 */
int led_set_state(struct led *led, int state, int count, int on_ms, int period_ms);

/** Release a handle of led_get(); NULL is accepted. The LED keeps its state. */
void led_free(struct led *led);

#ifdef __cplusplus
}
#endif

#endif
