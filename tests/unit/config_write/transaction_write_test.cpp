#include "write_fixture.h"

namespace {

class transaction_write : public config_write {
protected:
    static transaction_config record(const std::string &name, uint8_t device = 1) {
        transaction_config record{};
        record.transactionName = const_cast<char *>(name.c_str());
        record.deviceId = device;
        record.transactionEnable = 1;
        record.transactionType = 2;
        record.triggerMode = 1;
        record.cyclicInterval = 65535;
        record.consumeToutEnable = 1;
        record.consumeTimeout = 65534;
        record.timeoutRetry = 5;
        record.responseTimeout = 65533;
        record.triggerByRTR = 1;
        record.fpFunc = 2;
        record.fpTimeout = 65532;
        return record;
    }

    int insert(const std::string &name, uint8_t device = 1) {
        const transaction_config config = record(name, device);
        return can_proprietary_conf_insert_transaction_config(db, &config, &inserted);
    }

    int update(const std::string &name, int id) {
        const transaction_config config = record(name, 77);
        return can_proprietary_conf_update_transaction_config(db, &config, id);
    }

    transaction_config inserted{};
};

const std::string insert_function = "can_proprietary_conf_insert_transaction_config|";
const std::string update_function = "can_proprietary_conf_update_transaction_config|";
const std::string delete_function = "can_proprietary_conf_delete_transaction_config|";

TEST_F(transaction_write, every_column_is_stored_and_the_key_returned) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("new"), 0); }), IsEmpty());
    EXPECT_EQ(inserted.transactionId, 4);
    EXPECT_EQ(seen("SELECT * FROM transactions WHERE transactionId = 4"),
              "4|1|1|new|2|1|65535|2|65532|1|1|65534|5|65533");
}

TEST_F(transaction_write, the_same_record_takes_the_key) {
    const std::string name = "new";
    transaction_config config = record(name);
    EXPECT_EQ(can_proprietary_conf_insert_transaction_config(db, &config, &config), 0);
    EXPECT_EQ(config.transactionId, 4);
}

TEST_F(transaction_write, a_taken_name_inserts_nothing) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("state"), -1); }), IsEmpty());
    EXPECT_EQ(inserted.transactionId, 0);
    EXPECT_EQ(seen("SELECT COUNT(*) FROM transactions"), "3");
}

TEST_F(transaction_write, names_of_other_devices_and_other_case_are_free) {
    EXPECT_EQ(insert("command", 2), 0);
    EXPECT_EQ(insert("STATE"), 0);
    EXPECT_EQ(insert("state "), 0);
}

TEST_F(transaction_write, a_device_that_does_not_exist) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("new", 3), -1); }),
                ElementsAre(insert_function + "sqlite exec FOREIGN KEY constraint failed\n"));
}

TEST_F(transaction_write, key_65535_is_the_last) {
    ASSERT_EQ(seen("UPDATE transactions SET transactionId = 65534 WHERE transactionId = 3"),
              "error: FOREIGN KEY constraint failed");
    ASSERT_EQ(seen("DELETE FROM frame WHERE transactionId = 3"), "");
    ASSERT_EQ(seen("UPDATE transactions SET transactionId = 65534 WHERE transactionId = 3"), "");
    EXPECT_EQ(insert("last"), 0);
    EXPECT_EQ(inserted.transactionId, 65535);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("beyond"), -1); }),
                ElementsAre(insert_function + "sqlite exec CHECK constraint failed: "
                                              "transactionId\n"));
}

TEST_F(transaction_write, a_full_table_says_so) {
    for (int number = 4; number <= 512; number++) {
        ASSERT_EQ(insert("t" + std::to_string(number)), 0);
    }
    EXPECT_EQ(inserted.transactionId, 512);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("beyond"), -1); }),
                ElementsAre(insert_function + "sqlite exec transactions is full\n"));
}

