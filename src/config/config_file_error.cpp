#include "config/config_file.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

/** Keys that a schema trigger may raise, searched in this order. */
constexpr std::array<const char *, 8> raised_keys = {"missing-necessary-parameter",
                                                     "column-name-failed",
                                                     "duplicate-name",
                                                     "invalid-name",
                                                     "syntax-err",
                                                     "invalid-val",
                                                     "tagsize-exceeds-limit",
                                                     "invalid-frame"};

template <size_t Size>
void assign(char (&field)[Size], const char *text) {
    (void)snprintf(field, Size, "%s", text);
}

bool take_raised_key(conf_import_error *err, const char *message) {
    for (const char *key : raised_keys) {
        const char *found = strstr(message, key);
        if (found == nullptr) {
            continue;
        }
        assign(err->key, key);
        const char *behind = found + strlen(key);
        if (behind[0] == ':' && behind[1] != '\0') {
            assign(err->column_name, behind + 1);
        }
        return true;
    }
    return false;
}

/** "device.deviceId, device.portId" becomes "deviceId,portId". */
std::string columns_of(const char *message, const char *prefix) {
    std::string columns;
    for (const char *found = strstr(message, prefix); found != nullptr;) {
        const char *name = found + strlen(prefix);
        columns.append(name, strcspn(name, " "));
        found = strstr(name, prefix);
    }
    return columns;
}

} // namespace

void classify_import_error(conf_import_error *err, const char *message, const char *column_prefix) {
    if (message == nullptr) {
        message = "";
    }
    if (take_raised_key(err, message)) {
        return;
    }
    if (strstr(message, "device is full") != nullptr ||
        strstr(message, "transactions is full") != nullptr) {
        assign(err->key, "table-full");
    } else if (strstr(message, "FOREIGN KEY constraint") != nullptr) {
        assign(err->key, "foreign-key-constraint-failed");
    } else if (const char *check = strstr(message, "CHECK constraint"); check != nullptr) {
        assign(err->key, "check-constraint-failed");
        const char *separator = strstr(check, ": ");
        assign(err->column_name, separator == nullptr ? "" : separator + 2);
    } else if (strstr(message, "UNIQUE constraint") != nullptr) {
        assign(err->key, "unique-constraint");
        assign(err->column_name, columns_of(message, column_prefix).c_str());
    } else {
        assign(err->key, "syntax-err");
    }
}
