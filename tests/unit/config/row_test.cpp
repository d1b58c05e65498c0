#include "allocation_fault.h"
#include "captured_log.h"
#include "config/row.h"

#include <gmock/gmock.h>
#include <memory>
#include <string>

namespace {

using ::testing::ElementsAre;

template <typename Record, void (*Free)(Record *)>
struct owned {
    ~owned() { Free(record); }
    Record *operator->() const { return record; }
    Record *record = static_cast<Record *>(calloc(1, sizeof(Record)));
};

using owned_block = owned<block_config, conf_free_block_list>;
using owned_device = owned<device_config, conf_free_device>;
using owned_transaction = owned<transaction_config, conf_free_transaction>;

/** Rows made of literal values, so that they can hold what no schema accepts. */
class row : public ::testing::Test {
protected:
    row() { EXPECT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK); }
    ~row() override {
        EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
        EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
    }

    sqlite3_stmt *of(const std::string &values) {
        EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
        const std::string sql = "VALUES (" + values + ")";
        EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
        EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
        return statement;
    }

    static std::string tag(const std::string &name,
                           const std::string &access = "'ro'",
                           const std::string &fpData = "''") {
        return "1, 2, 0, 3, " + name + ", 4, 5, " + access + ", 6, " + fpData +
               ", 2, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 'c', 7, '08'";
    }

    static std::string constant(const std::string &value, const std::string &name = "'c'") {
        return "1, 2, 1, 3, 't', 4, 5, 'ro', 6, '', 0, 1, 0, 0, 1, 0, 1, " + name + ", 7, " + value;
    }

    sqlite3 *db = nullptr;
    sqlite3_stmt *statement = nullptr;
};

TEST_F(row, interface_columns_by_position) {
    interface_config record{};
    interface_get_row(of("2, 1, 7, 120000, 1, 0"), &record);
    EXPECT_EQ(record.portId, 2);
    EXPECT_EQ(record.frameFormat, 1);
    EXPECT_EQ(record.baudrate, 7);
    EXPECT_EQ(record.initialDelay, 120000);
    EXPECT_TRUE(record.busOffReset);
    EXPECT_FALSE(record.resistor);
}

TEST_F(row, every_switch_but_0_is_on) {
    interface_config record{};
    for (const char *value : {"1", "2", "256", "-1", "4294967296", "0.5"}) {
        interface_get_row(of("1, 0, 0, 0, " + std::string(value) + ", " + value), &record);
        EXPECT_TRUE(record.busOffReset && record.resistor) << value;
    }
    interface_get_row(of("1, 0, 0, 0, 0, NULL"), &record);
    EXPECT_FALSE(record.busOffReset || record.resistor);
}

TEST_F(row, signed_columns_hold_all_32_bits) {
    interface_config record{};
    interface_get_row(of("255, -2147483648, 2147483647, -1, 0, 0"), &record);
    EXPECT_EQ(record.portId, 255);
    EXPECT_EQ(record.frameFormat, INT32_MIN);
    EXPECT_EQ(record.baudrate, INT32_MAX);
    EXPECT_EQ(record.initialDelay, -1);
}

TEST_F(row, device_columns_by_position) {
    const owned_device record;
    EXPECT_EQ(device_get_row(of("255, 2, 'name'"), record.record), 0);
    EXPECT_EQ(record->deviceId, 255);
    EXPECT_EQ(record->portId, 2);
    EXPECT_STREQ(record->deviceName, "name");
}

TEST_F(row, text_of_a_record_read_again_is_replaced) {
    const owned_device record;
    EXPECT_EQ(device_get_row(of("1, 1, 'first'"), record.record), 0);
    EXPECT_EQ(device_get_row(of("1, 1, 'second'"), record.record), 0);
    EXPECT_STREQ(record->deviceName, "second");
}

TEST_F(row, transaction_columns_by_position) {
    const owned_transaction record;
    EXPECT_EQ(
        transaction_get_row(of("65535, 255, 1, 'name', 2, 3, -4, 5, 65535, 7, 8, 65534, 10, -11"),
                            record.record),
        0);
    EXPECT_EQ(record->transactionId, 65535);
    EXPECT_EQ(record->deviceId, 255);
    EXPECT_EQ(record->transactionEnable, 1);
    EXPECT_STREQ(record->transactionName, "name");
    EXPECT_EQ(record->transactionType, 2);
    EXPECT_EQ(record->triggerMode, 3);
    EXPECT_EQ(record->cyclicInterval, -4);
    EXPECT_EQ(record->fpFunc, 5);
    EXPECT_EQ(record->fpTimeout, 65535);
    EXPECT_EQ(record->triggerByRTR, 7);
    EXPECT_EQ(record->consumeToutEnable, 8);
    EXPECT_EQ(record->consumeTimeout, 65534);
    EXPECT_EQ(record->timeoutRetry, 10);
    EXPECT_EQ(record->responseTimeout, -11);
}

