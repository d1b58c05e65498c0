#ifndef KT_DEVICE_EVENT_H
#define KT_DEVICE_EVENT_H

/*
 * Events to the gateway's event service.
 *
 * THREAD SAFETY: creation and destruction belong to the main thread; senders may be any thread.
 */

/** Connect to the event service. A failure is not reported: each sender tries again. */
void can_proprietary_event_create();
void can_proprietary_event_destroy();

void can_proprietary_event_error_passive();
void can_proprietary_event_bus_off();
void can_proprietary_event_transaction_success(const char *device_name,
                                               const char *transaction_name);
void can_proprietary_event_transaction_failed(const char *device_name,
                                              const char *transaction_name);
void can_proprietary_event_transaction_timeout(const char *device_name,
                                               const char *transaction_name);

#endif
