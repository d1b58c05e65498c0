#include "allocation_fault.h"
#include "config/read.h"
#include "config_fixture.h"
#include "fake_prepare.h"
#include "sqlite_memory_fault.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

namespace {

device_config marker;

struct read_operation {
    const char *function;
    const char *table; /* without it the operation fails */
    std::string sql;   /* the statement that then fails, empty where none is shown */
    bool allocates;
    std::function<int()> call;
};

/** Reads of a port with one device, two transactions, and a tag and a constant block. */
class read_failure : public started_gateway {
protected:
    read_failure() {
        execute(working_db_path(),
                "INSERT INTO device VALUES (9, 1, 'nine');"
                "INSERT INTO transactions (transactionId, deviceId) VALUES (1, 9), (2, 9);"
                "INSERT INTO frame (frameId, transactionId) VALUES (1, 1), (2, 2);"
                "INSERT INTO block (blockId, frameId, blockType) VALUES (1, 1, 0), (2, 1, 1)");
    }

    /** The operations that open the working copy; each frees what it got. */
    static std::vector<read_operation> operations() {
        return {{"can_proprietary_conf_get_interface_config",
                 "interface_setting",
                 "",
                 true,
                 [] {
                     interface_config record{};
                     return can_proprietary_conf_get_interface_config(&record, 1);
                 }},
                {"can_proprietary_conf_get_interface_device_config",
                 "device",
                 "SELECT * FROM device WHERE portId = 1",
                 true,
                 [] { return list_of(can_proprietary_conf_get_interface_device_config); }},
                {"can_proprietary_conf_get_port_config",
                 "interface_setting",
                 "SELECT * FROM interface_setting WHERE portId = 1",
                 true,
                 [] { return list_of(can_proprietary_conf_get_port_config); }},
                {"can_proprietary_conf_get_device_name_config",
                 "device",
                 "SELECT * FROM device WHERE deviceId = 9",
                 true,
                 [] {
                     device_config record{};
                     const int result = can_proprietary_conf_get_device_name_config(&record, 9);
                     free(record.deviceName);
                     return result;
                 }},
                {"can_proprietary_conf_get_device_num",
                 "device",
                 "",
                 false,
                 [] {
                     uint8_t count = 0;
                     return can_proprietary_conf_get_device_num(&count);
                 }},
                {"can_proprietary_conf_get_overview_port_num",
                 "interface_setting",
                 "",
                 false,
                 [] {
                     overview_info info{};
                     return can_proprietary_conf_get_overview_port_num(&info);
                 }},
                {"can_proprietary_conf_get_overview_config", "device", "", true, [] {
                     overview_info info{};
                     return can_proprietary_conf_get_overview_config(&info, 1);
                 }}};
    }

    /** The list must come whole or not at all. */
    static int list_of(int (*read)(device_config **, int)) {
        device_config *list = &marker;
        const int result = read(&list, 1);
        if (result == 0) {
            EXPECT_STREQ(list->deviceName, "nine");
            EXPECT_EQ(list->next, nullptr);
            conf_free_device_list(list);
        } else {
            EXPECT_EQ(list, &marker);
        }
        return result;
    }
};

TEST_F(read_failure, working_copy_that_cannot_be_opened_is_logged) {
    std::filesystem::remove(working_db_path());
    for (const read_operation &operation : operations()) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(operation.call(), -1); }),
                    ElementsAre("open_db|Can't open database: unable to open database file. " +
                                    working_db_path() + "\n",
                                std::string(operation.function) + "|param fail\n"));
    }
}

TEST_F(read_failure, failed_statement_is_logged_with_its_text) {
    for (const read_operation &operation : operations()) {
        if (operation.sql.empty()) {
            continue;
        }
        const std::string table = operation.table;
        execute(working_db_path(), "ALTER TABLE " + table + " RENAME TO elsewhere");
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(operation.call(), -1); }),
                    ElementsAre(std::string(operation.function) + "|no such table: " + table +
                                ". SQL: " + operation.sql + "\n"));
        execute(working_db_path(), "ALTER TABLE elsewhere RENAME TO " + table);
    }
}

