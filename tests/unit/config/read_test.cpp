#include "config/read.h"
#include "config_fixture.h"

namespace {

template <typename Record>
std::vector<Record *> listed(Record *list) {
    std::vector<Record *> records;
    for (; list != nullptr; list = list->next) {
        records.push_back(list);
    }
    return records;
}

using device_list = std::unique_ptr<device_config, decltype(&conf_free_device_list)>;

/** Port 1 has device 9 with transactions 300 and 301 and device 10 without any; port 2 has none. */
class config_read : public started_gateway {
protected:
    config_read() {
        edit("INSERT INTO device VALUES (9, 1, 'nine'), (10, 1, 'ten')");
        edit("INSERT INTO transactions (transactionId, deviceId, transactionName, transactionType)"
             " VALUES (300, 9, 'request', 2), (301, 9, NULL, 0)");
        edit("INSERT INTO frame VALUES (500, 300, 0x123, 8, 2), (501, 300, 0x1ABCDEF0, 4, 3),"
             " (502, 301, 0x7FF, 0, 0)");
        edit("INSERT INTO block (blockId, frameId, tagName) VALUES (600, 500, 'a'), (601, 500, "
             "'b')");
        edit("INSERT INTO block (blockId, frameId, blockType, constantName, constantValue)"
             " VALUES (602, 501, 1, 'c', 'ABC')");
    }

    static void edit(const std::string &sql) { execute(working_db_path(), sql); }

    static device_list port(int portId) {
        device_config *list = nullptr;
        EXPECT_EQ(can_proprietary_conf_get_port_config(&list, portId), 0);
        return {list, conf_free_device_list};
    }

    static void expect_param_fail(const char *function, const std::function<int()> &call) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(call(), -1); }),
                    ElementsAre(std::string(function) + "|param fail\n"));
    }
};

/** The marker that outputs hold before a call that must not touch them. */
template <typename Record>
Record *untouched() {
    static Record marker;
    return &marker;
}

TEST_F(config_read, settings_of_a_port) {
    edit("UPDATE interface_setting SET frameFormat = 1, baudrate = 7, initialDelay = 5,"
         " busOffReset = 1, resistor = 1 WHERE portId = 2");
    interface_config record;
    memset(&record, 0xff, sizeof record);
    EXPECT_EQ(can_proprietary_conf_get_interface_config(&record, 2), 0);
    EXPECT_EQ(record.portId, 2);
    EXPECT_EQ(record.frameFormat, 1);
    EXPECT_EQ(record.baudrate, 7);
    EXPECT_EQ(record.initialDelay, 5);
    EXPECT_TRUE(record.busOffReset && record.resistor);
    EXPECT_EQ(can_proprietary_conf_get_interface_config(&record, 1), 0);
    EXPECT_EQ(record.baudrate, 3);
    EXPECT_FALSE(record.busOffReset || record.resistor);
}

TEST_F(config_read, settings_of_a_missing_port_are_zero) {
    for (const int portId : {0, 3, 257, 258, -1}) {
        interface_config record;
        memset(&record, 0xff, sizeof record);
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(can_proprietary_conf_get_interface_config(&record, portId), -1);
                    }),
                    ElementsAre("can_proprietary_conf_get_interface_config|portId not found\n"));
        EXPECT_EQ(record.portId, 0);
        EXPECT_EQ(record.baudrate, 0);
    }
}

TEST_F(config_read, table_without_ports_is_logged) {
    edit("DELETE FROM interface_setting");
    interface_config record{};
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(can_proprietary_conf_get_interface_config(&record, 1), -1); }),
        ElementsAre("can_proprietary_conf_get_interface_config|db row count fail\n"));
    overview_info info{7, 7, 7};
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(can_proprietary_conf_get_overview_port_num(&info), -1); }),
        ElementsAre("can_proprietary_conf_get_overview_port_num|db row count fail\n"));
    EXPECT_EQ(info.port_num, 7);
}

TEST_F(config_read, devices_of_a_port_without_their_transactions) {
    device_config *list = nullptr;
    ASSERT_EQ(can_proprietary_conf_get_interface_device_config(&list, 1), 0);
    const auto devices = listed(list);
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0]->deviceId, 9);
    EXPECT_EQ(devices[0]->portId, 1);
    EXPECT_STREQ(devices[0]->deviceName, "nine");
    EXPECT_EQ(devices[0]->transactions, nullptr);
    EXPECT_STREQ(devices[1]->deviceName, "ten");
    conf_free_device_list(list);
}

