#include "requests.h"

#include "rest/handlers.h"

#include <kt/rest.h>

#include <cstring>

namespace {

struct route {
    const char *method;
    const char *path;
    rest_callback handler;
};

constexpr std::array routes = {
    route{"POST", "/config-file", can_proprietary_rest_post_config_file},
    route{"POST", "/device", can_proprietary_rest_post_device_config},
    route{"PATCH", "/device/", can_proprietary_rest_patch_device_name_config},
    route{"PUT", "/frame/", can_proprietary_rest_put_frame_config},
    route{"DELETE", "/device/", can_proprietary_rest_delete_device_config},
    route{"POST", "/action", can_proprietary_post_rest_action},
};

std::string g_answer;

} // namespace

extern "C" int __wrap_rest_write(const char *text, size_t length) {
    g_answer.assign(text, length);
    return REST_OK;
}

int perform(const step &wanted) {
    const std::string uri = "/CAN-proprietary" + wanted.path;
    for (const route &row : routes) {
        if (strcmp(row.method, wanted.method) == 0 &&
            strncmp(row.path, wanted.path.c_str(), strlen(row.path)) == 0) {
            const bool has_body = !wanted.body.empty();
            return row.handler(
                uri.c_str(), has_body ? wanted.body.c_str() : nullptr, wanted.body.size());
        }
    }
    return 404;
}

const std::string &last_answer() {
    return g_answer;
}
