#ifndef KT_DX_MQTT_OUTBOX_H
#define KT_DX_MQTT_OUTBOX_H

#include "broker.h"
#include "statistics.h"

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

/**
 * Messages other than values on their way to the broker: results and events in the order in which
 * they came, each kept until it was acknowledged and sent again by the next connection; and states,
 * of which only the latest of a topic counts. When a queue is full its oldest message that is not
 * under way is dropped and counted.
 *
 * THREAD SAFETY. All calls from any thread.
 */
class outbox {
public:
    outbox(size_t results_max, size_t events_max, bridge_statistics &statistics);

    void add_result(broker_message message);
    void add_event(broker_message message);
    void set_state(broker_message message);

    /** The next message with a token for sent(): results, then states, then events. */
    std::optional<broker_message> take();

    /** Acknowledged: forgotten. */
    void sent(uint64_t token);

    /** It could not be handed over. again: it can be tried later, else it is forgotten. */
    void not_sent(uint64_t token, bool connected);

    /** The connection is gone: what was under way is to be taken again. */
    void nothing_sent();

    size_t size() const;

private:
    struct entry {
        broker_message message;
        bool under_way = false;
    };
    using queue = std::deque<entry>;

    void add(queue &to, size_t most, broker_message message, std::atomic<uint64_t> &dropped);
    static std::optional<broker_message> take_from(queue &from);
    static bool forget(queue &from, uint64_t token);

    const size_t results_max_;
    const size_t events_max_;
    bridge_statistics &statistics_;
    mutable std::mutex mutex_; // guards all below
    queue results_;
    queue events_;
    std::map<std::string, entry> states_; // by topic
    uint64_t next_token_ = 1;
};

#endif
