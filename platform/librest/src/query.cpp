#include <kt/rest.h>

#include <string_view>

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The byte that text begins with, percent-decoded and taken off it; 0 where it is malformed.
char take_byte(std::string_view &text) {
    char byte = text[0];
    size_t length = 1;
    if (byte == '%') {
        const int high = text.size() > 2 ? hex_value(text[1]) : -1;
        const int low = text.size() > 2 ? hex_value(text[2]) : -1;
        if (high < 0 || low < 0) {
            return 0;
        }
        byte = static_cast<char>(high * 16 + low);
        length = 3;
    }
    text.remove_prefix(length);
    return byte;
}

// Runs twice: with no place to write it only measures.
int decode(std::string_view text, char *value, size_t size) {
    size_t length = 0;
    while (!text.empty()) {
        const char byte = take_byte(text);
        if (byte == 0) {
            return REST_BAD_ENCODING;
        }
        if (value) {
            value[length] = byte;
        }
        ++length;
    }
    if (length >= size) {
        return REST_TOO_LONG;
    }
    if (value) {
        value[length] = '\0';
    }
    return REST_OK;
}

std::string_view query_of(std::string_view uri) {
    uri = uri.substr(0, uri.find('#'));
    const size_t mark = uri.find('?');
    return mark == uri.npos ? std::string_view() : uri.substr(mark + 1);
}

} // namespace

int rest_find_uri_query_val(const char *uri, const char *name, char *value, size_t size) {
    if (!uri || !name || *name == '\0' || !value || size == 0) {
        return REST_BAD_ARGUMENT;
    }
    std::string_view query = query_of(uri);
    while (!query.empty()) {
        const std::string_view pair = query.substr(0, query.find('&'));
        query.remove_prefix(pair.size() < query.size() ? pair.size() + 1 : pair.size());
        const size_t equals = pair.find('=');
        if (pair.substr(0, equals) != name) {
            continue;
        }
        const std::string_view text =
            equals == pair.npos ? std::string_view() : pair.substr(equals + 1);
        const int result = decode(text, nullptr, size);
        return result == REST_OK ? decode(text, value, size) : result;
    }
    return REST_NOT_FOUND;
}
