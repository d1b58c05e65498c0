#include "sparkplug.h"

#include "sparkplug_payload.h"
#include "topic.h"

#include <algorithm>
#include <set>
#include <utility>

namespace {

constexpr std::string_view name_space = "spBv1.0";
constexpr std::string_view service_prefix = "can_proprietary/";
constexpr std::string_view status_metric = "status";
constexpr char rebirth_metric[] = "Node Control/Rebirth";
constexpr char bd_seq_metric[] = "bdSeq";
constexpr size_t command_max_bytes = 65536;
constexpr uint64_t seq_count = 256;

std::string topic_of(const sparkplug_node &node, const char *kind, const std::string &device) {
    std::string topic =
        std::string(name_space) + "/" + node.group_id + "/" + kind + "/" + node.node_id;
    return device.empty() ? topic : topic + "/" + device;
}

/** Device ids are one level of a topic. */
std::string device_id(std::string_view name) {
    std::string id;
    for (const char c : encode_tag_name(name)) {
        id += c == '/' ? "%2F" : std::string(1, c);
    }
    return id;
}

struct place {
    std::string device; // id, empty for the node's own
    std::string metric;
};

place place_of(const tag_snapshot &tag) {
    std::string_view rest = tag.name;
    if (rest.substr(0, service_prefix.size()) != service_prefix) {
        return {"", encode_tag_name(tag.name)};
    }
    rest.remove_prefix(service_prefix.size());
    // A device name may hold slashes; who knows it says so.
    const bool known = !tag.device.empty() && rest.size() > tag.device.size() + 1 &&
                       rest.substr(0, tag.device.size()) == tag.device &&
                       rest[tag.device.size()] == '/';
    const size_t slash = known ? tag.device.size() : rest.find('/');
    if (slash == 0 || slash == std::string_view::npos || slash + 1 == rest.size()) {
        return {"", encode_tag_name(tag.name)};
    }
    return {device_id(rest.substr(0, slash)), encode_tag_name(rest.substr(slash + 1))};
}

bool lives(const sparkplug_device &device) {
    bool others = false;
    bool status_good = false;
    for (const auto &[name, metric] : device.metrics) {
        const bool good = metric.tag.quality.grade != quality::bad;
        if (metric.name == status_metric) {
            status_good = good;
        } else if (good) {
            return true;
        } else {
            others = true;
        }
    }
    return !others && status_good;
}

uint8_t take_seq(sparkplug_node &node) {
    return node.seq++; // 255 is followed by 0
}

void birth_device(sparkplug_node &node,
                  const std::string &id,
                  sparkplug_device &device,
                  int64_t now_ms,
                  sparkplug_messages &out) {
    payload_writer payload(now_ms);
    payload.set_seq(take_seq(node));
    for (const auto &[name, metric] : device.metrics) {
        payload.add_tag(metric, birth_metric);
    }
    device.born = true;
    out.push_back({topic_of(node, "DBIRTH", id), payload.bytes()});
}

void kill_device(sparkplug_node &node,
                 const std::string &id,
                 sparkplug_device &device,
                 int64_t now_ms,
                 sparkplug_messages &out) {
    payload_writer payload(now_ms);
    payload.set_seq(take_seq(node));
    device.born = false;
    out.push_back({topic_of(node, "DDEATH", id), payload.bytes()});
}

void birth_node(sparkplug_node &node, int64_t now_ms, sparkplug_messages &out) {
    node.seq = 0;
    payload_writer payload(now_ms);
    payload.set_seq(take_seq(node));
    payload.add_integer(bd_seq_metric, node.bd_seq);
    payload.add_switch(rebirth_metric, false);
    for (const auto &[name, metric] : node.devices[""].metrics) {
        payload.add_tag(metric, birth_metric);
    }
    out.push_back({topic_of(node, "NBIRTH", ""), payload.bytes()});
}

/** What a round of updates did to one device. */
struct device_news {
    bool reshaped = false; // metrics came or went
    std::vector<std::string> changed_tags;
};
using news_map = std::map<std::string, device_news>;

void forget_tag(sparkplug_node &node, const std::string &tag, news_map &news) {
    const auto at = node.places.find(tag);
    if (at == node.places.end()) {
        return;
    }
    sparkplug_device &device = node.devices[at->second];
    const auto metric = device.metrics.find(tag);
    node.tags_by_alias.erase(metric->second.alias);
    device.metrics.erase(metric);
    news[at->second].reshaped = true;
    node.places.erase(at);
}

void add_tag(sparkplug_node &node, const tag_snapshot &tag, place &&where, news_map &news) {
    const uint64_t alias = node.next_alias++;
    node.tags_by_alias[alias] = tag.name;
    node.devices[where.device].metrics[tag.name] = {tag, std::move(where.metric), alias};
    news[where.device].reshaped = true;
    node.places[tag.name] = std::move(where.device);
}

void take_tag(sparkplug_node &node, const tag_snapshot &tag, news_map &news) {
    if (tag.removed) {
        forget_tag(node, tag.name, news);
        return;
    }
    place where = place_of(tag);
    const auto at = node.places.find(tag.name);
    if (at != node.places.end() && at->second == where.device) {
        sparkplug_metric &metric = node.devices[where.device].metrics[tag.name];
        device_news &told = news[where.device];
        told.reshaped |= metric.tag.type != tag.type || metric.tag.size != tag.size;
        told.changed_tags.push_back(tag.name);
        metric.tag = tag;
        return;
    }
    forget_tag(node, tag.name, news);
    add_tag(node, tag, std::move(where), news);
}

void tell_data(sparkplug_node &node,
               const std::string &id,
               const sparkplug_device &device,
               const device_news &news,
               int64_t now_ms,
               sparkplug_messages &out) {
    if (news.changed_tags.empty()) {
        return;
    }
    payload_writer payload(now_ms);
    payload.set_seq(take_seq(node));
    for (const std::string &tag : news.changed_tags) {
        const auto metric = device.metrics.find(tag);
        if (metric != device.metrics.end()) {
            payload.add_tag(metric->second, data_metric);
        }
    }
    out.push_back({topic_of(node, id.empty() ? "NDATA" : "DDATA", id), payload.bytes()});
}

void tell_device(sparkplug_node &node,
                 const std::string &id,
                 const device_news &news,
                 int64_t now_ms,
                 sparkplug_messages &out) {
    sparkplug_device &device = node.devices[id];
    const bool is_node = id.empty();
    if (!is_node && !lives(device)) {
        if (device.born) {
            kill_device(node, id, device, now_ms, out);
        }
    } else if (!is_node && (!device.born || news.reshaped)) {
        birth_device(node, id, device, now_ms, out);
    } else {
        tell_data(node, id, device, news, now_ms, out);
    }
}

bool is_command(const sparkplug_node &node, std::string_view topic, std::string &device) {
    if (topic == topic_of(node, "NCMD", "")) {
        device.clear();
        return true;
    }
    const std::string start = topic_of(node, "DCMD", "") + "/";
    if (topic.substr(0, start.size()) != start) {
        return false;
    }
    device = topic.substr(start.size());
    return true;
}

const sparkplug_metric *find_metric(const sparkplug_device &device,
                                    const sparkplug_node &node,
                                    const command_metric &wanted) {
    if (wanted.alias) {
        const auto tag = node.tags_by_alias.find(*wanted.alias);
        const auto metric = tag == node.tags_by_alias.end() ? device.metrics.end()
                                                            : device.metrics.find(tag->second);
        return metric == device.metrics.end() ? nullptr : &metric->second;
    }
    const auto metric =
        std::find_if(device.metrics.begin(), device.metrics.end(), [&wanted](const auto &entry) {
            return entry.second.name == wanted.name;
        });
    return metric == device.metrics.end() ? nullptr : &metric->second;
}

std::string metric_text(const command_metric &metric) {
    return metric.alias ? "alias " + std::to_string(*metric.alias) : "metric " + metric.name;
}

} // namespace

