#include "rest/request.h"
#include "rest_fixture.h"

#include <climits>

namespace {

class response : public rest_unit {
protected:
    const json_ptr output = parsed(R"({"data":{"response":"success"}})");
};

const std::vector<std::string> fixed_messages = {
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

std::string bad_request_line(int ret) {
    return "get_http_status|error=" + std::to_string(ret) + ", return 400 bad request\n";
}

std::string internal_line(int ret) {
    return "get_http_status|error=" + std::to_string(ret) + ", return 500 internal server error\n";
}

std::string unset_line(int ret) {
    return "CAN_PROPREITARY_REST_RET option(" + std::to_string(ret) + ") has not been set\n";
}

TEST_F(response, every_code_has_its_message_and_others_have_one_too) {
    for (size_t code = 0; code < fixed_messages.size(); code++) {
        EXPECT_EQ(rest_ret_message(-static_cast<int>(code)), fixed_messages[code]);
    }
    for (const int code : {1, 3, -14, -100, 32, 45, INT_MAX, INT_MIN}) {
        EXPECT_STREQ(rest_ret_message(code), "Internal error") << code;
    }
}

TEST_F(response, success_has_the_status_of_the_method) {
    const int statuses[] = {201, 200, 200, 200, 204};
    for (int option = 1; option <= 5; option++) {
        EXPECT_THAT(
            messages_of([&] { EXPECT_EQ(get_http_status(0, option), statuses[option - 1]); }),
            IsEmpty());
    }
    for (const int option : {0, 6, -1, INT_MAX, INT_MIN}) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(get_http_status(0, option), 200); }), IsEmpty());
    }
}

TEST_F(response, codes_are_bad_requests_internal_errors_or_not_set) {
    for (int ret = -40; ret <= 40; ret++) {
        if (ret == 0) {
            continue;
        }
        const bool is_bad = ret == -1 || ret == -3 || ret == -13;
        const bool is_internal = ret >= -11 && ret <= -4;
        const std::string line = is_bad        ? bad_request_line(ret)
                                 : is_internal ? internal_line(ret)
                                               : unset_line(ret);
        for (int option = 0; option <= 6; option++) {
            EXPECT_THAT(
                messages_of([&] { EXPECT_EQ(get_http_status(ret, option), is_bad ? 400 : 500); }),
                ElementsAre(line));
        }
    }
}

TEST_F(response, codes_at_the_ends_of_the_range) {
    for (const int ret : {INT_MAX, INT_MIN, -13 + 32, -13 - 32, 1 << 30}) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(get_http_status(ret, 1), 500); }),
                    ElementsAre(unset_line(ret)));
    }
}

TEST_F(response, only_the_not_set_line_ignores_the_log_level) {
    log_set_level(LOG_LEVEL_OFF);
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(get_http_status(-1, 1), 400);
                    EXPECT_EQ(get_http_status(-7, 1), 500);
                    EXPECT_EQ(get_http_status(-2, 2), 500);
                }),
                ElementsAre(unset_line(-2)));
}

TEST_F(response, an_output_is_the_whole_body_without_blanks) {
    EXPECT_EQ(write_can_proprietary_rest_response(0, output.get()), 0);
    EXPECT_THAT(g_fake_rest.written, ElementsAre(R"({"data":{"response":"success"}})"));
}

TEST_F(response, every_code_is_written_as_an_error) {
    for (const int ret : {-1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -13, 1, -14}) {
        g_fake_rest.written.clear();
        EXPECT_EQ(write_can_proprietary_rest_response(ret, nullptr), ret);
        EXPECT_THAT(g_fake_rest.written, ElementsAre(error_body(ret, rest_ret_message(ret))));
    }
}

TEST_F(response, an_output_beside_an_error_is_not_written) {
    EXPECT_EQ(write_can_proprietary_rest_response(-8, output.get()), -8);
    EXPECT_THAT(g_fake_rest.written, ElementsAre(error_body(-8, "Fail to set")));
}

TEST_F(response, an_output_that_is_no_text_becomes_minus_5) {
    json_fault::arm("serialize");
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(write_can_proprietary_rest_response(0, output.get()), -5); }),
        ElementsAre("write_can_proprietary_rest_response|set json to string fail\n"));
    EXPECT_THAT(g_fake_rest.written, ElementsAre(error_body(-5, "Internal error")));
}

TEST_F(response, no_output_becomes_minus_5) {
    EXPECT_EQ(write_can_proprietary_rest_response(0, nullptr), -5);
    EXPECT_THAT(g_fake_rest.written, ElementsAre(error_body(-5, "Internal error")));
}

TEST_F(response, a_write_that_fails_becomes_minus_6) {
    for (const int result : {-2, 1}) {
        g_fake_rest.written.clear();
        g_fake_rest.write_results = {result};
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(write_can_proprietary_rest_response(0, output.get()), -6);
                    }),
                    ElementsAre("write_can_proprietary_rest_response|rest write failed.\n"));
        EXPECT_THAT(
            g_fake_rest.written,
            ElementsAre(R"({"data":{"response":"success"}})", error_body(-6, "Internal error")));
    }
}

TEST_F(response, a_failing_error_body_keeps_the_code_and_writes_nothing) {
    const struct {
        const char *fault;
        const char *message;
    } rows[] = {{"init_object", "rest_write_error_msg|init json_value fail\n"},
                {"error.code", "rest_write_error_msg|set code fail\n"},
                {"error.message", "rest_write_error_msg|set message fail\n"},
                {"serialize", "rest_write_error_msg|json to string fail\n"}};
    for (const auto &row : rows) {
        json_fault::arm(row.fault);
        EXPECT_THAT(messages_of([] { EXPECT_EQ(rest_write_error_msg(-7), -7); }),
                    ElementsAre(row.message));
        EXPECT_TRUE(json_fault::disarm());
        EXPECT_THAT(g_fake_rest.written, IsEmpty());
    }
}

TEST_F(response, an_error_body_that_cannot_be_written_keeps_the_code) {
    g_fake_rest.write_results = {-2};
    EXPECT_THAT(messages_of([] { EXPECT_EQ(rest_write_error_msg(-7), -7); }), IsEmpty());
}

TEST_F(response, a_message_bears_the_line_where_it_failed) {
    JSON_Object *none = nullptr;
    ::testing::internal::CaptureStderr();
    const int line = __LINE__;
    EXPECT_EQ(fail("handler", "malloc fail\n", -2), -2);
    EXPECT_EQ(set_number("handler", none, "data.portId", 1), -6);
    EXPECT_EQ(check_uri("handler", nullptr), -1);
    const auto message = [line](int after, const char *text) {
        return "\033[91mERROR: handler(" + std::to_string(line + after) + "): " + text + "\033[0m";
    };
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              message(1, "malloc fail\n") + message(2, "set data.portId fail\n") +
                  message(3, "invalid uri\n"));
}

TEST_F(response, success_is_built_with_the_codes_of_its_failures) {
    json_ptr built;
    EXPECT_EQ(build_success("handler", &built), 0);
    EXPECT_EQ(text_of(built), R"({"data":{"response":"success"}})");
    json_fault::arm("init_object");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(build_success("handler", &built), -4); }),
                ElementsAre("handler|init output_obj_val fail\n"));
    json_fault::arm("data.response");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(build_success("handler", &built), -6); }),
                ElementsAre("handler|set data.response fail\n"));
    json_fault::arm("data.response");
    EXPECT_EQ(build_success("handler", &built, -5), -5);
}

} // namespace
