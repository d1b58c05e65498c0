#include "rest/config_json.h"

#include "core/log.h"
#include "rest/response.h"

#include <array>
#include <cstdio>

namespace {

/** One member of an object with its value, so that a list of them reads like the interface. */
struct member {
    const char *name;
    enum { NUMBER, BOOLEAN, STRING } kind;
    double number;
    const char *string;
    const char *logged; /* name in the failure message, nullptr for the member's own */
};

member number_member(const char *name, double value, const char *logged = nullptr) {
    return {name, member::NUMBER, value, nullptr, logged};
}

member boolean_member(const char *name, bool value) {
    return {name, member::BOOLEAN, value ? 1.0 : 0.0, nullptr, nullptr};
}

member string_member(const char *name, const char *value) {
    return {name, member::STRING, 0, value, nullptr};
}

JSON_Status set_member(JSON_Object *object, const member &member) {
    switch (member.kind) {
    case member::NUMBER:
        return json_object_dotset_number(object, member.name, member.number);
    case member::BOOLEAN:
        return json_object_dotset_boolean(object, member.name, member.number != 0);
    default:
        return json_object_dotset_string(object, member.name, member.string);
    }
}

int set_members(const char *function, JSON_Object *object, std::initializer_list<member> members) {
    for (const member &member : members) {
        if (set_member(object, member) != JSONSuccess) {
            const char *name = member.logged == nullptr ? member.name : member.logged;
            log_write_error(function, __LINE__, "set %s fail\n", name);
            return 1;
        }
    }
    return 0;
}

int failed(const char *function, const char *message) {
    log_write_error(function, __LINE__, "%s", message);
    return 1;
}

int add_constant(const char *function, JSON_Object *object, const block_config *block) {
    const constant_block_config *constant = block->constant;
    std::array<char, 17> value{};
    (void)snprintf(value.data(),
                   value.size(),
                   "%0*llX",
                   2 * constant->constantSize,
                   static_cast<unsigned long long>(constant->constantValue));
    return set_members(function,
                       object,
                       {number_member("blockType", block->blockType),
                        number_member("blockId", constant->blockId),
                        number_member("frameId", constant->frameId),
                        string_member("constantName", constant->constantName),
                        number_member("constantSize", constant->constantSize),
                        number_member("startOffset", constant->startOffset),
                        string_member("constantValue", value.data())});
}

int add_tag(const char *function, JSON_Object *object, const block_config *block) {
    const tag_block_config *tag = block->tag;
    const auto &[a, b, c, d] = tag->scaling;
    return set_members(function,
                       object,
                       {number_member("blockType", block->blockType),
                        number_member("blockId", tag->blockId),
                        number_member("frameId", tag->frameId),
                        string_member("tagName", tag->tagName),
                        number_member("tagType", tag->tagType),
                        number_member("tagSize", tag->tagSize),
                        string_member("access", tag->access),
                        number_member("startOffset", tag->startOffset),
                        number_member("swap", tag->swap),
                        string_member("fpData", tag->fpData),
                        // named wrongly in its message, kept: logs are searched for it
                        number_member("scalingFunc", tag->scalingFunc, "interceptSlope"),
                        number_member("interceptSlope", a),
                        number_member("interceptOffset", b),
                        number_member("pointSourceMin", a),
                        number_member("pointSourceMax", b),
                        number_member("pointTargetMin", c),
                        number_member("pointTargetMax", d)});
}

int add_consume_members(const char *function,
                        JSON_Object *object,
                        const transaction_config *transaction) {
    return set_members(function,
                       object,
                       {boolean_member("consumeToutEnable", transaction->consumeToutEnable != 0),
                        number_member("consumeTimeout", transaction->consumeTimeout)});
}

int add_send_members(const char *function,
                     JSON_Object *object,
                     const transaction_config *transaction) {
    if (set_members(function,
                    object,
                    {number_member("trigger", transaction->triggerMode),
                     number_member("cyclicInterval", transaction->cyclicInterval),
                     number_member("fpFunc", transaction->fpFunc),
                     number_member("fpTimeout", transaction->fpTimeout)}) != 0) {
        return 1;
    }
    if (transaction->transactionType == TRANSACTION_REQUEST) {
        return set_members(function,
                           object,
                           {number_member("responseTimeout", transaction->responseTimeout),
                            number_member("timeoutRetry", transaction->timeoutRetry)});
    }
    return set_members(
        function, object, {boolean_member("triggerByRTR", transaction->triggerByRTR != 0)});
}

/** Reads a number member into a field of any width. */
template <typename Field>
int get_field(const JSON_Object *object, const char *name, Field *field, int32_t min, int32_t max) {
    int32_t value = 0;
    const int result = json_obj_get_number(object, name, &value, min, max);
    if (result == 0) {
        *field = static_cast<Field>(value);
    }
    return result;
}

constexpr const char *parse_transaction = "can_proprietary_parse_object_transaction_json";

int logged(int result, const char *name) {
    if (result != 0) {
        log_write_error(parse_transaction, __LINE__, "get %s fail\n", name);
    }
    return result;
}

template <typename Field>
int get_logged(
    const JSON_Object *object, const char *name, Field *field, int32_t min, int32_t max) {
    return logged(get_field(object, name, field, min, max), name);
}

int get_logged_boolean(const JSON_Object *object, const char *name, uint8_t *field) {
    return logged(json_obj_get_boolean(object, name, field), name);
}

int parse_consume(const JSON_Object *object, transaction_config *transaction) {
    const int result =
        get_logged_boolean(object, "consumeToutEnable", &transaction->consumeToutEnable);
    if (result != 0 || transaction->consumeToutEnable == 0) {
        return result;
    }
    return get_logged(object, "consumeTimeout", &transaction->consumeTimeout, 0, 65535);
}

int parse_trigger(const JSON_Object *object, transaction_config *transaction) {
    const int result = get_logged(object, "trigger", &transaction->triggerMode, 0, 2);
    if (result != 0 || transaction->triggerMode != TRIGGER_CYCLIC) {
        return result;
    }
    return get_logged(object, "cyclicInterval", &transaction->cyclicInterval, 10, 65535);
}

int parse_fault_protection(const JSON_Object *object, transaction_config *transaction) {
    const int result = get_logged(object, "fpFunc", &transaction->fpFunc, 0, 2);
    if (result != 0 || !has_fault_protection(transaction)) {
        return result;
    }
    return get_logged(object, "fpTimeout", &transaction->fpTimeout, 100, 65535);
}

int parse_send(const JSON_Object *object, transaction_config *transaction) {
    if (const int result = parse_trigger(object, transaction); result != 0) {
        return result;
    }
    if (const int result = parse_fault_protection(object, transaction); result != 0) {
        return result;
    }
    if (transaction->transactionType != TRANSACTION_REQUEST) {
        return get_logged_boolean(object, "triggerByRTR", &transaction->triggerByRTR);
    }
    const int result =
        get_logged(object, "responseTimeout", &transaction->responseTimeout, 10, 65535);
    return result != 0 ? result
                       : get_logged(object, "timeoutRetry", &transaction->timeoutRetry, 0, 5);
}

} // namespace

