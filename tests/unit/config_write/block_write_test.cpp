#include "config/read.h"
#include "write_fixture.h"

namespace {

class block_write : public config_write {
protected:
    block_write() {
        tag.frameId = 1;
        tag.tagName = name;
        tag.tagType = TAG_UINT16;
        tag.tagSize = 2;
        memcpy(tag.access, "wo", sizeof tag.access);
        memcpy(tag.fpData, "0A", 3);
        tag.swap = 5;
        tag.startOffset = 6;
        tag.scalingFunc = SCALING_POINTS;
        tag.scaling = {2.5, -1, 3, 1e9};
        constant.frameId = 1;
        constant.constantName = name;
        constant.startOffset = 7;
        constant.constantSize = 2;
        constant.constantValue = 0x1A;
    }

    int insert_tag() {
        const block_config block = {BLOCK_TAG, nullptr, &tag, nullptr};
        return can_proprietary_conf_insert_tag_block_config(&db, &block, &inserted_tag);
    }

    int insert_constant() {
        const block_config block = {BLOCK_CONSTANT, &constant, nullptr, nullptr};
        return can_proprietary_conf_insert_constant_block_config(db, &block, &inserted_constant);
    }

    std::string stored_value() {
        return seen("SELECT constantSize, constantValue FROM block ORDER BY blockId DESC LIMIT 1");
    }

    char name[200] = "new";
    tag_block_config tag{};
    constant_block_config constant{};
    tag_block_config inserted_tag{};
    constant_block_config inserted_constant{};
};

const std::string tag_function = "can_proprietary_conf_insert_tag_block_config|";
const std::string constant_function = "can_proprietary_conf_insert_constant_block_config|";

TEST_F(block_write, every_column_of_a_tag_is_stored_and_the_key_returned) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert_tag(), 0); }), IsEmpty());
    EXPECT_EQ(inserted_tag.blockId, 3);
    EXPECT_EQ(seen("SELECT * FROM block WHERE blockId = 3"),
              "3|1|0|6|new|6|2|wo|5|0A|2|2.5|-1.0|2.5|-1.0|3.0|1000000000.0|constantName|1|");
}

TEST_F(block_write, a_tag_reads_back_as_it_was_written) {
    tag.scalingFunc = SCALING_INTERCEPT;
    tag.scaling = {2.5, 1, 0, 0};
    tag.frameId = 3; // without blocks so far
    ASSERT_EQ(insert_tag(), 0);
    frame_config frame{};
    ASSERT_EQ(can_proprietary_conf_get_frame_config(db, &frame, 3), 0);
    const tag_block_config &read = *frame.blocks->tag;
    EXPECT_STREQ(read.tagName, "new");
    EXPECT_EQ(read.tagType, TAG_UINT16);
    EXPECT_EQ(read.tagSize, 2);
    EXPECT_STREQ(read.access, "wo");
    EXPECT_STREQ(read.fpData, "0A");
    EXPECT_EQ(read.swap, 5);
    EXPECT_EQ(read.startOffset, 6);
    EXPECT_EQ(read.scalingFunc, SCALING_INTERCEPT);
    EXPECT_EQ(read.scaling.a, 2.5);
    EXPECT_EQ(read.scaling.b, 1);
    EXPECT_EQ(frame.blocks->next, nullptr);
    conf_free_block_list(frame.blocks);
}

TEST_F(block_write, scaling_numbers_keep_six_decimals) {
    tag.scaling = {0.1234567, -1e-9, 1.0 / 3, -2147483648.0};
    ASSERT_EQ(insert_tag(), 0);
    EXPECT_EQ(seen("SELECT interceptSlope, interceptOffset, pointSourceMin, pointSourceMax, "
                   "pointTargetMin, pointTargetMax FROM block WHERE blockId = 3"),
              "0.123457|0.0|0.123457|0.0|0.333333|-2147483648.0");
}

TEST_F(block_write, a_taken_tag_name_inserts_nothing) {
    memcpy(name, "speed", 6);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert_tag(), -1); }), IsEmpty());
    EXPECT_NE(db, nullptr);
    EXPECT_EQ(inserted_tag.blockId, 0);
    tag.frameId = 2; // another frame's names are free
    EXPECT_EQ(insert_tag(), 0);
}

