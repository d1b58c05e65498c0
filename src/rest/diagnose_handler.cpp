#include "core/log.h"
#include "core/state.h"
#include "device/diag.h"
#include "rest/handlers.h"
#include "rest/request.h"

namespace {

constexpr const char *get_diagnose = "can_proprietary_rest_get_diagnose";

double value_of(const std::atomic<uint64_t> &counter) {
    return static_cast<double>(counter.load(std::memory_order_relaxed));
}

int add_counters(JSON_Object *output, const diag_record *record) {
    const char *state = record->state.load(std::memory_order_relaxed);
    // A port that has not come up yet has no state to show.
    const char *shown = state == nullptr ? canbus_state_str[CANBUS_NORMAL] : state;
    if (set_string(get_diagnose, output, "data.state", shown) != 0 ||
        set_number(get_diagnose, output, "data.rxCount", value_of(record->rxCount)) != 0 ||
        set_number(get_diagnose, output, "data.txCount", value_of(record->txCount)) != 0 ||
        set_number(get_diagnose, output, "data.crcError", value_of(record->crcError)) != 0 ||
        set_number(get_diagnose, output, "data.bitError", value_of(record->bitError)) != 0 ||
        set_number(get_diagnose, output, "data.stuffError", value_of(record->stuffError)) != 0 ||
        set_number(get_diagnose, output, "data.busOffCount", value_of(record->busOffCount)) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    return REST_RET_SUCCESS;
}

int add_bus_loading(JSON_Object *output, uint32_t port, diag_record *record) {
    can_proprietary_diag_update_bus_loading(port, record->bit_rate.load(std::memory_order_relaxed));
    return set_number(get_diagnose,
                      output,
                      "data.busLoading",
                      record->busLoading.load(std::memory_order_relaxed));
}

int append_slot(JSON_Array *array, const diag_slot &slot) {
    json_ptr value(json_value_init_object());
    if (value == nullptr) {
        return fail(get_diagnose, "init transaction_val fail\n", REST_RET_JSON_SET_FAIL);
    }
    JSON_Object *object = json_value_get_object(value.get());
    const auto state = static_cast<int8_t>(slot.state.load(std::memory_order_relaxed));
    const uint32_t failures = slot.failure_count.load(std::memory_order_relaxed);
    if (set_string(get_diagnose, object, "deviceName", slot.device_name) != 0 ||
        set_string(get_diagnose, object, "transactionName", slot.transaction_name) != 0 ||
        set_number(get_diagnose, object, "transactionState", state) != 0 ||
        set_number(get_diagnose, object, "failedCount", failures) != 0 ||
        json_array_append_value(array, value.get()) != JSONSuccess) {
        return REST_RET_JSON_SET_FAIL;
    }
    (void)value.release(); // the array's now
    return REST_RET_SUCCESS;
}

int add_transactions(JSON_Object *output, const diag_record *record, uint32_t count) {
    json_ptr list(json_value_init_array());
    if (list == nullptr) {
        return fail(get_diagnose, "init transaction_table_arr fail\n", REST_RET_JSON_SET_FAIL);
    }
    for (uint32_t slot = 0; slot < count; slot++) {
        const int result = append_slot(json_value_get_array(list.get()), record->slots[slot]);
        if (result != 0) {
            return result;
        }
    }
    if (json_object_dotset_value(output, "data.transactionList", list.get()) != JSONSuccess) {
        return fail(get_diagnose, "set data.transactionList fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)list.release(); // the output's now
    return REST_RET_SUCCESS;
}

int add_record(JSON_Object *output, uint32_t port, diag_record *record) {
    if (const int result = add_counters(output, record); result != 0) {
        return result;
    }
    const uint32_t count = record->transaction_count.load(std::memory_order_acquire);
    if (add_bus_loading(output, port, record) != 0 ||
        set_number(get_diagnose, output, "data.transactionCount", count) != 0) {
        return REST_RET_JSON_SET_FAIL;
    }
    return add_transactions(output, record, count);
}

int build_diagnose(const char *uri, json_ptr *output) {
    int port = 0;
    int result = check_uri(get_diagnose, uri);
    if (result == 0) {
        result = get_query_number(get_diagnose, uri, "portId", &port);
    }
    if (result != 0) {
        return result;
    }
    const int32_t count = g_can_port_count.load(std::memory_order_relaxed);
    if (port < 1 || port > count) {
        log_write_error(get_diagnose, __LINE__, "port index over range ( 1 ~ %d )\n", count);
        return REST_RET_GET_FAIL;
    }
    const auto index = static_cast<uint32_t>(port - 1);
    const diag_read_lock lock;
    diag_record *record = can_proprietary_diag_get(index);
    if (record == nullptr) {
        return REST_RET_GET_FAIL;
    }
    if (result = init_output(get_diagnose, output); result != 0) {
        return result;
    }
    return add_record(json_value_get_object(output->get()), index, record);
}

} // namespace

int can_proprietary_rest_get_diagnose(const char *uri, const char * /*body*/, size_t /*length*/) {
    json_ptr output;
    const int result = build_diagnose(uri, &output);
    return answer(result, output, REST_GET);
}
