#include "output.h"

#include "program/text.h"
#include "value_text.h"

namespace {

const char *mode_name(int mode) {
    return mode == DX_READ_ONLY ? "ro" : "wo";
}

std::string json_value(const dx_tag_info &info, const dx_sample &sample) {
    if (value_is_not_finite(info, sample)) {
        return "null";
    }
    const std::string text = value_text(info, sample);
    return type_is_number(info.type) ? text : "\"" + text + "\"";
}

} // namespace

std::string json_line(const dx_tag_info &info, const dx_sample &sample) {
    return "{\"name\":" + program::json_string(info.name) +
           ",\"type\":" + std::to_string(info.type) + ",\"size\":" + std::to_string(info.size) +
           ",\"mode\":\"" + mode_name(info.mode) + "\",\"value\":" + json_value(info, sample) +
           ",\"age_ms\":" + std::to_string(sample.age_ms) + "}";
}

std::string text_line(const dx_tag_info &info, const dx_sample &sample) {
    return program::printable(info.name) + " = " + value_text(info, sample) + " (" +
           type_name(info.type) + ", " + mode_name(info.mode) + ", " +
           std::to_string(sample.age_ms) + " ms)";
}
