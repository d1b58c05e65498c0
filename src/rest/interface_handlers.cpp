#include "config/read.h"
#include "config/write.h"
#include "core/log.h"
#include "rest/handlers.h"
#include "rest/request.h"

namespace {

constexpr const char *patch_interface = "can_proprietary_rest_patch_interface_config";

/** First CAN identifier that 11 bits cannot hold. */
constexpr int32_t first_extended_id = 0x800;

using device_list_ptr = std::unique_ptr<device_config, call_on_delete<conf_free_device_list>>;

int logged(int result, const char *name) {
    if (result != 0) {
        log_write_error(patch_interface, __LINE__, "get %s fail\n", name);
    }
    return result;
}

int get_flag(const JSON_Object *request, const char *name, bool *flag) {
    uint8_t value = 0;
    const int result = logged(json_obj_get_boolean(request, name, &value), name);
    *flag = value != 0;
    return result;
}

int parse_settings(const JSON_Object *request, interface_config *config) {
    struct number_member {
        const char *name;
        int32_t *field;
        int32_t max;
    };
    for (const number_member &member :
         {number_member{"frameFormat", &config->frameFormat, 1},
          number_member{"baudrate", &config->baudrate, 7},
          number_member{"initialDelay", &config->initialDelay, 120000}}) {
        const int result = logged(
            json_obj_get_number(request, member.name, member.field, 0, member.max), member.name);
        if (result != 0) {
            return result;
        }
    }
    const int result = get_flag(request, "busOffReset", &config->busOffReset);
    return result != 0 ? result : get_flag(request, "resistor", &config->resistor);
}

bool has_extended_id(const transaction_config *transaction) {
    for (const frame_config *frame = transaction->frames; frame != nullptr; frame = frame->next) {
        if (frame->canId >= first_extended_id) {
            return true;
        }
    }
    return false;
}

/** Standard identifiers are only for a port whose frames all fit into 11 bits. */
int check_identifiers(int port) {
    device_config *read = nullptr;
    if (can_proprietary_conf_get_port_config(&read, port) != 0) {
        return fail(patch_interface, "get config fail\n", REST_RET_GET_FAIL);
    }
    const device_list_ptr devices(read);
    for (const device_config *device = devices.get(); device != nullptr; device = device->next) {
        for (const transaction_config *transaction = device->transactions; transaction != nullptr;
             transaction = transaction->next) {
            if (has_extended_id(transaction)) {
                return fail(patch_interface, "set canId fail\n", REST_RET_CANID_FORMAT);
            }
        }
    }
    return REST_RET_SUCCESS;
}

/** {"data": the body as it was sent} */
int echo(json_ptr request, json_ptr *output) {
    if (const int result = init_output(patch_interface, output); result != 0) {
        return result;
    }
    JSON_Object *object = json_value_get_object(output->get());
    if (json_object_set_value(object, "data", request.get()) != JSONSuccess) {
        return fail(patch_interface, "set data object fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)request.release(); // the output's now
    return REST_RET_SUCCESS;
}

int start(const char *uri, const char *body, change *change) {
    if (const int result = check_uri(patch_interface, uri); result != 0) {
        return result;
    }
    if (const int result = check_body(patch_interface, body); result != 0) {
        return result;
    }
    return change->begin(patch_interface);
}

int update_interface(const char *uri, const char *body, json_ptr *output) {
    change change;
    int result = start(uri, body, &change);
    if (result != 0) {
        return result;
    }
    int32_t port = 0;
    if (can_proprietary_get_id_from_path(uri, "interface", &port) != 0) {
        return fail(patch_interface, "invalid uri\n", REST_RET_INVALID_PARAM);
    }
    json_ptr request = parse_body(body);
    if (request == nullptr) {
        return fail(patch_interface, "invalid input_data\n", REST_RET_INVALID_PARAM);
    }
    interface_config config{};
    config.portId = static_cast<uint8_t>(port);
    result = parse_settings(json_value_get_object(request.get()), &config);
    if (result == 0 && config.frameFormat == 0) {
        result = check_identifiers(port);
    }
    if (result != 0) {
        return result;
    }
    if (can_proprietary_conf_update_interface_config(change.handle(), &config, port) != 0) {
        return REST_RET_SET_FAIL;
    }
    result = echo(std::move(request), output);
    return result == 0 ? change.commit() : result;
}

} // namespace

int can_proprietary_rest_patch_interface_config(const char *uri,
                                                const char *body,
                                                size_t /*length*/) {
    json_ptr output;
    const int result = update_interface(uri, body, &output);
    return answer(result, output, REST_PATCH);
}
