#include "always.h"
#include "rest/request.h"
#include "routes.h"
#include "uri_target.h"

#include <kt/rest.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

/*
 * Any text as the target of a request: how the server routes it and what the handlers take from its
 * path and query. Route, id, number and text are worked out here once more.
 */

namespace {

constexpr std::string_view base = "/CAN-proprietary";
constexpr std::array resources = {
    "interface", "device", "transaction", "frame", "traffic", "traffic-export"};
constexpr std::array parameters = {"portId", "deviceId", "p", "x"};
constexpr std::array routes = {"/interface",
                               "/device",
                               "/transaction",
                               "/frame",
                               "/traffic",
                               "/traffic-export",
                               "/usedCANIds",
                               "/config-file"};

int answer_nothing(const char *, const char *, size_t) {
    return 204;
}

route_table &table() {
    static route_table made;
    if (made.count == 0) {
        for (const char *path : routes) {
            KT_ALWAYS(routes_add(made, path, REST_GET, answer_nothing) == REST_OK);
        }
        KT_ALWAYS(routes_add(made, "/device", REST_PATCH, answer_nothing) == REST_OK);
    }
    return made;
}

// What a URI says

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/** The number that a text begins with, without limit up to what fits; nothing where is none. */
std::optional<long double> leading_number(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    std::optional<long double> number;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        number = number.value_or(0) * 10 + (c - '0');
    }
    return negative && number ? -*number : number;
}

std::optional<int32_t> reference_id(std::string_view uri, const char *resource) {
    const std::string start = std::string(base) + "/" + resource + "/";
    if (!uri.starts_with(start)) {
        return std::nullopt;
    }
    const std::optional<long double> number = leading_number(uri.substr(start.size()));
    if (!number || *number < INT32_MIN || *number > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<int32_t>(*number);
}

int digit_of(char c) {
    constexpr std::string_view digits = "0123456789abcdef0123456789ABCDEF";
    const size_t at = digits.find(c);
    return c == '\0' || at == std::string_view::npos ? -1 : static_cast<int>(at % 16);
}

struct decoded {
    int result;
    std::string text;
};

decoded decode(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (c == '%') {
            const int high = i + 2 < text.size() ? digit_of(text[i + 1]) : -1;
            const int low = i + 2 < text.size() ? digit_of(text[i + 2]) : -1;
            c = high < 0 || low < 0 ? '\0' : static_cast<char>(16 * high + low);
            i += 2;
        }
        if (c == '\0') {
            return {REST_BAD_ENCODING, ""};
        }
        out += c;
    }
    return {REST_OK, out};
}

decoded reference_query(std::string_view uri, std::string_view name) {
    uri = uri.substr(0, uri.find('#'));
    const size_t mark = uri.find('?');
    std::string_view query = mark == std::string_view::npos ? "" : uri.substr(mark + 1);
    for (bool last = false; !last;) {
        const size_t end = query.find('&');
        const std::string_view pair = query.substr(0, end);
        const size_t equals = pair.find('=');
        if (pair.substr(0, equals) == name) {
            return equals == std::string_view::npos ? decoded{REST_OK, ""}
                                                    : decode(pair.substr(equals + 1));
        }
        last = end == std::string_view::npos;
        query.remove_prefix(last ? query.size() : end + 1);
    }
    return {REST_NOT_FOUND, ""};
}

// Checks

void check_id(const std::string &uri, const char *resource) {
    constexpr int32_t untouched = 0x5A5A5A5A;
    int32_t id = untouched;
    const int result = can_proprietary_get_id_from_path(uri.c_str(), resource, &id);
    const std::optional<int32_t> expected = reference_id(uri, resource);
    KT_ALWAYS(result == (expected ? 0 : 1));
    KT_ALWAYS(id == expected.value_or(untouched));
}

/** Into every room from nothing to more than enough. */
void check_query(const std::string &uri, const char *name) {
    const decoded expected = reference_query(uri, name);
    for (size_t size = 1; size < 80; size += size < 8 ? 1 : 24) {
        std::array<char, 80> room;
        room.fill('~');
        const int result = rest_find_uri_query_val(uri.c_str(), name, room.data(), size);
        const bool fits = expected.text.size() < size;
        if (expected.result != REST_OK || !fits) {
            KT_ALWAYS(result == (expected.result == REST_OK ? REST_TOO_LONG : expected.result));
            KT_ALWAYS(std::string_view(room.data(), room.size()).find_first_not_of('~') ==
                      std::string_view::npos);
            continue;
        }
        KT_ALWAYS(result == REST_OK && expected.text == room.data());
        KT_ALWAYS(room[size] == '~');
    }
}

void check_number(const std::string &uri, const char *name) {
    int number = -77;
    const int result = get_query_number("fuzz", uri.c_str(), name, &number);
    const decoded expected = reference_query(uri, name);
    if (expected.result != REST_OK || expected.text.size() >= 64) {
        KT_ALWAYS(result == REST_RET_INVALID_PARAM && number == -77);
        return;
    }
    const long double value = leading_number(expected.text).value_or(0);
    const bool beyond = value < INT32_MIN || value > INT32_MAX;
    KT_ALWAYS(result == REST_RET_SUCCESS && number == (beyond ? 0 : static_cast<int>(value)));
}

/** The longest registered path that is the whole path or stands before a slash of it. */
void check_route(std::string_view path) {
    std::string_view longest;
    for (const std::string_view route : routes) {
        const bool matches =
            path.starts_with(route) && (path.size() == route.size() || path[route.size()] == '/');
        longest = matches && route.size() > longest.size() ? route : longest;
    }
    const route_match found = routes_find(table(), path, REST_PATCH);
    constexpr unsigned get = 1u << REST_GET;
    constexpr unsigned patch = 1u << REST_PATCH;
    KT_ALWAYS(found.methods == (longest.empty() ? 0 : longest == "/device" ? get | patch : get));
    KT_ALWAYS((found.callback != nullptr) == (longest == "/device"));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_the_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string whole(reinterpret_cast<const char *>(data), size);
    const std::string target = whole.c_str(); // up to the first zero
    check_target(target);
    for (const std::string &uri : {target, std::string(base) + "/" + target}) {
        for (const char *resource : resources) {
            check_id(uri, resource);
        }
        for (const char *name : parameters) {
            check_query(uri, name);
            check_number(uri, name);
        }
        const std::string_view path = std::string_view(uri).substr(0, uri.find('?'));
        check_route(path.starts_with(base) ? path.substr(base.size()) : path);
    }
    return 0;
}
