#include "core/log.h"
#include "core/state.h"
#include "device/local_time.h"
#include "rest/file_download.h"
#include "rest/handlers.h"
#include "rest/request.h"
#include "traffic/recorder.h"

#include <kt/rest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>

namespace {

constexpr const char *post_traffic = "can_proprietary_rest_post_traffic_log";
constexpr const char *get_traffic = "can_proprietary_rest_get_traffic_log";
constexpr const char *export_traffic = "can_proprietary_rest_export_traffic_csv";

constexpr const char *log_prefix = "/run/tmp/kt-can-proprietary/traffic-log";

/**
 * Port of the path as the recorder's index. Only the upper bound is tested here: a number below 1
 * wraps to an index that the recorder refuses.
 */
int get_port_index(const char *function, const char *uri, const char *resource, uint16_t *index) {
    if (const int result = check_uri(function, uri); result != 0) {
        return result;
    }
    int32_t port = 0;
    if (can_proprietary_get_id_from_path(uri, resource, &port) != 0) {
        return fail(function, "get_id_from_path fail\n", REST_RET_GET_FAIL);
    }
    const int32_t count = g_can_port_count.load(std::memory_order_relaxed);
    if (port > count) {
        log_write_error(function, __LINE__, "port index over range ( 1 ~ %d )\n", count);
        return REST_RET_GET_FAIL;
    }
    *index = static_cast<uint16_t>(static_cast<uint32_t>(port) - 1U);
    return REST_RET_SUCCESS;
}

int set_can_proprietary_traffic(int32_t option, uint16_t port) {
    int result = -1;
    switch (option) {
    case 0:
        result = can_proprietary_traffic_stop(port);
        break;
    case 1:
        result = can_proprietary_traffic_init_start_time(port);
        if (result == 0) {
            result = can_proprietary_traffic_start(port);
        }
        break;
    default:
        log_write_error(post_traffic, __LINE__, "unknown option %d\n", option);
        break;
    }
    return result == 0 ? REST_RET_SUCCESS
                       : fail(post_traffic, "set action fail\n", REST_RET_SET_FAIL);
}

int control(const char *uri, const char *body, json_ptr *output) {
    int result = check_uri(post_traffic, uri);
    if (result == 0) {
        result = check_body(post_traffic, body);
    }
    uint16_t port = 0;
    if (result == 0) {
        result = get_port_index(post_traffic, uri, "traffic", &port);
    }
    if (result != 0) {
        return result;
    }
    const json_ptr request = parse_body(body);
    if (request == nullptr) {
        return fail(post_traffic, "invalid input_data\n", REST_RET_INVALID_PARAM);
    }
    int32_t option = 0;
    result = json_obj_get_number(json_value_get_object(request.get()), "option", &option, 0, 1);
    if (result != 0) {
        return fail(post_traffic, "get traffic_option fail\n", result);
    }
    result = set_can_proprietary_traffic(option, port);
    return result == 0 ? build_success(post_traffic, output, REST_RET_JSON_SERIALIZE_FAIL) : result;
}

int output_fail() {
    return fail(get_traffic, "output json fail\n", REST_RET_JSON_SERIALIZE_FAIL);
}

int wrapped_get_traffic_log(json_ptr log, uint16_t port, json_ptr *output) {
    if (log == nullptr) {
        return output_fail();
    }
    output->reset(json_value_init_object());
    if (*output == nullptr) {
        return output_fail();
    }
    JSON_Object *object = json_value_get_object(output->get());
    const int state = can_proprietary_traffic_get_control_state(port);
    if (set_number(get_traffic, object, "data.action", state) != 0) {
        return REST_RET_JSON_SERIALIZE_FAIL;
    }
    if (json_object_dotset_value(object, "data.response", log.get()) != JSONSuccess) {
        return output_fail();
    }
    (void)log.release(); // the output's now
    return REST_RET_SUCCESS;
}

int read_log(const char *uri, json_ptr *output) {
    uint16_t port = 0;
    if (const int result = get_port_index(get_traffic, uri, "traffic", &port); result != 0) {
        return result;
    }
    JSON_Value *log = nullptr;
    if (can_proprietary_traffic_get_log(&log, port) != 0) {
        return fail(get_traffic, "output json fail\n", REST_RET_GET_FAIL);
    }
    return wrapped_get_traffic_log(json_ptr(log), port, output) == 0 ? REST_RET_SUCCESS
                                                                     : output_fail();
}

/** Now as text; what the clock does not give stays empty. */
std::array<char, 100> timestamp() {
    std::array<char, 100> text{};
    timeval now{};
    if (can_proprietary_time_get_localtimeval(&now) != 0 ||
        can_proprietary_time_get_timestamp(&now, text.data(), text.size()) != 0) {
        log_write_error(export_traffic, __LINE__, "\n");
    }
    return text;
}

int download(const char *uri) {
    uint16_t port = 0;
    if (const int result = get_port_index(export_traffic, uri, "traffic-export", &port);
        result != 0) {
        return result;
    }
    std::array<char, 50> path{};
    (void)snprintf(path.data(), path.size(), "%s%d.csv", log_prefix, port);
    std::array<char, 100> name{};
    const int length = snprintf(
        name.data(), name.size(), "%s%s.csv", "can_proprietary_traffic_log_", timestamp().data());
    if (length < 0 || static_cast<size_t>(length) >= name.size()) {
        return fail(export_traffic, "set file name fail.\n", REST_RET_SET_FAIL);
    }
    if (rest_export_file(rooted_path(path.data()).c_str(), name.data(), "open %s fail\n") != 0) {
        return fail(export_traffic, "\n", REST_RET_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

} // namespace

int can_proprietary_rest_post_traffic_log(const char *uri, const char *body, size_t /*length*/) {
    json_ptr output;
    const int result = control(uri, body, &output);
    return answer(result, output, REST_POST);
}

int can_proprietary_rest_get_traffic_log(const char *uri,
                                         const char * /*body*/,
                                         size_t /*length*/) {
    json_ptr output;
    const int result = read_log(uri, &output);
    return answer(result, output, REST_GET);
}

/** Answers a failure with its status alone: a client saves whatever body comes. */
int can_proprietary_rest_export_traffic_csv(const char *uri,
                                            const char * /*body*/,
                                            size_t /*length*/) {
    return get_http_status(download(uri), REST_GET);
}
