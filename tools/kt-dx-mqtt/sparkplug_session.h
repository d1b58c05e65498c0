#ifndef KT_DX_MQTT_SPARKPLUG_SESSION_H
#define KT_DX_MQTT_SPARKPLUG_SESSION_H

#include "broker.h"
#include "settings.h"
#include "sparkplug.h"
#include "statistics.h"
#include "tag_table.h"

#include <atomic>
#include <deque>
#include <functional>
#include <string>
#include <thread>

/**
 * The Sparkplug B edge node on a connection of its own ("<client_id>-sparkplug"), since a
 * connection has one last will and the node's death is one. With its thread ("mqtt-sparkplug") and
 * its table of tags it is independent of the other connection.
 */
class sparkplug_session : public broker_events {
public:
    using write_function = std::function<void(const std::string &tag, const std::string &value)>;

    sparkplug_session(const bridge_settings &settings,
                      bridge_statistics &statistics,
                      write_function write);
    ~sparkplug_session() override; // stops
    sparkplug_session(const sparkplug_session &) = delete;
    sparkplug_session &operator=(const sparkplug_session &) = delete;

    tag_table &table() { return table_; }
    void start();
    void ask_stop(); // stop() without waiting
    void stop();

    /** Tags may have changed. Any thread. */
    void wake() const;

    void connected() override;
    void disconnected() override;
    void received(std::string_view topic, std::string_view payload, bool retained) override;
    void sent(uint64_t token) override;
    broker_message will() override;

private:
    void run();
    void pass();
    void give_birth();
    bool take_tags();
    void send_pending();
    void farewell();

    bridge_settings settings_; // with the client id of this connection
    write_function write_;
    tag_table table_;
    sparkplug_node node_; // from here: the thread
    broker_ptr broker_;
    std::deque<sparkplug_message> pending_;
    bool birth_wanted_ = false;
    int64_t birth_at_ms_ = 0;
    int wake_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

#endif
