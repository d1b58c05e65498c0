#include "config/tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using names = std::vector<std::string>;

std::vector<table_id> all_tables() {
    return {TABLE_INTERFACE, TABLE_DEVICE, TABLE_TRANSACTIONS, TABLE_FRAME, TABLE_BLOCK};
}

/** Columns that a row's values make relevant, those that always are left out. */
names switched_on(table_id id, const std::vector<std::pair<uint8_t, int32_t>> &values) {
    const table &table = table_of(id);
    uint16_t known = 0;
    for (const auto &[column, value] : values) {
        known = static_cast<uint16_t>(known | relevance_of(table, column, value, known));
    }
    names found;
    for (const column &column : table.columns) {
        if (column.when != ALWAYS && is_relevant(column, known)) {
            found.emplace_back(column.name);
        }
    }
    return found;
}

TEST(tables, names_and_section_heads_in_the_order_of_a_file) {
    names tables;
    names heads;
    for (const table_id id : all_tables()) {
        tables.emplace_back(table_of(id).name);
        heads.emplace_back(table_of(id).head);
    }
    EXPECT_THAT(tables,
                ElementsAre("interface_setting", "device", "transactions", "frame", "block"));
    EXPECT_THAT(
        heads,
        ElementsAre("[interface-setting]", "[device]", "[transactions]", "[frame]", "[block]"));
}

TEST(tables, header_lines) {
    EXPECT_STREQ(table_of(TABLE_INTERFACE).header,
                 "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor");
    EXPECT_STREQ(table_of(TABLE_DEVICE).header, "deviceId,portId,deviceName");
    EXPECT_STREQ(table_of(TABLE_TRANSACTIONS).header,
                 "transactionId,deviceId,transactionEnable,transactionName,transactionType,"
                 "triggerMode,cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,"
                 "consumeTimeout,timeoutRetry,responseTimeout");
    EXPECT_STREQ(table_of(TABLE_FRAME).header, "frameId,transactionId,canId,dataLength,frameType");
    EXPECT_STREQ(table_of(TABLE_BLOCK).header,
                 "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
                 "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,"
                 "pointTargetMin,pointTargetMax,constantName,constantSize,constantValue");
}

TEST(tables, a_header_line_is_its_columns) {
    for (const table_id id : all_tables()) {
        std::string joined;
        for (const column &column : table_of(id).columns) {
            joined += (joined.empty() ? "" : ",") + std::string(column.name);
        }
        EXPECT_EQ(joined, table_of(id).header);
    }
}

TEST(tables, defaults_of_the_columns) {
    const auto defaults = [](table_id id) {
        names found;
        for (const column &column : table_of(id).columns) {
            found.emplace_back(column.fallback);
        }
        return found;
    };
    EXPECT_THAT(defaults(TABLE_INTERFACE), ElementsAre("-1", "0", "3", "0", "0", "0"));
    EXPECT_THAT(defaults(TABLE_DEVICE), ElementsAre("-1", "-1", "'device'"));
    EXPECT_EQ(defaults(TABLE_TRANSACTIONS),
              (names{"-1",
                     "-1",
                     "1",
                     "NULL",
                     "0",
                     "0",
                     "1000",
                     "0",
                     "10000",
                     "0",
                     "0",
                     "10000",
                     "0",
                     "1000"}));
    EXPECT_THAT(defaults(TABLE_FRAME), ElementsAre("-1", "-1", "0", "0", "0"));
    EXPECT_EQ(defaults(TABLE_BLOCK),
              (names{"-1", "-1", "0", "0", "'tag'", "13", "1", "'ro'",           "0", "''",
                     "0",  "1",  "0", "0", "1",     "0",  "1", "'constantName'", "1", "''"}));
}

TEST(tables, every_column_of_interfaces_devices_and_frames_is_relevant) {
    for (const table_id id : {TABLE_INTERFACE, TABLE_DEVICE, TABLE_FRAME}) {
        for (const column &column : table_of(id).columns) {
            EXPECT_TRUE(is_relevant(column, 0)) << column.name;
        }
        EXPECT_TRUE(table_of(id).activations.empty());
    }
}

