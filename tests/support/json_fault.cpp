#include "json_fault.h"

#include <parson.h>

#include <cstring>

namespace {

std::string wanted; // any call that builds something when empty
fault_countdown countdown;

bool fails_now(const char *name) {
    const bool is_wanted = wanted.empty() ? strcmp(name, "serialize") != 0 : wanted == name;
    return is_wanted && countdown.fails_now();
}

} // namespace

void json_fault::arm(int nth) {
    arm("", nth);
}

void json_fault::arm(const std::string &name, int nth) {
    wanted = name;
    countdown.arm(nth);
}

bool json_fault::disarm() {
    return countdown.disarm();
}

extern "C" {

JSON_Value *__real_json_value_init_object();
JSON_Value *__real_json_value_init_array();
JSON_Status __real_json_object_dotset_number(JSON_Object *, const char *, double);
JSON_Status __real_json_object_dotset_string(JSON_Object *, const char *, const char *);
JSON_Status __real_json_object_dotset_boolean(JSON_Object *, const char *, int);
JSON_Status __real_json_object_dotset_value(JSON_Object *, const char *, JSON_Value *);
JSON_Status __real_json_object_set_value(JSON_Object *, const char *, JSON_Value *);
JSON_Status __real_json_array_append_value(JSON_Array *, JSON_Value *);
JSON_Status __real_json_array_append_number(JSON_Array *, double);
char *__real_json_serialize_to_string(const JSON_Value *);

JSON_Value *__wrap_json_value_init_object() {
    return fails_now("init_object") ? nullptr : __real_json_value_init_object();
}
JSON_Value *__wrap_json_value_init_array() {
    return fails_now("init_array") ? nullptr : __real_json_value_init_array();
}
JSON_Status __wrap_json_object_dotset_number(JSON_Object *object, const char *name, double number) {
    return fails_now(name) ? JSONFailure : __real_json_object_dotset_number(object, name, number);
}
JSON_Status
__wrap_json_object_dotset_string(JSON_Object *object, const char *name, const char *text) {
    return fails_now(name) ? JSONFailure : __real_json_object_dotset_string(object, name, text);
}
JSON_Status __wrap_json_object_dotset_boolean(JSON_Object *object, const char *name, int boolean) {
    return fails_now(name) ? JSONFailure : __real_json_object_dotset_boolean(object, name, boolean);
}
JSON_Status
__wrap_json_object_dotset_value(JSON_Object *object, const char *name, JSON_Value *value) {
    return fails_now(name) ? JSONFailure : __real_json_object_dotset_value(object, name, value);
}
JSON_Status __wrap_json_object_set_value(JSON_Object *object, const char *name, JSON_Value *value) {
    return fails_now(name) ? JSONFailure : __real_json_object_set_value(object, name, value);
}
JSON_Status __wrap_json_array_append_value(JSON_Array *array, JSON_Value *value) {
    return fails_now("append") ? JSONFailure : __real_json_array_append_value(array, value);
}
JSON_Status __wrap_json_array_append_number(JSON_Array *array, double number) {
    return fails_now("append_number") ? JSONFailure
                                      : __real_json_array_append_number(array, number);
}
char *__wrap_json_serialize_to_string(const JSON_Value *value) {
    return fails_now("serialize") ? nullptr : __real_json_serialize_to_string(value);
}

} // extern "C"
