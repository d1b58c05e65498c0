#include "write_fixture.h"

namespace {

class device_write : public config_write {
protected:
    int insert(const std::string &name, uint8_t port, uint8_t *id) {
        device_config device{};
        device.deviceName = const_cast<char *>(name.c_str());
        device.portId = port;
        return can_proprietary_conf_insert_device_config(db, &device, id);
    }

    int update(const std::string &name, int id) {
        device_config device{};
        device.deviceName = const_cast<char *>(name.c_str());
        return can_proprietary_conf_update_device_config(db, &device, id);
    }
};

struct existence {
    int (*check)(int);
    const char *function;
    const char *table;
    const char *key;
    int last;
};

const existence existences[] = {
    {check_portId_exists, "check_portId_exists", "interface_setting", "portId", 2},
    {check_deviceId_exists, "check_deviceId_exists", "device", "deviceId", 2},
    {check_transactionId_exists, "check_transactionId_exists", "transactions", "transactionId", 3},
    {check_blockId_exists, "check_blockId_exists", "block", "blockId", 2}};

TEST_F(device_write, existence_is_that_of_the_whole_id) {
    for (const existence &row : existences) {
        for (int id = 1; id <= row.last; id++) {
            EXPECT_EQ(row.check(id), 0) << row.function << " " << id;
        }
        for (const int id : {0, row.last + 1, -1, 256 + 1, 65536 + 1, INT_MAX, INT_MIN}) {
            EXPECT_EQ(row.check(id), -1) << row.function << " " << id;
        }
    }
}

TEST_F(device_write, existence_is_that_of_committed_rows) {
    uint8_t id = 0;
    ASSERT_EQ(insert("new", 1, &id), 0);
    EXPECT_EQ(check_deviceId_exists(id), -1);
    end(1);
    EXPECT_EQ(check_deviceId_exists(id), 0);
}

TEST_F(device_write, existence_without_a_working_copy_is_a_failed_parameter) {
    end(0);
    std::filesystem::remove(working_db_path());
    const std::string open =
        "open_db|Can't open database: unable to open database file. " + working_db_path() + "\n";
    for (const existence &row : existences) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(row.check(1), -1); }),
                    ElementsAre(open, std::string(row.function) + "|param fail\n"));
    }
}

TEST_F(device_write, existence_in_a_database_without_tables_names_the_statement) {
    end(0);
    execute(working_db_path(),
            "DROP TABLE block; DROP TABLE frame; DROP TABLE transactions; DROP TABLE device;"
            "DROP TABLE interface_setting");
    for (const existence &row : existences) {
        const std::string table = row.table;
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(row.check(7), -1); }),
                    ElementsAre(std::string(row.function) + "|no such table: " + table +
                                ". SQL: SELECT 1 FROM " + table + " WHERE " + row.key + " = 7\n"));
    }
}

TEST_F(device_write, existence_without_memory_is_minus_7) {
    for (const existence &row : existences) {
        allocation_fault::arm(1);
        EXPECT_EQ(row.check(1), -7);
        EXPECT_TRUE(allocation_fault::disarm());
    }
}

TEST_F(device_write, an_interface_is_updated_and_no_other) {
    const interface_config config = {1, 1, 7, 120000, true, false};
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_conf_update_interface_config(&db, &config, 2), 0);
                }),
                IsEmpty());
    EXPECT_EQ(seen("SELECT * FROM interface_setting"), "1|0|3|0|0|0 2|1|7|120000|1|0");
}

TEST_F(device_write, an_interface_that_does_not_exist) {
    const interface_config config{};
    const std::string before = everything();
    for (const int port : {0, 3, -1, 257}) {
        EXPECT_THAT(
            messages_of([&] {
                EXPECT_EQ(can_proprietary_conf_update_interface_config(&db, &config, port), -1);
            }),
            ElementsAre("can_proprietary_conf_update_interface_config|port_id not found\n"));
    }
    EXPECT_NE(db, nullptr);
    EXPECT_EQ(everything(), before);
}

TEST_F(device_write, an_interface_update_that_fails_rolls_back_and_closes) {
    lock_out();
    const interface_config config{};
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_conf_update_interface_config(&db, &config, 1), -1);
                }),
                ElementsAre("can_proprietary_conf_update_interface_config|sqlite exec database is "
                            "locked\n"));
    EXPECT_EQ(db, nullptr);
}

TEST_F(device_write, an_interface_update_without_memory_for_its_text_closes) {
    const interface_config config{};
    allocation_fault::arm(1); // the check's text: not found out, nothing closed
    EXPECT_EQ(can_proprietary_conf_update_interface_config(&db, &config, 1), -7);
    ASSERT_TRUE(allocation_fault::disarm());
    ASSERT_NE(db, nullptr);
    ASSERT_EQ(seen("INSERT INTO device VALUES (9, 1, 'pending')"), "");
    allocation_fault::arm(2);
    EXPECT_EQ(can_proprietary_conf_update_interface_config(&db, &config, 1), -7);
    ASSERT_TRUE(allocation_fault::disarm());
    EXPECT_EQ(db, nullptr);
    EXPECT_EQ(committed("SELECT * FROM device WHERE deviceId = 9"), "");
}