TEST_F(config_read, port_without_devices_has_an_empty_list) {
    device_config *list = untouched<device_config>();
    EXPECT_EQ(can_proprietary_conf_get_interface_device_config(&list, 2), 0);
    EXPECT_EQ(list, nullptr);
    list = untouched<device_config>();
    EXPECT_EQ(can_proprietary_conf_get_interface_device_config(&list, 3), 0); // no such port
    EXPECT_EQ(list, nullptr);
    list = untouched<device_config>();
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(can_proprietary_conf_get_port_config(&list, 2), 0); }),
                IsEmpty());
    EXPECT_EQ(list, nullptr);
}

TEST_F(config_read, port_holds_everything_in_row_order) {
    const device_list list = port(1);
    const auto devices = listed(list.get());
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0]->deviceId, 9);
    EXPECT_EQ(devices[1]->deviceId, 10);
    EXPECT_EQ(devices[1]->transactions, nullptr);
    const auto transactions = listed(devices[0]->transactions);
    ASSERT_EQ(transactions.size(), 2U);
    EXPECT_EQ(transactions[0]->transactionId, 300);
    EXPECT_STREQ(transactions[0]->transactionName, "request");
    EXPECT_EQ(transactions[1]->transactionId, 301);
    EXPECT_STREQ(transactions[1]->transactionName, "");
    const auto frames = listed(transactions[0]->frames);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0]->frameId, 500);
    EXPECT_EQ(frames[1]->canId, 0x1ABCDEF0);
    const auto tags = listed(frames[0]->blocks);
    ASSERT_EQ(tags.size(), 2U);
    EXPECT_STREQ(tags[0]->tag->tagName, "a");
    EXPECT_STREQ(tags[1]->tag->tagName, "b");
    const auto constants = listed(frames[1]->blocks);
    ASSERT_EQ(constants.size(), 1U);
    EXPECT_EQ(constants[0]->constant->constantValue, 0x0ABCU);
    ASSERT_EQ(listed(transactions[1]->frames).size(), 1U);
    EXPECT_EQ(transactions[1]->frames->blocks, nullptr);
}

TEST_F(config_read, keys_at_the_end_of_their_range_are_read) {
    edit("INSERT INTO device VALUES (255, 2, 'd');"
         "INSERT INTO transactions (transactionId, deviceId) VALUES (65535, 255);"
         "INSERT INTO frame (frameId, transactionId) VALUES (65535, 65535);"
         "INSERT INTO block (blockId, frameId) VALUES (65535, 65535)");
    const device_list list = port(2);
    EXPECT_EQ(list->deviceId, 255);
    EXPECT_EQ(list->transactions->transactionId, 65535);
    EXPECT_EQ(list->transactions->frames->frameId, 65535);
    EXPECT_EQ(list->transactions->frames->blocks->tag->blockId, 65535);
}

TEST_F(config_read, missing_port_is_logged_and_the_list_untouched) {
    for (const int portId : {0, 3, 257, -1}) {
        device_config *list = untouched<device_config>();
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(can_proprietary_conf_get_port_config(&list, portId), -1);
                    }),
                    ElementsAre("can_proprietary_conf_get_port_config|portId not found\n"));
        EXPECT_EQ(list, untouched<device_config>());
    }
}

TEST_F(config_read, block_of_unknown_kind_fails_the_whole_read) {
    edit("INSERT INTO block (blockId, frameId, blockType) VALUES (700, 501, 5)");
    device_config *list = untouched<device_config>();
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(can_proprietary_conf_get_port_config(&list, 1), -1); }),
                ElementsAre("block_get_row|param fail\n",
                            "can_proprietary_conf_get_frame_config|block_get_row fail\n",
                            "can_proprietary_conf_get_transaction_config|"
                            "get_constant_config error\n",
                            "can_proprietary_conf_get_device_config|"
                            "get_device_all_transaction_config fail\n",
                            "can_proprietary_conf_get_port_config|"
                            "can_proprietary_get_device_config fail\n"));
    EXPECT_EQ(list, untouched<device_config>());
}

