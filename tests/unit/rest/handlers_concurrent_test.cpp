#include "config/config_fixture.h"
#include "device/diag.h"
#include "rest/handlers.h"
#include "traffic/recorder.h"

#include <kt/rest.h>
#include <kt/rest_time.h>

#include <atomic>
#include <thread>

/* Handlers are called one at a time by the library of today, and need not be. */

namespace {

thread_local std::string written; // by the handler that runs on this thread

} // namespace

extern "C" {

int __wrap_rest_write(const char *text, size_t length) {
    written.assign(text, length);
    return 0;
}

int __wrap_rest_write_file(const char * /*download_name*/, const void *data, size_t length) {
    written.assign(static_cast<const char *>(data), length);
    return 0;
}

/* The time zone is guarded inside the C library, where the thread sanitizer does not look. */
int __wrap_timed_intf_gettimestamp(const timeval * /*time*/, char *text, size_t size) {
    (void)snprintf(text, size, "20000101000000");
    return 0;
}

} // extern "C"

namespace {

class handlers_concurrent : public started_gateway {
protected:
    static constexpr int threads = 4;
    static constexpr int rounds = 15;

    handlers_concurrent() {
        execute(working_db_path(), "INSERT INTO device VALUES (1, 1, 'drive')");
        EXPECT_EQ(can_proprietary_diag_create_infos(2), 0);
        (void)can_proprietary_diag_register(0, "drive", "state", true);
        EXPECT_EQ(can_proprietary_traffic_init(2), 0);
        EXPECT_EQ(can_proprietary_traffic_start(0), 0);
    }
    ~handlers_concurrent() override {
        can_proprietary_traffic_deinit();
        can_proprietary_diag_forget_transactions(0);
        can_proprietary_diag_release_infos();
    }

    static int call(rest_callback handler, const std::string &path, const std::string &body = "") {
        const std::string uri = "/CAN-proprietary" + path;
        return handler(uri.c_str(), body.empty() ? nullptr : body.c_str(), body.size());
    }

    /** Everything that reads, and what its answer begins with. */
    static void read_everything() {
        const struct {
            rest_callback handler;
            const char *path;
            const char *start;
        } rows[] = {
            {can_proprietary_rest_get_interface_config, "/interface?portId=1", R"({"data":{"po)"},
            {can_proprietary_rest_get_device_config, "/device?deviceId=1", R"({"data":{"dev)"},
            {can_proprietary_rest_get_overview_config, "/overview", R"({"data":{"portNum":2,)"},
            {can_proprietary_rest_get_config_change, "/config-change", R"({"data":{"result":)"},
            {can_proprietary_rest_get_usedCANIds_config, "/usedCANIds?portId=1", R"({"data":[)"},
            {can_proprietary_rest_get_traffic_log, "/traffic/1", R"({"data":{"action":1,)"},
            {can_proprietary_rest_export_traffic_csv, "/traffic-export/1", "No.,Time,"},
            {can_proprietary_rest_get_diagnose, "/diagnose?portId=1", R"({"data":{"state":)"},
        };
        for (const auto &row : rows) {
            EXPECT_EQ(call(row.handler, row.path), 200) << row.path << " " << written;
            EXPECT_THAT(written, ::testing::StartsWith(row.start));
        }
    }

    /** Transactions that were added. */
    static int add_and_read(int thread) {
        int added = 0;
        for (int round = 0; round < rounds; round++) {
            const std::string name = "t" + std::to_string(thread) + "-" + std::to_string(round);
            const int status =
                call(can_proprietary_rest_post_transaction_config,
                     "/transaction",
                     R"({"deviceId":1,"transactionEnable":true,"transactionName":")" + name +
                         R"(","transactionType":1,"consumeToutEnable":false,"frameList":)"
                         R"([{"canId":1,"dataLength":8,"blockList":[]}]})");
            if (status == 201) {
                added++;
                EXPECT_THAT(written, ::testing::HasSubstr("\"" + name + "\""));
            } else { // another one is changing
                EXPECT_EQ(status, 500);
                EXPECT_EQ(written, R"({"error":{"code":-8,"message":"Fail to set"}})");
            }
            read_everything();
        }
        return added;
    }
};

TEST_F(handlers_concurrent, each_answer_is_its_own_and_each_change_lands_whole_or_not_at_all) {
    const captured_log quiet;
    std::atomic<int> added = 0;
    std::vector<std::thread> clients;
    for (int thread = 0; thread < threads; thread++) {
        clients.emplace_back([&added, thread] { added += add_and_read(thread); });
    }
    for (std::thread &client : clients) {
        client.join();
    }
    EXPECT_GT(added, 0);
    for (const char *table : {"transactions", "frame"}) {
        EXPECT_EQ(rows_of(working_db_path(), std::string("SELECT COUNT(*) FROM ") + table),
                  std::to_string(added));
    }
}

} // namespace
