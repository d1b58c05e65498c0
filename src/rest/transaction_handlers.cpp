#include "config/write.h"
#include "core/log.h"
#include "rest/config_json.h"
#include "rest/frame_json_insert.h"
#include "rest/handlers.h"
#include "rest/request.h"

namespace {

using transaction_ptr = std::unique_ptr<transaction_config, call_on_delete<conf_free_transaction>>;

/** A code that stands in no table: clients know a body that does not parse as status 500. */
constexpr int result_unparsable = 1;

int allocate_transaction(const char *function, const char *message, transaction_ptr *transaction) {
    transaction->reset(allocate_zeroed<transaction_config>().release());
    return *transaction == nullptr ? fail(function, message, REST_RET_MALLOC_FAIL)
                                   : REST_RET_SUCCESS;
}

constexpr const char *no_transaction_memory = "Memory allocation failed for transaction\n";

/** URI, body, working copy, in this order. */
int prologue(const char *function, const char *uri, const char *body, change *change) {
    if (const int result = check_uri(function, uri); result != 0) {
        return result;
    }
    if (const int result = check_body(function, body); result != 0) {
        return result;
    }
    return change->begin(function);
}

int parse(const char *function, const char *body, json_ptr *request) {
    *request = parse_body(body);
    return *request == nullptr ? fail(function, "invalid input_data\n", REST_RET_INVALID_PARAM)
                               : REST_RET_SUCCESS;
}

int get_id(const char *function, const char *uri, const char *resource, int32_t *id) {
    return can_proprietary_get_id_from_path(uri, resource, id) == 0
               ? REST_RET_SUCCESS
               : fail(function, "invalid uri\n", REST_RET_INVALID_PARAM);
}

/** {"data": value} */
int wrap(const char *function, json_ptr value, json_ptr *output) {
    if (const int result = init_output(function, output); result != 0) {
        return result;
    }
    JSON_Object *object = json_value_get_object(output->get());
    if (json_object_set_value(object, "data", value.get()) != JSONSuccess) {
        return fail(function, "set data object fail\n", REST_RET_JSON_SET_FAIL);
    }
    (void)value.release(); // the output's now
    return REST_RET_SUCCESS;
}

/** An object showing the transaction. */
int show_transaction(const char *function,
                     const char *init_message,
                     const transaction_config *transaction,
                     json_ptr *value) {
    value->reset(json_value_init_object());
    if (*value == nullptr) {
        return fail(function, init_message, REST_RET_JSON_INIT_FAIL);
    }
    if (can_proprietary_get_transaction_config_to_json_object(value->get(), transaction) != 0) {
        return fail(function,
                    "can_proprietary_get_transaction_config_to_json_object fail\n",
                    REST_RET_JSON_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

constexpr const char *post_transaction = "can_proprietary_rest_post_transaction_config";

int insert_posted(change *change, const JSON_Object *request, transaction_config *transaction) {
    int32_t deviceId = 0;
    if (const int result =
            json_obj_get_number(request, "deviceId", &deviceId, INT32_MIN, INT32_MAX);
        result != 0) {
        log_write_error(post_transaction, __LINE__, "get %s fail\n", "deviceId");
        return result;
    }
    transaction->deviceId = static_cast<uint8_t>(deviceId); // cut by definition
    if (can_proprietary_parse_object_transaction_json(request, transaction) != 0) {
        return fail(post_transaction,
                    "can_proprietary_parse_object_transaction_json fail\n",
                    result_unparsable);
    }
    if (can_proprietary_conf_insert_transaction_config(change->db(), transaction, transaction) !=
        0) {
        return fail(post_transaction,
                    "can_proprietary_conf_insert_transaction_config fail\n",
                    REST_RET_SET_FAIL);
    }
    const int result = can_proprietary_parse_array_frame_json_to_insert_config(
        change->handle(), request, transaction);
    return result == 0 ? result
                       : fail(post_transaction,
                              "can_proprietary_parse_array_frame_json_to_insert_config fail\n",
                              result);
}

int show_posted(const transaction_config *transaction, json_ptr *output) {
    json_ptr value;
    const int result =
        show_transaction(post_transaction, "init output_obj_val fail\n", transaction, &value);
    if (result != 0) {
        return result;
    }
    if (can_proprietary_get_frame_config_to_json_array(value.get(), transaction->frames) != 0) {
        return fail(post_transaction,
                    "can_proprietary_get_frame_config_to_json_array fail\n",
                    REST_RET_GET_FAIL);
    }
    return wrap(post_transaction, std::move(value), output);
}

int create_transaction(const char *uri, const char *body, json_ptr *output) {
    change change;
    if (const int result = prologue(post_transaction, uri, body, &change); result != 0) {
        return result;
    }
    transaction_ptr transaction;
    int result = allocate_transaction(post_transaction, no_transaction_memory, &transaction);
    if (result != 0) {
        return result;
    }
    set_transaction_defaults(transaction.get());
    json_ptr request;
    if (result = parse(post_transaction, body, &request); result != 0) {
        return result;
    }
    result = insert_posted(&change, json_value_get_object(request.get()), transaction.get());
    if (result == 0) {
        result = show_posted(transaction.get(), output);
    }
    return result == 0 ? change.commit() : result;
}

constexpr const char *patch_transaction = "can_proprietary_rest_patch_transaction_config";

int update_transaction(const char *uri, const char *body, json_ptr *output) {
    change change;
    if (const int result = prologue(patch_transaction, uri, body, &change); result != 0) {
        return result;
    }
    transaction_ptr transaction;
    int result = allocate_transaction(patch_transaction, no_transaction_memory, &transaction);
    if (result != 0) {
        return result;
    }
    set_transaction_defaults(transaction.get());
    json_ptr request;
    int32_t id = 0;
    if (result = parse(patch_transaction, body, &request); result != 0) {
        return result;
    }
    if (result = get_id(patch_transaction, uri, "transaction", &id); result != 0) {
        return result;
    }
    transaction->transactionId = static_cast<uint16_t>(id);
    if (can_proprietary_parse_object_transaction_json(json_value_get_object(request.get()),
                                                      transaction.get()) != 0) {
        // names the other handler, without a newline; kept: logs are searched for it
        return fail(patch_transaction,
                    "can_proprietary_rest_post_transaction_config fail",
                    result_unparsable);
    }
    if (can_proprietary_conf_update_transaction_config(change.db(), transaction.get(), id) != 0) {
        return fail(patch_transaction,
                    "can_proprietary_conf_update_transaction_config fail",
                    REST_RET_SET_FAIL);
    }
    json_ptr value;
    result = show_transaction(
        patch_transaction, "init transaction_obj_val fail\n", transaction.get(), &value);
    if (result == 0) {
        result = wrap(patch_transaction, std::move(value), output);
    }
    return result == 0 ? change.commit() : result;
}

constexpr const char *delete_transaction = "can_proprietary_rest_delete_transaction_config";

int remove_transaction(const char *uri, json_ptr *output) {
    if (const int result = check_uri(delete_transaction, uri); result != 0) {
        return result;
    }
    change change;
    if (const int result = change.begin(delete_transaction); result != 0) {
        return result;
    }
    int32_t id = 0;
    if (const int result = get_id(delete_transaction, uri, "transaction", &id); result != 0) {
        return result;
    }
    if (can_proprietary_conf_delete_transaction_config(change.db(), id) != 0) {
        return fail(delete_transaction, "set action fail\n", REST_RET_INVALID_PARAM);
    }
    const int result = build_success(delete_transaction, output);
    return result == 0 ? change.commit() : result;
}

constexpr const char *put_frame = "can_proprietary_rest_put_frame_config";

int show_frames(const transaction_config *transaction, json_ptr *output) {
    json_ptr value;
    if (const int result = init_output(put_frame, &value); result != 0) {
        return result;
    }
    if (can_proprietary_get_frame_config_to_json_array(value.get(), transaction->frames) != 0) {
        return fail(put_frame,
                    "can_proprietary_get_frame_config_to_json_array fail\n",
                    REST_RET_JSON_SET_FAIL);
    }
    return wrap(put_frame, std::move(value), output);
}

int replace_frames(const char *uri, const char *body, json_ptr *output) {
    change change;
    if (const int result = prologue(put_frame, uri, body, &change); result != 0) {
        return result;
    }
    // Its type stays 0, so every replacing frame becomes a sent one. On purpose: clients rely on
    // it.
    transaction_ptr transaction;
    int result = allocate_transaction(
        put_frame, "Memory allocation failed for transaction_config\n", &transaction);
    if (result != 0) {
        return result;
    }
    json_ptr request;
    int32_t id = 0;
    if (result = parse(put_frame, body, &request); result != 0) {
        return result;
    }
    if (result = get_id(put_frame, uri, "frame", &id); result != 0) {
        return result;
    }
    result = can_proprietary_parse_array_frame_json_to_replace_config(
        change.handle(), json_value_get_object(request.get()), transaction.get(), id);
    if (result != 0) {
        return fail(
            put_frame, "can_proprietary_parse_array_frame_json_to_replace_config fail\n", result);
    }
    result = show_frames(transaction.get(), output);
    return result == 0 ? change.commit() : result;
}

} // namespace

int can_proprietary_rest_post_transaction_config(const char *uri,
                                                 const char *body,
                                                 size_t /*length*/) {
    json_ptr output;
    const int result = create_transaction(uri, body, &output);
    return answer(result, output, REST_POST);
}

int can_proprietary_rest_patch_transaction_config(const char *uri,
                                                  const char *body,
                                                  size_t /*length*/) {
    json_ptr output;
    const int result = update_transaction(uri, body, &output);
    return answer(result, output, REST_PATCH);
}

int can_proprietary_rest_delete_transaction_config(const char *uri,
                                                   const char * /*body*/,
                                                   size_t /*length*/) {
    json_ptr output;
    const int result = remove_transaction(uri, &output);
    return answer(result, output, REST_DELETE);
}

int can_proprietary_rest_put_frame_config(const char *uri, const char *body, size_t /*length*/) {
    json_ptr output;
    const int result = replace_frames(uri, body, &output);
    return answer(result, output, REST_PUT);
}
