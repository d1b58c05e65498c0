#include "parse_memory.h"

#include <parson.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <new>
#include <string>
#include <string_view>

// A JSON_Value, JSON_Object or JSON_Array is the library's json_t under another name. Numbers are
// always reals, so that a value reads back the same whether it was parsed or set.

namespace {

constexpr int parse_nesting_max = 100;
constexpr int write_nesting_max = 2000; // bounds the recursion over what a program has built

const json_t *json(const JSON_Value *value) {
    return reinterpret_cast<const json_t *>(value);
}
const json_t *json(const JSON_Object *object) {
    return reinterpret_cast<const json_t *>(object);
}
const json_t *json(const JSON_Array *array) {
    return reinterpret_cast<const json_t *>(array);
}

// The handles are const only as arguments: what the library lends out may always be changed.
template <typename T>
json_t *writable(T *handle) {
    return const_cast<json_t *>(json(handle));
}
JSON_Value *as_value(json_t *value) {
    return reinterpret_cast<JSON_Value *>(value);
}

json_t *member(const JSON_Object *object, std::string_view name) {
    return json_object_getn(json(object), name.data(), name.size());
}

json_t *dotted_member(const JSON_Object *object, const char *name) {
    if (!name) {
        return nullptr;
    }
    const json_t *holder = json(object);
    std::string_view rest = name;
    for (size_t dot; (dot = rest.find('.')) != rest.npos; rest.remove_prefix(dot + 1)) {
        holder = json_object_getn(holder, rest.data(), dot);
    }
    return json_object_getn(holder, rest.data(), rest.size());
}

// Takes the value over only on success, which is the rule of the set and append calls.
JSON_Status set_member(json_t *object, std::string_view name, json_t *value) {
    return value && json_object_setn(object, name.data(), name.size(), value) == 0
               ? (json_decref(value), JSONSuccess)
               : JSONFailure;
}

JSON_Status set_dotted(json_t *object, std::string_view name, json_t *value) {
    const size_t dot = name.find('.');
    if (dot == name.npos) {
        return set_member(object, name, value);
    }
    const std::string_view first = name.substr(0, dot);
    const std::string_view rest = name.substr(dot + 1);
    if (json_t *existing = json_object_getn(object, first.data(), first.size())) {
        return json_is_object(existing) ? set_dotted(existing, rest, value) : JSONFailure;
    }
    json_t *made = json_object();
    if (!value || set_member(object, first, made) != JSONSuccess) {
        json_decref(made);
        return JSONFailure;
    }
    if (set_dotted(made, rest, value) != JSONSuccess) {
        (void)json_object_deln(object, first.data(), first.size()); // just set: it is there
        return JSONFailure;
    }
    return JSONSuccess;
}

enum class naming { plain, dotted };

// Sets a value made for this call, which is nobody's when the set fails.
JSON_Status set_made(JSON_Object *object, const char *name, json_t *made, naming kind) {
    JSON_Status status = JSONFailure;
    if (name) {
        status = kind == naming::plain ? set_member(writable(object), name, made)
                                       : set_dotted(writable(object), name, made);
    }
    if (status != JSONSuccess) {
        json_decref(made);
    }
    return status;
}

JSON_Status append_made(JSON_Array *array, json_t *made) {
    return json_array_append_new(writable(array), made) == 0 ? JSONSuccess : JSONFailure;
}

// The parser underneath recurses once per level, so depth is judged before it starts.
bool nesting_acceptable(const char *text) {
    int depth = 0;
    bool in_string = false;
    for (; *text; ++text) {
        if (in_string) {
            if (*text == '\\' && text[1] != '\0') {
                ++text;
            } else if (*text == '"') {
                in_string = false;
            }
        } else if (*text == '"') {
            in_string = true;
        } else if ((*text == '{' || *text == '[') && ++depth > parse_nesting_max) {
            return false;
        } else if (*text == '}' || *text == ']') {
            --depth;
        }
    }
    return true;
}

bool is_plain(char c) {
    return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
}

void write_escaped(std::string &out, char c) {
    static constexpr char digits[] = "0123456789abcdef";
    static constexpr std::string_view named = "\"\\\b\f\n\r\t";
    static constexpr std::string_view names = "\"\\bfnrt";
    out += '\\';
    if (const size_t at = named.find(c); at != named.npos) {
        out += names[at];
    } else {
        out += "u00";
        out += digits[c >> 4];
        out += digits[c & 15];
    }
}

void write_string(std::string &out, std::string_view text) {
    out += '"';
    for (auto at = text.begin(); at != text.end();) {
        const auto end = std::find_if_not(at, text.end(), is_plain);
        out.append(at, end);
        at = end;
        if (at != text.end()) {
            write_escaped(out, *at++);
        }
    }
    out += '"';
}

void write_number(std::string &out, double number) {
    char text[32];
    constexpr double exact = 9007199254740992; // up to here every whole number is one
    if (std::fabs(number) <= exact && !(number == 0 && std::signbit(number))) {
        const auto whole = static_cast<int64_t>(number);
        if (static_cast<double>(whole) == number) {
            out.append(text, std::to_chars(text, std::end(text), whole).ptr);
            return;
        }
    }
    // Shortest form alone would print 1e+20.
    const bool whole = std::trunc(number) == number && std::fabs(number) < 1e21;
    const auto end = whole ? std::to_chars(text, std::end(text), number, std::chars_format::fixed)
                           : std::to_chars(text, std::end(text), number);
    out.append(text, end.ptr);
}

bool write_value(std::string &out, json_t *value, int depth) {
    if (depth > write_nesting_max) {
        return false;
    }
    bool first = true;
    switch (json_typeof(value)) {
    case JSON_OBJECT:
        out += '{';
        for (void *at = json_object_iter(value); at; at = json_object_iter_next(value, at)) {
            if (!first) {
                out += ',';
            }
            first = false;
            write_string(out, {json_object_iter_key(at), json_object_iter_key_len(at)});
            out += ':';
            if (!write_value(out, json_object_iter_value(at), depth + 1)) {
                return false;
            }
        }
        out += '}';
        return true;
    case JSON_ARRAY:
        out += '[';
        for (size_t i = 0; i < json_array_size(value); ++i) {
            if (i > 0) {
                out += ',';
            }
            if (!write_value(out, json_array_get(value, i), depth + 1)) {
                return false;
            }
        }
        out += ']';
        return true;
    case JSON_STRING:
        write_string(out, {json_string_value(value), json_string_length(value)});
        return true;
    case JSON_TRUE:
    case JSON_FALSE:
        out += json_is_true(value) ? "true" : "false";
        return true;
    case JSON_NULL:
        out += "null";
        return true;
    default:
        write_number(out, json_number_value(value));
        return true;
    }
}

} // namespace

