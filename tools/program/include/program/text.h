#ifndef PROGRAM_TEXT_H
#define PROGRAM_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace program {

/** Bytes of the well-formed UTF-8 character at the front of a text, 0 when there is none. */
std::size_t utf8_length(std::string_view text);

/** Text of any bytes for a terminal: control characters and invalid UTF-8 as \xNN. */
std::string printable(std::string_view text);

/** A JSON string with its quotes. Invalid UTF-8 becomes U+FFFD. */
std::string json_string(std::string_view text);

} // namespace program

#endif
