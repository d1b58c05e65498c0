#include "rest/endpoints.h"

#include "core/log.h"
#include "rest/handlers.h"
#include "rest/response.h"

#include <kt/rest.h>

#include <array>

namespace {

struct endpoint {
    rest_method method;
    const char *path;
    rest_callback handler;
    const char *name; /* in the message of a failed registration */
};

constexpr std::array endpoints = {
    endpoint{REST_GET,
             "/interface",
             can_proprietary_rest_get_interface_config,
             "can_proprietary_rest_get_interface_config"},
    // the name is that of an earlier handler, kept: logs are searched for it
    endpoint{REST_PATCH,
             "/interface",
             can_proprietary_rest_patch_interface_config,
             "can_proprietary_rest_put_basic_setting_config"},
    endpoint{
        REST_POST, "/action", can_proprietary_post_rest_action, "can_proprietary_post_rest_action"},
    endpoint{REST_GET,
             "/device",
             can_proprietary_rest_get_device_config,
             "can_proprietary_rest_get_device_config"},
    endpoint{REST_POST,
             "/device",
             can_proprietary_rest_post_device_config,
             "can_proprietary_rest_post_device_config"},
    endpoint{REST_POST,
             "/transaction",
             can_proprietary_rest_post_transaction_config,
             "can_proprietary_rest_post_transaction_config"},
    endpoint{REST_PATCH,
             "/transaction",
             can_proprietary_rest_patch_transaction_config,
             "can_proprietary_rest_patch_transaction_config"},
    endpoint{REST_PUT,
             "/frame",
             can_proprietary_rest_put_frame_config,
             "can_proprietary_rest_put_frame_config"},
    endpoint{REST_PATCH,
             "/device",
             can_proprietary_rest_patch_device_name_config,
             "can_proprietary_rest_patch_device_name_config"},
    endpoint{REST_GET,
             "/overview",
             can_proprietary_rest_get_overview_config,
             "can_proprietary_rest_get_overview_config"},
    endpoint{REST_DELETE,
             "/device",
             can_proprietary_rest_delete_device_config,
             "can_proprietary_rest_delete_device_config"},
    endpoint{REST_DELETE,
             "/transaction",
             can_proprietary_rest_delete_transaction_config,
             "can_proprietary_rest_delete_transaction_config"},
    endpoint{REST_GET,
             "/config-change",
             can_proprietary_rest_get_config_change,
             "can_proprietary_rest_get_config_change"},
    endpoint{REST_GET,
             "/usedCANIds",
             can_proprietary_rest_get_usedCANIds_config,
             "can_proprietary_rest_get_usedCANIds_config"},
    endpoint{REST_POST,
             "/traffic",
             can_proprietary_rest_post_traffic_log,
             "can_proprietary_rest_post_traffic_log"},
    endpoint{REST_GET,
             "/traffic",
             can_proprietary_rest_get_traffic_log,
             "can_proprietary_rest_get_traffic_log"},
    endpoint{REST_GET,
             "/traffic-export",
             can_proprietary_rest_export_traffic_csv,
             "can_proprietary_rest_export_traffic_csv"},
    endpoint{REST_GET,
             "/diagnose",
             can_proprietary_rest_get_diagnose,
             "can_proprietary_rest_get_diagnose"},
    endpoint{REST_POST,
             "/config-file",
             can_proprietary_rest_post_config_file,
             "can_proprietary_rest_post_config_file"},
    endpoint{REST_GET,
             "/config-file",
             can_proprietary_rest_get_config_file,
             "can_proprietary_rest_get_config_file"},
};
static_assert(endpoints.size() == 20);

} // namespace

int can_proprietary_rest_init(const char *service_name, void **handle) {
    if (service_name == nullptr || handle == nullptr) {
        log_error("pointer is null\n");
        return 1;
    }
    const int rest = rest_init(service_name, handle);
    if (rest < 0) {
        log_error("init rest fail (%d).\n", rest);
        return 1;
    }
    for (const endpoint &endpoint : endpoints) {
        const int result = rest_cb_register(rest, endpoint.path, endpoint.method, endpoint.handler);
        if (result != 0) {
            log_error("register %s rest callback fail (%d).\n", endpoint.name, result);
            return 1;
        }
    }
    return 0;
}
