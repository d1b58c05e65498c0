#ifndef KT_CORE_STATE_H
#define KT_CORE_STATE_H

#include <atomic>
#include <cstdint>
#include <string>

/*
 * Process-wide state.
 *
 * THREAD SAFETY: the two flags and the port count are relaxed atomics that any thread may read; the
 * port names are written before the first port thread starts and only read afterwards.
 */

struct can_module;

/** Set to 1 by the signal handler and by a fatal failure inside a pass; never reset. */
extern std::atomic<int32_t> g_stop_requested;

/** Ends the running pass when 1: set by apply and by the removal of a corrupt database. */
extern std::atomic<int32_t> can_proprietary_restart;

/** CAN interface names in port order, terminated by nullptr; owned by the service entry. */
extern char **g_can_port_list;

/** Number of names. Port indices run from 0, the ports of the configuration from 1. */
extern std::atomic<int32_t> g_can_port_count;

/** One record per port in port order, linked by next; owned by the service entry. */
extern can_module *g_can_module_list;

/** Name of the port with that index, nullptr when there is none. */
const char *can_port_name(int32_t port_index);

/** An absolute path with the prefix that KT_ROOT names; the path itself when it is unset. */
std::string rooted_path(const char *path);

inline bool stop_requested() {
    return g_stop_requested.load(std::memory_order_relaxed) != 0;
}

inline bool restart_requested() {
    return can_proprietary_restart.load(std::memory_order_relaxed) != 0;
}

#endif