TEST_F(block_write, a_constant_takes_no_tag_name_into_account) {
    memcpy(name, "speed", 6);
    EXPECT_EQ(insert_constant(), 0);
    EXPECT_EQ(insert_constant(), 0);
}

TEST_F(block_write, every_column_of_a_constant_is_stored_and_the_key_returned) {
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert_constant(), 0); }), IsEmpty());
    EXPECT_EQ(inserted_constant.blockId, 3);
    EXPECT_EQ(seen("SELECT * FROM block WHERE blockId = 3"),
              "3|1|1|7|tag|13|1|ro|0||0|1.0|0.0|0.0|1.0|0.0|1.0|new|2|001A");
}

TEST_F(block_write, a_constant_is_printed_at_the_width_of_its_size) {
    struct {
        uint8_t size;
        uint64_t value;
        std::string stored;
    } const rows[] = {{0, 0, "0|0"},
                      {0, 0xABC, "0|ABC"},
                      {1, 0xABC, "1|ABC"},
                      {2, 0xABC, "2|0ABC"},
                      {8, UINT64_MAX, "8|FFFFFFFFFFFFFFFF"},
                      {8, 1, "8|0000000000000001"},
                      {255, 1, "255|" + std::string(509, '0') + "1"}};
    for (const auto &row : rows) {
        constant.constantSize = row.size;
        constant.constantValue = row.value;
        EXPECT_EQ(insert_constant(), 0);
        EXPECT_EQ(stored_value(), row.stored);
    }
}

TEST_F(block_write, a_frame_that_does_not_exist) {
    tag.frameId = constant.frameId = 9;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert_tag(), -1);
                    EXPECT_EQ(insert_constant(), -1);
                }),
                ElementsAre(tag_function + "sqlite exec FOREIGN KEY constraint failed\n",
                            constant_function + "sqlite exec FOREIGN KEY constraint failed\n"));
    EXPECT_NE(db, nullptr);
}

TEST_F(block_write, key_65535_is_the_last) {
    ASSERT_EQ(seen("INSERT INTO block (blockId, frameId) VALUES (65535, 2)"), "");
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert_tag(), -1);
                    EXPECT_EQ(insert_constant(), -1);
                }),
                ElementsAre(tag_function + "sqlite exec CHECK constraint failed: blockId\n",
                            constant_function + "sqlite exec CHECK constraint failed: blockId\n"));
}

TEST_F(block_write, a_tag_name_that_cannot_be_compared_shows_the_statement) {
    forbid_reading("block", "tagName");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(insert_tag(), -1); }),
                ElementsAre(tag_function + "access to block.tagName is prohibited. SQL: SELECT 1 "
                                           "FROM block WHERE tagName = ? AND frameId = ?\n"));
    EXPECT_NE(db, nullptr);
}

TEST_F(block_write, a_key_that_cannot_be_read_fails_and_shows_the_statement) {
    forbid_reading("block", "swap");
    const std::string reason =
        "access to block.swap is prohibited. Sql: SELECT * FROM block LIMIT 1 OFFSET ";
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert_tag(), -1);
                    EXPECT_EQ(insert_constant(), -1);
                }),
                ElementsAre(tag_function + reason + "2\n", constant_function + reason + "3\n"));
    EXPECT_NE(db, nullptr);
    EXPECT_EQ(inserted_tag.blockId + inserted_constant.blockId, 0);
}

TEST_F(block_write, a_row_that_is_gone_at_once_has_no_key) {
    end(0);
    execute(working_db_path(),
            "CREATE TRIGGER gone AFTER INSERT ON block BEGIN DELETE FROM block; END");
    begin();
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert_tag(), -1);
                    EXPECT_EQ(insert_constant(), -1);
                }),
                ElementsAre(tag_function + "db row count fail\n",
                            constant_function + "db row count fail\n"));
    EXPECT_NE(db, nullptr);
}

TEST_F(block_write, a_quote_in_any_text_changes_nothing) {
    const std::string before = everything();
    for (const std::string &text : texts_with_quotes()) {
        const std::string kept = name;
        memcpy(name, text.c_str(), text.size() + 1);
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(insert_tag(), -1);
                        EXPECT_EQ(insert_constant(), -1);
                    }),
                    ElementsAre(tag_function + quote_message, constant_function + quote_message))
            << text;
        memcpy(name, kept.c_str(), kept.size() + 1);
    }
    memcpy(tag.access, "'a", 3);
    EXPECT_EQ(insert_tag(), -1);
    memcpy(tag.access, "ro", 3);
    memcpy(tag.fpData, "', 1, 2); --", 13);
    EXPECT_EQ(insert_tag(), -1);
    EXPECT_NE(db, nullptr);
    EXPECT_EQ(everything(), before);
}

