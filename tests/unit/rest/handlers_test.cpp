#include "handlers_fixture.h"

namespace {

std::string bad_request_line() {
    return "get_http_status|error=-1, return 400 bad request\n";
}

constexpr const char *invalid_parameters =
    R"({"error":{"code":-1,"message":"Invalid parameters"}})";

TEST_F(handlers, a_request_of_each_endpoint_succeeds) {
    for (const rest_request_row &row : requests) {
        fill();
        EXPECT_EQ(run(row), row.status) << row.function << " " << answer();
    }
}

TEST_F(handlers, a_missing_uri_is_an_invalid_parameter) {
    const std::string before = everything();
    for (rest_request_row row : requests) {
        row.uri = nullptr;
        // The action looks at the URI first and at the body only then, as all do.
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(row), 400) << row.function; }),
                    ElementsAre(std::string(row.function) + "|invalid uri\n", bad_request_line()));
        EXPECT_EQ(answer(), is_download(row) ? "" : invalid_parameters) << row.function;
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers, a_missing_body_is_an_invalid_parameter) {
    const std::string before = everything();
    for (rest_request_row row : requests) {
        if (!row.writes) {
            continue;
        }
        row.body = nullptr;
        EXPECT_THAT(
            messages_of([&] { EXPECT_EQ(run(row), 400) << row.function; }),
            ElementsAre(std::string(row.function) + "|invalid input_data\n", bad_request_line()));
        EXPECT_EQ(answer(), invalid_parameters);
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers, what_a_body_in_a_get_says_does_not_matter) {
    for (rest_request_row row : requests) {
        if (row.writes) {
            continue;
        }
        fill();
        row.body = "{";
        EXPECT_EQ(run(row), row.status) << row.function;
    }
}

TEST_F(handlers, a_working_copy_that_is_not_there) {
    std::filesystem::remove(working_db_path());
    for (const rest_request_row &row : requests) {
        const bool needs_none = row.handler == can_proprietary_rest_post_traffic_log ||
                                row.handler == can_proprietary_rest_get_traffic_log ||
                                row.handler == can_proprietary_rest_export_traffic_csv ||
                                row.handler == can_proprietary_rest_get_diagnose ||
                                row.handler == can_proprietary_post_rest_action;
        if (needs_none) {
            continue; // a discard makes it anew
        }
        EXPECT_GE(run(row), 400) << row.function;
        EXPECT_FALSE(exists(working_db_path())) << row.function;
    }
}

TEST_F(handlers, a_write_that_fails_becomes_an_error_with_status_500) {
    for (const rest_request_row &row : requests) {
        if (is_download(row) || row.status == 400) {
            continue;
        }
        fill();
        g_fake_rest.write_results = {-2};
        EXPECT_EQ(run(row), 500) << row.function;
        EXPECT_EQ(answer(), R"({"error":{"code":-6,"message":"Internal error"}})");
    }
}

TEST_F(handlers, an_output_that_is_no_text_becomes_an_error_with_status_500) {
    for (const rest_request_row &row : requests) {
        if (is_download(row) || row.status == 400) {
            continue;
        }
        fill();
        json_fault::arm("serialize");
        EXPECT_EQ(run(row), 500) << row.function;
        EXPECT_TRUE(json_fault::disarm());
        EXPECT_EQ(answer(), R"({"error":{"code":-5,"message":"Internal error"}})");
    }
}

TEST_F(handlers, a_download_that_cannot_be_sent) {
    g_fake_rest.download_result = -2;
    for (const rest_request_row &row : requests) {
        if (!is_download(row)) {
            continue;
        }
        const auto messages = messages_of([&] { EXPECT_EQ(run(row), 500) << row.function; });
        EXPECT_EQ(messages.front(), "rest_export_file|write to handle fail\n");
        EXPECT_EQ(answer(), "");
    }
    EXPECT_THAT(names("run/tmp/kt-can-proprietary"),
                ::testing::Not(::testing::Contains(::testing::StartsWith("can_proprietary_"))));
}

TEST_F(handlers, downloads_carry_the_files_content_under_a_name_with_the_time) {
    const rest_request_row traffic = requests[16];
    const rest_request_row file = requests[19];
    ASSERT_EQ(run(traffic), 200);
    EXPECT_THAT(g_fake_rest.download_name,
                ::testing::MatchesRegex("can_proprietary_traffic_log_[0-9A-Za-z._-]+\\.csv"));
    EXPECT_EQ(g_fake_rest.download, read(path("run/tmp/kt-can-proprietary/traffic-log0.csv")));
    ASSERT_EQ(run(file), 200);
    EXPECT_THAT(g_fake_rest.download_name,
                ::testing::MatchesRegex("can_proprietary_[0-9A-Za-z._-]+\\.csv"));
    EXPECT_THAT(g_fake_rest.download,
                ::testing::StartsWith("version: 1.0.0\n\n[interface-setting]"));
}

TEST_F(handlers, a_commit_that_fails_is_minus_8) {
    const connection reader = connect(working_db_path());
    ASSERT_EQ(rows_of(reader.get(), "BEGIN; SELECT deviceName FROM device"), "drive");
    const std::string before = everything();
    const rest_request_row rename = requests[8];
    const auto messages = messages_of([&] { EXPECT_EQ(run(rename), 500); });
    EXPECT_EQ(answer(), R"({"error":{"code":-8,"message":"Fail to set"}})");
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0], "can_proprietary_db_end_set_db|sqlite exec database is locked\n");
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers, an_apply_sets_the_restart_flag_and_nothing_else_does) {
    rest_request_row action = requests[2];
    EXPECT_EQ(run(action), 201);
    EXPECT_EQ(can_proprietary_restart, 0);
    action.body = R"({"option":2})";
    EXPECT_EQ(run(action), 400);
    EXPECT_EQ(can_proprietary_restart, 0);
    execute(working_db_path(), "INSERT INTO frame VALUES (2, 1, 385, 8, 1)");
    action.body = R"({"option":0})";
    EXPECT_EQ(run(action), 500);
    EXPECT_EQ(can_proprietary_restart, 0);
    execute(working_db_path(), "DELETE FROM frame WHERE frameId = 2");
    EXPECT_EQ(run(action), 201);
    EXPECT_EQ(can_proprietary_restart, 1);
}