TEST(tables, columns_that_a_transaction_type_switches_on) {
    const auto by_type = [](int32_t type) { return switched_on(TABLE_TRANSACTIONS, {{4, type}}); };
    EXPECT_THAT(by_type(0), ElementsAre("triggerMode", "fpFunc", "triggerByRTR"));
    EXPECT_THAT(by_type(1), ElementsAre("consumeToutEnable"));
    EXPECT_THAT(by_type(2),
                ElementsAre("triggerMode", "fpFunc", "timeoutRetry", "responseTimeout"));
    for (const int32_t type : {-1, 3, 255, INT32_MAX, INT32_MIN}) {
        EXPECT_THAT(by_type(type), IsEmpty()) << type;
    }
}

TEST(tables, columns_that_a_transactions_modes_switch_on) {
    const auto by = [](int32_t type, uint8_t column, int32_t value) {
        names found = switched_on(TABLE_TRANSACTIONS, {{4, type}, {column, value}});
        const names plain = switched_on(TABLE_TRANSACTIONS, {{4, type}});
        std::erase_if(found, [&](const std::string &name) {
            return std::find(plain.begin(), plain.end(), name) != plain.end();
        });
        return found;
    };
    constexpr uint8_t trigger = 5;
    constexpr uint8_t protection = 7;
    constexpr uint8_t timeout = 10;
    for (const int32_t type : {0, 2}) {
        EXPECT_THAT(by(type, trigger, 0), ElementsAre("cyclicInterval"));
        EXPECT_THAT(by(type, protection, 1), ElementsAre("fpTimeout"));
        EXPECT_THAT(by(type, protection, 2), ElementsAre("fpTimeout"));
        for (const int32_t other : {-1, 1, 2, 3}) {
            EXPECT_THAT(by(type, trigger, other), IsEmpty()) << other;
        }
        for (const int32_t other : {-1, 0, 3}) {
            EXPECT_THAT(by(type, protection, other), IsEmpty()) << other;
        }
        EXPECT_THAT(by(type, timeout, 1), IsEmpty());
    }
    EXPECT_THAT(by(1, timeout, 1), ElementsAre("consumeTimeout"));
    for (const int32_t other : {-1, 0, 2}) {
        EXPECT_THAT(by(1, timeout, other), IsEmpty()) << other;
    }
    EXPECT_THAT(by(1, trigger, 0), IsEmpty());
    EXPECT_THAT(by(1, protection, 2), IsEmpty());
    EXPECT_THAT(by(3, trigger, 0), IsEmpty());
}

TEST(tables, columns_that_a_block_type_switches_on) {
    EXPECT_THAT(switched_on(TABLE_BLOCK, {{2, 0}}),
                ElementsAre("tagName", "tagType", "tagSize", "access", "swap"));
    EXPECT_THAT(switched_on(TABLE_BLOCK, {{2, 1}}),
                ElementsAre("constantName", "constantSize", "constantValue"));
    for (const int32_t type : {-1, 2, 255}) {
        EXPECT_THAT(switched_on(TABLE_BLOCK, {{2, type}}), IsEmpty()) << type;
    }
}

TEST(tables, tag_types_up_to_12_take_a_scaling) {
    const auto scalable = [](int32_t block_type, int32_t tag_type) {
        const names found = switched_on(TABLE_BLOCK, {{2, block_type}, {5, tag_type}});
        return std::find(found.begin(), found.end(), "scalingFunc") != found.end();
    };
    for (const int32_t type : {INT32_MIN, -1, 0, 1, 11, 12}) {
        EXPECT_TRUE(scalable(0, type)) << type;
        EXPECT_FALSE(scalable(1, type)) << type;
    }
    for (const int32_t type : {13, 14, 255, INT32_MAX}) {
        EXPECT_FALSE(scalable(0, type)) << type;
    }
}

TEST(tables, columns_that_a_scaling_switches_on) {
    const auto by = [](int32_t tag_type, int32_t function) {
        names found = switched_on(TABLE_BLOCK, {{2, 0}, {5, tag_type}, {10, function}});
        std::erase_if(found, [](const std::string &name) {
            return name.rfind("intercept", 0) != 0 && name.rfind("point", 0) != 0;
        });
        return found;
    };
    EXPECT_THAT(by(12, 0), IsEmpty());
    EXPECT_THAT(by(12, 1), ElementsAre("interceptSlope", "interceptOffset"));
    EXPECT_THAT(
        by(12, 2),
        ElementsAre("pointSourceMin", "pointSourceMax", "pointTargetMin", "pointTargetMax"));
    EXPECT_THAT(by(12, 3), IsEmpty());
    EXPECT_THAT(by(12, -1), IsEmpty());
    EXPECT_THAT(by(13, 1), IsEmpty());
    EXPECT_THAT(by(13, 2), IsEmpty());
}

} // namespace