TEST_F(device_write, missing_arguments_are_logged) {
    uint8_t id = 77;
    const device_config device{};
    const interface_config config{};
    sqlite3 *none = nullptr;
    const std::string function = "can_proprietary_conf_";
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_conf_update_interface_config(nullptr, &config, 1),
                              -1);
                    EXPECT_EQ(can_proprietary_conf_update_interface_config(&none, &config, 1), -1);
                    EXPECT_EQ(can_proprietary_conf_update_interface_config(&db, nullptr, 1), -1);
                    EXPECT_EQ(can_proprietary_conf_insert_device_config(nullptr, &device, &id), -1);
                    EXPECT_EQ(can_proprietary_conf_insert_device_config(db, nullptr, &id), -1);
                    EXPECT_EQ(can_proprietary_conf_insert_device_config(db, &device, nullptr), -1);
                    EXPECT_EQ(can_proprietary_conf_update_device_config(nullptr, &device, 1), -1);
                    EXPECT_EQ(can_proprietary_conf_update_device_config(db, nullptr, 1), -1);
                    EXPECT_EQ(can_proprietary_conf_delete_device_config(nullptr, 1), -1);
                }),
                ElementsAre(function + "update_interface_config|param fail\n",
                            function + "update_interface_config|param fail\n",
                            function + "update_interface_config|param fail\n",
                            function + "insert_device_config|param fail\n",
                            function + "insert_device_config|param fail\n",
                            function + "insert_device_config|param fail\n",
                            function + "update_device_config|param fail\n",
                            function + "update_device_config|param fail\n",
                            function + "delete_device_config|param fail\n"));
    EXPECT_EQ(id, 77);
}

TEST_F(device_write, a_new_device_gets_the_next_key) {
    uint8_t id = 0;
    EXPECT_EQ(insert("pump", 2, &id), 0);
    EXPECT_EQ(id, 3);
    EXPECT_EQ(insert("pump", 1, &id), 0);
    EXPECT_EQ(id, 4);
    EXPECT_EQ(seen("SELECT * FROM device WHERE deviceId > 2"), "3|2|pump 4|1|pump");
}

TEST_F(device_write, a_key_that_cannot_be_read_fails_and_shows_the_statement) {
    uint8_t id = 77;
    forbid_reading("device", "deviceName");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("pump", 1, &id), -1); }),
                ElementsAre("can_proprietary_conf_insert_device_config|access to device.deviceName "
                            "is prohibited. Sql: SELECT * FROM device LIMIT 1 OFFSET 2\n"));
    EXPECT_EQ(id, 77);
    EXPECT_EQ(seen("SELECT COUNT(*) FROM device"), "3"); // for the caller to roll back
}

TEST_F(device_write, a_row_that_is_gone_at_once_has_no_key) {
    end(0);
    execute(working_db_path(),
            "CREATE TRIGGER gone AFTER INSERT ON device BEGIN DELETE FROM device; END");
    begin();
    uint8_t id = 77;
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("pump", 1, &id), -1); }),
                ElementsAre("can_proprietary_conf_insert_device_config|db row count fail\n"));
    EXPECT_EQ(id, 77);
}

TEST_F(device_write, a_device_on_a_port_that_does_not_exist) {
    uint8_t id = 77;
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("pump", 3, &id), -1); }),
                ElementsAre("can_proprietary_conf_insert_device_config|sqlite exec FOREIGN KEY "
                            "constraint failed\n"));
    EXPECT_EQ(id, 77);
}

TEST_F(device_write, device_255_is_the_last) {
    ASSERT_EQ(seen("INSERT INTO device VALUES (254, 1, 'd')"), "");
    uint8_t id = 0;
    EXPECT_EQ(insert("last", 1, &id), 0);
    EXPECT_EQ(id, 255);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("beyond", 1, &id), -1); }),
                ElementsAre("can_proprietary_conf_insert_device_config|sqlite exec CHECK "
                            "constraint failed: deviceId\n"));
    EXPECT_EQ(id, 255);
}

TEST_F(device_write, a_full_table_says_so) {
    uint8_t id = 0;
    for (int number = 3; number <= 255; number++) {
        ASSERT_EQ(insert("d", 1, &id), 0);
    }
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("beyond", 1, &id), -1); }),
                ElementsAre("can_proprietary_conf_insert_device_config|sqlite exec device is "
                            "full\n"));
}

