#include "handlers_fixture.h"
#include "rest/response.h"

namespace {

class handlers_fault : public handlers {
protected:
    static int code_of_answer() {
        const json_ptr value = parse_body(answer().c_str());
        return static_cast<int>(
            json_object_dotget_number(json_value_get_object(value.get()), "error.code"));
    }

    /** What is done by the time the answer is built cannot be taken back. */
    static bool keeps_its_effect(const rest_request_row &row) {
        return row.handler == can_proprietary_rest_delete_device_config ||
               row.handler == can_proprietary_rest_post_config_file;
    }

    static void expect_failure(const rest_request_row &row, int status, int nth) {
        const std::string place = std::string(row.function) + ", failure " + std::to_string(nth);
        ASSERT_GE(status, 400) << place;
        if (is_download(row)) {
            EXPECT_EQ(answer(), "") << place;
            return;
        }
        const int code = code_of_answer();
        EXPECT_EQ(answer(),
                  R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" +
                      rest_ret_message(code) + "\"}}")
            << place;
    }
};

TEST_F(handlers_fault, every_value_that_cannot_be_built_fails_the_request_and_changes_nothing) {
    const std::string before = everything();
    int faults = 0;
    for (const rest_request_row &row : requests) {
        if (row.handler == can_proprietary_rest_post_config_file) {
            continue; // its error body tells more; below
        }
        const captured_log quiet;
        faults += json_fault::sweep([&] { return run(row); },
                                    [&](int status, int nth) {
                                        EXPECT_EQ(status, 500) << row.function << " " << nth;
                                        expect_failure(row, status, nth);
                                        if (keeps_its_effect(row)) {
                                            fill();
                                        }
                                        ASSERT_EQ(everything(), before)
                                            << row.function << " " << nth;
                                    });
        fill();
        execute(working_db_path(),
                "UPDATE interface_setting SET baudrate = 3, initialDelay = 0, "
                "busOffReset = 0, resistor = 0");
        ASSERT_EQ(everything(), before);
    }
    EXPECT_GT(faults, 100);
}

TEST_F(handlers_fault, every_allocation_that_fails_fails_the_request_and_changes_nothing) {
    const std::string before = everything();
    int faults = 0;
    for (const rest_request_row &row : requests) {
        if (row.handler == can_proprietary_rest_post_config_file) {
            continue;
        }
        const captured_log quiet;
        faults += allocation_fault::sweep(
            [&] { return run(row); },
            [&](int status, int nth) {
                if (status < 400) { // a message that could not be made is no failure
                    fill();
                } else {
                    expect_failure(row, status, nth);
                    // The text of the answer is made after the commit.
                    if (keeps_its_effect(row) || code_of_answer() == REST_RET_JSON_SERIALIZE_FAIL) {
                        fill();
                    }
                }
                execute(working_db_path(),
                        "UPDATE interface_setting SET baudrate = 3, "
                        "initialDelay = 0, busOffReset = 0, resistor = 0");
                ASSERT_EQ(everything(), before) << row.function << " " << nth;
            });
        fill();
        execute(working_db_path(),
                "UPDATE interface_setting SET baudrate = 3, initialDelay = 0, "
                "busOffReset = 0, resistor = 0");
    }
    EXPECT_GT(faults, 100);
}

TEST_F(handlers_fault, an_import_failure_that_cannot_be_told_leaves_the_status) {
    const rest_request_row &upload = requests[18];
    const char *texts[] = {"init json_value fail\n",
                           "set code fail\n",
                           "set message fail\n",
                           "set error.i18n.key fail\n",
                           "set error.i18n.variables.errTableName fail\n",
                           "set error.i18n.variables.errRow fail\n"};
    int nth = 0;
    for (const char *text : texts) {
        json_fault::arm(++nth);
        const auto messages = messages_of([&] { EXPECT_EQ(run(upload), 400); });
        EXPECT_TRUE(json_fault::disarm());
        EXPECT_EQ(answer(), "");
        ASSERT_GE(messages.size(), 2U);
        EXPECT_EQ(messages[messages.size() - 2],
                  std::string("rest_write_import_config_error_msg|") + text);
        EXPECT_EQ(messages.back(), "get_http_status|error=-13, return 400 bad request\n");
    }
    json_fault::arm("serialize");
    const auto messages = messages_of([&] { EXPECT_EQ(run(upload), 400); });
    EXPECT_TRUE(json_fault::disarm());
    EXPECT_EQ(messages[messages.size() - 2],
              "rest_write_import_config_error_msg|json to string fail\n");
}

TEST_F(handlers_fault, messages_of_reads_that_cannot_be_shown) {
    const struct {
        size_t request;
        const char *fault;
        int nth;
        const char *message;
    } rows[] = {
        {0, "init_object", 1, "init output_obj_val fail\n"},
        {0, "data.baudrate", 1, "set data.baudrate fail\n"},
        {0, "data.resistor", 1, "set data.resistor fail\n"},
        {0, "init_array", 1, "init device_table_arr fail\n"},
        {0, "data.deviceList", 1, "set data.deviceList fail\n"},
        {0, "init_object", 2, "init table_inner fail\n"},
        {0, "deviceName", 1, "set deviceName fail\n"},
        {0, "append", 1, "append inner fail\n"},
        {3, "data.deviceName", 1, "set data.deviceName fail\n"},
        {9, "data.portNum", 1, "set data.deviceId fail\n"}, // names the wrong member, kept
        {9, "init_array", 1, "init transaction_table_arr fail\n"},
        {9, "init_object", 2, "init transaction_val fail\n"},
        {9, "transactionNum", 1, "set transactionNum fail\n"},
        {9, "append", 1, "append port_val fail\n"},
        {9, "data.portList", 1, "set port list list fail\n"},
        {12, "init_object", 1, "init output_obj_val fail\n"},
        {12, "data.result", 1, "set data.result fail\n"},
        {13, "init_array", 1, "init transaction_table_arr fail\n"},
        {13, "init_array", 2, "init can_id_arr fail\n"},
        {13, "init_object", 2, "init transaction_val fail\n"},
        {13, "transactionId", 1, "set transactionId fail\n"},
        {13, "append_number", 1, "set canIds to array fail\n"},
        {13, "canId", 1, "set canIds array to transaction_val fail\n"},
        {13, "append", 1, "append transaction_val fail\n"},
        {13, "data", 1, "set data object fail\n"},
        {17, "data.state", 1, "set data.state fail\n"},
        {17, "data.busLoading", 1, "set data.busLoading fail\n"},
        {17, "data.transactionCount", 1, "set data.transactionCount fail\n"},
        {17, "init_array", 1, "init transaction_table_arr fail\n"},
        {17, "init_object", 2, "init transaction_val fail\n"},
        {17, "failedCount", 1, "set failedCount fail\n"},
    };
    for (const auto &row : rows) {
        const rest_request_row &request = requests[row.request];
        json_fault::arm(row.fault, row.nth);
        const auto messages = messages_of([&] { EXPECT_EQ(run(request), 500); });
        EXPECT_TRUE(json_fault::disarm()) << row.fault;
        ASSERT_EQ(messages.size(), 2U) << row.message;
        EXPECT_EQ(messages[0], std::string(request.function) + "|" + row.message);
    }
}

TEST_F(handlers_fault, a_traffic_log_that_cannot_be_shown_says_so_twice) {
    const rest_request_row &log = requests[15];
    const std::string failed = "can_proprietary_rest_get_traffic_log|output json fail\n";
    const std::string status = "get_http_status|error=-5, return 500 internal server error\n";
    for (const char *fault : {"init_object", "data.response"}) {
        json_fault::arm(fault);
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(log), 500); }),
                    ElementsAre(failed, failed, status));
        EXPECT_TRUE(json_fault::disarm());
    }
    json_fault::arm("data.action");
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(run(log), 500); }),
        ElementsAre("can_proprietary_rest_get_traffic_log|set data.action fail\n", failed, status));
}

TEST_F(handlers_fault, a_traffic_answer_that_cannot_be_filled_is_minus_5) {
    json_fault::arm("data.response");
    EXPECT_EQ(run(requests[14]), 500);
    EXPECT_EQ(code_of_answer(), -5);
    json_fault::arm("init_object");
    EXPECT_EQ(run(requests[14]), 500);
    EXPECT_EQ(code_of_answer(), -4);
}

} // namespace