TEST_F(config_read, transaction_with_a_block_of_unknown_kind_is_not_read) {
    edit("INSERT INTO block (blockId, frameId, blockType) VALUES (700, 501, 5)");
    sqlite3 *db = can_proprietary_db_get();
    transaction_config record{};
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_conf_get_transaction_config(db, &record, 300), -1);
                }),
                ElementsAre("block_get_row|param fail\n",
                            "can_proprietary_conf_get_frame_config|block_get_row fail\n",
                            "can_proprietary_conf_get_transaction_config|"
                            "get_constant_config error\n"));
    EXPECT_EQ(record.frames, nullptr);
    free(record.transactionName);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(config_read, id_wider_than_its_field_names_no_other_row) {
    edit("INSERT INTO device VALUES (44, 1, 'alias');"
         "INSERT INTO transactions (transactionId, deviceId) VALUES (4, 44);"
         "INSERT INTO frame (frameId, transactionId) VALUES (4, 4);"
         "INSERT INTO block (blockId, frameId) VALUES (4, 4)");
    sqlite3 *db = can_proprietary_db_get();
    device_config device{};
    transaction_config transaction{};
    frame_config frame{};
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_conf_get_device_config(db, &device, 300), -1);
                    EXPECT_EQ(can_proprietary_conf_get_device_name_config(&device, 300), -1);
                    EXPECT_EQ(can_proprietary_conf_get_transaction_config(db, &transaction, 65540),
                              -1);
                }),
                ElementsAre("can_proprietary_conf_get_device_config|deviceId not found\n",
                            "can_proprietary_conf_get_transaction_config|"
                            "transactionId not found\n"));
    EXPECT_EQ(can_proprietary_conf_get_frame_config(db, &frame, 65540), 0);
    EXPECT_EQ(device.deviceName, nullptr);
    EXPECT_EQ(transaction.transactionName, nullptr);
    EXPECT_EQ(frame.blocks, nullptr);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(config_read, name_of_a_device) {
    device_config record{};
    EXPECT_EQ(can_proprietary_conf_get_device_name_config(&record, 9), 0);
    EXPECT_EQ(record.deviceId, 9);
    EXPECT_EQ(record.portId, 1);
    EXPECT_STREQ(record.deviceName, "nine");
    EXPECT_EQ(record.transactions, nullptr);
    free(record.deviceName);
}

TEST_F(config_read, absent_frame_leaves_the_record_and_reads_its_blocks) {
    edit("PRAGMA foreign_keys = OFF; INSERT INTO block (blockId, frameId) VALUES (800, 900)");
    sqlite3 *db = can_proprietary_db_get();
    frame_config record{};
    record.frameId = 77;
    record.canId = 88;
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(can_proprietary_conf_get_frame_config(db, &record, 901), 0); }),
        IsEmpty());
    EXPECT_EQ(record.frameId, 77);
    EXPECT_EQ(record.blocks, nullptr);
    EXPECT_EQ(can_proprietary_conf_get_frame_config(db, &record, 900), 0);
    EXPECT_EQ(record.frameId, 77);
    EXPECT_EQ(record.canId, 88);
    ASSERT_NE(record.blocks, nullptr);
    EXPECT_EQ(record.blocks->tag->blockId, 800);
    conf_free_block_list(record.blocks);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(config_read, counts_of_rows) {
    uint8_t count = 7;
    EXPECT_EQ(can_proprietary_conf_get_device_num(&count), 0);
    EXPECT_EQ(count, 2);
    overview_info info{};
    EXPECT_EQ(can_proprietary_conf_get_overview_port_num(&info), 0);
    EXPECT_EQ(info.port_num, 2);
    EXPECT_EQ(can_proprietary_conf_get_overview_config(&info, 1), 0);
    EXPECT_EQ(info.device_num, 2);
    EXPECT_EQ(info.transaction_num, 2);
    for (const int portId : {2, 3, 257}) {
        info = {7, 7, 7};
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(can_proprietary_conf_get_overview_config(&info, portId), 0);
                    }),
                    IsEmpty());
        EXPECT_EQ(info.port_num, 7);
        EXPECT_EQ(info.device_num, 0);
        EXPECT_EQ(info.transaction_num, 0);
    }
}

TEST_F(config_read, counts_are_cut_to_8_bits) {
    edit("DROP TRIGGER device_is_full; DELETE FROM device;"
         "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 255)"
         " INSERT INTO device SELECT i, 1, 'd' FROM n");
    uint8_t count = 7;
    EXPECT_EQ(can_proprietary_conf_get_device_num(&count), 0);
    EXPECT_EQ(count, 0);
    edit("DELETE FROM device WHERE deviceId = 0");
    EXPECT_EQ(can_proprietary_conf_get_device_num(&count), 0);
    EXPECT_EQ(count, 255);
}

