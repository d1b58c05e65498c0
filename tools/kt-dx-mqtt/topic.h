#ifndef KT_DX_MQTT_TOPIC_H
#define KT_DX_MQTT_TOPIC_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/*
 * <prefix>/tags/<tag name>          value, retained
 * <prefix>/tags/<tag name>/set      what to write
 * <prefix>/tags/<tag name>/result   what became of it
 * <prefix>/status                   online or offline, retained, last will
 * <prefix>/events                   events of the service
 * <prefix>/diagnostics/<port>       of a CAN port, from 1; retained
 * <prefix>/statistics               of the bridge; retained
 *
 * A tag name stands as it is but for what a topic cannot hold or what would be mistaken: "%", "+",
 * "#", control characters, non-characters and bytes that are no UTF-8 are percent-encoded byte for
 * byte; so is each "/" after the first topic_levels_max - 1, and the first letter of a last level
 * that reads "set" or "result".
 */

constexpr size_t topic_levels_max = 16; // of a tag name; one filter subscribes to one depth

std::string encode_tag_name(std::string_view name);

/** @return false for what no tag name can be: malformed escapes, a zero byte, empty, too long */
bool decode_tag_name(std::string_view text, std::string &name);

std::string value_topic(std::string_view prefix, std::string_view name);
std::string result_topic(std::string_view prefix, std::string_view name);
std::string status_topic(std::string_view prefix);
std::string events_topic(std::string_view prefix);
std::string diagnostics_topic(std::string_view prefix, int port);
std::string statistics_topic(std::string_view prefix);

/** Filters that together match the set topics of all tags and nothing that the bridge publishes. */
std::vector<std::string> set_filters(std::string_view prefix);

/** Filter that matches the value topics of all tags, and their set and result topics. */
std::string values_filter(std::string_view prefix);

/** @return false when the topic is no value topic of a possible tag name */
bool parse_value_topic(std::string_view prefix, std::string_view topic, std::string &name);

/** @return false when the topic is no set topic of a possible tag name */
bool parse_set_topic(std::string_view prefix, std::string_view topic, std::string &name);

#endif
