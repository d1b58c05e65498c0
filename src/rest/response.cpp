#include "rest/response.h"

#include "core/log.h"

#include <kt/rest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace {

/** By the negated code. The spellings are part of the interface. */
constexpr std::array<const char *, 14> rest_ret_msg = {
    "Success",
    "Invalid parameters",
    "Error malloc",
    "Parameter does not exist",
    "Internal error",
    "Internal error",
    "Internal error",
    "Fail to get",
    "Fail to set",
    "Totol input data length exceeds limitation",
    "Totol output data length exceeds limitation",
    "Internal error",
    "canId lengh does not match current frame format",
    "import config fail",
};

/** By method code less one. */
constexpr std::array<uint8_t, 5> success_status = {201, 200, 200, 200, 204};

/* Codes as bits of ret + 13. -2 and -12 are in none of the sets, on purpose: clients know their
   status only through the last rule of get_http_status(). */
constexpr uint32_t bad_request_codes = 0x1401;
constexpr uint32_t internal_error_codes = 0x3FC;
constexpr uint32_t success_codes = 0x2000;

uint32_t bit_of(int ret) {
    return ret >= -13 && ret <= 0 ? 1U << (ret + 13) : 0;
}

int32_t truncate(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    constexpr double lowest = std::numeric_limits<int32_t>::min();
    constexpr double highest = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(value, lowest, highest));
}

int not_exist(const char *function, const char *name) {
    log_write_error(function, __LINE__, "Parameter %s does not exist\n", name);
    return REST_RET_PARAM_NOT_EXIST;
}

} // namespace

const char *rest_ret_message(int ret) {
    return bit_of(ret) != 0 ? rest_ret_msg[static_cast<size_t>(-ret)]
                            : rest_ret_msg[-REST_RET_INTERNAL];
}

int get_http_status(int ret, int option) {
    const uint32_t bit = bit_of(ret);
    if ((bit & bad_request_codes) != 0) {
        log_error("error=%d, return 400 bad request\n", ret);
        return 400;
    }
    if ((bit & internal_error_codes) != 0) {
        log_error("error=%d, return 500 internal server error\n", ret);
        return 500;
    }
    if ((bit & success_codes) != 0) {
        const size_t index = static_cast<size_t>(option) - 1; // 0 wraps and is none
        return index < success_status.size() ? success_status[index] : 200;
    }
    // Plain and whatever the log level, as it has always been.
    (void)fprintf(stderr, "CAN_PROPREITARY_REST_RET option(%d) has not been set\n", ret);
    return 500;
}

int fail(const char *function, const char *message, int code, int line) {
    log_write_error(function, line, "%s", message);
    return code;
}