TEST_F(block_write, other_names_are_stored_as_they_are) {
    for (const std::string &text : plain_texts()) {
        memcpy(name, text.c_str(), text.size() + 1);
        EXPECT_EQ(insert_tag(), 0) << text;
        EXPECT_EQ(seen("SELECT tagName FROM block ORDER BY blockId DESC LIMIT 1"), text);
    }
}

TEST_F(block_write, a_name_beyond_the_statement_changes_nothing) {
    const std::string before = everything();
    for (const size_t length : {sql_text_bytes - 100, sql_text_bytes, size_t{100000}}) {
        std::string text(length, 'n');
        tag.tagName = constant.constantName = text.data();
        const captured_log quiet;
        EXPECT_EQ(insert_tag(), -1);
        EXPECT_EQ(insert_constant(), -1);
    }
    EXPECT_EQ(everything() == before, true);
}

TEST_F(block_write, a_tag_insert_without_memory_for_its_text_rolls_back_and_closes) {
    ASSERT_EQ(seen("INSERT INTO device VALUES (9, 1, 'pending')"), "");
    allocation_fault::arm(1);
    EXPECT_EQ(insert_tag(), -7);
    ASSERT_TRUE(allocation_fault::disarm());
    EXPECT_EQ(db, nullptr);
    EXPECT_EQ(committed("SELECT * FROM device WHERE deviceId = 9"), "");
}

TEST_F(block_write, other_allocations_that_fail_leave_the_connection_to_the_caller) {
    allocation_fault::arm(2); // for the key, once the row is there
    EXPECT_EQ(insert_tag(), -7);
    ASSERT_TRUE(allocation_fault::disarm());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(inserted_tag.blockId, 0);
    const auto is_minus_7 = [](int result, int nth) { EXPECT_EQ(result, -7) << nth; };
    EXPECT_EQ(allocation_fault::sweep([&] { return insert_constant(); }, is_minus_7), 2);
}

TEST_F(block_write, a_failed_insert_leaves_the_connection_to_the_caller) {
    lock_out();
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(insert_tag(), -1);
                    EXPECT_EQ(insert_constant(), -1);
                }),
                ElementsAre(tag_function + "sqlite exec database is locked\n",
                            constant_function + "sqlite exec database is locked\n"));
    EXPECT_NE(db, nullptr);
}

TEST_F(block_write, missing_arguments_are_logged) {
    const block_config tag_block = {BLOCK_TAG, nullptr, &tag, nullptr};
    const block_config constant_block = {BLOCK_CONSTANT, &constant, nullptr, nullptr};
    const block_config empty{};
    sqlite3 *none = nullptr;
    const auto messages = messages_of([&] {
        const auto add_tag = can_proprietary_conf_insert_tag_block_config;
        const auto add_constant = can_proprietary_conf_insert_constant_block_config;
        EXPECT_EQ(add_tag(nullptr, &tag_block, &inserted_tag), -1);
        EXPECT_EQ(add_tag(&none, &tag_block, &inserted_tag), -1);
        EXPECT_EQ(add_tag(&db, nullptr, &inserted_tag), -1);
        EXPECT_EQ(add_tag(&db, &empty, &inserted_tag), -1);
        EXPECT_EQ(add_tag(&db, &tag_block, nullptr), -1);
        EXPECT_EQ(add_constant(nullptr, &constant_block, &inserted_constant), -1);
        EXPECT_EQ(add_constant(db, nullptr, &inserted_constant), -1);
        EXPECT_EQ(add_constant(db, &empty, &inserted_constant), -1);
        EXPECT_EQ(add_constant(db, &constant_block, nullptr), -1);
    });
    std::vector<std::string> wanted(5, tag_function + "param fail\n");
    wanted.insert(wanted.end(), 4, constant_function + "param fail\n");
    EXPECT_EQ(messages, wanted);
}

} // namespace
