#ifndef KT_DX_MQTT_LEFTOVERS_H
#define KT_DX_MQTT_LEFTOVERS_H

#include "broker.h"
#include "settings.h"
#include "statistics.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

/** A value that the broker has kept as it is published when its service is down; empty: no value.
 */
std::string outdated_payload(std::string_view payload);

/**
 * Values that the broker has kept from an earlier run of the bridge, which may say "good" of tags
 * that are there no more. Looked at once after the start, on a connection of its own, since the
 * subscription it needs would bring every set message a second time.
 *
 * THREAD SAFETY. One thread.
 */
class leftover_values : public broker_events {
public:
    explicit leftover_values(const bridge_settings &settings);
    leftover_values(const leftover_values &) = delete;
    leftover_values &operator=(const leftover_values &) = delete;

    /** Look on, without waiting. @return true when there is nothing more to be seen */
    bool look(int64_t now_ms);

    /**
     * Decide about each value that was found: forget it (nothing to do, or done) or keep it for the
     * next time.
     */
    void review(
        const std::function<bool(
            const std::string &topic, const std::string &tag, const std::string &payload)> &keep);

    bool empty() const { return found_.empty(); }

    void connected() override;
    void disconnected() override {}
    void received(std::string_view topic, std::string_view payload, bool retained) override;
    void sent(uint64_t) override {}
    broker_message will() override { return {}; }

private:
    struct value {
        std::string tag;
        std::string payload;
    };
    bridge_settings settings_;     // with the client id of this connection
    bridge_statistics statistics_; // of it, for nobody
    broker_ptr broker_;
    std::map<std::string, value> found_; // by topic
    uint64_t messages_ = 0;
    int64_t quiet_since_ms_ = 0;
    bool subscribed_ = false;
    bool done_ = false;
};

#endif