TEST_F(row, values_wider_than_their_field_are_cut) {
    const owned_transaction record;
    EXPECT_EQ(transaction_get_row(of("1, 1, 256, '', 257, 258, 4294967297, 259, 65536, 260, 261,"
                                     " 65537, 262, 4294967298"),
                                  record.record),
              0);
    EXPECT_EQ(record->transactionEnable, 0);
    EXPECT_EQ(record->transactionType, 1);
    EXPECT_EQ(record->triggerMode, 2);
    EXPECT_EQ(record->cyclicInterval, 1);
    EXPECT_EQ(record->fpFunc, 3);
    EXPECT_EQ(record->fpTimeout, 0);
    EXPECT_EQ(record->triggerByRTR, 4);
    EXPECT_EQ(record->consumeToutEnable, 5);
    EXPECT_EQ(record->consumeTimeout, 1);
    EXPECT_EQ(record->timeoutRetry, 6);
    EXPECT_EQ(record->responseTimeout, 2);
}

TEST_F(row, frame_columns_by_position) {
    frame_config record{};
    frame_get_row(of("65535, 65534, 0x1FFFFFFF, 8, 3"), &record);
    EXPECT_EQ(record.frameId, 65535);
    EXPECT_EQ(record.transactionId, 65534);
    EXPECT_EQ(record.canId, 0x1FFFFFFF);
    EXPECT_EQ(record.dataLength, 8);
    EXPECT_EQ(record.frameType, 3);
}

TEST_F(row, frame_and_block_values_wider_than_their_field_are_cut) {
    frame_config frame{};
    frame_get_row(of("1, 1, 4294967297, 264, 259"), &frame);
    EXPECT_EQ(frame.canId, 1);
    EXPECT_EQ(frame.dataLength, 8);
    EXPECT_EQ(frame.frameType, 3);
    const owned_block tag_block;
    EXPECT_EQ(block_get_row(of("1, 1, 0, 257, 't', 258, 259, 'ro', 260, '', 261, 1, 0, 0, 1, 0, 1,"
                               " 'c', 1, ''"),
                            tag_block.record),
              0);
    EXPECT_EQ(tag_block->tag->startOffset, 1);
    EXPECT_EQ(tag_block->tag->tagType, 2);
    EXPECT_EQ(tag_block->tag->tagSize, 3);
    EXPECT_EQ(tag_block->tag->swap, 4);
    EXPECT_EQ(tag_block->tag->scalingFunc, 5);
    const owned_block constant_block;
    EXPECT_EQ(block_get_row(of("1, 1, 1, 257, 't', 1, 1, 'ro', 0, '', 0, 1, 0, 0, 1, 0, 1,"
                               " 'c', 258, ''"),
                            constant_block.record),
              0);
    EXPECT_EQ(constant_block->constant->startOffset, 1);
    EXPECT_EQ(constant_block->constant->constantSize, 2);
}

TEST_F(row, tag_block_columns_by_position) {
    const owned_block record;
    EXPECT_EQ(block_get_row(of(tag("'name'", "'wo'", "'0123456789ABCDEF'")), record.record), 0);
    EXPECT_EQ(record->blockType, 0);
    EXPECT_EQ(record->constant, nullptr);
    ASSERT_NE(record->tag, nullptr);
    EXPECT_EQ(record->tag->blockId, 1);
    EXPECT_EQ(record->tag->frameId, 2);
    EXPECT_EQ(record->tag->startOffset, 3);
    EXPECT_STREQ(record->tag->tagName, "name");
    EXPECT_EQ(record->tag->tagType, 4);
    EXPECT_EQ(record->tag->tagSize, 5);
    EXPECT_STREQ(record->tag->access, "wo");
    EXPECT_EQ(record->tag->swap, 6);
    EXPECT_STREQ(record->tag->fpData, "0123456789ABCDEF");
    EXPECT_EQ(record->tag->scalingFunc, 2);
}

TEST_F(row, point_columns_win_the_two_shared_scaling_slots) {
    const owned_block record;
    EXPECT_EQ(block_get_row(of(tag("'name'")), record.record), 0);
    EXPECT_EQ(record->tag->scaling.a, 3.5);
    EXPECT_EQ(record->tag->scaling.b, 4.5);
    EXPECT_EQ(record->tag->scaling.c, 5.5);
    EXPECT_EQ(record->tag->scaling.d, 6.5);
}

TEST_F(row, intercept_that_was_written_to_both_columns_reads_back) {
    const owned_block record;
    EXPECT_EQ(block_get_row(of("1, 2, 0, 0, 't', 7, 4, 'ro', 0, '', 1, 2.5, 1, 2.5, 1, 0, 1,"
                               " 'c', 1, ''"),
                            record.record),
              0);
    EXPECT_EQ(record->tag->scalingFunc, 1);
    EXPECT_EQ(record->tag->scaling.a, 2.5);
    EXPECT_EQ(record->tag->scaling.b, 1);
}

