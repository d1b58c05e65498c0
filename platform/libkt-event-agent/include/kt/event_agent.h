#ifndef KT_EVENT_AGENT_H
#define KT_EVENT_AGENT_H

#ifdef __cplusplus
extern "C" {
#endif

struct event_handle;

/** Called by the agent for events addressed to this process. */
typedef void (*event_callback)(struct event_handle *handle, void *context);

/**
 * Connect to the event service.
 * @param callback  may be NULL
 * @param context   passed to the callback
 * @return handle, NULL when memory runs out; release with event_destroy()
 */
struct event_handle *event_create(event_callback callback, void *context);

/**
 * Report one event. Any thread; never blocks on another process.
 *
 * @param name     event name, e.g. "CAN Proprietary:CAN bus-off"
 * @param host     where it happened, e.g. "Host 192.168.1.2"
 * @param message  text for people
 * @retval  0  handed over
 * @retval -1  NULL argument, or the event could not be recorded anywhere
 */
int event_notify(struct event_handle *handle,
                 const char *name,
                 const char *host,
                 const char *message);

/** Release a handle; NULL is accepted. */
void event_destroy(struct event_handle *handle);

#ifdef __cplusplus
}
#endif

#endif
