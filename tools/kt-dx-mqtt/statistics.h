#ifndef KT_DX_MQTT_STATISTICS_H
#define KT_DX_MQTT_STATISTICS_H

#include <atomic>
#include <cstdint>

/** Counters since the start of the program, for people and dashboards. Relaxed: each for itself. */
struct bridge_statistics {
    std::atomic<uint64_t> changes{0};     // tag changes seen in the store
    std::atomic<uint64_t> published{0};   // messages handed to the broker
    std::atomic<uint64_t> connects{0};    // connections that the broker accepted
    std::atomic<uint64_t> disconnects{0}; // connections lost
    std::atomic<uint64_t> refused{0};     // connections that the broker refused or never made
    std::atomic<uint64_t> writes_accepted{0};
    std::atomic<uint64_t> writes_refused{0};
    std::atomic<uint64_t> writes_superseded{0};
    std::atomic<uint64_t> writes_dropped{0};  // refused because the queue was full
    std::atomic<uint64_t> results_dropped{0}; // outcomes that found no room while offline
    std::atomic<uint64_t> events_dropped{0};
    std::atomic<uint64_t> store_opens{0};    // times that the tag store was opened
    std::atomic<uint64_t> store_refusals{0}; // looks at a file that is no store
};

inline void count(std::atomic<uint64_t> &counter, uint64_t number = 1) {
    (void)counter.fetch_add(number, std::memory_order_relaxed);
}

#endif
