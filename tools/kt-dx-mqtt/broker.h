#ifndef KT_DX_MQTT_BROKER_H
#define KT_DX_MQTT_BROKER_H

#include "settings.h"
#include "statistics.h"

#include <cstdint>
#include <memory>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/** What is sent; token comes back in broker_events::sent, 0 for nobody's. */
struct broker_message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
    uint64_t token = 0;
};

struct broker_events {
    virtual ~broker_events() = default;
    /** The broker has accepted the connection. */
    virtual void connected() = 0;
    /** The connection is gone with everything that was under way. */
    virtual void disconnected() = 0;
    virtual void received(std::string_view topic, std::string_view payload, bool retained) = 0;
    /** Acknowledged (QoS 1, 2) or handed to the network (QoS 0). */
    virtual void sent(uint64_t token) = 0;
    /** Asked before each attempt to connect. An empty topic is no will. */
    virtual broker_message will() = 0;
};

/**
 * One connection to a broker, made again with back-off for as long as the program runs. Each
 * attempt begins with a session that knows nothing: what was not acknowledged is the caller's to
 * send again, so an old value never comes after a newer one.
 *
 * THREAD SAFETY. One thread; the events come on it, from broker_run() only.
 */
struct broker;

struct close_broker {
    void operator()(broker *connection) const noexcept;
};
using broker_ptr = std::unique_ptr<broker, close_broker>;

/** Most messages under way; what comes later waits where a newer value can replace it. */
constexpr int broker_window = 64;

/** @param settings, statistics, events  must outlive the broker */
broker_ptr
broker_open(const bridge_settings &settings, bridge_statistics &statistics, broker_events &events);

bool broker_connected(const broker &connection);

/** Connected with room for one more message. */
bool broker_ready(const broker &connection);

/** @retval 0, or -1 when not ready or the message cannot be sent by this protocol (logged) */
int broker_publish(broker &connection, const broker_message &message);

/** @retval 0 or -1; the filters are gone with the connection */
int broker_subscribe(broker &connection, const std::vector<std::string> &filters, int qos);

/**
 * Wait until the network, one of the other descriptors or the time asks for work, and do the
 * network's part. Connects when it is time to.
 *
 * @param others  revents are set as by poll()
 */
void broker_run(broker &connection, std::span<pollfd> others, int timeout_ms);

/** Give the connection up and begin a new one at once: the will may have changed. */
void broker_restart(broker &connection);

/** Say good-bye, wait for the rest to be sent for at most limit_ms, and connect no more. */
void broker_finish(broker &connection, int limit_ms);

/** Delay before attempt number `attempt` (from 0), between least and most, with jitter 0..255. */
int64_t broker_delay_ms(int64_t least_ms, int64_t most_ms, unsigned attempt, uint8_t jitter);

#endif
