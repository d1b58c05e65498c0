#include "rest/request.h"
#include "rest_fixture.h"

namespace {

class request : public rest_unit {
protected:
    int id_from(const std::string &uri, const std::string &resource) {
        return can_proprietary_get_id_from_path(uri.c_str(), resource.c_str(), &id);
    }

    int32_t id = 77;
};

const std::string parse_failed = "can_proprietary_get_id_from_path|parse resource's ID fail\n";

TEST_F(request, an_id_is_the_number_behind_the_resource) {
    const struct {
        const char *uri;
        int32_t id;
    } rows[] = {{"/CAN-proprietary/device/7", 7},
                {"/CAN-proprietary/device/7?x=1", 7},
                {"/CAN-proprietary/device/7/extra", 7},
                {"/CAN-proprietary/device/7abc", 7},
                {"/CAN-proprietary/device/-3", -3},
                {"/CAN-proprietary/device/+3", 3},
                {"/CAN-proprietary/device/007", 7},
                {"/CAN-proprietary/device/ 7", 7},
                {"/CAN-proprietary/device/0x10", 0},
                {"/CAN-proprietary/device/2147483647", INT32_MAX},
                {"/CAN-proprietary/device/-2147483648", INT32_MIN}};
    for (const auto &row : rows) {
        EXPECT_EQ(id_from(row.uri, "device"), 0) << row.uri;
        EXPECT_EQ(id, row.id) << row.uri;
    }
}

TEST_F(request, a_path_without_a_number_there_has_no_id) {
    for (const char *uri : {"",
                            "/",
                            "/CAN-proprietary/device",
                            "/CAN-proprietary/device/",
                            "/CAN-proprietary/device/x7",
                            "/CAN-proprietary/device/-",
                            "/CAN-proprietary/device//7",
                            "/CAN-proprietary/devices/7",
                            "/CAN-proprietary/Device/7",
                            "/can-proprietary/device/7",
                            "/CAN-proprietary/transaction/7",
                            "CAN-proprietary/device/7",
                            "/CAN-proprietary/device/%37",
                            "/CAN-proprietary/device/2147483648",
                            "/CAN-proprietary/device/-2147483649",
                            "/CAN-proprietary/device/99999999999999999999"}) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(id_from(uri, "device"), 1) << uri; }),
                    ElementsAre(parse_failed));
    }
    EXPECT_EQ(id, 77);
}

TEST_F(request, missing_arguments_are_logged) {
    const std::string line = "can_proprietary_get_id_from_path|Invalid parameters\n";
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_get_id_from_path(nullptr, "device", &id), 1);
                    EXPECT_EQ(can_proprietary_get_id_from_path("/", nullptr, &id), 1);
                    EXPECT_EQ(can_proprietary_get_id_from_path("/", "device", nullptr), 1);
                }),
                ElementsAre(line, line, line));
}

TEST_F(request, a_resource_of_182_characters_proceeds) {
    const std::string resource(182, 'r');
    EXPECT_EQ(id_from("/CAN-proprietary/" + resource + "/5", resource), 0);
    EXPECT_EQ(id, 5);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(id_from("/x", resource), 1); }),
                ElementsAre(parse_failed));
}

TEST_F(request, a_resource_of_183_characters_is_refused_on_standard_output) {
    for (const size_t length : {size_t{183}, size_t{5000}}) {
        const std::string resource(length, 'r');
        ::testing::internal::CaptureStdout();
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(id_from("/CAN-proprietary/" + resource + "/5", resource), 1);
                    }),
                    IsEmpty());
        EXPECT_EQ(::testing::internal::GetCapturedStdout(),
                  "URI exceeds maximum allowed length (REST_MAX_URL_NAME_LEN)\n");
    }
    EXPECT_EQ(id, 77);
}

TEST_F(request, a_query_number_is_what_stands_in_front) {
    const struct {
        const char *uri;
        int number;
    } rows[] = {{"/x?portId=2", 2},
                {"/x?a=1&portId=2", 2},
                {"/x?portId=2abc", 2},
                {"/x?portId=-2", -2},
                {"/x?portId=%32", 2},
                {"/x?portId=", 0},
                {"/x?portId", 0},
                {"/x?portId=can0", 0},
                {"/x?portId=1.9", 1},
                {"/x?portId=2147483647", INT32_MAX},
                {"/x?portId=2147483648", 0},
                {"/x?portId=4294967297", 0},
                {"/x?portId=-99999999999999999999", 0}};
    for (const auto &row : rows) {
        int number = 77;
        EXPECT_EQ(get_query_number("handler", row.uri, "portId", &number), 0) << row.uri;
        EXPECT_EQ(number, row.number) << row.uri;
    }
}

TEST_F(request, a_query_without_the_parameter_is_logged_with_the_libraries_result) {
    int number = 77;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(get_query_number("handler", "/x", "portId", &number), -1);
                    EXPECT_EQ(get_query_number("handler", "/x?portId=%", "portId", &number), -1);
                    const std::string wide = "/x?portId=" + std::string(64, '1');
                    EXPECT_EQ(get_query_number("handler", wide.c_str(), "portId", &number), -1);
                }),
                ElementsAre("handler|rest_find_uri_query_val fail (-8).\n",
                            "handler|rest_find_uri_query_val fail (-10).\n",
                            "handler|rest_find_uri_query_val fail (-9).\n"));
    EXPECT_EQ(number, 77);
}

TEST_F(request, missing_uri_and_body_are_logged_under_the_handlers_name) {
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(check_uri("handler", nullptr), -1);
                    EXPECT_EQ(check_body("handler", nullptr), -1);
                    EXPECT_EQ(check_uri("handler", "/"), 0);
                    EXPECT_EQ(check_body("handler", ""), 0);
                }),
                ElementsAre("handler|invalid uri\n", "handler|invalid input_data\n"));
}

TEST_F(request, an_output_that_cannot_be_created) {
    json_ptr output;
    json_fault::arm("init_object");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(init_output("handler", &output), -4); }),
                ElementsAre("handler|init output_obj_val fail\n"));
    EXPECT_EQ(init_output("handler", &output), 0);
    EXPECT_EQ(text_of(output), "{}");
}

} // namespace
