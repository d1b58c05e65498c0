#ifndef KT_DX_MQTT_STORE_WATCH_H
#define KT_DX_MQTT_STORE_WATCH_H

#include "statistics.h"
#include "tag_table.h"

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

/**
 * Keeps the tag table like the tag store, on a thread of its own ("mqtt-store") with a client of
 * its own. Looks at changes at most once in store_pace_ms, so a provider that commits without pause
 * makes at most one wake-up in that time.
 *
 * A missing or refused store is tried again; a store whose file was removed is used on while its
 * provider lives and no other file is there.
 */
struct store_watch {
    std::vector<tag_table *> tables; // each is kept alike
    bridge_statistics *statistics = nullptr;
    std::function<void()> changed; // something may have to be published; called on the thread
    std::atomic<bool> stop{false};
    std::thread thread;
};

constexpr int store_pace_ms = 10;

/** Both never fail except by std::system_error when the thread cannot be made. */
void store_watch_start(store_watch &watch);

/** Returns within half a second. */
void store_watch_stop(store_watch &watch);

#endif
