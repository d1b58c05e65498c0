#include "config/read.h"
#include "core/state.h"
#include "rest/handlers.h"
#include "scratch_gateway.h"

#include <kt/rest.h>
#include <parson.h>

#include <array>
#include <memory>
#include <string>

/*
 * Any text as the body of a request that changes the configuration; the first byte chooses the
 * request. A refused request changes nothing and says why; an accepted one leaves rows that can be
 * read.
 */

namespace {

struct request {
    char letter;
    const char *uri;
    rest_callback handler;
};

constexpr std::array requests = {
    request{'d', "/CAN-proprietary/device", can_proprietary_rest_post_device_config},
    request{'n', "/CAN-proprietary/device/1", can_proprietary_rest_patch_device_name_config},
    request{'t', "/CAN-proprietary/transaction", can_proprietary_rest_post_transaction_config},
    request{'p', "/CAN-proprietary/transaction/1", can_proprietary_rest_patch_transaction_config},
    request{'f', "/CAN-proprietary/frame/1", can_proprietary_rest_put_frame_config},
    request{'i', "/CAN-proprietary/interface/1", can_proprietary_rest_patch_interface_config},
};

const request &request_of(char letter) {
    for (const request &row : requests) {
        if (row.letter == letter) {
            return row;
        }
    }
    return requests[static_cast<unsigned char>(letter) % requests.size()];
}

std::string g_answer;

using value_ptr = std::unique_ptr<JSON_Value, decltype(&json_value_free)>;

/** The answer has the one member, and an object in it. */
void expect_answer(const char *member) {
    const value_ptr answer(json_parse_string(g_answer.c_str()), json_value_free);
    KT_ALWAYS(answer != nullptr);
    const JSON_Object *object = json_value_get_object(answer.get());
    KT_ALWAYS(json_object_get_count(object) == 1);
    KT_ALWAYS(json_object_get_object(object, member) != nullptr);
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

} // namespace

extern "C" int __wrap_rest_write(const char *text, size_t length) {
    g_answer.assign(text, length);
    return REST_OK;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static scratch_gateway gateway;
    const std::string body(reinterpret_cast<const char *>(data) + (size > 0 ? 1 : 0),
                           size > 0 ? size - 1 : 0);
    const request &row = request_of(size > 0 ? static_cast<char>(data[0]) : 'd');
    g_answer.clear();
    const int status = row.handler(row.uri, body.c_str(), body.size());
    KT_ALWAYS(can_proprietary_restart == 0);
    if (status == 200 || status == 201) {
        expect_answer("data");
        expect_sound_rows(gateway);
        gateway.restore();
    } else {
        KT_ALWAYS(status == 400 || status == 500);
        expect_answer("error");
        KT_ALWAYS(gateway.is_untouched());
    }
    return 0;
}
