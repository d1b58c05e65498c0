#ifndef PARSON_H
#define PARSON_H

#include <stddef.h>

/*
 * JSON values for REST bodies and the traffic log.
 *
 * NUMBERS are doubles; integers beyond 2^53 lose digits. NaN and infinities cannot be set.
 * STRINGS and member names are UTF-8 without zero bytes; others are refused.
 * OBJECTS keep their members in the order in which they were first set.
 *
 * OWNERSHIP. A value made by json_value_init_*, json_value_deep_copy() or json_parse_string() is a
 * root and belongs to the caller, who frees it with json_value_free() unless a successful
 * *_set_value() or *_append_value() has put it into another value, which then owns it. On failure
 * it stays with the caller. A value that already has an owner must not be put anywhere else. What
 * the get calls return is borrowed: it lives until its root is freed or the member that held it is
 * replaced.
 *
 * FAILURE. NULL arguments are accepted everywhere: calls that return a pointer give NULL, numbers
 * 0, counts 0, booleans -1, types JSONError, a status JSONFailure. The same goes for a missing
 * member, a member of another type and for want of memory. A failed set leaves the object as it
 * was.
 *
 * DOTTED NAMES: in the dotget, dothas and dotset calls "a.b" is member "b" of the object in member
 * "a". dotset makes missing objects on the way and fails when one of them is not an object.
 *
 * THREAD SAFETY: different roots may be used from different threads; one root belongs to one thread
 * at a time.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct json_value_t JSON_Value;
typedef struct json_object_t JSON_Object;
typedef struct json_array_t JSON_Array;

enum json_value_type {
    JSONError = -1,
    JSONNull = 1,
    JSONString = 2,
    JSONNumber = 3,
    JSONObject = 4,
    JSONArray = 5,
    JSONBoolean = 6
};
typedef int JSON_Value_Type;

enum json_result_t { JSONSuccess = 0, JSONFailure = -1 };
typedef int JSON_Status;

JSON_Value *json_value_init_object(void);
JSON_Value *json_value_init_array(void);
JSON_Value *json_value_init_string(const char *string);
JSON_Value *json_value_init_number(double number);
JSON_Value *json_value_init_boolean(int boolean);
JSON_Value *json_value_init_null(void);
JSON_Value *json_value_deep_copy(const JSON_Value *value);
void json_value_free(JSON_Value *value);

JSON_Value_Type json_value_get_type(const JSON_Value *value);
JSON_Object *json_value_get_object(const JSON_Value *value);
JSON_Array *json_value_get_array(const JSON_Value *value);
const char *json_value_get_string(const JSON_Value *value);
double json_value_get_number(const JSON_Value *value);
/** 1 true, 0 false, -1 not a boolean. */
int json_value_get_boolean(const JSON_Value *value);

/**
 * Parse one JSON value of any type.
 *
 * @return root, NULL when the text is not exactly one value: anything but white space after it,
 *         invalid UTF-8, "\u0000", a member name twice in one object, a number beyond the range of
 * a double, more than 100 levels of objects and arrays
 */
JSON_Value *json_parse_string(const char *string);

/**
 * The value as compact JSON text. Integers have no fraction, other numbers the shortest digits that
 * read back as the same double.
 *
 * @return text for json_free_serialized_string(), NULL on a value nested more than 2000 levels deep
 */
char *json_serialize_to_string(const JSON_Value *value);
void json_free_serialized_string(char *string);

JSON_Value *json_object_get_value(const JSON_Object *object, const char *name);
const char *json_object_get_string(const JSON_Object *object, const char *name);
double json_object_get_number(const JSON_Object *object, const char *name);
JSON_Object *json_object_get_object(const JSON_Object *object, const char *name);
JSON_Array *json_object_get_array(const JSON_Object *object, const char *name);
int json_object_get_boolean(const JSON_Object *object, const char *name);

JSON_Value *json_object_dotget_value(const JSON_Object *object, const char *name);
const char *json_object_dotget_string(const JSON_Object *object, const char *name);
double json_object_dotget_number(const JSON_Object *object, const char *name);
JSON_Object *json_object_dotget_object(const JSON_Object *object, const char *name);
JSON_Array *json_object_dotget_array(const JSON_Object *object, const char *name);
int json_object_dotget_boolean(const JSON_Object *object, const char *name);

/** 1 when the member exists (and has that type), else 0. */
int json_object_has_value(const JSON_Object *object, const char *name);
int json_object_has_value_of_type(const JSON_Object *object,
                                  const char *name,
                                  JSON_Value_Type type);
int json_object_dothas_value(const JSON_Object *object, const char *name);
int json_object_dothas_value_of_type(const JSON_Object *object,
                                     const char *name,
                                     JSON_Value_Type type);

JSON_Status json_object_set_value(JSON_Object *object, const char *name, JSON_Value *value);
JSON_Status json_object_set_string(JSON_Object *object, const char *name, const char *string);
JSON_Status json_object_set_number(JSON_Object *object, const char *name, double number);
JSON_Status json_object_set_boolean(JSON_Object *object, const char *name, int boolean);
JSON_Status json_object_set_null(JSON_Object *object, const char *name);

JSON_Status json_object_dotset_value(JSON_Object *object, const char *name, JSON_Value *value);
JSON_Status json_object_dotset_string(JSON_Object *object, const char *name, const char *string);
JSON_Status json_object_dotset_number(JSON_Object *object, const char *name, double number);
JSON_Status json_object_dotset_boolean(JSON_Object *object, const char *name, int boolean);
JSON_Status json_object_dotset_null(JSON_Object *object, const char *name);

size_t json_object_get_count(const JSON_Object *object);
/** Name and value of the index-th member, in linear time; NULL beyond the last one. */
const char *json_object_get_name(const JSON_Object *object, size_t index);
JSON_Value *json_object_get_value_at(const JSON_Object *object, size_t index);

size_t json_array_get_count(const JSON_Array *array);
JSON_Value *json_array_get_value(const JSON_Array *array, size_t index);
const char *json_array_get_string(const JSON_Array *array, size_t index);
double json_array_get_number(const JSON_Array *array, size_t index);
JSON_Object *json_array_get_object(const JSON_Array *array, size_t index);
JSON_Array *json_array_get_array(const JSON_Array *array, size_t index);
int json_array_get_boolean(const JSON_Array *array, size_t index);

JSON_Status json_array_append_value(JSON_Array *array, JSON_Value *value);
JSON_Status json_array_append_string(JSON_Array *array, const char *string);
JSON_Status json_array_append_number(JSON_Array *array, double number);
JSON_Status json_array_append_boolean(JSON_Array *array, int boolean);

#ifdef __cplusplus
}
#endif

#endif
