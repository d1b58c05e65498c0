#include "rest/frame_json_insert.h"

#include "config/row.h"
#include "config/write.h"
#include "core/log.h"
#include "rest/config_json.h"
#include "rest/response.h"

namespace {

constexpr const char *insert_blocks = "can_proprietary_parse_array_block_json_to_insert_config";

using block_list_ptr = std::unique_ptr<block_config, call_on_delete<conf_free_block_list>>;
using frame_list_ptr = std::unique_ptr<frame_config, call_on_delete<conf_free_frame_list>>;

/** Logs a failed member under a name and passes its code on. */
int report(int result, const char *format, const char *name) {
    if (result != 0) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        log_write_error(insert_blocks, __LINE__, format, name);
#pragma GCC diagnostic pop
    }
    return result;
}

constexpr const char *get_failed = "get %s fail\n";
constexpr const char *set_failed = "set %s fail\n";

/** A number member of a block with its limits and the name that its failure logs. */
struct number_rule {
    const char *name;
    int32_t min;
    int32_t max;
    const char *logged;
};

template <typename Field>
int get_number(const JSON_Object *object, const number_rule &rule, Field *field) {
    int32_t value = 0;
    const int result = json_obj_get_number(object, rule.name, &value, rule.min, rule.max);
    if (result == 0) {
        *field = static_cast<Field>(value);
    }
    return report(result, set_failed, rule.logged);
}

constexpr number_rule block_type_rule = {"blockType", 0, 1, "blockType"};
constexpr number_rule constant_size_rule = {"constantSize", 0, 8, "constantSize"};
constexpr number_rule start_offset_rule = {"startOffset", 0, 7, "startOffset"};
constexpr number_rule tag_type_rule = {"tagType", 0, 13, "tagType"};
// names the wrong member, kept: logs are searched for it
constexpr number_rule tag_size_rule = {"tagSize", 0, 8, "tagType"};
constexpr number_rule swap_rule = {"swap", 0, 5, "swap"};
constexpr number_rule scaling_rule = {"scalingFunc", 0, 2, "scalingFunc"};

constexpr number_rule any_number(const char *name) {
    return {name, INT32_MIN, INT32_MAX, name};
}

int parse_constant(const JSON_Object *object, constant_block_config *constant) {
    int result = report(json_obj_get_string(object, "constantName", &constant->constantName, 1, 32),
                        get_failed,
                        "constantName");
    if (result != 0) {
        return result;
    }
    if (result = get_number(object, constant_size_rule, &constant->constantSize); result != 0) {
        return result;
    }
    if (result = get_number(object, start_offset_rule, &constant->startOffset); result != 0) {
        return result;
    }
    char *text = nullptr;
    result = report(
        json_obj_get_string(object, "constantValue", &text, 0, 16), set_failed, "constantValue");
    const heap_ptr<char> value(text);
    if (result == 0) {
        constant->constantValue = parse_constant_value(text);
    }
    return result;
}

