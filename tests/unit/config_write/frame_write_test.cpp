#include "write_fixture.h"

namespace {

class frame_write : public config_write {
protected:
    int insert(uint16_t transactionId, int32_t canId) {
        frame_config config{};
        config.transactionId = transactionId;
        config.canId = canId;
        config.dataLength = 7;
        config.frameType = FRAME_RESPONSE;
        return can_proprietary_conf_insert_frame_config(db, &config, &inserted);
    }

    frame_config inserted{};
};

const std::string insert_function = "can_proprietary_conf_insert_frame_config|";
const std::string delete_function = "can_proprietary_conf_delete_frame_config|";

TEST_F(frame_write, every_column_is_stored_and_the_key_returned) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(1, 0x1FFFFFFF), 0); }), IsEmpty());
    EXPECT_EQ(inserted.frameId, 4);
    EXPECT_EQ(seen("SELECT * FROM frame WHERE frameId = 4"), "4|1|536870911|7|3");
    EXPECT_EQ(insert(1, 0), 0);
    EXPECT_EQ(inserted.frameId, 5);
}

TEST_F(frame_write, an_identifier_of_no_frame_is_refused) {
    for (const int32_t canId : {0x20000000, -1, INT32_MIN}) {
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(1, canId), -1); }),
                    ElementsAre(insert_function + "sqlite exec CHECK constraint failed: canId\n"));
    }
}

TEST_F(frame_write, a_transaction_that_does_not_exist) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(4, 1), -1); }),
                ElementsAre(insert_function + "sqlite exec FOREIGN KEY constraint failed\n"));
    const std::string before = everything();
    for (const int id : {0, 4, -1, 65537}) {
        EXPECT_THAT(
            messages_of([&] { EXPECT_EQ(can_proprietary_conf_delete_frame_config(&db, id), -1); }),
            ElementsAre(delete_function + "transaction_id not found\n"));
        ASSERT_NE(db, nullptr);
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(frame_write, key_65535_is_the_last) {
    ASSERT_EQ(seen("INSERT INTO frame VALUES (65535, 3, 1, 0, 0)"), "");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(1, 1), -1); }),
                ElementsAre(insert_function + "sqlite exec CHECK constraint failed: frameId\n"));
    EXPECT_EQ(inserted.frameId, 0);
}

TEST_F(frame_write, a_key_that_cannot_be_read_fails_and_shows_the_statement) {
    forbid_reading("frame", "dataLength");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(1, 1), -1); }),
                ElementsAre(insert_function + "access to frame.dataLength is prohibited. Sql: "
                                              "SELECT * FROM frame LIMIT 1 OFFSET 3\n"));
    EXPECT_EQ(inserted.frameId, 0);
}

TEST_F(frame_write, a_row_that_is_gone_at_once_has_no_key) {
    end(0);
    execute(working_db_path(),
            "CREATE TRIGGER gone AFTER INSERT ON frame BEGIN DELETE FROM frame; END");
    begin();
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(1, 1), -1); }),
                ElementsAre(insert_function + "db row count fail\n"));
    EXPECT_EQ(inserted.frameId, 0);
}

TEST_F(frame_write, a_delete_takes_all_frames_of_the_transaction_with_their_blocks) {
    ASSERT_EQ(insert(1, 1), 0);
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(can_proprietary_conf_delete_frame_config(&db, 1), 0); }),
        IsEmpty());
    EXPECT_EQ(seen("SELECT frameId FROM frame"), "2 3");
    EXPECT_EQ(seen("SELECT blockId FROM block"), "2");
    EXPECT_EQ(seen("SELECT transactionId FROM transactions"), "1 2 3");
}

TEST_F(frame_write, deleting_none_succeeds) {
    ASSERT_EQ(can_proprietary_conf_delete_frame_config(&db, 1), 0);
    EXPECT_EQ(can_proprietary_conf_delete_frame_config(&db, 1), 0);
}

TEST_F(frame_write, a_delete_that_fails_rolls_back_and_closes) {
    lock_out();
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(can_proprietary_conf_delete_frame_config(&db, 1), -1); }),
        ElementsAre(delete_function + "sqlite exec database is locked\n"));
    EXPECT_EQ(db, nullptr);
    EXPECT_EQ(committed("SELECT COUNT(*) FROM frame"), "3");
}

TEST_F(frame_write, an_insert_that_fails_leaves_the_connection_to_the_caller) {
    lock_out();
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert(1, 1), -1); }),
                ElementsAre(insert_function + "sqlite exec database is locked\n"));
    EXPECT_EQ(seen("SELECT COUNT(*) FROM frame"), "3");
}

TEST_F(frame_write, every_allocation_that_fails_is_minus_7_and_closes_nothing) {
    const auto is_minus_7 = [this](int result, int nth) {
        EXPECT_EQ(result, -7) << nth;
        EXPECT_NE(db, nullptr);
        EXPECT_EQ(inserted.frameId, 0);
    };
    EXPECT_EQ(allocation_fault::sweep([&] { return insert(1, 1); }, is_minus_7), 2);
    inserted.frameId = 0;
    const auto remove = [&] { return can_proprietary_conf_delete_frame_config(&db, 1); };
    EXPECT_EQ(allocation_fault::sweep(remove, is_minus_7), 2);
}

TEST_F(frame_write, missing_arguments_are_logged) {
    const frame_config config{};
    sqlite3 *none = nullptr;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_conf_insert_frame_config(nullptr, &config, &inserted),
                              -1);
                    EXPECT_EQ(can_proprietary_conf_insert_frame_config(db, nullptr, &inserted), -1);
                    EXPECT_EQ(can_proprietary_conf_insert_frame_config(db, &config, nullptr), -1);
                    EXPECT_EQ(can_proprietary_conf_delete_frame_config(nullptr, 1), -1);
                    EXPECT_EQ(can_proprietary_conf_delete_frame_config(&none, 1), -1);
                }),
                ElementsAre(insert_function + "param fail\n",
                            insert_function + "param fail\n",
                            insert_function + "param fail\n",
                            delete_function + "param fail\n",
                            delete_function + "param fail\n"));
}

} // namespace