TEST_F(transaction_write, an_update_stores_every_column_but_the_keys) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(update("renamed", 3), 0); }), IsEmpty());
    EXPECT_EQ(seen("SELECT * FROM transactions WHERE transactionId = 3"),
              "3|2|1|renamed|2|1|65535|2|65532|1|1|65534|5|65533");
    EXPECT_EQ(seen("SELECT transactionName FROM transactions WHERE deviceId = 1"), "state command");
}

TEST_F(transaction_write, an_update_may_keep_its_name_and_not_take_a_siblings) {
    EXPECT_EQ(update("state", 1), 0);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(update("command", 1), -1); }), IsEmpty());
    EXPECT_EQ(update("command", 3), 0); // another device's
    EXPECT_EQ(seen("SELECT transactionName FROM transactions"), "state command command");
}

TEST_F(transaction_write, a_transaction_that_does_not_exist) {
    const std::string before = everything();
    for (const int id : {0, 4, -1, 65537, INT_MAX}) {
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(update("new", id), -1);
                        EXPECT_EQ(can_proprietary_conf_delete_transaction_config(db, id), -1);
                    }),
                    ElementsAre(update_function + "transaction_id not found\n",
                                delete_function + "transaction_id not found\n"));
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(transaction_write, an_update_finds_what_its_own_request_inserted) {
    ASSERT_EQ(insert("new"), 0);
    EXPECT_EQ(update("renamed", 4), 0);
}

TEST_F(transaction_write, a_name_with_a_quote_changes_nothing) {
    const std::string before = everything();
    for (const std::string &name : texts_with_quotes()) {
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(insert(name), -1);
                        EXPECT_EQ(update(name, 1), -1);
                    }),
                    ElementsAre(insert_function + quote_message, update_function + quote_message))
            << name;
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(transaction_write, other_names_are_stored_as_they_are) {
    for (const std::string &name : plain_texts()) {
        EXPECT_EQ(insert(name), 0) << name;
        EXPECT_EQ(inserted.transactionId, 4);
        EXPECT_EQ(seen("SELECT transactionName FROM transactions WHERE transactionId = 4"), name);
        ASSERT_EQ(seen("DELETE FROM transactions WHERE transactionId = 4"), "");
    }
}

TEST_F(transaction_write, a_name_that_cuts_the_statement_changes_nothing) {
    // Somewhere in this range the cut text is a statement without its condition.
    const std::string before = everything();
    const captured_log quiet;
    for (size_t length = sql_text_bytes - 60; length < sql_text_bytes + 10; length++) {
        ASSERT_EQ(insert(std::string(length, 'n')), -1) << length;
        ASSERT_EQ(update(std::string(length, 'n'), 1), -1) << length;
    }
    ASSERT_EQ(update(std::string(100000, 'n'), 1), -1);
    EXPECT_TRUE(everything() == before);
}

TEST_F(transaction_write, a_delete_takes_frames_and_blocks_along) {
    EXPECT_EQ(can_proprietary_conf_delete_transaction_config(db, 1), 0);
    EXPECT_EQ(seen("SELECT transactionId FROM transactions"), "2 3");
    EXPECT_EQ(seen("SELECT frameId FROM frame"), "2 3");
    EXPECT_EQ(seen("SELECT blockId FROM block"), "2");
}

TEST_F(transaction_write, missing_arguments_are_logged) {
    const std::string name = "new";
    const transaction_config config = record(name);
    EXPECT_THAT(
        messages_of([&] {
            EXPECT_EQ(can_proprietary_conf_insert_transaction_config(nullptr, &config, &inserted),
                      -1);
            EXPECT_EQ(can_proprietary_conf_insert_transaction_config(db, nullptr, &inserted), -1);
            EXPECT_EQ(can_proprietary_conf_insert_transaction_config(db, &config, nullptr), -1);
            EXPECT_EQ(can_proprietary_conf_update_transaction_config(nullptr, &config, 1), -1);
            EXPECT_EQ(can_proprietary_conf_update_transaction_config(db, nullptr, 1), -1);
            EXPECT_EQ(can_proprietary_conf_delete_transaction_config(nullptr, 1), -1);
        }),
        ElementsAre(insert_function + "param fail\n",
                    insert_function + "param fail\n",
                    insert_function + "param fail\n",
                    update_function + "param fail\n",
                    update_function + "param fail\n",
                    delete_function + "param fail\n"));
}