int insert_constant(sqlite3 **db,
                    const JSON_Object *object,
                    const frame_config *frame,
                    block_config *block) {
    block->constant = allocate_zeroed<constant_block_config>().release();
    if (block->constant == nullptr) {
        return fail(insert_blocks, "malloc fail\n", REST_RET_MALLOC_FAIL);
    }
    block->constant->frameId = frame->frameId;
    block->constant->constantSize = 1;
    if (const int result = parse_constant(object, block->constant); result != 0) {
        return result;
    }
    if (can_proprietary_conf_insert_constant_block_config(*db, block, block->constant) != 0) {
        return fail(insert_blocks,
                    "can_proprietary_conf_insert_constant_block_config fail\n",
                    REST_RET_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

int parse_scaling(const JSON_Object *object, tag_block_config *tag) {
    scaling_numbers &numbers = tag->scaling;
    if (tag->scalingFunc == SCALING_INTERCEPT) {
        const int result = get_number(object, any_number("interceptSlope"), &numbers.a);
        return result != 0 ? result : get_number(object, any_number("interceptOffset"), &numbers.b);
    }
    if (tag->scalingFunc != SCALING_POINTS) {
        return REST_RET_SUCCESS;
    }
    struct point {
        const char *name;
        double *number;
    };
    for (const point &point : {point{"pointSourceMin", &numbers.a},
                               point{"pointSourceMax", &numbers.b},
                               point{"pointTargetMin", &numbers.c},
                               point{"pointTargetMax", &numbers.d}}) {
        if (const int result = get_number(object, any_number(point.name), point.number);
            result != 0) {
            return result;
        }
    }
    return REST_RET_SUCCESS;
}

int parse_place(const JSON_Object *object, tag_block_config *tag) {
    if (const int result = get_number(object, tag_type_rule, &tag->tagType); result != 0) {
        return result;
    }
    if (const int result = get_number(object, tag_size_rule, &tag->tagSize); result != 0) {
        return result;
    }
    // One character more than is kept passes, as it always has.
    const int access =
        json_obj_get_string_safe(object, "access", tag->access, sizeof tag->access, 3);
    if (report(access, get_failed, "access") != 0) {
        return access;
    }
    if (const int result = get_number(object, start_offset_rule, &tag->startOffset); result != 0) {
        return result;
    }
    return get_number(object, swap_rule, &tag->swap);
}

int parse_tag(const JSON_Object *object, tag_block_config *tag) {
    int result =
        report(json_obj_get_string(object, "tagName", &tag->tagName, 1, 64), get_failed, "tagName");
    if (result != 0) {
        return result;
    }
    if (result = parse_place(object, tag); result != 0) {
        return result;
    }
    if (json_object_dothas_value(object, "fpData") != 0) {
        result = report(json_obj_get_string_safe(
                            object, "fpData", tag->fpData, sizeof tag->fpData, fp_data_max_bytes),
                        set_failed,
                        "fpData");
        if (result != 0) {
            return result;
        }
    }
    result = get_number(object, scaling_rule, &tag->scalingFunc);
    return result != 0 ? result : parse_scaling(object, tag);
}

int insert_tag(sqlite3 **db,
               const JSON_Object *object,
               const frame_config *frame,
               block_config *block) {
    block->tag = allocate_zeroed<tag_block_config>().release();
    if (block->tag == nullptr) {
        return fail(insert_blocks, "malloc fail\n", REST_RET_MALLOC_FAIL);
    }
    tag_block_config *tag = block->tag;
    tag->frameId = frame->frameId;
    tag->tagType = TAG_RAW;
    tag->tagSize = 1;
    tag->access[0] = 'r';
    tag->access[1] = 'o';
    tag->scaling = {0, 1, 0, 1};
    if (const int result = parse_tag(object, tag); result != 0) {
        return result;
    }
    if (can_proprietary_conf_insert_tag_block_config(db, block, tag) != 0) {
        return fail(insert_blocks,
                    "can_proprietary_conf_insert_tag_block_config fail\n",
                    REST_RET_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

int insert_block(sqlite3 **db,
                 const JSON_Object *object,
                 const frame_config *frame,
                 block_config *block) {
    if (object == nullptr) {
        return fail(insert_blocks, "get block object fail\n", REST_RET_GET_FAIL);
    }
    if (const int result = get_number(object, block_type_rule, &block->blockType); result != 0) {
        return result;
    }
    return block->blockType == BLOCK_CONSTANT ? insert_constant(db, object, frame, block)
                                              : insert_tag(db, object, frame, block);
}

uint8_t frame_type_of(uint8_t transactionType, size_t position) {
    if (transactionType == TRANSACTION_PRODUCE || transactionType == TRANSACTION_CONSUME) {
        return transactionType;
    }
    return position == 0 ? FRAME_REQUEST : FRAME_RESPONSE;
}

int insert_frame(const char *function,
                 sqlite3 **db,
                 const JSON_Object *object,
                 frame_config *frame) {
    if (object == nullptr) {
        return fail(function, "get frame object fail\n", REST_RET_GET_FAIL);
    }
    if (const int result = can_proprietary_parse_object_frame_json(object, frame); result != 0) {
        return fail(function, "can_proprietary_parse_object_frame_json fail\n", result);
    }
    if (can_proprietary_conf_insert_frame_config(*db, frame, frame) != 0) {
        return fail(function, "can_proprietary_conf_insert_frame_config fail\n", REST_RET_SET_FAIL);
    }
    const int result = can_proprietary_parse_array_block_json_to_insert_config(db, object, frame);
    if (result != 0) {
        return fail(
            function, "can_proprietary_parse_array_block_json_to_insert_config fail\n", result);
    }
    return REST_RET_SUCCESS;
}

int insert_frames(const char *function,
                  sqlite3 **db,
                  const JSON_Object *object,
                  transaction_config *transaction) {
    const JSON_Array *array = json_object_dotget_array(object, "frameList");
    if (array == nullptr) {
        return fail(function, "frameList fail\n", REST_RET_GET_FAIL);
    }
    frame_list_ptr head;
    frame_config *tail = nullptr;
    for (size_t i = 0; i < json_array_get_count(array); i++) {
        frame_config *frame = allocate_zeroed<frame_config>().release();
        if (frame == nullptr) {
            return fail(function, "malloc fail\n", REST_RET_MALLOC_FAIL);
        }
        if (tail == nullptr) {
            head.reset(frame);
        } else {
            tail->next = frame;
        }
        tail = frame;
        frame->transactionId = transaction->transactionId;
        frame->frameType = frame_type_of(transaction->transactionType, i);
        const int result = insert_frame(function, db, json_array_get_object(array, i), frame);
        if (result != 0) {
            return result;
        }
    }
    transaction->frames = head.release();
    return REST_RET_SUCCESS;
}

} // namespace

int can_proprietary_parse_array_block_json_to_insert_config(sqlite3 **db,
                                                            const JSON_Object *object,
                                                            frame_config *frame) {
    const JSON_Array *array = json_object_dotget_array(object, "blockList");
    if (array == nullptr) {
        return fail(insert_blocks, "blockList fail\n", REST_RET_GET_FAIL);
    }
    block_list_ptr head;
    block_config *tail = nullptr;
    for (size_t i = 0; i < json_array_get_count(array); i++) {
        block_config *block = allocate_zeroed<block_config>().release();
        if (block == nullptr) {
            return fail(insert_blocks, "malloc fail\n", REST_RET_MALLOC_FAIL);
        }
        if (tail == nullptr) {
            head.reset(block);
        } else {
            tail->next = block;
        }
        tail = block;
        const int result = insert_block(db, json_array_get_object(array, i), frame, block);
        if (result != 0) {
            return result;
        }
    }
    frame->blocks = head.release();
    return REST_RET_SUCCESS;
}

int can_proprietary_parse_array_frame_json_to_insert_config(sqlite3 **db,
                                                            const JSON_Object *object,
                                                            transaction_config *transaction) {
    return insert_frames(__func__, db, object, transaction);
}

int can_proprietary_parse_array_frame_json_to_replace_config(sqlite3 **db,
                                                             const JSON_Object *object,
                                                             transaction_config *transaction,
                                                             int transactionId) {
    if (can_proprietary_conf_delete_frame_config(db, transactionId) != 0) {
        log_error("can_proprietary_conf_delete_frame_config fail\n");
        return REST_RET_PARAM_NOT_EXIST;
    }
    transaction->transactionId = static_cast<uint16_t>(transactionId); // it exists, so it fits
    return insert_frames(__func__, db, object, transaction);
}

void set_transaction_defaults(transaction_config *transaction) {
    transaction->deviceId = UINT8_MAX;
    transaction->transactionEnable = 1;
    transaction->cyclicInterval = 1000;
    transaction->consumeTimeout = 10000;
    transaction->responseTimeout = 1000;
    transaction->fpTimeout = 60000;
}
