#include "topic.h"

#include "program/text.h"

#include <kt/dx.h>

#include <charconv>
#include <cstdint>

namespace {

constexpr std::string_view tags_level = "/tags/";
constexpr std::string_view set_level = "/set";
constexpr std::string_view result_level = "/result";

void append_escaped(std::string &out, std::string_view bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        out += {'%', digits[byte >> 4], digits[byte & 15]};
    }
}

uint32_t code_point(std::string_view character) {
    constexpr uint8_t lead_bits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    uint32_t code = static_cast<uint8_t>(character[0]) & lead_bits[character.size()];
    for (const char c : character.substr(1)) {
        code = code << 6 | (static_cast<uint8_t>(c) & 0x3Fu);
    }
    return code;
}

/** Brokers close the connection over control characters and non-characters. */
bool stands_in_topic(std::string_view character) {
    const uint32_t code = code_point(character);
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool no_character = (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFE) == 0xFFFE;
    return !control && !no_character && code != '%' && code != '+' && code != '#';
}

std::string_view last_level(std::string_view name) {
    const size_t slash = name.rfind('/');
    return slash == std::string_view::npos ? name : name.substr(slash + 1);
}

/** Where the last level begins that would read as that of another kind of topic. */
size_t mistakable_at(std::string_view name) {
    const std::string_view last = last_level(name);
    const bool mistakable = last == set_level.substr(1) || last == result_level.substr(1);
    return mistakable ? name.size() - last.size() : std::string_view::npos;
}

std::string join(std::string_view prefix, std::string_view rest) {
    std::string topic(prefix);
    return topic += rest;
}

/** Leave what follows "<prefix>/tags/". @return false when the topic does not begin so */
bool take_tags_level(std::string_view prefix, std::string_view &topic) {
    if (!topic.starts_with(prefix) || !topic.substr(prefix.size()).starts_with(tags_level)) {
        return false;
    }
    topic.remove_prefix(prefix.size() + tags_level.size());
    return true;
}

std::string tag_topic(std::string_view prefix, std::string_view name, std::string_view last) {
    std::string topic = join(prefix, tags_level);
    topic += encode_tag_name(name);
    return topic += last;
}

} // namespace

std::string encode_tag_name(std::string_view name) {
    const size_t mistakable = mistakable_at(name);
    std::string out;
    size_t levels = 1;
    for (size_t at = 0; at < name.size();) {
        const std::string_view rest = name.substr(at);
        const size_t length = program::utf8_length(rest);
        const std::string_view character = rest.substr(0, length == 0 ? 1 : length);
        const bool too_deep = character == "/" && levels == topic_levels_max;
        if (length == 0 || at == mistakable || too_deep || !stands_in_topic(character)) {
            append_escaped(out, character);
        } else {
            levels += character == "/" ? 1 : 0;
            out += character;
        }
        at += character.size();
    }
    return out;
}

bool decode_tag_name(std::string_view text, std::string &name) {
    std::string out;
    for (size_t at = 0; at < text.size(); ++at) {
        char byte = text[at];
        if (byte == '%') {
            uint8_t code = 0;
            const char *digits = text.data() + at + 1;
            if (text.size() - at < 3 ||
                std::from_chars(digits, digits + 2, code, 16).ptr != digits + 2) {
                return false;
            }
            byte = static_cast<char>(code);
            at += 2;
        }
        if (byte == '\0' || out.size() == DX_NAME_MAX) {
            return false;
        }
        out += byte;
    }
    if (out.empty()) {
        return false;
    }
    name = out;
    return true;
}

std::string value_topic(std::string_view prefix, std::string_view name) {
    return tag_topic(prefix, name, "");
}

std::string result_topic(std::string_view prefix, std::string_view name) {
    return tag_topic(prefix, name, result_level);
}

std::string status_topic(std::string_view prefix) {
    return join(prefix, "/status");
}

std::string events_topic(std::string_view prefix) {
    return join(prefix, "/events");
}

std::string diagnostics_topic(std::string_view prefix, int port) {
    return join(prefix, "/diagnostics/") + std::to_string(port);
}

std::string statistics_topic(std::string_view prefix) {
    return join(prefix, "/statistics");
}

std::vector<std::string> set_filters(std::string_view prefix) {
    std::vector<std::string> filters;
    std::string levels = "+";
    for (size_t depth = 1; depth <= topic_levels_max; ++depth) {
        filters.push_back(join(prefix, tags_level) + levels + std::string(set_level));
        levels += "/+";
    }
    return filters;
}

std::string values_filter(std::string_view prefix) {
    return join(prefix, tags_level) + "#";
}

bool parse_value_topic(std::string_view prefix, std::string_view topic, std::string &name) {
    return !topic.ends_with(set_level) && !topic.ends_with(result_level) &&
           take_tags_level(prefix, topic) && decode_tag_name(topic, name);
}

bool parse_set_topic(std::string_view prefix, std::string_view topic, std::string &name) {
    if (!take_tags_level(prefix, topic) || !topic.ends_with(set_level)) {
        return false;
    }
    topic.remove_suffix(set_level.size());
    return decode_tag_name(topic, name);
}
