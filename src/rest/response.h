#ifndef KT_REST_RESPONSE_H
#define KT_REST_RESPONSE_H

#include "core/guards.h"

#include <kt/rest.h>
#include <parson.h>

#include <cstddef>
#include <cstdint>
#include <memory>

/*
 * What every handler shares: result codes, the answer and the getters of a body's members.
 *
 * THREAD SAFETY: no state; the answer goes to the request of the calling thread.
 */

/** Result codes with their fixed messages; clients see both. */
enum CAN_PROPREITARY_REST_RET : int {
    REST_RET_SUCCESS = 0,
    REST_RET_INVALID_PARAM = -1,
    REST_RET_MALLOC_FAIL = -2,
    REST_RET_PARAM_NOT_EXIST = -3,
    REST_RET_JSON_INIT_FAIL = -4,
    REST_RET_JSON_SERIALIZE_FAIL = -5,
    REST_RET_JSON_SET_FAIL = -6,
    REST_RET_GET_FAIL = -7,
    REST_RET_SET_FAIL = -8,
    REST_RET_INPUT_TOO_LONG = -9,
    REST_RET_OUTPUT_TOO_LONG = -10,
    REST_RET_INTERNAL = -11,
    REST_RET_CANID_FORMAT = -12,
    REST_RET_IMPORT_FAIL = -13
};

using json_ptr = std::unique_ptr<JSON_Value, call_on_delete<json_value_free>>;
using json_text_ptr = std::unique_ptr<char, call_on_delete<json_free_serialized_string>>;

/** Fixed message of a code; that of REST_RET_INTERNAL for a code that has none. */
const char *rest_ret_message(int ret);

/** HTTP status of a handler's final result. */
int get_http_status(int ret, int option);

/**
 * Write the output as the body, or the error body when ret is not 0 or the output fails.
 * @param output  stays the caller's; may be nullptr when ret is not 0
 * @return ret, or the code of the failure to write the output
 */
int write_can_proprietary_rest_response(int ret, const JSON_Value *output);

/** Write {"error":{"code":..., "message":...}}. Its own failures are logged. @return ret */
int rest_write_error_msg(int ret);

/**
 * Write an output as the success body.
 * @return 0, REST_RET_JSON_SERIALIZE_FAIL or REST_RET_JSON_SET_FAIL (logged under the caller's
 * name)
 */
int write_success_body(const char *function, const JSON_Value *output);

/** Log a message under the caller's name and line. @return the code */
int fail(const char *function, const char *message, int code, int line = __builtin_LINE());

/** Parse a request body; nullptr for none, or for text that is not one JSON value. */
json_ptr parse_body(const char *body);

/*
 * Getters by dotted member path. 0; -3 missing or of another type; -1 outside the limits; each
 * failure is logged. Unless said otherwise the output is untouched on failure.
 */

/** Truncated toward zero and saturated to 32 bits before the test. */
int json_obj_get_number(
    const JSON_Object *object, const char *name, int32_t *out, int32_t min, int32_t max);

/** @param[out] out heap copy for the caller to free, also after -1 */
int json_obj_get_string(
    const JSON_Object *object, const char *name, char **out, size_t minimum, size_t maximum);

/**
 * Into the caller's buffer, which a longer text fills up to its size.
 * @param size  bytes of the buffer, terminator included
 */
int json_obj_get_string_safe(
    const JSON_Object *object, const char *name, char *buffer, size_t size, size_t maximum);

int json_obj_get_boolean(const JSON_Object *object, const char *name, uint8_t *out);

/*
 * Setters by dotted member path that log "set <name> fail" under the caller's name and line.
 * 0 or -6.
 */
int set_number(const char *function,
               JSON_Object *object,
               const char *name,
               double value,
               int line = __builtin_LINE());
int set_string(const char *function,
               JSON_Object *object,
               const char *name,
               const char *value,
               int line = __builtin_LINE());
int set_boolean(const char *function,
                JSON_Object *object,
                const char *name,
                bool value,
                int line = __builtin_LINE());

/** {"data":{"response":"success"}} @return 0, -4 or set_code; logged as the setters do */
int build_success(const char *function,
                  json_ptr *output,
                  int set_code = REST_RET_JSON_SET_FAIL,
                  int line = __builtin_LINE());

#endif
