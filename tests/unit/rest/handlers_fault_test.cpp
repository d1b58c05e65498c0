#include "handlers_fixture.h"
#include "rest/response.h"
#include "sqlite_memory_fault.h"

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

    /** The rows of the beginning, whatever a request has made of them. */
    static void restore() {
        fill();
        execute(working_db_path(),
                "UPDATE interface_setting SET baudrate = 3, initialDelay = 0, "
                "busOffReset = 0, resistor = 0");
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
        restore();
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
        restore();
    }
    EXPECT_GT(faults, 100);
}

/** Places of the requests that change the working copy inside a transaction. */
constexpr size_t changes[] = {1, 4, 5, 6, 7, 8, 11};

TEST_F(handlers_fault, a_database_without_memory_fails_the_request_and_changes_nothing) {
    const std::string before = everything();
    int failures = 0;
    for (const size_t request : changes) {
        const rest_request_row &row = requests[request];
        const captured_log quiet;
        bool failed = true;
        // Thousands of allocations are alike, most of them in opening: every 13th will do.
        for (int nth = 1 + static_cast<int>(request); failed; nth += 13) {
            sqlite_memory_fault::arm(nth, nth % 2 == 0);
            const int status = run(row);
            failed = sqlite_memory_fault::disarm();
            if (status < 400) { // it did without
                restore();
                continue;
            }
            failures++;
            expect_failure(row, status, nth);
            ASSERT_EQ(everything(), before) << row.function << " " << nth;
        }
    }
    EXPECT_GT(failures, 100);
}

TEST_F(handlers_fault, a_change_whose_transaction_cannot_begin_is_refused) {
    const std::string before = everything();
    for (const size_t request : changes) {
        const rest_request_row &row = requests[request];
        g_call_fault.no_memory_for = "BEGIN TRANSACTION;";
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(row), 500) << row.function; }),
                    ElementsAre("can_proprietary_db_start_set_db|"
                                "sqlite: begin transaction is fail\n",
                                "get_http_status|error=-8, return 500 internal server error\n"));
        g_call_fault = {};
        EXPECT_EQ(code_of_answer(), REST_RET_SET_FAIL);
        EXPECT_EQ(everything(), before);
    }
}

TEST_F(handlers_fault, a_delete_takes_everything_along_even_when_the_pragma_fails) {
    const struct {
        size_t request;
        const char *left; /* rows of the four tables */
    } rows[] = {{10, "0|0|0|0"}, {11, "1|0|0|0"}, {7, "1|1|1|1"}};
    for (const auto &row : rows) {
        restore();
        g_call_fault.no_memory_for = "PRAGMA foreign_keys = ON";
        EXPECT_LT(run(requests[row.request]), 300);
        g_call_fault = {};
        EXPECT_EQ(rows_of(working_db_path(),
                          "SELECT (SELECT COUNT(*) FROM device), "
                          "(SELECT COUNT(*) FROM transactions), (SELECT COUNT(*) FROM frame), "
                          "(SELECT COUNT(*) FROM block)"),
                  row.left)
            << requests[row.request].function;
    }
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

} // namespace
