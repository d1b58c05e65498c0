#ifndef KT_TESTS_REST_FIXTURE_H
#define KT_TESTS_REST_FIXTURE_H

#include "captured_log.h"
#include "core/log.h"
#include "fake_rest.h"
#include "json_fault.h"
#include "rest/response.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/** A fresh fake server, every message let through, no fault armed. */
class rest_unit : public ::testing::Test {
protected:
    rest_unit() {
        g_fake_rest = {};
        log_set_level(LOG_LEVEL_WARN);
    }
    ~rest_unit() override {
        (void)json_fault::disarm();
        log_set_level(LOG_LEVEL_WARN);
    }
};

/** A parsed body; empty for text that is none. */
inline json_ptr parsed(const std::string &text) {
    return parse_body(text.c_str());
}

inline JSON_Object *object_of(const json_ptr &value) {
    return json_value_get_object(value.get());
}

inline std::string text_of(const json_ptr &value) {
    const json_text_ptr text(json_serialize_to_string(value.get()));
    return text == nullptr ? "(none)" : text.get();
}

inline std::string error_body(int code, const std::string &message) {
    return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + "\"}}";
}

#endif