TEST_F(handlers, an_apply_counts_even_when_its_answer_fails) {
    execute(working_db_path(), "UPDATE device SET deviceName = 'renamed'");
    rest_request_row action = requests[2];
    action.body = R"({"option":0})";
    json_fault::arm("data.response");
    EXPECT_EQ(run(action), 500);
    EXPECT_EQ(answer(), R"({"error":{"code":-6,"message":"Internal error"}})");
    EXPECT_EQ(can_proprietary_restart, 1);
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT deviceName FROM device"), "renamed");
}

TEST_F(handlers, a_refused_apply_leaves_the_restart_flag_as_it_was) {
    execute(working_db_path(), "INSERT INTO frame VALUES (2, 1, 385, 8, 1)");
    rest_request_row action = requests[2];
    action.body = R"({"option":0})";
    for (const int before : {0, 1}) {
        can_proprietary_restart = before;
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(action), 500); }),
                    ElementsAre("can_proprietary_post_rest_action|set action fail\n",
                                "get_http_status|error=-8, return 500 internal server error\n"));
        EXPECT_EQ(can_proprietary_restart, before);
    }
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT COUNT(*) FROM frame"), "1");
}

TEST_F(handlers, a_port_without_a_record_cannot_be_diagnosed) {
    can_proprietary_diag_forget_transactions(0);
    can_proprietary_diag_release_infos();
    EXPECT_EQ(run(requests[17]), 500);
    EXPECT_EQ(answer(), R"({"error":{"code":-7,"message":"Fail to get"}})");
    EXPECT_EQ(can_proprietary_diag_create_infos(2), 0);
}