TEST_F(read_failure, failed_statement_of_the_settings_is_spelt_its_own_way) {
    // The rows can be counted, but not found.
    execute(working_db_path(),
            "DROP TABLE interface_setting; CREATE TABLE interface_setting (other);"
            "INSERT INTO interface_setting VALUES (1)");
    interface_config record{};
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(can_proprietary_conf_get_interface_config(&record, 1), -1); }),
        ElementsAre("can_proprietary_conf_get_interface_config|no such column: portId. "
                    "Sql: SELECT * FROM interface_setting WHERE portId = 1\n"));
}

TEST_F(read_failure, each_level_below_a_port_logs_its_statement) {
    const struct {
        const char *table;
        const char *function;
        const char *sql;
        size_t messages;
    } levels[] = {{"transactions",
                   "can_proprietary_conf_get_device_config",
                   "SELECT * FROM transactions WHERE deviceId = 9",
                   2},
                  {"frame",
                   "can_proprietary_conf_get_transaction_config",
                   "SELECT * FROM frame WHERE transactionId = 1",
                   3},
                  {"block",
                   "can_proprietary_conf_get_frame_config",
                   "SELECT * FROM block WHERE frameId = 1",
                   4}};
    for (const auto &level : levels) {
        const std::string table = level.table;
        execute(working_db_path(), "ALTER TABLE " + table + " RENAME TO elsewhere");
        const messages logged =
            messages_of([] { EXPECT_EQ(list_of(can_proprietary_conf_get_port_config), -1); });
        ASSERT_EQ(logged.size(), level.messages);
        EXPECT_EQ(logged[0],
                  std::string(level.function) + "|no such table: " + table + ". SQL: " + level.sql +
                      "\n");
        EXPECT_EQ(logged.back(),
                  "can_proprietary_conf_get_port_config|can_proprietary_get_device_config fail\n");
        execute(working_db_path(), "ALTER TABLE elsewhere RENAME TO " + table);
    }
}

TEST_F(read_failure, want_of_memory_gives_minus_7_or_a_failed_frame_and_no_list) {
    int below_a_frame = 0;
    for (const read_operation &operation : operations()) {
        messages logged;
        const auto attempt = [&] {
            captured_log log;
            const int result = operation.call();
            logged = log.take();
            return result;
        };
        const int failures = allocation_fault::sweep(attempt, [&](int result, int nth) {
            // A transaction does not tell why one of its frames could not be read.
            const bool frame_failed =
                std::find(logged.begin(),
                          logged.end(),
                          "can_proprietary_conf_get_transaction_config|get_constant_config "
                          "error\n") != logged.end();
            EXPECT_EQ(result, frame_failed ? -1 : -7) << operation.function << nth;
            below_a_frame += frame_failed ? 1 : 0;
        });
        EXPECT_EQ(failures > 0, operation.allocates) << operation.function;
    }
    EXPECT_GT(below_a_frame, 4);
}

TEST_F(read_failure, want_of_memory_for_a_record_is_logged) {
    bool logged_allocation = false;
    (void)allocation_fault::sweep(
        [&] {
            captured_log log;
            const int result = list_of(can_proprietary_conf_get_interface_device_config);
            logged_allocation |=
                log.take() == messages{"can_proprietary_conf_get_interface_device_config|"
                                       "Memory allocation failed\n"};
            return result;
        },
        [](int result, int) { EXPECT_EQ(result, -7); });
    EXPECT_TRUE(logged_allocation);
}

TEST_F(read_failure, want_of_memory_inside_sqlite_gives_no_list_and_removes_nothing) {
    for (const read_operation &operation : operations()) {
        bool failed = true;
        for (int nth = 1; failed; nth += 1 + nth / 30) {
            captured_log log;
            sqlite_memory_fault::arm(nth, nth % 2 == 0);
            const int result = operation.call();
            failed = sqlite_memory_fault::disarm();
            (void)log.take();
            EXPECT_TRUE(result == 0 || (failed && (result == -1 || result == -7)))
                << operation.function << nth << ' ' << result;
        }
    }
    EXPECT_EQ(can_proprietary_restart, 0);
    expect_all_databases();
}

