#ifndef KT_DEVICE_LED_H
#define KT_DEVICE_LED_H

/*
 * The service LED: the worst condition of all ports.
 *
 * THREAD SAFETY: init and release belong to the main thread while no port thread runs; set and
 * update may be called by any port thread.
 */

struct diag_record;

enum led_state {
    LED_NORMAL = 0,
    LED_BUS_OFF = 1,
    LED_ERROR_PASSIVE = 2,
    LED_TRANSACTION_PROBLEM = 3 /* a bus problem outranks it */
};

/** Take the LED and switch it off. */
void can_proprietary_led_init();

/** Switch the LED off and give it back. */
void can_proprietary_led_release();

/** Show a condition; nothing without an LED. */
void can_proprietary_led_set(int state);

/** Show whether any enabled transaction of the record last failed, unless the bus has a problem. */
void can_proprietary_led_update(const diag_record *record);

#endif
