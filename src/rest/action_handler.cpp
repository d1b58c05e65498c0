#include "config/database_files.h"
#include "config/write.h"
#include "core/log.h"
#include "core/state.h"
#include "rest/handlers.h"
#include "rest/request.h"

namespace {

constexpr const char *post_action = "can_proprietary_post_rest_action";

enum action_option { ACTION_APPLY = 0, ACTION_DISCARD = 1 };

int get_option(const char *uri, const char *body, int32_t *option) {
    if (const int result = check_uri(post_action, uri); result != 0) {
        return result;
    }
    const json_ptr request = parse_body(body);
    if (request == nullptr) {
        return fail(post_action, "invalid input_data\n", REST_RET_INVALID_PARAM);
    }
    const int result = json_obj_get_number(
        json_value_get_object(request.get()), "option", option, ACTION_APPLY, ACTION_DISCARD);
    return result == 0 ? result : fail(post_action, "get action_option fail\n", result);
}

int apply() {
    if (can_proprietary_conf_check_canId_duplicate() != 0 || can_proprietary_conf_apply() != 0) {
        return fail(post_action, "set action fail\n", REST_RET_SET_FAIL);
    }
    can_proprietary_restart.store(1, std::memory_order_relaxed);
    return REST_RET_SUCCESS;
}

int discard() {
    return can_proprietary_conf_discard() == 0
               ? REST_RET_SUCCESS
               : fail(post_action, "set action fail\n", REST_RET_SET_FAIL);
}

int act(const char *uri, const char *body, json_ptr *output) {
    int32_t option = 0;
    int result = get_option(uri, body, &option);
    if (result == 0) {
        result = option == ACTION_APPLY ? apply() : discard();
    }
    return result == 0 ? build_success(post_action, output) : result;
}

} // namespace

int can_proprietary_post_rest_action(const char *uri, const char *body, size_t /*length*/) {
    json_ptr output;
    const int result = act(uri, body, &output);
    return answer(result, output, REST_POST);
}
