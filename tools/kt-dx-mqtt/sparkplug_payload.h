#ifndef KT_DX_MQTT_SPARKPLUG_PAYLOAD_H
#define KT_DX_MQTT_SPARKPLUG_PAYLOAD_H

#include "sparkplug.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/** A birth says names and types; data says aliases. */
enum metric_kind { birth_metric, data_metric };

/** Builds one payload. */
class payload_writer {
public:
    explicit payload_writer(int64_t now_ms);
    ~payload_writer();
    payload_writer(const payload_writer &) = delete;
    payload_writer &operator=(const payload_writer &) = delete;

    void set_seq(uint8_t seq);
    void add_integer(const char *name, uint64_t value);
    void add_switch(const char *name, bool value);

    /**
     * A tag with its quality as a property: 192 good, 0 bad, 500 stale. A value that nobody has
     * received or set yet is null. The metric must live as long as the writer.
     */
    void add_tag(const sparkplug_metric &metric, metric_kind kind);

    std::string bytes();

private:
    struct parts;
    std::unique_ptr<parts> parts_;
};

/** A metric of a command; which of the value members counts is told by value_in. */
struct command_metric {
    enum class holds { nothing, integer, long_integer, real, single, boolean, text, bytes };

    std::string name;
    std::optional<uint64_t> alias;
    holds value_in = holds::nothing;
    uint64_t integer = 0;
    double real = 0;
    bool boolean = false;
    std::string text; // or bytes
};

/** @return false when the bytes are no payload */
bool read_command_payload(std::string_view bytes, std::vector<command_metric> &metrics);

/** The text that value_bytes() takes for a tag of that type. @return false when there is no value
 */
bool command_value(const command_metric &metric, int tag_type, std::string &text);

#endif