TEST_F(row, fixed_texts_are_cut_at_their_length) {
    const std::string digits = "0123456789ABCDEFfedcba98";
    for (const std::string &more : {std::string(), std::string("7"), std::string(300, '6')}) {
        const owned_block record;
        EXPECT_EQ(block_get_row(of(tag("'n'", "'rw" + more + "'", "'" + digits + more + "'")),
                                record.record),
                  0);
        EXPECT_STREQ(record->tag->access, "rw");
        EXPECT_STREQ(record->tag->fpData, digits.c_str());
    }
}

TEST_F(row, null_texts_read_as_empty) {
    const owned_block tags;
    EXPECT_EQ(block_get_row(of(tag("NULL", "NULL", "NULL")), tags.record), 0);
    EXPECT_STREQ(tags->tag->tagName, "");
    EXPECT_STREQ(tags->tag->access, "");
    EXPECT_STREQ(tags->tag->fpData, "");
    const owned_block constants;
    EXPECT_EQ(block_get_row(of(constant("NULL", "NULL")), constants.record), 0);
    EXPECT_STREQ(constants->constant->constantName, "");
    EXPECT_EQ(constants->constant->constantValue, 0U);
    const owned_transaction transactions;
    EXPECT_EQ(
        transaction_get_row(of("1, 1, 1, NULL, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0"), transactions.record),
        0);
    EXPECT_STREQ(transactions->transactionName, "");
}

TEST_F(row, constant_block_columns_by_position) {
    const owned_block record;
    EXPECT_EQ(block_get_row(of(constant("'0102'", "'name'")), record.record), 0);
    EXPECT_EQ(record->blockType, 1);
    EXPECT_EQ(record->tag, nullptr);
    ASSERT_NE(record->constant, nullptr);
    EXPECT_EQ(record->constant->blockId, 1);
    EXPECT_EQ(record->constant->frameId, 2);
    EXPECT_EQ(record->constant->startOffset, 3);
    EXPECT_STREQ(record->constant->constantName, "name");
    EXPECT_EQ(record->constant->constantSize, 7);
    EXPECT_EQ(record->constant->constantValue, 0x0102U);
}

TEST_F(row, other_kinds_of_blocks_are_refused) {
    for (const char *kind : {"2", "5", "255", "-1", "256", "257"}) {
        const owned_block record;
        sqlite3_stmt *made = of("1, 2, " + std::string(kind) +
                                ", 0, 't', 1, 1, 'ro', 0, '', 0, 1,"
                                " 0, 0, 1, 0, 1, 'c', 1, '00'");
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(block_get_row(made, record.record), -1); }),
                    ElementsAre("block_get_row|param fail\n"));
        EXPECT_EQ(record->tag, nullptr);
        EXPECT_EQ(record->constant, nullptr);
    }
}

TEST_F(row, key_is_read_at_full_width) {
    EXPECT_EQ(key_of_row(of("300")), 300);
    EXPECT_EQ(key_of_row(of("65536")), 65536);
}

TEST_F(row, want_of_memory_gives_minus_7) {
    for (const std::string &values : {tag("'name'"), constant("'01'")}) {
        sqlite3_stmt *made = of(values);
        const int failures = allocation_fault::sweep(
            [made] {
                block_config record{};
                const int result = block_get_row(made, &record);
                free(record.tag != nullptr ? record.tag->tagName : nullptr);
                free(record.tag);
                free(record.constant != nullptr ? record.constant->constantName : nullptr);
                free(record.constant);
                return result;
            },
            [](int result, int nth) { EXPECT_EQ(result, -7) << nth; });
        EXPECT_EQ(failures, 2);
    }
}

TEST(constant_value, first_byte_is_the_most_significant) {
    EXPECT_EQ(parse_constant_value("0102"), 0x0102U);
    EXPECT_EQ(parse_constant_value("0123456789abcdef"), 0x0123456789ABCDEFU);
    EXPECT_EQ(parse_constant_value("FFFFFFFFFFFFFFFF"), UINT64_MAX);
    EXPECT_EQ(parse_constant_value("00"), 0U);
}

TEST(constant_value, odd_text_lacks_its_first_digit) {
    EXPECT_EQ(parse_constant_value("ABC"), 0x0ABCU);
    EXPECT_EQ(parse_constant_value("1"), 1U);
    EXPECT_EQ(parse_constant_value("123456789ABCDEF"), 0x0123456789ABCDEFU);
}

TEST(constant_value, digits_beyond_16_do_not_count) {
    EXPECT_EQ(parse_constant_value("0123456789ABCDEF55"), 0x0123456789ABCDEFU);
    EXPECT_EQ(parse_constant_value("123456789ABCDEF55"), 0x0123456789ABCDEFU);
    EXPECT_EQ(parse_constant_value(std::string(5001, '1').c_str()), 0x0111111111111111U);
}

TEST(constant_value, text_without_digits_is_0) {
    EXPECT_EQ(parse_constant_value(""), 0U);
    EXPECT_EQ(parse_constant_value("xyz"), 0U);
    EXPECT_EQ(parse_constant_value("0x12"), 0U);
}

} // namespace
