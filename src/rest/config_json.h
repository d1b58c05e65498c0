#ifndef KT_REST_CONFIG_JSON_H
#define KT_REST_CONFIG_JSON_H

#include "config/model.h"

#include <parson.h>

/*
 * Configuration records as JSON, and JSON as records.
 *
 * Builders return 0, or 1 on failure (logged); what they added to the value before stays there for
 * the caller to free with it. Parsers return a result code of rest/response.h (logged) and leave
 * members that are not read as the caller set them.
 *
 * THREAD SAFETY: no state.
 */

int can_proprietary_get_transaction_config_to_json_object(JSON_Value *value,
                                                          const transaction_config *transaction);

/** Every transaction of the list with its frames, as "data.transactionList" of the output. */
int can_proprietary_get_transaction_config_to_json_array(JSON_Value *output,
                                                         const transaction_config *transactions);

int can_proprietary_get_frame_config_to_json_object(JSON_Value *value, const frame_config *frame);

/** Every block of the list, appended to the array. */
int can_proprietary_get_block_config_to_json_array(JSON_Array *array, const block_config *blocks);

/** Every frame of the list with its blocks, as "frameList" of the parent. */
int can_proprietary_get_frame_config_to_json_array(JSON_Value *parent, const frame_config *frames);

/** All members but transactionId and deviceId, which never come from a body. */
int can_proprietary_parse_object_transaction_json(const JSON_Object *object,
                                                  transaction_config *transaction);

/** canId and dataLength. A bad dataLength gives -4, on purpose: clients know it so. */
int can_proprietary_parse_object_frame_json(const JSON_Object *object, frame_config *frame);

/** True for the consume shape: a type with any bit but bit 1 set. */
inline bool has_consume_shape(uint8_t transactionType) {
    return (transactionType & 0xFD) != 0;
}

#endif
