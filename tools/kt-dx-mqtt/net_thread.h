#ifndef KT_DX_MQTT_NET_THREAD_H
#define KT_DX_MQTT_NET_THREAD_H

#include <atomic>
#include <thread>

/*
 * What the threads that own a connection have in common: a descriptor that wakes them, and an end
 * that does not wait for a broker that is being looked for.
 */

/** An event descriptor. Throws std::system_error when there is none to be had. */
int make_wake_descriptor();

/** Any thread; never waits. */
void wake_descriptor(int fd);

/** Take the wake-ups so far. */
void drain_descriptor(int fd);

/**
 * Join a thread that was asked to stop and says when it has ended. A connection attempt is
 * interrupted; the look-up of a name cannot be, and ends the process with 0 after a while.
 */
void join_net_thread(std::thread &thread, const std::atomic<bool> &ended);

constexpr int farewell_ms = 2000; // for what is under way at the end

#endif