int can_proprietary_get_transaction_config_to_json_object(JSON_Value *value,
                                                          const transaction_config *transaction) {
    JSON_Object *object = json_value_get_object(value);
    if (set_members(__func__,
                    object,
                    {number_member("transactionId", transaction->transactionId),
                     number_member("deviceId", transaction->deviceId),
                     boolean_member("transactionEnable", transaction->transactionEnable != 0),
                     string_member("transactionName", transaction->transactionName),
                     number_member("transactionType", transaction->transactionType)}) != 0) {
        return 1;
    }
    return has_consume_shape(transaction->transactionType)
               ? add_consume_members(__func__, object, transaction)
               : add_send_members(__func__, object, transaction);
}

int can_proprietary_get_transaction_config_to_json_array(JSON_Value *output,
                                                         const transaction_config *transactions) {
    json_ptr list(json_value_init_array());
    if (list == nullptr) {
        return failed(__func__, "init transaction_table_arr fail\n");
    }
    JSON_Array *array = json_value_get_array(list.get());
    for (const transaction_config *transaction = transactions; transaction != nullptr;
         transaction = transaction->next) {
        json_ptr value(json_value_init_object());
        if (value == nullptr) {
            return failed(__func__, "init transaction_val fail\n");
        }
        if (can_proprietary_get_transaction_config_to_json_object(value.get(), transaction) != 0) {
            return failed(__func__, "can_proprietary_get_transaction_config_to_json_object fail\n");
        }
        if (json_array_append_value(array, value.get()) != JSONSuccess) {
            return failed(__func__, "append transaction_val fail\n");
        }
        JSON_Value *appended = value.release(); // the array's now, and filled there
        if (can_proprietary_get_frame_config_to_json_array(appended, transaction->frames) != 0) {
            return failed(__func__, "can_proprietary_get_frame_config_to_json_array fail\n");
        }
    }
    JSON_Object *object = json_value_get_object(output);
    if (json_object_dotset_value(object, "data.transactionList", list.get()) != JSONSuccess) {
        return failed(__func__, "set transaction list list fail\n");
    }
    (void)list.release(); // the output's now
    return 0;
}