TEST_F(read_failure, lock_that_does_not_come_free_gives_minus_1_and_removes_nothing) {
    const connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    g_fake_busy_timeout.used_ms = 10;
    for (const read_operation &operation : operations()) {
        const messages logged = messages_of([&] { EXPECT_EQ(operation.call(), -1); });
        ASSERT_FALSE(logged.empty());
        EXPECT_EQ(logged.back(), std::string(operation.function) + "|param fail\n");
    }
    expect_all_databases();
    EXPECT_EQ(can_proprietary_restart, 0);
}

/** Every name of a port is that of one version. */
class read_snapshot : public started_gateway {
protected:
    static std::string version(int number) {
        const std::string name = "'v" + std::to_string(number) + "'";
        std::string sql = "BEGIN IMMEDIATE; DELETE FROM block; DELETE FROM frame;"
                          "DELETE FROM transactions; DELETE FROM device;";
        for (int i = 1; i <= 5; i++) {
            const std::string key = std::to_string(i);
            sql += "INSERT INTO device VALUES (" + key + ", 1, " + name +
                   ");"
                   "INSERT INTO transactions (transactionId, deviceId, transactionName) VALUES (" +
                   key + ", " + key + ", " + name +
                   ");"
                   "INSERT INTO frame (frameId, transactionId) VALUES (" +
                   key + ", " + key +
                   ");"
                   "INSERT INTO block (frameId, tagName) VALUES (" +
                   key + ", " + name + ");";
        }
        return sql + "COMMIT";
    }

    static void expect_one_version() {
        device_config *list = nullptr;
        ASSERT_EQ(can_proprietary_conf_get_port_config(&list, 1), 0);
        const std::string name = list == nullptr ? "" : list->deviceName;
        int devices = 0;
        for (const device_config *device = list; device != nullptr; device = device->next) {
            devices++;
            EXPECT_EQ(device->deviceName, name);
            EXPECT_EQ(device->transactions->transactionName, name);
            EXPECT_EQ(device->transactions->frames->blocks->tag->tagName, name);
        }
        EXPECT_EQ(devices, 5);
        conf_free_device_list(list);
    }
};

TEST_F(read_snapshot, port_is_of_one_version_while_a_writer_commits) {
    g_fake_busy_timeout.used_ms = 20000;
    execute(working_db_path(), version(0));
    std::atomic<bool> stop = false;
    std::atomic<int> written = 0;
    std::thread writer([&] {
        const connection db = connect(working_db_path());
        (void)sqlite3_busy_handler(
            db.get(), [](void *, int) { return sched_yield() + 1; }, nullptr);
        while (!stop) {
            if (rows_of(db.get(), version(written + 1)).empty()) {
                written++;
            } else {
                (void)rows_of(db.get(), "ROLLBACK");
            }
        }
    });
    for (int reads = 0; reads < 100 || (written < 100 && reads < 5000); reads++) {
        expect_one_version();
    }
    stop = true;
    writer.join();
    EXPECT_GT(written, 10);
}

TEST_F(read_snapshot, overview_counts_are_of_one_version) {
    const connection writer = connect(working_db_path());
    const auto write = [&writer](int transactions) {
        return rows_of(writer.get(),
                       "BEGIN IMMEDIATE; DELETE FROM transactions; DELETE FROM device;"
                       "INSERT INTO device SELECT value, 1, 'd' FROM json_each('" +
                           std::string(transactions == 4 ? "[1,2]" : "[1]") +
                           "'); INSERT INTO transactions (deviceId) SELECT deviceId FROM device,"
                           " json_each('[1,2]') LIMIT " +
                           std::to_string(transactions) + "; COMMIT");
    };
    int refused = 0;
    for (int moment = 1; moment <= 5; moment++) {
        ASSERT_EQ(write(1), "");
        int prepared = 0;
        g_fake_prepare.before = [&] {
            if (++prepared == moment && !write(4).empty()) {
                refused++; // the reader holds its version
                EXPECT_EQ(rows_of(writer.get(), "ROLLBACK"), "");
            }
        };
        overview_info info{};
        EXPECT_EQ(can_proprietary_conf_get_overview_config(&info, 1), 0);
        g_fake_prepare.before = nullptr;
        EXPECT_EQ(info.transaction_num, info.device_num == 1 ? 1 : 4) << moment;
    }
    EXPECT_GE(refused, 2);
}

} // namespace
