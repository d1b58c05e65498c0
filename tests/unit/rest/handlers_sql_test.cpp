#include "handlers_fixture.h"

#include <numeric>

namespace {

/* How often a request opens the working copy, which costs more than most of what is read from it,
   and how its statements grow with what is asked for. */

std::vector<int> statements; // of each connection

int note_statement(unsigned /*type*/, void *connection, void * /*statement*/, void *sql) {
    const std::string_view text = static_cast<const char *>(sql);
    if (text.starts_with("SELECT")) {
        statements[reinterpret_cast<size_t>(connection)]++;
    }
    return 0;
}

int note_connection(sqlite3 *db, char ** /*error*/, const struct sqlite3_api_routines * /*api*/) {
    statements.push_back(0);
    return sqlite3_trace_v2(
        db, SQLITE_TRACE_STMT, note_statement, reinterpret_cast<void *>(statements.size() - 1));
}

class handlers_sql : public handlers {
protected:
    handlers_sql() {
        using entry_point = void (*)();
        EXPECT_EQ(sqlite3_auto_extension(reinterpret_cast<entry_point>(note_connection)),
                  SQLITE_OK);
    }
    ~handlers_sql() override { sqlite3_reset_auto_extension(); }

    static size_t opens(const rest_request_row &row) {
        statements.clear();
        EXPECT_EQ(run(row), row.status) << row.function;
        return statements.size();
    }

    static int selects(const char *uri, rest_callback handler) {
        EXPECT_EQ(opens({uri, handler, uri, nullptr, 200, false}), 1U);
        return std::accumulate(statements.begin(), statements.end(), 0);
    }

    /** Devices of port 2, each with a transaction that has a frame with two blocks. */
    static void add_devices(int first, int count) {
        for (int i = first; i < first + count; i++) {
            const std::string key = std::to_string(i);
            execute(working_db_path(),
                    "INSERT INTO device VALUES (" + key + ", 2, 'd');" +
                        "INSERT INTO transactions (transactionId, deviceId, transactionName, "
                        "transactionType) VALUES (" +
                        key + ", " + key + ", 't', 1);" + "INSERT INTO frame VALUES (" + key +
                        ", " + key + ", 1, 8, 1);" +
                        "INSERT INTO block (frameId, tagName) VALUES (" + key + ", 'a'), (" + key +
                        ", 'b')");
        }
    }
};

TEST_F(handlers_sql, a_request_opens_the_working_copy_as_seldom_as_it_can) {
    const std::map<std::string, size_t> expected = {
        {"can_proprietary_rest_get_interface_config", 1},
        {"can_proprietary_rest_patch_interface_config", 3}, // what is checked is what is committed
        {"can_proprietary_post_rest_action", 2},            // a copy from one file into another
        {"can_proprietary_rest_get_device_config", 1},
        {"can_proprietary_rest_post_device_config", 1},
        {"can_proprietary_rest_post_transaction_config", 1},
        {"can_proprietary_rest_patch_transaction_config", 1},
        {"can_proprietary_rest_put_frame_config", 2},
        {"can_proprietary_rest_patch_device_name_config", 2},
        {"can_proprietary_rest_get_overview_config", 1},
        {"can_proprietary_rest_delete_device_config", 2},
        {"can_proprietary_rest_delete_transaction_config", 2},
        {"can_proprietary_rest_get_config_change", 0},
        {"can_proprietary_rest_get_usedCANIds_config", 1},
        {"can_proprietary_rest_post_traffic_log", 0},
        {"can_proprietary_rest_get_traffic_log", 0},
        {"can_proprietary_rest_export_traffic_csv", 0},
        {"can_proprietary_rest_get_diagnose", 0},
        {"can_proprietary_rest_post_config_file", 1},
        {"can_proprietary_rest_get_config_file", 1},
    };
    ASSERT_EQ(requests.size(), expected.size());
    for (const rest_request_row &row : requests) {
        fill();
        EXPECT_EQ(opens(row), expected.at(row.function)) << row.function;
    }
}

TEST_F(handlers_sql, statements_grow_with_what_is_asked_for) {
    add_devices(2, 4);
    const auto overview = [] {
        return selects("/CAN-proprietary/overview", can_proprietary_rest_get_overview_config);
    };
    const auto identifiers = [] {
        return selects("/CAN-proprietary/usedCANIds?portId=2",
                       can_proprietary_rest_get_usedCANIds_config);
    };
    const int overview_4 = overview();
    const int identifiers_4 = identifiers();
    add_devices(6, 4);
    const int overview_8 = overview();
    const int identifiers_8 = identifiers();
    EXPECT_EQ(overview_8 - overview_4, 4 * 1);       // a count for each device
    EXPECT_EQ(identifiers_8 - identifiers_4, 4 * 6); // two for each device, transaction and frame
    add_devices(10, 8);
    EXPECT_EQ(overview() - overview_8, 8 * 1);
    EXPECT_EQ(identifiers() - identifiers_8, 8 * 6);
}

} // namespace