TEST_F(handlers, every_member_of_a_port_shows_its_own_column) {
    execute(working_db_path(),
            "UPDATE interface_setting SET frameFormat = 1, baudrate = 5, initialDelay = 7, "
            "busOffReset = 1, resistor = 0 WHERE portId = 1");
    ASSERT_EQ(run(requests[0]), 200);
    EXPECT_EQ(answer(),
              R"({"data":{"portId":1,"frameFormat":1,"baudrate":5,"initialDelay":7,)"
              R"("busOffReset":true,"resistor":false,)"
              R"("deviceList":[{"deviceId":1,"portId":1,"deviceName":"drive"}]}})");
}

TEST_F(handlers, every_member_of_a_port_is_stored_in_its_own_column) {
    const struct {
        const char *body;
        const char *row;
    } rows[] = {{R"({"frameFormat":1,"baudrate":5,"initialDelay":7,"busOffReset":true,)"
                 R"("resistor":false})",
                 "1|1|5|7|1|0"},
                {R"({"frameFormat":0,"baudrate":2,"initialDelay":1,"busOffReset":false,)"
                 R"("resistor":true})",
                 "1|0|2|1|0|1"}};
    for (const auto &row : rows) {
        rest_request_row request = requests[1];
        request.body = row.body;
        ASSERT_EQ(run(request), 200);
        EXPECT_EQ(answer(), std::string(R"({"data":)") + row.body + "}");
        EXPECT_EQ(rows_of(working_db_path(),
                          "SELECT portId, frameFormat, baudrate, initialDelay, busOffReset, "
                          "resistor FROM interface_setting WHERE portId = 1"),
                  row.row);
    }
}

TEST_F(handlers, every_counter_shows_under_its_own_name) {
    diag_record *record = can_proprietary_diag_get(0);
    record->state = canbus_state_str[CANBUS_ERROR_ACTIVE];
    record->bit_rate = 125000;
    record->rxCount = 1;
    record->txCount = 2;
    record->crcError = 3;
    record->bitError = 4;
    record->stuffError = 5;
    record->busOffCount = 6;
    record->slots[0].state = RESULT_FAILED;
    record->slots[0].failure_count = 7;
    ASSERT_EQ(run(requests[17]), 200);
    EXPECT_EQ(answer(),
              R"({"data":{"state":"Error active","rxCount":1,"txCount":2,"crcError":3,)"
              R"("bitError":4,"stuffError":5,"busOffCount":6,"busLoading":0,)"
              R"("transactionCount":1,"transactionList":[{"deviceName":"drive",)"
              R"("transactionName":"state","transactionState":1,"failedCount":7}]}})");
}

TEST_F(handlers, a_port_that_has_not_come_up_shows_a_state) {
    can_proprietary_diag_get(0)->state = nullptr;
    ASSERT_EQ(run(requests[17]), 200);
    EXPECT_THAT(answer(), ::testing::StartsWith(R"({"data":{"state":"Normal",)"));
}

TEST_F(handlers, counters_show_at_64_bits_and_states_below_zero) {
    diag_record *record = can_proprietary_diag_get(0);
    record->rxCount = uint64_t{1} << 53;
    record->slots[0].state = RESULT_NONE;
    record->slots[0].failure_count = UINT32_MAX;
    ASSERT_EQ(run(requests[17]), 200);
    EXPECT_THAT(answer(), ::testing::HasSubstr(R"("rxCount":9007199254740992,)"));
    EXPECT_THAT(answer(),
                ::testing::HasSubstr(R"([{"deviceName":"drive","transactionName":"state",)"
                                     R"("transactionState":-1,"failedCount":4294967295}])"));
    record->slots[0].state = RESULT_TIMEOUT;
    ASSERT_EQ(run(requests[17]), 200);
    EXPECT_THAT(answer(), ::testing::HasSubstr(R"("transactionState":2)"));
}

} // namespace
