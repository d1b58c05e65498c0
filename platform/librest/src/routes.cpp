#include "routes.h"

namespace {

struct method_name {
    std::string_view name;
    int method;
};

// In the order of the Allow header.
constexpr method_name method_names[] = {
    {"DELETE", REST_DELETE},
    {"GET", REST_GET},
    {"HEAD", REST_GET},
    {"PATCH", REST_PATCH},
    {"POST", REST_POST},
    {"PUT", REST_PUT},
};

bool is_path(std::string_view path) {
    if (path.size() < 2 || path.size() > REST_PATH_MAX || path[0] != '/' || path.ends_with('/')) {
        return false;
    }
    for (const char c : path) {
        if (c <= ' ' || c > '~' || c == '?' || c == '#' || c == '%') {
            return false;
        }
    }
    return true;
}

// Most rows differ in what is looked at first.
bool matches(std::string_view registered, std::string_view path) {
    return (path.size() == registered.size() ||
            (path.size() > registered.size() && path[registered.size()] == '/')) &&
           path.starts_with(registered);
}

} // namespace

int routes_add(route_table &table, std::string_view path, int method, rest_callback callback) {
    if (!is_path(path) || method < REST_POST || method > REST_DELETE || !callback) {
        return REST_BAD_ARGUMENT;
    }
    const std::lock_guard lock(table.mutex);
    for (size_t i = 0; i < table.count; ++i) {
        if (table.rows[i].method == method && table.rows[i].path == path) {
            return REST_ALREADY_THERE;
        }
    }
    if (table.count == table.rows.size()) {
        return REST_TABLE_FULL;
    }
    route &row = table.rows[table.count];
    row.length = path.copy(row.path, path.size());
    row.path[row.length] = '\0';
    row.method = method;
    row.callback = callback;
    ++table.count;
    return REST_OK;
}

route_match routes_find(route_table &table, std::string_view path, int method) {
    route_match found;
    size_t longest = 0;
    const std::lock_guard lock(table.mutex);
    for (size_t i = 0; i < table.count; ++i) {
        const route &row = table.rows[i];
        if (row.length < longest || !matches({row.path, row.length}, path)) {
            continue;
        }
        if (row.length > longest) {
            longest = row.length;
            found = {};
        }
        found.methods |= 1u << row.method;
        if (row.method == method) {
            found.callback = row.callback;
        }
    }
    return found;
}

int method_code(std::string_view name) {
    for (const method_name &entry : method_names) {
        if (entry.name == name) {
            return entry.method;
        }
    }
    return 0;
}

allow_text format_allow(unsigned methods) {
    allow_text out = {};
    size_t length = 0;
    for (const method_name &entry : method_names) {
        if (!(methods & (1u << entry.method))) {
            continue;
        }
        const std::string_view separator = length > 0 ? ", " : "";
        length += separator.copy(out.text + length, separator.size());
        length += entry.name.copy(out.text + length, entry.name.size());
    }
    return out;
}