TEST_F(device_write, a_name_with_a_quote_changes_nothing) {
    const std::string before = everything();
    for (const std::string &name : texts_with_quotes()) {
        uint8_t id = 77;
        EXPECT_THAT(
            messages_of([&] {
                EXPECT_EQ(insert(name, 1, &id), -1);
                EXPECT_EQ(update(name, 1), -1);
            }),
            ElementsAre(std::string("can_proprietary_conf_insert_device_config|") + quote_message,
                        std::string("can_proprietary_conf_update_device_config|") + quote_message))
            << name;
        EXPECT_EQ(id, 77);
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(device_write, other_names_are_stored_as_they_are) {
    for (const std::string &name : plain_texts()) {
        EXPECT_EQ(update(name, 1), 0) << name;
        EXPECT_EQ(seen("SELECT deviceName FROM device WHERE deviceId = 1"), name);
    }
}

TEST_F(device_write, a_name_that_cuts_the_statement_changes_nothing) {
    // Somewhere in this range the cut text is a statement without its condition.
    const size_t around =
        sql_text_bytes - strlen("UPDATE device SET deviceName = '' WHERE deviceId = 1");
    const std::string before = everything();
    const captured_log quiet;
    uint8_t id = 77;
    for (size_t length = around; length < sql_text_bytes + 10; length++) {
        ASSERT_EQ(update(std::string(length, 'n'), 1), -1) << length;
    }
    ASSERT_EQ(insert(std::string(sql_text_bytes - 40, 'n'), 1, &id), -1);
    ASSERT_EQ(insert(std::string(100000, 'n'), 1, &id), -1);
    EXPECT_EQ(id, 77);
    EXPECT_TRUE(everything() == before);
}

TEST_F(device_write, a_missing_name_changes_nothing) {
    const std::string before = everything();
    const device_config device{};
    uint8_t id = 77;
    EXPECT_EQ(can_proprietary_conf_insert_device_config(db, &device, &id), -1);
    EXPECT_EQ(can_proprietary_conf_update_device_config(db, &device, 1), -1);
    EXPECT_EQ(everything(), before);
}

TEST_F(device_write, a_rename_keeps_the_port_and_the_other_devices) {
    EXPECT_EQ(update("renamed", 2), 0);
    EXPECT_EQ(seen("SELECT * FROM device"), "1|1|drive 2|2|renamed");
}

TEST_F(device_write, a_device_that_does_not_exist) {
    const std::string before = everything();
    for (const int id : {0, 3, -1, 257, INT_MIN}) {
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(update("renamed", id), -1);
                        EXPECT_EQ(can_proprietary_conf_delete_device_config(db, id), -1);
                    }),
                    ElementsAre("can_proprietary_conf_update_device_config|device_id not found\n",
                                "can_proprietary_conf_delete_device_config|device_id not found\n"));
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(device_write, a_delete_takes_everything_below_along) {
    EXPECT_EQ(can_proprietary_conf_delete_device_config(db, 1), 0);
    EXPECT_EQ(seen("SELECT deviceId FROM device"), "2");
    EXPECT_EQ(seen("SELECT transactionId FROM transactions"), "3");
    EXPECT_EQ(seen("SELECT frameId FROM frame"), "3");
    EXPECT_EQ(seen("SELECT blockId FROM block"), "");
}

TEST_F(device_write, a_failed_statement_leaves_the_connection_to_the_caller) {
    lock_out();
    uint8_t id = 77;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert("new", 1, &id), -1);
                    EXPECT_EQ(update("new", 1), -1);
                    EXPECT_EQ(can_proprietary_conf_delete_device_config(db, 1), -1);
                }),
                ElementsAre("can_proprietary_conf_insert_device_config|sqlite exec database is "
                            "locked\n",
                            "can_proprietary_conf_update_device_config|sqlite exec database is "
                            "locked\n",
                            "can_proprietary_conf_delete_device_config|sqlite exec database is "
                            "locked\n"));
    EXPECT_EQ(id, 77);
    EXPECT_EQ(seen("SELECT COUNT(*) FROM device"), "2");
}

TEST_F(device_write, every_allocation_that_fails_is_minus_7) {
    uint8_t id = 77;
    const auto is_minus_7 = [](int result, int nth) { EXPECT_EQ(result, -7) << nth; };
    EXPECT_EQ(allocation_fault::sweep([&] { return update("n", 1); }, is_minus_7), 2);
    EXPECT_EQ(allocation_fault::sweep(
                  [&] { return can_proprietary_conf_delete_device_config(db, 2); }, is_minus_7),
              2);
    EXPECT_EQ(allocation_fault::sweep([&] { return insert("n", 1, &id); },
                                      [&](int result, int nth) {
                                          EXPECT_EQ(result, -7) << nth;
                                          EXPECT_EQ(id, 77);
                                      }),
              2);
}

} // namespace
