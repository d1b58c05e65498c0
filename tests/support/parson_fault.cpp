#include "parson_fault.h"

#include <parson.h>

namespace {

using parson_fault::call;

call armed = call::none;
int countdown = 0;
bool failed = false;

bool fails_now(call kind) {
    if (kind != armed || --countdown > 0) {
        return false;
    }
    armed = call::none;
    failed = true;
    return true;
}

} // namespace

void parson_fault::arm(call kind, int nth) {
    armed = kind;
    countdown = nth;
    failed = false;
}

bool parson_fault::disarm() {
    armed = call::none;
    return failed;
}

extern "C" {

JSON_Value *__real_json_value_init_object();
JSON_Value *__real_json_value_init_array();
JSON_Status __real_json_object_dotset_string(JSON_Object *, const char *, const char *);
JSON_Status __real_json_object_dotset_number(JSON_Object *, const char *, double);
JSON_Status __real_json_array_append_value(JSON_Array *, JSON_Value *);
char *__real_json_serialize_to_string(const JSON_Value *);

JSON_Value *__wrap_json_value_init_object() {
    return fails_now(call::init_object) ? nullptr : __real_json_value_init_object();
}

JSON_Value *__wrap_json_value_init_array() {
    return fails_now(call::init_array) ? nullptr : __real_json_value_init_array();
}

JSON_Status
__wrap_json_object_dotset_string(JSON_Object *object, const char *name, const char *text) {
    return fails_now(call::set_string) ? JSONFailure
                                       : __real_json_object_dotset_string(object, name, text);
}

JSON_Status __wrap_json_object_dotset_number(JSON_Object *object, const char *name, double number) {
    return fails_now(call::set_number) ? JSONFailure
                                       : __real_json_object_dotset_number(object, name, number);
}

JSON_Status __wrap_json_array_append_value(JSON_Array *array, JSON_Value *value) {
    return fails_now(call::append_value) ? JSONFailure
                                         : __real_json_array_append_value(array, value);
}

char *__wrap_json_serialize_to_string(const JSON_Value *value) {
    return fails_now(call::serialize) ? nullptr : __real_json_serialize_to_string(value);
}

} // extern "C"
