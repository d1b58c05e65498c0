#ifndef KT_TAG_OUTPUT_H
#define KT_TAG_OUTPUT_H

#include <kt/dx_client.h>

#include <string>

/** One JSON object without a line end. Invalid UTF-8 in the name becomes U+FFFD. */
std::string json_line(const dx_tag_info &info, const dx_sample &sample);

/** "NAME = VALUE (TYPE, MODE, AGE ms)" */
std::string text_line(const dx_tag_info &info, const dx_sample &sample);

#endif
