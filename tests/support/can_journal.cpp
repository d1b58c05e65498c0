#include "can_journal.h"

#include <algorithm>
#include <utility>

namespace {

can_lines journal;

} // namespace

void can_note(std::string line) {
    journal.push_back(std::move(line));
}

can_lines can_take_lines() {
    return std::exchange(journal, {});
}

can_lines can_take_lines(std::initializer_list<const char *> kinds) {
    can_lines lines = can_take_lines();
    std::erase_if(lines, [&](const std::string &line) {
        const std::string kind = line.substr(0, line.find(' '));
        return std::find(kinds.begin(), kinds.end(), kind) == kinds.end();
    });
    return lines;
}

std::string can_hex(std::span<const uint8_t> bytes) {
    constexpr const char *digits = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}
