// A provider of tags for tests.
//
// Usage: dx-test-provider NAME:TYPE:SIZE:ro|wo...
//
// Prints "ready", then "taken NAME HEX" for each value that another program wrote. Obeys lines on
// standard input and answers each with one line, "ok" or "failed": "write NAME HEX" publishes a
// value, "add NAME:TYPE:SIZE:ro|wo" and "remove NAME" change the tags. Ends with standard input.

#include <kt/dx.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace {

std::map<std::string, dx_tag *> tags; // main thread only; the dispatch thread uses the chains
std::mutex output_lock;

void say(const std::string &line) {
    const std::lock_guard<std::mutex> lock(output_lock);
    (void)printf("%s\n", line.c_str());
    (void)fflush(stdout);
}

int number(std::string_view text) {
    int value = -1;
    (void)std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

std::string hexadecimal(const uint8_t *bytes, int size) {
    std::string text;
    for (int i = 0; i < size; ++i) {
        char digits[4];
        (void)snprintf(digits, sizeof digits, "%02X", bytes[i]);
        text += digits;
    }
    return text;
}

void dispatch(dx_handle *handle, const uint8_t *bitmap) {
    for (unsigned index = 0; index < DX_INDEX_COUNT; ++index) {
        if (!(bitmap[index / 8] >> (index % 8) & 1)) {
            continue;
        }
        for (dx_entry *entry = dx_lookup_head(handle, index); entry; entry = entry->next) {
            uint8_t value[DX_VALUE_MAX];
            const auto *name = static_cast<const char *>(dx_tag_get_user_data(entry->tag));
            if (name && !dx_tag_has_read(entry->tag)) {
                const int size = dx_tag_read(entry->tag, value, sizeof value);
                say(std::string("taken ") + name + " " + hexadecimal(value, size));
            }
        }
    }
}

/** The last ':' and what follows it, taken off the text. */
std::string_view take_last(std::string_view &text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return {};
    }
    const std::string_view last = text.substr(colon + 1);
    text = text.substr(0, colon);
    return last;
}

bool add(dx_handle *handle, std::string_view text) {
    const int mode = take_last(text) == "wo" ? DX_WRITE_ONLY : DX_READ_ONLY;
    const int size = number(take_last(text));
    const int type = number(take_last(text));
    const auto place = tags.emplace(std::string(text), nullptr).first;
    const char *name = place->first.c_str();
    place->second = dx_tag_provider_new(handle, name, type, static_cast<size_t>(size), mode);
    dx_tag_set_user_data(place->second, const_cast<char *>(name));
    if (!place->second) {
        tags.erase(place);
        return false;
    }
    return true;
}

bool remove(std::string_view name) {
    const auto place = tags.find(std::string(name));
    if (place == tags.end()) {
        return false;
    }
    dx_tag_destroy(place->second);
    tags.erase(place);
    return true;
}

bool write(dx_handle *handle, std::string_view text) {
    const size_t space = text.rfind(' ');
    if (space == std::string_view::npos) {
        return false;
    }
    const auto place = tags.find(std::string(text.substr(0, space)));
    const std::string_view digits = text.substr(space + 1);
    uint8_t value[DX_VALUE_MAX] = {};
    for (size_t i = 0; i < digits.size() / 2 && i < sizeof value; ++i) {
        (void)std::from_chars(digits.data() + 2 * i, digits.data() + 2 * i + 2, value[i], 16);
    }
    return place != tags.end() &&
           dx_tag_write(handle, place->second, value, digits.size() / 2) == 0 &&
           dx_tag_notify(handle) == 0;
}

bool obey(dx_handle *handle, std::string_view line) {
    const size_t space = line.find(' ');
    if (space == std::string_view::npos) {
        return false;
    }
    const std::string_view verb = line.substr(0, space);
    const std::string_view rest = line.substr(space + 1);
    return (verb == "write" && write(handle, rest)) || (verb == "add" && add(handle, rest)) ||
           (verb == "remove" && remove(rest));
}

} // namespace

int main(int argc, char **argv) {
    dx_handle *handle = dx_new("dx-test-provider", dispatch);
    if (!handle) {
        return 1;
    }
    for (int i = 1; i < argc; ++i) {
        if (!add(handle, argv[i])) {
            (void)fprintf(stderr, "dx-test-provider: cannot add %s\n", argv[i]);
            dx_destroy(handle);
            return 1;
        }
    }
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        say(obey(handle, line) ? "ok" : "failed");
    }
    dx_destroy(handle);
    return 0;
}