TEST_F(transaction_write, a_failed_prepare_shows_the_statement) {
    end(0);
    execute(working_db_path(), "DROP TABLE block; DROP TABLE frame; DROP TABLE transactions");
    begin();
    EXPECT_THAT(
        messages_of([&] {
            EXPECT_EQ(insert("new"), -1);
            EXPECT_EQ(update("new", 1), -1);
        }),
        ElementsAre(insert_function + "no such table: transactions. SQL: SELECT 1 FROM "
                                      "transactions WHERE transactionName = ? AND deviceId = ?\n",
                    update_function + "no such table: transactions. SQL: SELECT deviceId FROM "
                                      "transactions WHERE transactionId = ?\n"));
}

TEST_F(transaction_write, a_name_that_cannot_be_compared_shows_the_statement) {
    forbid_reading("transactions", "transactionName");
    const std::string reason = "access to transactions.transactionName is prohibited. SQL: ";
    EXPECT_THAT(
        messages_of([&] {
            EXPECT_EQ(insert("new"), -1);
            EXPECT_EQ(update("new", 1), -1);
        }),
        ElementsAre(insert_function + reason +
                        "SELECT 1 FROM transactions WHERE transactionName = ? AND deviceId = ?\n",
                    update_function + reason +
                        "SELECT 1 FROM transactions WHERE transactionName = ? AND transactionId "
                        "!= ? AND deviceId = ?\n"));
}

TEST_F(transaction_write, a_key_that_cannot_be_read_fails_and_shows_the_statement) {
    forbid_reading("transactions", "fpFunc");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("new"), -1); }),
                ElementsAre(insert_function +
                            "access to transactions.fpFunc is prohibited. "
                            "Sql: SELECT * FROM transactions LIMIT 1 OFFSET 3\n"));
    EXPECT_EQ(inserted.transactionId, 0);
}

TEST_F(transaction_write, a_row_that_is_gone_at_once_has_no_key) {
    end(0);
    execute(working_db_path(),
            "CREATE TRIGGER gone AFTER INSERT ON transactions BEGIN DELETE FROM transactions; END");
    begin();
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert("new"), -1); }),
                ElementsAre(insert_function + "db row count fail\n"));
    EXPECT_EQ(inserted.transactionId, 0);
}

TEST_F(transaction_write, a_failed_statement_leaves_the_connection_to_the_caller) {
    lock_out();
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert("new"), -1);
                    EXPECT_EQ(update("new", 1), -1);
                    EXPECT_EQ(can_proprietary_conf_delete_transaction_config(db, 1), -1);
                }),
                ElementsAre(insert_function + "sqlite exec database is locked\n",
                            update_function + "sqlite exec database is locked\n",
                            delete_function + "sqlite exec database is locked\n"));
    EXPECT_EQ(seen("SELECT COUNT(*) FROM transactions"), "3");
}

TEST_F(transaction_write, every_allocation_that_fails_is_minus_7) {
    const auto is_minus_7 = [](int result, int nth) { EXPECT_EQ(result, -7) << nth; };
    EXPECT_EQ(allocation_fault::sweep([&] { return update("new", 1); }, is_minus_7), 1);
    const auto remove = [&] { return can_proprietary_conf_delete_transaction_config(db, 3); };
    EXPECT_EQ(allocation_fault::sweep(remove, is_minus_7), 2);
    allocation_fault::arm(1);
    EXPECT_EQ(insert("a"), -7);
    EXPECT_TRUE(allocation_fault::disarm());
    allocation_fault::arm(2); // for the key, once the row is there
    EXPECT_EQ(insert("a"), -7);
    EXPECT_TRUE(allocation_fault::disarm());
    EXPECT_EQ(inserted.transactionId, 0);
}

} // namespace