JSON_Value *json_value_init_object(void) {
    return as_value(json_object());
}
JSON_Value *json_value_init_array(void) {
    return as_value(json_array());
}
JSON_Value *json_value_init_string(const char *string) {
    return as_value(json_string(string));
}
JSON_Value *json_value_init_number(double number) {
    return as_value(json_real(number));
}
JSON_Value *json_value_init_boolean(int boolean) {
    return as_value(json_boolean(boolean));
}
JSON_Value *json_value_init_null(void) {
    return as_value(json_null());
}
JSON_Value *json_value_deep_copy(const JSON_Value *value) {
    return as_value(json_deep_copy(json(value)));
}
void json_value_free(JSON_Value *value) {
    json_decref(writable(value));
}

JSON_Value_Type json_value_get_type(const JSON_Value *value) {
    if (!value) {
        return JSONError;
    }
    switch (json_typeof(json(value))) {
    case JSON_OBJECT:
        return JSONObject;
    case JSON_ARRAY:
        return JSONArray;
    case JSON_STRING:
        return JSONString;
    case JSON_INTEGER:
    case JSON_REAL:
        return JSONNumber;
    case JSON_TRUE:
    case JSON_FALSE:
        return JSONBoolean;
    case JSON_NULL:
        return JSONNull;
    }
    return JSONError;
}

