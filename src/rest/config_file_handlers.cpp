#include "config/config_file.h"
#include "core/log.h"
#include "core/no_memory.h"
#include "core/runtime_file.h"
#include "core/state.h"
#include "device/local_time.h"
#include "rest/file_download.h"
#include "rest/handlers.h"
#include "rest/request.h"

#include <kt/rest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr const char *post_file = "can_proprietary_rest_post_config_file";
constexpr const char *get_file = "can_proprietary_rest_get_config_file";
constexpr const char *write_import_error = "rest_write_import_config_error_msg";

constexpr const char *upload_path = "/run/tmp/kt-can-proprietary/tmp.csv";
constexpr const char *file_folder = "/run/tmp/kt-can-proprietary/";

using parts_ptr = std::unique_ptr<mp_part, call_on_delete<mp_free_all_parts>>;

int save_upload(const mp_part *part) {
    const file_ptr file = open_runtime_file(rooted_path(upload_path).c_str(), "w");
    if (file == nullptr) {
        const int error = errno;
        log_write_error(post_file, __LINE__, "open fail\n");
        errno = error;
        perror("Error: ");
        return REST_RET_SET_FAIL;
    }
    if (fwrite(part->data, 1, part->length, file.get()) != part->length ||
        fflush(file.get()) != 0) {
        return fail(post_file, "save config file fail\n", REST_RET_SET_FAIL);
    }
    return REST_RET_SUCCESS;
}

/** Save the first part of a multipart body, whatever it is called. */
int take_upload(const char *body, size_t length) {
    char *text = nullptr;
    if (parse_boundary(&text, body) != 0) {
        return fail(post_file, "parse_boundary fail\n", REST_RET_GET_FAIL);
    }
    const heap_ptr<char> boundary(text);
    mp_part *list = nullptr;
    const int result = mp_parse(&list, text, strlen(text), body, length);
    const parts_ptr parts(list);
    if (result != 0) {
        return fail(post_file, "mp_parse fail\n", REST_RET_GET_FAIL);
    }
    if (parts == nullptr) {
        return fail(post_file, "get input data fail\n", REST_RET_GET_FAIL);
    }
    return save_upload(parts.get());
}

int import_upload(
    const char *uri, const char *body, size_t length, conf_import_error *err, json_ptr *output) {
    int result = check_uri(post_file, uri);
    if (result == 0) {
        result = check_body(post_file, body);
    }
    if (result == 0) {
        result = take_upload(body, length);
    }
    if (result != 0) {
        return result;
    }
    if (can_proprietary_conf_import(rooted_path(upload_path).c_str(), err) != 0) {
        return REST_RET_IMPORT_FAIL;
    }
    return build_success(post_file, output);
}

bool contains(const char *key, const char *phrase) {
    return strstr(key, phrase) != nullptr;
}

/** The phrases have blanks where keys have hyphens, so none is ever found. On purpose: clients know
    the answer with a row and without a column. */
bool names_row(const char *key) {
    return !contains(key, "missing table") && !contains(key, "internal err") &&
           !contains(key, "column name failed") && !contains(key, "table full");
}

int add_variables(JSON_Object *object, const conf_import_error &err) {
    if (err.table_name[0] != '\0' &&
        set_string(
            write_import_error, object, "error.i18n.variables.errTableName", err.table_name) != 0) {
        return -1;
    }
    if (names_row(err.key) &&
        set_number(write_import_error, object, "error.i18n.variables.errRow", err.line) != 0) {
        return -1;
    }
    if (contains(err.key, "missing necessary parameter")) {
        return set_number(write_import_error, object, "error.i18n.variables.errColumn", err.column);
    }
    if (contains(err.key, "unique constraint") || contains(err.key, "check constraint")) {
        return set_string(
            write_import_error, object, "error.i18n.variables.errColumnName", err.column_name);
    }
    return 0;
}

