#include "always.h"
#include "config/read.h"
#include "core/state.h"
#include "device/diag.h"
#include "rest/handlers.h"
#include "scratch_gateway.h"
#include "traffic/recorder.h"

#include <kt/rest.h>
#include <parson.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

/*
 * Requests of any text to every endpoint, one after the other on one database. Each stands behind a
 * zero byte: a letter for endpoint and method, the rest of its path and query up to a line end, its
 * body. A refused request changes nothing and says why; an accepted one leaves sound rows, and what
 * it said is what the next GET says.
 */

namespace {

constexpr size_t requests_max = 8;

enum answer_kind { json_answer, file_answer };

struct request {
    char letter;
    const char *path;
    rest_method method;
    rest_callback handler;
    answer_kind answers;
    void (*read_back)(scratch_gateway &gateway, const JSON_Object *data, std::string_view suffix);
};

// The answer

struct answer {
    int status = 0;
    std::string text;
    std::string file;
    bool has_file = false;
};

answer g_answer;

struct release_json {
    void operator()(JSON_Value *value) const noexcept { json_value_free(value); }
};
struct release_text {
    void operator()(char *text) const noexcept { json_free_serialized_string(text); }
};
using value_ptr = std::unique_ptr<JSON_Value, release_json>;
using text_ptr = std::unique_ptr<char, release_text>;

/** The text is one object with the one member. */
value_ptr parse_answer(const std::string &text, const char *member) {
    value_ptr value(json_parse_string(text.c_str()));
    KT_ALWAYS(value != nullptr);
    const JSON_Object *object = json_value_get_object(value.get());
    KT_ALWAYS(json_object_get_count(object) == 1 && json_object_has_value(object, member) == 1);
    return value;
}

const JSON_Object *data_of(const value_ptr &value) {
    return json_object_get_object(json_value_get_object(value.get()), "data");
}

void expect_error(const answer &found) {
    const value_ptr value = parse_answer(found.text, "error");
    const JSON_Object *object = json_value_get_object(value.get());
    const double code = json_object_dotget_number(object, "error.code");
    const char *message = json_object_dotget_string(object, "error.message");
    KT_ALWAYS(code <= 1 && message != nullptr && message[0] != '\0');
}

answer ask(rest_callback handler, const std::string &uri, const char *body, size_t size) {
    g_answer = {};
    g_answer.status = handler(uri.c_str(), body, size);
    return g_answer;
}

/** Data of an answered GET, nothing for one that was refused. */
value_ptr get(rest_callback handler, const std::string &uri) {
    const answer found = ask(handler, "/CAN-proprietary" + uri, nullptr, 0);
    if (found.status != 200) {
        expect_error(found);
        return nullptr;
    }
    return parse_answer(found.text, "data");
}

// What was said is kept

bool says_the_same(const JSON_Value *told, const JSON_Value *kept);

bool objects_agree(const JSON_Object *told, const JSON_Object *kept) {
    for (size_t i = 0; i < json_object_get_count(told); i++) {
        const char *name = json_object_get_name(told, i);
        if (!says_the_same(json_object_get_value_at(told, i), json_object_get_value(kept, name))) {
            return false;
        }
    }
    return true;
}

bool arrays_agree(const JSON_Array *told, const JSON_Array *kept) {
    const size_t count = json_array_get_count(told);
    bool agree = json_array_get_count(kept) == count;
    for (size_t i = 0; agree && i < count; i++) {
        agree = says_the_same(json_array_get_value(told, i), json_array_get_value(kept, i));
    }
    return agree;
}

/** Everything told is there; there may be more. */
bool says_the_same(const JSON_Value *told, const JSON_Value *kept) {
    if (json_value_get_type(told) != json_value_get_type(kept)) {
        return false;
    }
    switch (json_value_get_type(told)) {
    case JSONObject:
        return objects_agree(json_value_get_object(told), json_value_get_object(kept));
    case JSONArray:
        return arrays_agree(json_value_get_array(told), json_value_get_array(kept));
    default: {
        const text_ptr first(json_serialize_to_string(told));
        const text_ptr second(json_serialize_to_string(kept));
        return strcmp(first.get(), second.get()) == 0;
    }
    }
}

int number_of(const JSON_Object *object, const char *name) {
    return static_cast<int>(json_object_dotget_number(object, name));
}

value_ptr get_device(int id) {
    return get(can_proprietary_rest_get_device_config, "/device?deviceId=" + std::to_string(id));
}

const JSON_Object *find_transaction(const value_ptr &device, int id) {
    const JSON_Array *list = json_object_get_array(data_of(device), "transactionList");
    for (size_t i = 0; i < json_array_get_count(list); i++) {
        const JSON_Object *each = json_array_get_object(list, i);
        if (number_of(each, "transactionId") == id) {
            return each;
        }
    }
    return nullptr;
}

void device_posted(scratch_gateway &, const JSON_Object *data, std::string_view) {
    const value_ptr device = get_device(number_of(data, "deviceId"));
    KT_ALWAYS(device != nullptr && objects_agree(data, data_of(device)));
}

/** A rename does not read the port: it tells 0. */
void device_renamed(scratch_gateway &, const JSON_Object *data, std::string_view) {
    const value_ptr device = get_device(number_of(data, "deviceId"));
    KT_ALWAYS(device != nullptr);
    KT_ALWAYS(says_the_same(json_object_get_value(data, "deviceName"),
                            json_object_get_value(data_of(device), "deviceName")));
}

int owner_of(const scratch_gateway &gateway, int transaction) {
    const std::string sql = "SELECT deviceId FROM transactions WHERE transactionId = ";
    return atoi(gateway.rows((sql + std::to_string(transaction)).c_str()).c_str());
}

void transaction_kept(scratch_gateway &gateway, const JSON_Object *data, std::string_view) {
    const int id = number_of(data, "transactionId");
    const value_ptr device = get_device(owner_of(gateway, id));
    KT_ALWAYS(device != nullptr);
    const JSON_Object *kept = find_transaction(device, id);
    KT_ALWAYS(kept != nullptr && objects_agree(data, kept));
}

/** The change tells the defaults of what it was not asked about, and no device. */
void transaction_changed(scratch_gateway &gateway, const JSON_Object *data, std::string_view) {
    const int id = number_of(data, "transactionId");
    const value_ptr device = get_device(owner_of(gateway, id));
    KT_ALWAYS(device != nullptr);
    const JSON_Object *kept = find_transaction(device, id);
    KT_ALWAYS(kept != nullptr);
    for (const char *name : {"transactionName", "transactionType", "transactionEnable"}) {
        KT_ALWAYS(
            says_the_same(json_object_get_value(data, name), json_object_get_value(kept, name)));
    }
}

void frames_put(scratch_gateway &gateway, const JSON_Object *data, std::string_view suffix) {
    const int id = atoi(std::string(suffix.substr(1)).c_str());
    const value_ptr device = get_device(owner_of(gateway, id));
    KT_ALWAYS(device != nullptr);
    const JSON_Object *kept = find_transaction(device, id);
    KT_ALWAYS(kept != nullptr && objects_agree(data, kept));
}

void interface_patched(scratch_gateway &, const JSON_Object *data, std::string_view suffix) {
    const int port = atoi(std::string(suffix.substr(1)).c_str());
    const value_ptr kept =
        get(can_proprietary_rest_get_interface_config, "/interface?portId=" + std::to_string(port));
    KT_ALWAYS(kept != nullptr);
    for (const char *name : {"frameFormat", "baudrate", "initialDelay"}) {
        KT_ALWAYS(std::trunc(json_object_get_number(data, name)) ==
                  json_object_get_number(data_of(kept), name));
    }
    for (const char *name : {"busOffReset", "resistor"}) {
        KT_ALWAYS(says_the_same(json_object_get_value(data, name),
                                json_object_get_value(data_of(kept), name)));
    }
}

void device_deleted(scratch_gateway &, const JSON_Object *, std::string_view suffix) {
    KT_ALWAYS(get_device(atoi(std::string(suffix.substr(1)).c_str())) == nullptr);
}

void transaction_deleted(scratch_gateway &gateway, const JSON_Object *, std::string_view suffix) {
    const int id = atoi(std::string(suffix.substr(1)).c_str());
    const std::string sql = "SELECT 1 FROM transactions WHERE transactionId = ";
    KT_ALWAYS(gateway.rows((sql + std::to_string(id)).c_str()).empty());
}

constexpr std::array requests = {
    request{'d',
            "/device",
            REST_POST,
            can_proprietary_rest_post_device_config,
            json_answer,
            device_posted},
    request{'n',
            "/device",
            REST_PATCH,
            can_proprietary_rest_patch_device_name_config,
            json_answer,
            device_renamed},
    request{'t',
            "/transaction",
            REST_POST,
            can_proprietary_rest_post_transaction_config,
            json_answer,
            transaction_kept},
    request{'p',
            "/transaction",
            REST_PATCH,
            can_proprietary_rest_patch_transaction_config,
            json_answer,
            transaction_changed},
    request{
        'f', "/frame", REST_PUT, can_proprietary_rest_put_frame_config, json_answer, frames_put},
    request{'i',
            "/interface",
            REST_PATCH,
            can_proprietary_rest_patch_interface_config,
            json_answer,
            interface_patched},
    request{'x',
            "/device",
            REST_DELETE,
            can_proprietary_rest_delete_device_config,
            json_answer,
            device_deleted},
    request{'y',
            "/transaction",
            REST_DELETE,
            can_proprietary_rest_delete_transaction_config,
            json_answer,
            transaction_deleted},
    request{'c',
            "/config-file",
            REST_POST,
            can_proprietary_rest_post_config_file,
            json_answer,
            nullptr},
    request{'a', "/action", REST_POST, can_proprietary_post_rest_action, json_answer, nullptr},
    request{
        'r', "/traffic", REST_POST, can_proprietary_rest_post_traffic_log, json_answer, nullptr},
    request{'I',
            "/interface",
            REST_GET,
            can_proprietary_rest_get_interface_config,
            json_answer,
            nullptr},
    request{'D', "/device", REST_GET, can_proprietary_rest_get_device_config, json_answer, nullptr},
    request{
        'O', "/overview", REST_GET, can_proprietary_rest_get_overview_config, json_answer, nullptr},
    request{'C',
            "/config-change",
            REST_GET,
            can_proprietary_rest_get_config_change,
            json_answer,
            nullptr},
    request{'U',
            "/usedCANIds",
            REST_GET,
            can_proprietary_rest_get_usedCANIds_config,
            json_answer,
            nullptr},
    request{'R', "/traffic", REST_GET, can_proprietary_rest_get_traffic_log, json_answer, nullptr},
    request{'G', "/diagnose", REST_GET, can_proprietary_rest_get_diagnose, json_answer, nullptr},
    request{'X',
            "/traffic-export",
            REST_GET,
            can_proprietary_rest_export_traffic_csv,
            file_answer,
            nullptr},
    request{
        'F', "/config-file", REST_GET, can_proprietary_rest_get_config_file, file_answer, nullptr},
};
static_assert(requests.size() == 20); // every endpoint

const request &request_of(char letter) {
    for (const request &row : requests) {
        if (row.letter == letter) {
            return row;
        }
    }
    return requests[static_cast<unsigned char>(letter) % requests.size()];
}

void expect_sound_rows(const scratch_gateway &gateway) {
    KT_ALWAYS(gateway.rows("PRAGMA integrity_check") == "ok|");
    KT_ALWAYS(gateway.rows("PRAGMA foreign_key_check").empty());
    KT_ALWAYS(gateway.rows("SELECT COUNT(*) FROM interface_setting") == "2|");
    for (int portId = 1; portId <= 2; portId++) {
        device_config *devices = nullptr;
        KT_ALWAYS(can_proprietary_conf_get_port_config(&devices, portId) == 0);
        conf_free_device_list(devices);
    }
}

void expect_answer(const request &row, const answer &found) {
    const bool accepted = found.status >= 200 && found.status < 300;
    constexpr std::array statuses = {201, 200, 200, 200, 204}; // of the methods
    KT_ALWAYS(accepted ? found.status == statuses[static_cast<size_t>(row.method) - 1]
                       : found.status == 400 || found.status == 500);
    if (row.answers == file_answer) {
        KT_ALWAYS(found.text.empty() && found.has_file == accepted);
    } else if (accepted) {
        (void)parse_answer(found.text, "data");
    } else {
        expect_error(found);
    }
}

/** An apply asks for a restart. */
void expect_restart(const request &row, bool accepted) {
    const int32_t restart = can_proprietary_restart.exchange(0);
    KT_ALWAYS(restart == 0 || (row.letter == 'a' && accepted));
}

void send(scratch_gateway &gateway, std::string_view text) {
    const request &row = request_of(text.front());
    text.remove_prefix(1);
    const std::string_view suffix = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), suffix.size() + 1));
    const std::string uri = "/CAN-proprietary" + std::string(row.path) + std::string(suffix);
    const std::string body(text);
    const std::vector<char> before = gateway.content();
    const answer found = ask(row.handler, uri, body.empty() ? nullptr : body.c_str(), body.size());
    const bool accepted = found.status < 300;
    expect_answer(row, found);
    expect_restart(row, accepted);
    if (!accepted || row.method == REST_GET || row.letter == 'r') {
        KT_ALWAYS(gateway.content() == before);
        return;
    }
    expect_sound_rows(gateway);
    if (row.read_back != nullptr) {
        const value_ptr value = parse_answer(found.text, "data");
        row.read_back(gateway, data_of(value), suffix);
    }
}

} // namespace

extern "C" int __wrap_rest_write(const char *text, size_t length) {
    g_answer.text.assign(text, length);
    return REST_OK;
}

extern "C" int __wrap_rest_write_file(const char *name, const void *data, size_t length) {
    KT_ALWAYS(name != nullptr && name[0] != '\0' && strlen(name) <= REST_DOWNLOAD_NAME_MAX);
    g_answer.file.assign(static_cast<const char *>(data), length);
    g_answer.has_file = true;
    return REST_OK;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static scratch_gateway gateway;
    static const int prepared =
        can_proprietary_traffic_init(2) + can_proprietary_diag_create_infos(2);
    KT_ALWAYS(prepared == 0);
    std::string_view rest(reinterpret_cast<const char *>(data), size);
    for (size_t i = 0; i < requests_max && !rest.empty(); i++) {
        const std::string_view text = rest.substr(0, rest.find('\0'));
        rest.remove_prefix(std::min(rest.size(), text.size() + 1));
        if (!text.empty()) {
            send(gateway, text);
        }
    }
    if (gateway.content() != gateway.first_content()) {
        gateway.restore();
    }
    for (int port = 0; port < 2; port++) {
        (void)can_proprietary_traffic_stop(port);
    }
    return 0;
}