JSON_Object *json_value_get_object(const JSON_Value *value) {
    return json_is_object(json(value)) ? reinterpret_cast<JSON_Object *>(writable(value)) : nullptr;
}
JSON_Array *json_value_get_array(const JSON_Value *value) {
    return json_is_array(json(value)) ? reinterpret_cast<JSON_Array *>(writable(value)) : nullptr;
}
const char *json_value_get_string(const JSON_Value *value) {
    return json_string_value(json(value));
}
double json_value_get_number(const JSON_Value *value) {
    return json_number_value(json(value));
}
int json_value_get_boolean(const JSON_Value *value) {
    return json_is_boolean(json(value)) ? json_is_true(json(value)) : -1;
}

JSON_Value *json_parse_string(const char *string) {
    constexpr size_t flags = JSON_DECODE_ANY | JSON_DECODE_INT_AS_REAL | JSON_REJECT_DUPLICATES;
    if (!string || !nesting_acceptable(string)) {
        return nullptr;
    }
    return as_value(load_or_leave(string, flags));
}

char *json_serialize_to_string(const JSON_Value *value) {
    try {
        std::string out;
        return value && write_value(out, writable(value), 0) ? strdup(out.c_str()) : nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
void json_free_serialized_string(char *string) {
    free(string);
}

JSON_Value *json_object_get_value(const JSON_Object *object, const char *name) {
    return name ? as_value(member(object, name)) : nullptr;
}
const char *json_object_get_string(const JSON_Object *object, const char *name) {
    return json_value_get_string(json_object_get_value(object, name));
}
double json_object_get_number(const JSON_Object *object, const char *name) {
    return json_value_get_number(json_object_get_value(object, name));
}
JSON_Object *json_object_get_object(const JSON_Object *object, const char *name) {
    return json_value_get_object(json_object_get_value(object, name));
}
JSON_Array *json_object_get_array(const JSON_Object *object, const char *name) {
    return json_value_get_array(json_object_get_value(object, name));
}
int json_object_get_boolean(const JSON_Object *object, const char *name) {
    return json_value_get_boolean(json_object_get_value(object, name));
}

JSON_Value *json_object_dotget_value(const JSON_Object *object, const char *name) {
    return as_value(dotted_member(object, name));
}
const char *json_object_dotget_string(const JSON_Object *object, const char *name) {
    return json_value_get_string(json_object_dotget_value(object, name));
}
double json_object_dotget_number(const JSON_Object *object, const char *name) {
    return json_value_get_number(json_object_dotget_value(object, name));
}
JSON_Object *json_object_dotget_object(const JSON_Object *object, const char *name) {
    return json_value_get_object(json_object_dotget_value(object, name));
}
JSON_Array *json_object_dotget_array(const JSON_Object *object, const char *name) {
    return json_value_get_array(json_object_dotget_value(object, name));
}
int json_object_dotget_boolean(const JSON_Object *object, const char *name) {
    return json_value_get_boolean(json_object_dotget_value(object, name));
}

int json_object_has_value(const JSON_Object *object, const char *name) {
    return json_object_get_value(object, name) != nullptr;
}
int json_object_has_value_of_type(const JSON_Object *object,
                                  const char *name,
                                  JSON_Value_Type type) {
    const JSON_Value *value = json_object_get_value(object, name);
    return value && json_value_get_type(value) == type;
}
int json_object_dothas_value(const JSON_Object *object, const char *name) {
    return json_object_dotget_value(object, name) != nullptr;
}
int json_object_dothas_value_of_type(const JSON_Object *object,
                                     const char *name,
                                     JSON_Value_Type type) {
    const JSON_Value *value = json_object_dotget_value(object, name);
    return value && json_value_get_type(value) == type;
}

JSON_Status json_object_set_value(JSON_Object *object, const char *name, JSON_Value *value) {
    return name ? set_member(writable(object), name, writable(value)) : JSONFailure;
}
JSON_Status json_object_set_string(JSON_Object *object, const char *name, const char *string) {
    return set_made(object, name, json_string(string), naming::plain);
}
JSON_Status json_object_set_number(JSON_Object *object, const char *name, double number) {
    return set_made(object, name, json_real(number), naming::plain);
}
JSON_Status json_object_set_boolean(JSON_Object *object, const char *name, int boolean) {
    return set_made(object, name, json_boolean(boolean), naming::plain);
}
JSON_Status json_object_set_null(JSON_Object *object, const char *name) {
    return set_made(object, name, json_null(), naming::plain);
}

JSON_Status json_object_dotset_value(JSON_Object *object, const char *name, JSON_Value *value) {
    return name ? set_dotted(writable(object), name, writable(value)) : JSONFailure;
}
JSON_Status json_object_dotset_string(JSON_Object *object, const char *name, const char *string) {
    return set_made(object, name, json_string(string), naming::dotted);
}
JSON_Status json_object_dotset_number(JSON_Object *object, const char *name, double number) {
    return set_made(object, name, json_real(number), naming::dotted);
}
JSON_Status json_object_dotset_boolean(JSON_Object *object, const char *name, int boolean) {
    return set_made(object, name, json_boolean(boolean), naming::dotted);
}
JSON_Status json_object_dotset_null(JSON_Object *object, const char *name) {
    return set_made(object, name, json_null(), naming::dotted);
}

size_t json_object_get_count(const JSON_Object *object) {
    return json_object_size(json(object));
}

namespace {

void *member_at(const JSON_Object *object, size_t index) {
    json_t *holder = writable(object);
    void *at = json_object_iter(holder);
    while (at && index-- > 0) {
        at = json_object_iter_next(holder, at);
    }
    return at;
}

} // namespace

const char *json_object_get_name(const JSON_Object *object, size_t index) {
    return json_object_iter_key(member_at(object, index));
}
JSON_Value *json_object_get_value_at(const JSON_Object *object, size_t index) {
    return as_value(json_object_iter_value(member_at(object, index)));
}

size_t json_array_get_count(const JSON_Array *array) {
    return json_array_size(json(array));
}
JSON_Value *json_array_get_value(const JSON_Array *array, size_t index) {
    return as_value(json_array_get(json(array), index));
}
const char *json_array_get_string(const JSON_Array *array, size_t index) {
    return json_value_get_string(json_array_get_value(array, index));
}
double json_array_get_number(const JSON_Array *array, size_t index) {
    return json_value_get_number(json_array_get_value(array, index));
}
JSON_Object *json_array_get_object(const JSON_Array *array, size_t index) {
    return json_value_get_object(json_array_get_value(array, index));
}
JSON_Array *json_array_get_array(const JSON_Array *array, size_t index) {
    return json_value_get_array(json_array_get_value(array, index));
}
int json_array_get_boolean(const JSON_Array *array, size_t index) {
    return json_value_get_boolean(json_array_get_value(array, index));
}

JSON_Status json_array_append_value(JSON_Array *array, JSON_Value *value) {
    json_t *owned = writable(value);
    if (!value || json_array_append(writable(array), owned) != 0) {
        return JSONFailure;
    }
    json_decref(owned);
    return JSONSuccess;
}
JSON_Status json_array_append_string(JSON_Array *array, const char *string) {
    return append_made(array, json_string(string));
}
JSON_Status json_array_append_number(JSON_Array *array, double number) {
    return append_made(array, json_real(number));
}
JSON_Status json_array_append_boolean(JSON_Array *array, int boolean) {
    return append_made(array, json_boolean(boolean));
}