/** The common error body, with what a client needs to word an import failure in its language. */
int rest_write_import_config_error_msg(int ret, const conf_import_error &err) {
    const json_ptr value(json_value_init_object());
    if (value == nullptr) {
        return fail(write_import_error, "init json_value fail\n", ret);
    }
    JSON_Object *object = json_value_get_object(value.get());
    if (json_object_dotset_number(object, "error.code", ret) != JSONSuccess) {
        return fail(write_import_error, "set code fail\n", ret);
    }
    if (json_object_dotset_string(object, "error.message", rest_ret_message(ret)) != JSONSuccess) {
        return fail(write_import_error, "set message fail\n", ret);
    }
    if (ret == REST_RET_IMPORT_FAIL &&
        (set_string(write_import_error, object, "error.i18n.key", err.key) != 0 ||
         add_variables(object, err) != 0)) {
        return ret;
    }
    const json_text_ptr text(json_serialize_to_string(value.get()));
    if (text == nullptr) {
        return fail(write_import_error, "json to string fail\n", ret);
    }
    (void)rest_write(text.get(), strlen(text.get())); // the status still tells
    return ret;
}

int write_can_proprietary_rest_import_config_response(int ret,
                                                      const JSON_Value *output,
                                                      const conf_import_error &err) {
    if (ret == REST_RET_SUCCESS) {
        ret = write_success_body(__func__, output);
    }
    return ret == REST_RET_SUCCESS ? ret : rest_write_import_config_error_msg(ret, err);
}

/** Now as text; what the clock does not give stays empty. */
std::array<char, 256> timestamp() {
    std::array<char, 256> text{};
    timeval now{};
    if (can_proprietary_time_get_localtimeval(&now) == 0) {
        (void)can_proprietary_time_get_timestamp(&now, text.data(), text.size()); // logged
    }
    return text;
}

bool fits(int length, size_t size) {
    return length >= 0 && static_cast<size_t>(length) < size;
}

int can_proprietary_rest_export_file(const char *path, const char *download_name) {
    return rest_export_file(path, download_name, "open fail\n") == 0 ? REST_RET_SUCCESS
                                                                     : REST_RET_GET_FAIL;
}

int export_to(const char *path, const char *stamp) {
    if (can_proprietary_conf_export(path) != 0) {
        return REST_RET_GET_FAIL;
    }
    std::array<char, 256> name{};
    const int length =
        snprintf(name.data(), name.size(), "%s%s%s", "can_proprietary_", stamp, ".csv");
    if (!fits(length, name.size())) {
        return fail(get_file, "set file name fail.\n", REST_RET_JSON_INIT_FAIL);
    }
    return can_proprietary_rest_export_file(path, name.data());
}

int export_configuration(const char *uri) {
    if (const int result = check_uri(get_file, uri); result != 0) {
        return result;
    }
    const std::array<char, 256> stamp = timestamp();
    std::array<char, 256> built{};
    const int length = snprintf(built.data(),
                                built.size(),
                                "%s%s%s%s",
                                file_folder,
                                "can_proprietary_",
                                stamp.data(),
                                ".csv");
    if (!fits(length, built.size())) {
        return fail(get_file, "set file name fail.\n", REST_RET_JSON_INIT_FAIL);
    }
    const std::string path = rooted_path(built.data());
    const int result = export_to(path.c_str(), stamp.data());
    (void)remove(path.c_str()); // in every case; it may not even have come to be
    return result;
}

} // namespace

int can_proprietary_rest_post_config_file(const char *uri, const char *body, size_t length) {
    json_ptr output;
    conf_import_error err{};
    const auto import = [&] { return import_upload(uri, body, length, &err, &output); };
    const int result = unless_no_memory(post_file, REST_RET_MALLOC_FAIL, import);
    return get_http_status(
        write_can_proprietary_rest_import_config_response(result, output.get(), err), REST_POST);
}

/** Answers a failure with its status alone: a client saves whatever body comes. */
int can_proprietary_rest_get_config_file(const char *uri,
                                         const char * /*body*/,
                                         size_t /*length*/) {
    const auto work = [uri] { return export_configuration(uri); };
    return get_http_status(unless_no_memory(get_file, REST_RET_MALLOC_FAIL, work), REST_GET);
}
