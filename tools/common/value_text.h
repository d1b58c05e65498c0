#ifndef KT_TOOLS_VALUE_TEXT_H
#define KT_TOOLS_VALUE_TEXT_H

#include <kt/dx_client.h>

#include <string>
#include <string_view>

/** Name of a value type for people, e.g. "uint16"; "raw" for every type that is not a number. */
const char *type_name(int type);

/** True when the value is a number, raw bytes otherwise. */
bool type_is_number(int type);

/** True when the value is an integer. */
bool type_is_integer(int type);

/** Decimal text of a number ("nan" and "inf" where it is none), hexadecimal text of raw bytes. */
std::string value_text(const dx_tag_info &info, const dx_sample &sample);

/** True for a float or double that is not a finite number. */
bool value_is_not_finite(const dx_tag_info &info, const dx_sample &sample);

/**
 * Convert what a person typed into the bytes of a tag: decimal or 0x for integers, decimal for
 * floats, two hexadecimal digits for each raw byte.
 *
 * @param[out] value  info.size bytes are written
 * @param[out] error  reason, set on failure only
 */
bool parse_value(const dx_tag_info &info,
                 std::string_view text,
                 uint8_t (&value)[DX_VALUE_MAX],
                 std::string &error);

#endif
