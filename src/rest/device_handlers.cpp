#include "config/write.h"
#include "core/log.h"
#include "rest/config_json.h"
#include "rest/frame_json_insert.h"
#include "rest/handlers.h"
#include "rest/request.h"

namespace {

using device_ptr = std::unique_ptr<device_config, call_on_delete<conf_free_device>>;

int failed_member(const char *function, const char *name, int code) {
    log_write_error(function, __LINE__, "get %s fail\n", name);
    return code;
}

/** URI, body, working copy, record and parsed body, in this order. */
int start(const char *function,
          const char *uri,
          const char *body,
          change *change,
          device_ptr *device,
          json_ptr *request) {
    int result = check_uri(function, uri);
    if (result == 0) {
        result = check_body(function, body);
    }
    if (result == 0) {
        result = change->begin(function);
    }
    if (result != 0) {
        return result;
    }
    device->reset(allocate_zeroed<device_config>().release());
    if (*device == nullptr) {
        return fail(function, "Memory allocation failed for device\n", REST_RET_MALLOC_FAIL);
    }
    if (request == nullptr) {
        return REST_RET_SUCCESS;
    }
    *request = parse_body(body);
    return *request == nullptr ? fail(function, "invalid input_data\n", REST_RET_INVALID_PARAM)
                               : REST_RET_SUCCESS;
}

int show_device(const char *function, const device_config *device, int id, JSON_Object *output) {
    if (set_number(function, output, "data.deviceId", id) != 0 ||
        set_number(function, output, "data.portId", device->portId) != 0 ||
        set_string(function, output, "data.deviceName", device->deviceName) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    return REST_RET_SUCCESS;
}

constexpr const char *insert_list = "can_proprietary_parse_array_transaction_json_to_insert_config";

int insert_transaction(sqlite3 **db,
                       const JSON_Object *object,
                       uint8_t deviceId,
                       transaction_config *transaction) {
    if (object == nullptr) {
        return fail(insert_list, "get transaction object fail\n", REST_RET_GET_FAIL);
    }
    set_transaction_defaults(transaction);
    transaction->deviceId = deviceId;
    int result = can_proprietary_parse_object_transaction_json(object, transaction);
    if (result != 0) {
        return fail(insert_list, "can_proprietary_parse_object_transaction_json fail\n", result);
    }
    if (can_proprietary_conf_insert_transaction_config(*db, transaction, transaction) != 0) {
        return fail(insert_list,
                    "can_proprietary_conf_insert_transaction_config fail\n",
                    REST_RET_SET_FAIL);
    }
    result = can_proprietary_parse_array_frame_json_to_insert_config(db, object, transaction);
    return result == 0 ? result
                       : fail(insert_list,
                              "can_proprietary_parse_array_frame_json_to_insert_config fail\n",
                              result);
}

/** Builds and inserts the transaction list of a new device; the device owns what was built. */
int can_proprietary_parse_array_transaction_json_to_insert_config(sqlite3 **db,
                                                                  const JSON_Object *request,
                                                                  device_config *device) {
    const JSON_Array *array = json_object_dotget_array(request, "transactionList");
    if (array == nullptr) {
        return fail(insert_list, "get transactionList fail\n", REST_RET_GET_FAIL);
    }
    transaction_config **link = &device->transactions;
    for (size_t i = 0; i < json_array_get_count(array); i++) {
        *link = allocate_zeroed<transaction_config>().release();
        if (*link == nullptr) {
            return fail(insert_list, "malloc fail\n", REST_RET_MALLOC_FAIL);
        }
        const int result =
            insert_transaction(db, json_array_get_object(array, i), device->deviceId, *link);
        if (result != 0) {
            return result;
        }
        link = &(*link)->next;
    }
    return REST_RET_SUCCESS;
}

constexpr const char *post_device = "can_proprietary_rest_post_device_config";

int insert_posted(change *change, const JSON_Object *request, device_config *device) {
    int32_t portId = 0;
    int result = json_obj_get_number(request, "portId", &portId, 1, 2);
    if (result != 0) {
        return failed_member(post_device, "portId", result);
    }
    device->portId = static_cast<uint8_t>(portId);
    result = json_obj_get_string(request, "deviceName", &device->deviceName, 1, 64);
    if (result != 0) {
        return failed_member(post_device, "deviceName", result);
    }
    if (can_proprietary_conf_insert_device_config(change->db(), device, &device->deviceId) != 0) {
        return fail(
            post_device, "can_proprietary_conf_insert_device_config fail \n", REST_RET_SET_FAIL);
    }
    if (json_object_dothas_value(request, "transactionList") == 0) {
        return REST_RET_SUCCESS;
    }
    result = can_proprietary_parse_array_transaction_json_to_insert_config(
        change->handle(), request, device);
    return result == 0
               ? result
               : fail(post_device,
                      "can_proprietary_parse_array_transaction_json_to_insert_config fail \n",
                      result);
}

int show_posted(const JSON_Object *request, const device_config *device, json_ptr *output) {
    if (const int result = init_output(post_device, output); result != 0) {
        return result;
    }
    if (const int result = show_device(
            post_device, device, device->deviceId, json_value_get_object(output->get()));
        result != 0) {
        return result;
    }
    if (json_object_dothas_value(request, "transactionList") != 0 &&
        can_proprietary_get_transaction_config_to_json_array(output->get(), device->transactions) !=
            0) {
        return fail(post_device,
                    "can_proprietary_get_transaction_config_to_json_array fail\n",
                    REST_RET_JSON_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

int create_device(const char *uri, const char *body, json_ptr *output) {
    change change;
    device_ptr device;
    json_ptr parsed;
    int result = start(post_device, uri, body, &change, &device, &parsed);
    if (result != 0) {
        return result;
    }
    const JSON_Object *request = json_value_get_object(parsed.get());
    result = insert_posted(&change, request, device.get());
    if (result == 0) {
        result = show_posted(request, device.get(), output);
    }
    return result == 0 ? change.commit() : result;
}

constexpr const char *delete_device = "can_proprietary_rest_delete_device_config";

int remove_device(const char *uri, json_ptr *output) {
    if (const int result = check_uri(delete_device, uri); result != 0) {
        return result;
    }
    // Without a transaction: the delete counts the moment it succeeds, as clients know it.
    change change;
    if (const int result = change.open(delete_device); result != 0) {
        return result;
    }
    int32_t id = 0;
    if (can_proprietary_get_id_from_path(uri, "device", &id) != 0) {
        return fail(delete_device, "invalid uri\n", REST_RET_INVALID_PARAM);
    }
    if (can_proprietary_conf_delete_device_config(change.db(), id) != 0) {
        return fail(delete_device, "set action fail\n", REST_RET_INVALID_PARAM);
    }
    return build_success(delete_device, output);
}

constexpr const char *patch_device = "can_proprietary_rest_patch_device_name_config";

int rename_device(const char *uri, const char *body, json_ptr *output) {
    change change;
    device_ptr device;
    json_ptr request;
    int result = start(patch_device, uri, body, &change, &device, &request);
    if (result != 0) {
        return result;
    }
    int32_t id = 0;
    if (can_proprietary_get_id_from_path(uri, "device", &id) != 0) {
        return fail(patch_device, "invalid uri\n", REST_RET_INVALID_PARAM);
    }
    device->deviceId = static_cast<uint8_t>(id);
    result = json_obj_get_string(
        json_value_get_object(request.get()), "deviceName", &device->deviceName, 1, 64);
    if (result != 0) {
        // names the wrong member, kept: logs are searched for it
        return failed_member(patch_device, "portId", result);
    }
    if (can_proprietary_conf_update_device_config(change.db(), device.get(), id) != 0) {
        return fail(
            patch_device, "can_proprietary_conf_update_device_config fail", REST_RET_SET_FAIL);
    }
    if (result = init_output(patch_device, output); result != 0) {
        return result;
    }
    // The port was never read and shows as 0, as clients know it.
    result = show_device(patch_device, device.get(), id, json_value_get_object(output->get()));
    return result == 0 ? change.commit() : result;
}

} // namespace

int can_proprietary_rest_post_device_config(const char *uri, const char *body, size_t /*length*/) {
    json_ptr output;
    const int result = create_device(uri, body, &output);
    return answer(result, output, REST_POST);
}

int can_proprietary_rest_delete_device_config(const char *uri,
                                              const char * /*body*/,
                                              size_t /*length*/) {
    json_ptr output;
    const int result = remove_device(uri, &output);
    return answer(result, output, REST_DELETE);
}

int can_proprietary_rest_patch_device_name_config(const char *uri,
                                                  const char *body,
                                                  size_t /*length*/) {
    json_ptr output;
    const int result = rename_device(uri, body, &output);
    return answer(result, output, REST_PATCH);
}
