#ifndef KT_DX_MQTT_SPARKPLUG_H
#define KT_DX_MQTT_SPARKPLUG_H

#include "settings.h"
#include "tag_table.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/*
 * The gateway as an edge node of Sparkplug B: what to publish when, without any input or output.
 *
 * A tag "can_proprietary/<device>/<rest>" is the metric <rest> of the device <device>; any other
 * tag is a metric of the node, with its whole name. A device is born while at least one of its
 * metrics besides "status" is not bad, or while it has none besides; else it is dead, and nothing
 * is said about it but its death.
 *
 * THREAD SAFETY. A node belongs to one thread at a time. Messages are to be sent in the order in
 * which they came, none left out: hosts ask for a rebirth when a seq is missing.
 */

struct sparkplug_message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
};
using sparkplug_messages = std::vector<sparkplug_message>;

struct sparkplug_metric {
    tag_snapshot tag;
    std::string name;   // within its device or the node
    uint64_t alias = 0; // within the node; stays for as long as the node lives
};

struct sparkplug_device {
    std::map<std::string, sparkplug_metric> metrics; // by tag name
    bool born = false;
};

struct sparkplug_node {
    std::string group_id;
    std::string node_id;
    std::map<std::string, sparkplug_device> devices; // by device id; "" holds the node's own
    std::map<uint64_t, std::string> tags_by_alias;
    uint64_t next_alias = 1;
    std::map<std::string, std::string> places; // tag name -> device id
    uint64_t bd_seq = 0;                       // of the session whose will is with the broker
    uint64_t next_bd_seq = 0;
    uint8_t seq = 0; // of the next message
    bool connected = false;
};

/** A node that was never connected. bd_seq: of the first session, 0 to 255. */
void sparkplug_start(sparkplug_node &node, const bridge_settings &settings, uint64_t bd_seq);

/** Filters of commands to the node and to its devices, to be subscribed to with QoS 1. */
std::vector<std::string> sparkplug_filters(const sparkplug_node &node);

/**
 * The last will of the next session: to be registered before every attempt to connect, since every
 * session has a bdSeq of its own.
 */
sparkplug_message sparkplug_will(sparkplug_node &node, int64_t now_ms);

/** The connection stands and the commands are subscribed to: births of the node and its devices. */
void sparkplug_connected(sparkplug_node &node, int64_t now_ms, sparkplug_messages &out);

/** The connection is gone: updates are kept and not said until sparkplug_connected(). */
void sparkplug_disconnected(sparkplug_node &node);

/**
 * Tags that are new, were written, changed their quality, or were removed. Adds the data messages,
 * or the birth or death of a device, when connected.
 */
void sparkplug_update(sparkplug_node &node,
                      std::span<const tag_snapshot> tags,
                      int64_t now_ms,
                      sparkplug_messages &out);

/** The node's death, to be sent before an orderly disconnection: the broker drops the will. */
sparkplug_message sparkplug_death(const sparkplug_node &node, int64_t now_ms);

/** A write that a command asks for. */
struct sparkplug_write {
    std::string tag;
    std::string value; // text as value_bytes() takes it
};

struct sparkplug_command {
    bool rebirth = false; // call sparkplug_connected() again
    std::vector<sparkplug_write> writes;
    std::vector<std::string> refused; // one reason for people each, for the log
};

/**
 * Read a command.
 *
 * @return false when the topic is no command to this node or one of its devices, so that another
 *         reader may take it
 */
bool sparkplug_read_command(const sparkplug_node &node,
                            std::string_view topic,
                            std::string_view payload,
                            sparkplug_command &command);

#endif