int can_proprietary_get_frame_config_to_json_object(JSON_Value *value, const frame_config *frame) {
    return set_members(__func__,
                       json_value_get_object(value),
                       {number_member("frameId", frame->frameId),
                        number_member("transactionId", frame->transactionId),
                        number_member("canId", static_cast<uint32_t>(frame->canId)),
                        number_member("dataLength", frame->dataLength)});
}

int can_proprietary_get_block_config_to_json_array(JSON_Array *array, const block_config *blocks) {
    for (const block_config *block = blocks; block != nullptr; block = block->next) {
        json_ptr value(json_value_init_object());
        if (value == nullptr) {
            return failed(__func__, "init block_val fail\n");
        }
        JSON_Object *object = json_value_get_object(value.get());
        const int result = block->blockType == BLOCK_CONSTANT
                               ? add_constant(__func__, object, block)
                               : add_tag(__func__, object, block);
        if (result != 0) {
            return result;
        }
        if (json_array_append_value(array, value.get()) != JSONSuccess) {
            return failed(__func__, "append block_table_arr fail\n");
        }
        (void)value.release(); // the array's now
    }
    return 0;
}

namespace {

constexpr const char *frame_array = "can_proprietary_get_frame_config_to_json_array";

int add_block_list(JSON_Value *frame_value, const frame_config *frame) {
    json_ptr blocks(json_value_init_array());
    if (blocks == nullptr) {
        return failed(frame_array, "init block_table_arr fail\n");
    }
    if (can_proprietary_get_block_config_to_json_array(json_value_get_array(blocks.get()),
                                                       frame->blocks) != 0) {
        return failed(frame_array, "can_proprietary_get_block_config_to_json_array fail\n");
    }
    JSON_Object *object = json_value_get_object(frame_value);
    if (json_object_dotset_value(object, "blockList", blocks.get()) != JSONSuccess) {
        return failed(frame_array, "set block list to frame list fail\n");
    }
    (void)blocks.release(); // the frame's now
    return 0;
}

} // namespace

int can_proprietary_get_frame_config_to_json_array(JSON_Value *parent, const frame_config *frames) {
    json_ptr list(json_value_init_array());
    if (list == nullptr) {
        return failed(__func__, "frmae_table_arr fail\n");
    }
    JSON_Array *array = json_value_get_array(list.get());
    for (const frame_config *frame = frames; frame != nullptr; frame = frame->next) {
        json_ptr value(json_value_init_object());
        if (value == nullptr) {
            return failed(__func__, "init frame_val fail\n");
        }
        if (can_proprietary_get_frame_config_to_json_object(value.get(), frame) != 0) {
            return failed(__func__, "can_proprietary_get_frame_config_to_json_object fail\n");
        }
        if (json_array_append_value(array, value.get()) != JSONSuccess) {
            return failed(__func__, "append frame_val fail\n");
        }
        JSON_Value *appended = value.release(); // the array's now, and filled there
        if (add_block_list(appended, frame) != 0) {
            return 1;
        }
    }
    JSON_Object *object = json_value_get_object(parent);
    if (json_object_dotset_value(object, "frameList", list.get()) != JSONSuccess) {
        return failed(__func__, "set frame list fail\n");
    }
    (void)list.release(); // the parent's now
    return 0;
}

int can_proprietary_parse_object_transaction_json(const JSON_Object *object,
                                                  transaction_config *transaction) {
    int result = get_logged_boolean(object, "transactionEnable", &transaction->transactionEnable);
    if (result != 0) {
        return result;
    }
    result =
        logged(json_obj_get_string(object, "transactionName", &transaction->transactionName, 1, 64),
               "transactionName");
    if (result != 0) {
        return result;
    }
    result = get_logged(object, "transactionType", &transaction->transactionType, 0, 2);
    if (result != 0) {
        return result;
    }
    return has_consume_shape(transaction->transactionType) ? parse_consume(object, transaction)
                                                           : parse_send(object, transaction);
}

int can_proprietary_parse_object_frame_json(const JSON_Object *object, frame_config *frame) {
    if (const int result = get_field(object, "canId", &frame->canId, 0, 0x1FFFFFFF); result != 0) {
        log_error("set %s fail\n", "canId");
        return result;
    }
    if (get_field(object, "dataLength", &frame->dataLength, 0, 8) != 0) {
        log_error("set %s fail\n", "dataLength");
        return REST_RET_JSON_INIT_FAIL;
    }
    return REST_RET_SUCCESS;
}
