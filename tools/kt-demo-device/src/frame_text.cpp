#include "frame_text.h"

#include <charconv>
#include <cstdint>

namespace {

template <typename number>
bool parse_number(std::string_view text, int base, number &value) {
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, base);
    return !text.empty() && result.ec == std::errc{} && result.ptr == end;
}

bool parse_identifier(std::string_view text, can_frame &frame) {
    uint32_t id = 0;
    if (!parse_number(text, 16, id)) {
        return false;
    }
    if (text.size() == 8 && id <= CAN_EFF_MASK) {
        frame.can_id = id | CAN_EFF_FLAG;
        return true;
    }
    frame.can_id = id;
    return text.size() == 3 && id <= CAN_SFF_MASK;
}

bool parse_remote(std::string_view dlc, can_frame &frame) {
    frame.can_id |= CAN_RTR_FLAG;
    return dlc.empty() || (dlc.size() == 1 && parse_number(dlc, 10, frame.can_dlc) &&
                           frame.can_dlc <= CAN_MAX_DLC);
}

bool parse_data(std::string_view digits, can_frame &frame) {
    if (digits.size() % 2 != 0 || digits.size() / 2 > CAN_MAX_DLEN) {
        return false;
    }
    for (size_t i = 0; i < digits.size(); i += 2) {
        if (!parse_number(digits.substr(i, 2), 16, frame.data[i / 2])) {
            return false;
        }
    }
    frame.can_dlc = static_cast<uint8_t>(digits.size() / 2);
    return true;
}

} // namespace

bool parse_frame(std::string_view text, can_frame &frame) {
    frame = {};
    const size_t mark = text.find('#');
    if (mark == std::string_view::npos || !parse_identifier(text.substr(0, mark), frame)) {
        return false;
    }
    const std::string_view rest = text.substr(mark + 1);
    return rest.starts_with('R') ? parse_remote(rest.substr(1), frame) : parse_data(rest, frame);
}