int write_success_body(const char *function, const JSON_Value *output) {
    const json_text_ptr text(json_serialize_to_string(output));
    if (text == nullptr) {
        return fail(function, "set json to string fail\n", REST_RET_JSON_SERIALIZE_FAIL);
    }
    if (rest_write(text.get(), strlen(text.get())) != 0) {
        return fail(function, "rest write failed.\n", REST_RET_JSON_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

int write_can_proprietary_rest_response(int ret, const JSON_Value *output) {
    if (ret == REST_RET_SUCCESS) {
        ret = write_success_body(__func__, output);
    }
    return ret == REST_RET_SUCCESS ? ret : rest_write_error_msg(ret);
}

int rest_write_error_msg(int ret) {
    const json_ptr value(json_value_init_object());
    if (value == nullptr) {
        log_error("init json_value fail\n");
        return ret;
    }
    JSON_Object *object = json_value_get_object(value.get());
    if (json_object_dotset_number(object, "error.code", ret) != JSONSuccess) {
        log_error("set code fail\n");
        return ret;
    }
    if (json_object_dotset_string(object, "error.message", rest_ret_message(ret)) != JSONSuccess) {
        log_error("set message fail\n");
        return ret;
    }
    const json_text_ptr text(json_serialize_to_string(value.get()));
    if (text == nullptr) {
        log_error("json to string fail\n");
        return ret;
    }
    (void)rest_write(text.get(), strlen(text.get())); // the status still tells
    return ret;
}

json_ptr parse_body(const char *body) {
    return json_ptr(body == nullptr ? nullptr : json_parse_string(body));
}

int json_obj_get_number(
    const JSON_Object *object, const char *name, int32_t *out, int32_t min, int32_t max) {
    if (json_object_dothas_value_of_type(object, name, JSONNumber) == 0) {
        return not_exist(__func__, name);
    }
    const int32_t value = truncate(json_object_dotget_number(object, name));
    if (value < min || value > max) {
        log_error("The %s input length %d does not meet the length limit (%d-%d)\n",
                  name,
                  value,
                  min,
                  max);
        return REST_RET_INVALID_PARAM;
    }
    *out = value;
    return REST_RET_SUCCESS;
}

int json_obj_get_string(
    const JSON_Object *object, const char *name, char **out, size_t minimum, size_t maximum) {
    const char *text = json_object_dotget_string(object, name);
    char *copy = text == nullptr ? nullptr : strdup(text);
    if (copy == nullptr) {
        return not_exist(__func__, name);
    }
    free(*out);
    *out = copy;
    const size_t length = strlen(copy);
    if (length < minimum) {
        log_error("The %s less than minium length (%d)\n", name, static_cast<int>(minimum));
        return REST_RET_INVALID_PARAM;
    }
    if (length > maximum) {
        log_error("The %s exceeds the maximum length (%d)\n", name, static_cast<int>(maximum));
        return REST_RET_INVALID_PARAM;
    }
    return REST_RET_SUCCESS;
}

int json_obj_get_string_safe(
    const JSON_Object *object, const char *name, char *buffer, size_t size, size_t maximum) {
    const char *text = json_object_dotget_string(object, name);
    if (text == nullptr) {
        return not_exist(__func__, name);
    }
    const size_t length = strlen(text);
    const size_t kept = std::min(length, size - 1);
    memcpy(buffer, text, kept);
    buffer[kept] = '\0';
    if (length > maximum) {
        log_error("The %s exceeds the maximum length (%d)\n", name, static_cast<int>(maximum));
        return REST_RET_INVALID_PARAM;
    }
    return REST_RET_SUCCESS;
}

int json_obj_get_boolean(const JSON_Object *object, const char *name, uint8_t *out) {
    if (json_object_dothas_value_of_type(object, name, JSONBoolean) == 0) {
        return not_exist(__func__, name);
    }
    *out = json_object_dotget_boolean(object, name) == 1 ? 1 : 0;
    return REST_RET_SUCCESS;
}

namespace {

int set_result(const char *function, int line, const char *name, JSON_Status status) {
    if (status == JSONSuccess) {
        return REST_RET_SUCCESS;
    }
    log_write_error(function, line, "set %s fail\n", name);
    return REST_RET_JSON_SET_FAIL;
}

} // namespace

int set_number(
    const char *function, JSON_Object *object, const char *name, double value, int line) {
    return set_result(function, line, name, json_object_dotset_number(object, name, value));
}

int set_string(
    const char *function, JSON_Object *object, const char *name, const char *value, int line) {
    return set_result(function, line, name, json_object_dotset_string(object, name, value));
}

int set_boolean(const char *function, JSON_Object *object, const char *name, bool value, int line) {
    return set_result(
        function, line, name, json_object_dotset_boolean(object, name, value ? 1 : 0));
}

int build_success(const char *function, json_ptr *output, int set_code, int line) {
    output->reset(json_value_init_object());
    if (*output == nullptr) {
        return fail(function, "init output_obj_val fail\n", REST_RET_JSON_INIT_FAIL, line);
    }
    JSON_Object *object = json_value_get_object(output->get());
    return set_string(function, object, "data.response", "success", line) == 0 ? REST_RET_SUCCESS
                                                                               : set_code;
}
