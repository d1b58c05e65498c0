#ifndef KT_DX_MQTT_SET_REQUEST_H
#define KT_DX_MQTT_SET_REQUEST_H

#include <cstddef>
#include <string>
#include <string_view>

constexpr size_t set_payload_max_bytes = 1024;
constexpr size_t set_id_max_bytes = 128; // of the text between the quotes, or of the number

/** What a set message asks for. */
struct set_request {
    std::string value; // as value_bytes() takes it: escapes resolved, quotes taken off
    std::string id;    // JSON text of the correlation id, a string or a number; empty when none
};

/**
 * Take a set payload apart: a bare value, a JSON string, or {"value":..., "id":...} with nothing
 * else in it. Blanks and line ends around it do not count.
 *
 * The id is set as soon as it could be read, also when the rest is refused.
 *
 * @param[out] error  reason for people, set on failure only: no byte of the payload that is no
 *                    printable UTF-8 shows in it
 * @return false when refused
 */
bool parse_set_request(std::string_view payload, set_request &request, std::string &error);

#endif