void sparkplug_start(sparkplug_node &node, const bridge_settings &settings, uint64_t bd_seq) {
    node = {};
    node.group_id = settings.sparkplug_group;
    node.node_id = settings.sparkplug_node;
    node.next_bd_seq = bd_seq % seq_count;
}

std::vector<std::string> sparkplug_filters(const sparkplug_node &node) {
    return {topic_of(node, "NCMD", ""), topic_of(node, "DCMD", "") + "/+"};
}

sparkplug_message sparkplug_will(sparkplug_node &node, int64_t now_ms) {
    node.bd_seq = node.next_bd_seq;
    node.next_bd_seq = (node.next_bd_seq + 1) % seq_count;
    return sparkplug_death(node, now_ms);
}

void sparkplug_connected(sparkplug_node &node, int64_t now_ms, sparkplug_messages &out) {
    node.connected = true;
    birth_node(node, now_ms, out);
    for (auto &[id, device] : node.devices) {
        device.born = false;
        if (!id.empty() && lives(device)) {
            birth_device(node, id, device, now_ms, out);
        }
    }
}

void sparkplug_disconnected(sparkplug_node &node) {
    node.connected = false;
    for (auto &[id, device] : node.devices) {
        device.born = false;
    }
}

void sparkplug_update(sparkplug_node &node,
                      std::span<const tag_snapshot> tags,
                      int64_t now_ms,
                      sparkplug_messages &out) {
    news_map news;
    for (const tag_snapshot &tag : tags) {
        take_tag(node, tag, news);
    }
    const auto own = news.find("");
    if (node.connected && own != news.end() && own->second.reshaped) {
        sparkplug_connected(node, now_ms, out);
    } else if (node.connected) {
        for (const auto &[id, told] : news) {
            tell_device(node, id, told, now_ms, out);
        }
    }
    for (const auto &[id, told] : news) {
        if (node.devices[id].metrics.empty()) {
            node.devices.erase(id);
        }
    }
}

sparkplug_message sparkplug_death(const sparkplug_node &node, int64_t now_ms) {
    payload_writer payload(now_ms);
    payload.add_integer(bd_seq_metric, node.bd_seq);
    return {topic_of(node, "NDEATH", ""), payload.bytes(), 1, false};
}

bool sparkplug_read_command(const sparkplug_node &node,
                            std::string_view topic,
                            std::string_view payload,
                            sparkplug_command &command) {
    std::string device;
    if (!is_command(node, topic, device)) {
        return false;
    }
    std::vector<command_metric> metrics;
    if (payload.size() > command_max_bytes || !read_command_payload(payload, metrics)) {
        command.refused.emplace_back("a command that is no payload of Sparkplug B");
        return true;
    }
    const auto owner = node.devices.find(device);
    for (const command_metric &metric : metrics) {
        if (device.empty() && metric.name == rebirth_metric) {
            command.rebirth |= metric.boolean;
            continue;
        }
        const sparkplug_metric *known =
            owner == node.devices.end() ? nullptr : find_metric(owner->second, node, metric);
        std::string value;
        if (!known) {
            command.refused.push_back(metric_text(metric) + ": unknown");
        } else if (!command_value(metric, known->tag.type, value)) {
            command.refused.push_back(metric_text(metric) + ": holds no value");
        } else {
            command.writes.push_back({known->tag.name, value});
        }
    }
    return true;
}
