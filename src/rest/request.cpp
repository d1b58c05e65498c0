#include "rest/request.h"

#include "config/database.h"
#include "core/log.h"

#include <kt/rest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *base_path = "/CAN-proprietary";

/** Longest URL name of the REST library, terminator included. */
constexpr size_t url_name_bytes = 200;

} // namespace

int can_proprietary_get_id_from_path(const char *uri, const char *resource, int32_t *id) {
    if (uri == nullptr || resource == nullptr || id == nullptr) {
        log_error("Invalid parameters\n");
        return 1;
    }
    if (strlen(base_path) + 1 + strlen(resource) > url_name_bytes - 1) {
        (void)puts("URI exceeds maximum allowed length (REST_MAX_URL_NAME_LEN)");
        return 1;
    }
    std::array<char, url_name_bytes + 8> prefix{};
    const int length = snprintf(prefix.data(), prefix.size(), "%s/%s/", base_path, resource);
    const auto prefix_length = static_cast<size_t>(length);
    const char *digits = nullptr;
    char *end = nullptr;
    long long value = 0; // a long is no wider than an id on the gateway
    if (strncmp(uri, prefix.data(), prefix_length) == 0) {
        digits = uri + prefix_length;
        value = strtoll(digits, &end, 10);
    }
    if (end == digits || value < INT32_MIN || value > INT32_MAX) {
        log_error("parse resource's ID fail\n");
        return 1;
    }
    *id = static_cast<int32_t>(value);
    return 0;
}

int get_query_number(
    const char *function, const char *uri, const char *name, int *number, int line) {
    std::array<char, 64> value{};
    const int result = rest_find_uri_query_val(uri, name, value.data(), value.size());
    if (result != 0) {
        log_write_error(function, line, "rest_find_uri_query_val fail (%d).\n", result);
        return REST_RET_INVALID_PARAM;
    }
    const long long parsed = strtoll(value.data(), nullptr, 10);
    // Beyond every id either way; 0 is no id either.
    *number = parsed < INT32_MIN || parsed > INT32_MAX ? 0 : static_cast<int>(parsed);
    return REST_RET_SUCCESS;
}

int check_uri(const char *function, const char *uri, int line) {
    if (uri == nullptr) {
        return fail(function, "invalid uri\n", REST_RET_INVALID_PARAM, line);
    }
    return REST_RET_SUCCESS;
}

int check_body(const char *function, const char *body, int line) {
    if (body == nullptr) {
        return fail(function, "invalid input_data\n", REST_RET_INVALID_PARAM, line);
    }
    return REST_RET_SUCCESS;
}

int init_output(const char *function, json_ptr *output, int line) {
    output->reset(json_value_init_object());
    if (*output == nullptr) {
        return fail(function, "init output_obj_val fail\n", REST_RET_JSON_INIT_FAIL, line);
    }
    return REST_RET_SUCCESS;
}

int answer(int result, const json_ptr &output, rest_method method) {
    return get_http_status(write_can_proprietary_rest_response(result, output.get()), method);
}

change::~change() {
    if (db_ != nullptr) {
        (void)can_proprietary_db_end_set_db(db_, 0); // the handler has its result already
    }
}

int change::open(const char *function, int line) {
    db_ = can_proprietary_db_get();
    if (db_ == nullptr) {
        return fail(function, "param fail\n", REST_RET_INVALID_PARAM, line);
    }
    return REST_RET_SUCCESS;
}

int change::begin(const char *function, int line) {
    if (const int result = open(function, line); result != 0) {
        return result;
    }
    can_proprietary_db_start_set_db(db_);
    // Its failure is only logged, and without a transaction every statement would count at once.
    return sqlite3_get_autocommit(db_) == 0 ? REST_RET_SUCCESS : REST_RET_SET_FAIL;
}

int change::commit() {
    sqlite3 *db = db_;
    db_ = nullptr;
    return can_proprietary_db_end_set_db(db, 1) == 0 ? REST_RET_SUCCESS : REST_RET_SET_FAIL;
}
