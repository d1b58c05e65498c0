#ifndef KT_DX_MQTT_VALUE_H
#define KT_DX_MQTT_VALUE_H

#include <kt/dx_client.h>

#include <cstdint>
#include <string>
#include <string_view>

/**
 * A tag's value as JSON text: a number for the types 1 to 10, exact for every 64-bit integer; the
 * texts "NaN", "Infinity" and "-Infinity" where a float is no number; hexadecimal text for others.
 *
 * @param bytes  info.size bytes and, for a number, at least those of its type
 */
std::string value_json(const dx_tag_info &info, const uint8_t (&bytes)[DX_VALUE_MAX]);

/**
 * The bytes of a tag for the text of a value as it came in a set message: what value_json() gives,
 * what kt-tag takes, and integers with a fraction of zeros ("12.0").
 *
 * @param[out] bytes  info.size bytes are written, on success only
 * @param[out] error  reason for people, set on failure only
 */
bool value_bytes(const dx_tag_info &info,
                 std::string_view text,
                 uint8_t (&bytes)[DX_VALUE_MAX],
                 std::string &error);

#endif
