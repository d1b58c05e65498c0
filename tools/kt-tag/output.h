#ifndef KT_TAG_OUTPUT_H
#define KT_TAG_OUTPUT_H

#include <kt/dx_client.h>

#include <string>
#include <string_view>

/** A tag name for a terminal: control characters and invalid UTF-8 as \xNN. */
std::string printable_name(std::string_view name);

/** One JSON object without a line end. Invalid UTF-8 in the name becomes U+FFFD. */
std::string json_line(const dx_tag_info &info, const dx_sample &sample);

/** "NAME = VALUE (TYPE, MODE, AGE ms)" */
std::string text_line(const dx_tag_info &info, const dx_sample &sample);

/**
 * Print a line and flush it.
 * @return false when standard output takes no more; the reason is kept for output_status()
 */
bool print_line(const std::string &line);

/** True when nobody reads standard output any more. */
bool output_abandoned();

/** Exit status for the end of the program: 0, or 1 after a write error (printed), not a closed
 * pipe. */
int output_status();

#endif
