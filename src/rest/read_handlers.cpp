#include "config/database.h"
#include "config/read.h"
#include "core/log.h"
#include "rest/config_json.h"
#include "rest/handlers.h"
#include "rest/request.h"

namespace {

using device_ptr = std::unique_ptr<device_config, call_on_delete<conf_free_device>>;
using device_list_ptr = std::unique_ptr<device_config, call_on_delete<conf_free_device_list>>;
using working_copy_ptr = std::unique_ptr<sqlite3, call_on_delete<can_proprietary_db_close>>;

constexpr const char *get_interface = "can_proprietary_rest_get_interface_config";

int add_interface(JSON_Object *output, const interface_config &config) {
    if (set_number(get_interface, output, "data.portId", config.portId) != 0 ||
        set_number(get_interface, output, "data.frameFormat", config.frameFormat) != 0 ||
        set_number(get_interface, output, "data.baudrate", config.baudrate) != 0 ||
        set_number(get_interface, output, "data.initialDelay", config.initialDelay) != 0 ||
        set_boolean(get_interface, output, "data.busOffReset", config.busOffReset) != 0 ||
        set_boolean(get_interface, output, "data.resistor", config.resistor) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    return REST_RET_SUCCESS;
}

int append_device(JSON_Array *array, const device_config *device) {
    json_ptr value(json_value_init_object());
    if (value == nullptr) {
        return fail(get_interface, "init table_inner fail\n", REST_RET_JSON_SET_FAIL);
    }
    JSON_Object *object = json_value_get_object(value.get());
    if (set_number(get_interface, object, "deviceId", device->deviceId) != 0 ||
        set_number(get_interface, object, "portId", device->portId) != 0 ||
        set_string(get_interface, object, "deviceName", device->deviceName) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    if (json_array_append_value(array, value.get()) != JSONSuccess) {
        return fail(get_interface, "append inner fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)value.release(); // the array's now
    return REST_RET_SUCCESS;
}

int add_device_list(JSON_Object *output, sqlite3 *db, int port) {
    device_config *read = nullptr;
    if (conf_read_interface_devices(db, &read, port) != 0) {
        return fail(get_interface, "get_interface_device_config fail\n", REST_RET_GET_FAIL);
    }
    const device_list_ptr devices(read);
    json_ptr list(json_value_init_array());
    if (list == nullptr) {
        return fail(get_interface, "init device_table_arr fail\n", REST_RET_JSON_INIT_FAIL);
    }
    JSON_Array *array = json_value_get_array(list.get());
    if (json_object_dotset_value(output, "data.deviceList", list.get()) != JSONSuccess) {
        return fail(get_interface, "set data.deviceList fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)list.release(); // the output's now, and filled there
    for (const device_config *device = devices.get(); device != nullptr; device = device->next) {
        if (const int result = append_device(array, device); result != 0) {
            return result;
        }
    }
    return REST_RET_SUCCESS;
}

int build_interface(const char *uri, json_ptr *output) {
    int port = 0;
    int result = check_uri(get_interface, uri);
    if (result == 0) {
        result = get_query_number(get_interface, uri, "portId", &port);
    }
    if (result == 0) {
        result = init_output(get_interface, output);
    }
    if (result != 0) {
        return result;
    }
    const working_copy_ptr db(conf_open_snapshot());
    interface_config config{};
    if (conf_read_interface(db.get(), &config, port) != 0) {
        return fail(get_interface, "get config fail\n", REST_RET_GET_FAIL);
    }
    JSON_Object *object = json_value_get_object(output->get());
    result = add_interface(object, config);
    return result != 0 ? result : add_device_list(object, db.get(), port);
}

constexpr const char *get_device = "can_proprietary_rest_get_device_config";

int add_device(JSON_Value *output, const device_config *device) {
    JSON_Object *object = json_value_get_object(output);
    if (set_number(get_device, object, "data.deviceId", device->deviceId) != 0 ||
        set_number(get_device, object, "data.portId", device->portId) != 0 ||
        set_string(get_device, object, "data.deviceName", device->deviceName) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    if (can_proprietary_get_transaction_config_to_json_array(output, device->transactions) != 0) {
        return fail(get_device,
                    "can_proprietary_get_transaction_config_to_json_array fail\n",
                    REST_RET_JSON_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

int build_device(const char *uri, json_ptr *output) {
    int id = 0;
    int result = check_uri(get_device, uri);
    if (result == 0) {
        result = get_query_number(get_device, uri, "deviceId", &id);
    }
    if (result != 0) {
        return result;
    }
    const working_copy_ptr db(can_proprietary_db_get());
    if (db == nullptr) {
        return fail(get_device, "param fail\n", REST_RET_INVALID_PARAM);
    }
    const device_ptr device(allocate_zeroed<device_config>().release());
    if (device == nullptr) {
        return fail(get_device, "Memory allocation failed for device\n", REST_RET_MALLOC_FAIL);
    }
    if (result = init_output(get_device, output); result != 0) {
        return result;
    }
    if (can_proprietary_conf_get_device_config(db.get(), device.get(), id) != 0) {
        return fail(get_device, "get config fail\n", REST_RET_GET_FAIL);
    }
    return add_device(output->get(), device.get());
}

constexpr const char *get_overview = "can_proprietary_rest_get_overview_config";

int append_port(JSON_Array *array, sqlite3 *db, int port) {
    overview_info info{};
    if (conf_count_rows_of_port(db, &info, port) != 0) {
        return fail(get_overview, "get config fail\n", REST_RET_GET_FAIL);
    }
    json_ptr value(json_value_init_object());
    if (value == nullptr) {
        return fail(get_overview, "init transaction_val fail\n", REST_RET_JSON_INIT_FAIL);
    }
    JSON_Object *object = json_value_get_object(value.get());
    if (set_number(get_overview, object, "portId", port) != 0 ||
        set_number(get_overview, object, "deviceNum", info.device_num) != 0 ||
        set_number(get_overview, object, "transactionNum", info.transaction_num) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    if (json_array_append_value(array, value.get()) != JSONSuccess) {
        return fail(get_overview, "append port_val fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)value.release(); // the array's now
    return REST_RET_SUCCESS;
}

int build_overview(const char *uri, json_ptr *output) {
    if (const int result = check_uri(get_overview, uri); result != 0) {
        return result;
    }
    const working_copy_ptr db(conf_open_snapshot());
    overview_info info{};
    if (conf_count_ports(db.get(), &info) != 0) {
        return fail(get_overview, "get config fail\n", REST_RET_GET_FAIL);
    }
    if (const int result = init_output(get_overview, output); result != 0) {
        return result;
    }
    JSON_Object *object = json_value_get_object(output->get());
    if (json_object_dotset_number(object, "data.portNum", info.port_num) != JSONSuccess) {
        // names the wrong member, kept: logs are searched for it
        return fail(get_overview, "set data.deviceId fail\n", REST_RET_JSON_SET_FAIL);
    }
    json_ptr list(json_value_init_array());
    if (list == nullptr) {
        return fail(get_overview, "init transaction_table_arr fail\n", REST_RET_JSON_INIT_FAIL);
    }
    for (int port = 1; port <= info.port_num; port++) {
        const int result = append_port(json_value_get_array(list.get()), db.get(), port);
        if (result != 0) {
            return result;
        }
    }
    if (json_object_dotset_value(object, "data.portList", list.get()) != JSONSuccess) {
        return fail(get_overview, "set port list list fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)list.release(); // the output's now
    return REST_RET_SUCCESS;
}

constexpr const char *get_config_change = "can_proprietary_rest_get_config_change";

int build_config_change(const char *uri, json_ptr *output) {
    if (const int result = check_uri(get_config_change, uri); result != 0) {
        return result;
    }
    int changed = 0;
    if (can_proprietary_conf_changed(&changed) != 0) {
        return fail(get_config_change, "can_proprietary_conf_changed fail\n", REST_RET_SET_FAIL);
    }
    if (const int result = init_output(get_config_change, output); result != 0) {
        return result;
    }
    return set_number(get_config_change,
                      json_value_get_object(output->get()),
                      "data.result",
                      changed != 0 ? 1 : 0);
}

constexpr const char *get_used_ids = "can_proprietary_rest_get_usedCANIds_config";

int add_ids(JSON_Object *element, const frame_config *frames) {
    json_ptr ids(json_value_init_array());
    if (ids == nullptr) {
        return fail(get_used_ids, "init can_id_arr fail\n", REST_RET_JSON_INIT_FAIL);
    }
    JSON_Array *array = json_value_get_array(ids.get());
    for (const frame_config *frame = frames; frame != nullptr; frame = frame->next) {
        if (json_array_append_number(array, static_cast<uint32_t>(frame->canId)) != JSONSuccess) {
            return fail(get_used_ids, "set canIds to array fail\n", REST_RET_JSON_SET_FAIL);
        }
    }
    if (json_object_dotset_value(element, "canId", ids.get()) != JSONSuccess) {
        return fail(
            get_used_ids, "set canIds array to transaction_val fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)ids.release(); // the element's now
    return REST_RET_SUCCESS;
}

int append_transaction(JSON_Array *array, uint8_t device, const transaction_config *transaction) {
    json_ptr value(json_value_init_object());
    if (value == nullptr) {
        return fail(get_used_ids, "init transaction_val fail\n", REST_RET_JSON_INIT_FAIL);
    }
    JSON_Object *object = json_value_get_object(value.get());
    if (set_number(get_used_ids, object, "deviceId", device) != 0 ||
        set_number(get_used_ids, object, "transactionId", transaction->transactionId) != 0 ||
        set_number(get_used_ids, object, "transactionType", transaction->transactionType) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    if (const int result = add_ids(object, transaction->frames); result != 0) {
        return result;
    }
    if (json_array_append_value(array, value.get()) != JSONSuccess) {
        return fail(get_used_ids, "append transaction_val fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)value.release(); // the array's now
    return REST_RET_SUCCESS;
}

int add_used_ids(JSON_Object *output, const device_config *devices) {
    json_ptr list(json_value_init_array());
    if (list == nullptr) {
        return fail(get_used_ids, "init transaction_table_arr fail\n", REST_RET_JSON_INIT_FAIL);
    }
    JSON_Array *array = json_value_get_array(list.get());
    for (const device_config *device = devices; device != nullptr; device = device->next) {
        for (const transaction_config *transaction = device->transactions; transaction != nullptr;
             transaction = transaction->next) {
            if (const int result = append_transaction(array, device->deviceId, transaction);
                result != 0) {
                return result;
            }
        }
    }
    if (json_object_set_value(output, "data", list.get()) != JSONSuccess) {
        return fail(get_used_ids, "set data object fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)list.release(); // the output's now
    return REST_RET_SUCCESS;
}

int build_used_ids(const char *uri, json_ptr *output) {
    int port = 0;
    int result = check_uri(get_used_ids, uri);
    if (result == 0) {
        result = get_query_number(get_used_ids, uri, "portId", &port);
    }
    if (result != 0) {
        return result;
    }
    // A record of its own heads the list, so that both go together.
    const device_list_ptr head(allocate_zeroed<device_config>().release());
    if (head == nullptr) {
        return fail(get_used_ids, "Memory allocation failed for device\n", REST_RET_MALLOC_FAIL);
    }
    if (result = init_output(get_used_ids, output); result != 0) {
        return result;
    }
    if (can_proprietary_conf_get_port_config(&head->next, port) != 0) {
        return fail(get_used_ids, "get config fail\n", REST_RET_GET_FAIL);
    }
    return add_used_ids(json_value_get_object(output->get()), head->next);
}

template <auto Build>
int answer_get(const char *uri) {
    json_ptr output;
    const int result = Build(uri, &output);
    return answer(result, output, REST_GET);
}

} // namespace

int can_proprietary_rest_get_interface_config(const char *uri,
                                              const char * /*body*/,
                                              size_t /*length*/) {
    return answer_get<build_interface>(uri);
}

int can_proprietary_rest_get_device_config(const char *uri,
                                           const char * /*body*/,
                                           size_t /*length*/) {
    return answer_get<build_device>(uri);
}

int can_proprietary_rest_get_overview_config(const char *uri,
                                             const char * /*body*/,
                                             size_t /*length*/) {
    return answer_get<build_overview>(uri);
}

int can_proprietary_rest_get_config_change(const char *uri,
                                           const char * /*body*/,
                                           size_t /*length*/) {
    return answer_get<build_config_change>(uri);
}

int can_proprietary_rest_get_usedCANIds_config(const char *uri,
                                               const char * /*body*/,
                                               size_t /*length*/) {
    return answer_get<build_used_ids>(uri);
}