TEST_F(config_read, transaction_count_of_a_port_wraps_above_255) {
    const auto fill = [](int device, int from, int to) {
        edit("WITH RECURSIVE n(i) AS (SELECT " + std::to_string(from) +
             " UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(to) +
             ") INSERT INTO transactions (transactionId, deviceId) SELECT i, " +
             std::to_string(device) + " FROM n");
    };
    edit("DELETE FROM transactions; INSERT INTO device VALUES (1, 2, 'other')");
    overview_info info{};
    fill(9, 1, 200);
    fill(10, 201, 255);
    fill(1, 400, 450);
    EXPECT_EQ(can_proprietary_conf_get_overview_config(&info, 1), 0);
    EXPECT_EQ(info.transaction_num, 255);
    fill(10, 256, 300);
    EXPECT_EQ(can_proprietary_conf_get_overview_config(&info, 1), 0);
    EXPECT_EQ(info.transaction_num, 44);
    EXPECT_EQ(info.device_num, 2);
}

TEST_F(config_read, missing_arguments_are_logged) {
    sqlite3 *db = can_proprietary_db_get();
    device_config device{};
    transaction_config transaction{};
    frame_config frame{};
    expect_param_fail("can_proprietary_conf_get_interface_config",
                      [] { return can_proprietary_conf_get_interface_config(nullptr, 1); });
    expect_param_fail("can_proprietary_conf_get_interface_device_config",
                      [] { return can_proprietary_conf_get_interface_device_config(nullptr, 1); });
    expect_param_fail("can_proprietary_conf_get_port_config",
                      [] { return can_proprietary_conf_get_port_config(nullptr, 1); });
    expect_param_fail("can_proprietary_conf_get_device_config",
                      [&] { return can_proprietary_conf_get_device_config(db, nullptr, 9); });
    expect_param_fail("can_proprietary_conf_get_device_config",
                      [&] { return can_proprietary_conf_get_device_config(nullptr, &device, 9); });
    expect_param_fail("can_proprietary_conf_get_device_name_config",
                      [] { return can_proprietary_conf_get_device_name_config(nullptr, 9); });
    expect_param_fail("can_proprietary_conf_get_transaction_config", [&] {
        return can_proprietary_conf_get_transaction_config(db, nullptr, 300);
    });
    expect_param_fail("can_proprietary_conf_get_transaction_config", [&] {
        return can_proprietary_conf_get_transaction_config(nullptr, &transaction, 300);
    });
    expect_param_fail("can_proprietary_conf_get_frame_config",
                      [&] { return can_proprietary_conf_get_frame_config(db, nullptr, 500); });
    expect_param_fail("can_proprietary_conf_get_frame_config",
                      [&] { return can_proprietary_conf_get_frame_config(nullptr, &frame, 500); });
    expect_param_fail("can_proprietary_conf_get_device_num",
                      [] { return can_proprietary_conf_get_device_num(nullptr); });
    expect_param_fail("can_proprietary_conf_get_overview_port_num",
                      [] { return can_proprietary_conf_get_overview_port_num(nullptr); });
    expect_param_fail("can_proprietary_conf_get_overview_config",
                      [] { return can_proprietary_conf_get_overview_config(nullptr, 1); });
    expect_param_fail("can_proprietary_conf_changed",
                      [] { return can_proprietary_conf_changed(nullptr); });
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(config_read, changed_flag_is_that_of_the_working_copy) {
    int changed = 7;
    EXPECT_EQ(can_proprietary_db_update_ram_modified_time(), 0);
    EXPECT_EQ(can_proprietary_conf_changed(&changed), 0);
    EXPECT_EQ(changed, 0);
    std::filesystem::last_write_time(
        working_db_path(), std::filesystem::file_time_type::clock::now() + std::chrono::seconds(5));
    EXPECT_EQ(can_proprietary_conf_changed(&changed), 0);
    EXPECT_EQ(changed, 1);
    std::filesystem::remove(working_db_path());
    changed = 7;
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(can_proprietary_conf_changed(&changed), -4); }),
                ElementsAre("get_ram_modified_time|Fail to get time, Error : "
                            "No such file or directory\n",
                            "can_proprietary_db_get_ram_modified|update fail\n"));
    EXPECT_EQ(changed, 7);
}

} // namespace
