#include "config_fixture.h"

namespace {

/** What the shipped schema accepts and refuses. */
class schema : public started_gateway {
protected:
    schema() { EXPECT_EQ(run("PRAGMA foreign_keys = ON"), ""); }

    std::string run(const std::string &sql) const { return rows_of(db.get(), sql); }

    /** A device, a transaction, a frame and a block, each with key 1. */
    void add_chain() const {
        EXPECT_EQ(run("INSERT INTO device VALUES (1, 1, 'd');"
                      "INSERT INTO transactions (transactionId, deviceId) VALUES (1, 1);"
                      "INSERT INTO frame (frameId, transactionId) VALUES (1, 1);"
                      "INSERT INTO block (blockId, frameId) VALUES (1, 1)"),
                  "");
    }

    std::string counts() const {
        return run("SELECT (SELECT count(*) FROM device), (SELECT count(*) FROM transactions),"
                   " (SELECT count(*) FROM frame), (SELECT count(*) FROM block)");
    }

    connection db = connect(working_db_path());
};

struct table {
    const char *name;
    const char *columns; /* in order */
    const char *defaults;
};

// What a row holds that names nothing but its key and its parent.
constexpr table tables[] = {
    {"interface_setting",
     "portId frameFormat baudrate initialDelay busOffReset resistor",
     "3|0|3|0|0|0"},
    {"transactions",
     "transactionId deviceId transactionEnable transactionName transactionType triggerMode "
     "cyclicInterval fpFunc fpTimeout triggerByRTR consumeToutEnable consumeTimeout timeoutRetry "
     "responseTimeout",
     "1|1|1|NULL|0|0|1000|0|10000|0|0|10000|0|1000"},
    {"frame", "frameId transactionId canId dataLength frameType", "1|1|0|0|0"},
    {"block",
     "blockId frameId blockType startOffset tagName tagType tagSize access swap fpData "
     "scalingFunc interceptSlope interceptOffset pointSourceMin pointSourceMax pointTargetMin "
     "pointTargetMax constantName constantSize constantValue",
     "1|1|0|0|tag|13|1|ro|0||0|1.0|0.0|0.0|1.0|0.0|1.0|constantName|1|"},
};

TEST_F(schema, five_tables_and_no_others) {
    EXPECT_EQ(run("SELECT name FROM sqlite_schema WHERE type = 'table' ORDER BY rowid"),
              "interface_setting device transactions frame block");
}

TEST_F(schema, columns_stand_in_their_binding_order) {
    const auto columns_of = [this](const std::string &name) {
        return run("SELECT name FROM pragma_table_info('" + name + "')");
    };
    for (const table &table : tables) {
        EXPECT_EQ(columns_of(table.name), table.columns);
    }
    EXPECT_EQ(columns_of("device"), "deviceId portId deviceName");
}

TEST_F(schema, columns_have_the_defaults_of_the_import) {
    add_chain();
    EXPECT_EQ(run("INSERT INTO interface_setting DEFAULT VALUES"), "");
    for (const table &table : tables) {
        const std::string key = std::string(table.columns).substr(0, strcspn(table.columns, " "));
        EXPECT_EQ(
            run("SELECT * FROM " + std::string(table.name) + " ORDER BY " + key + " DESC LIMIT 1"),
            table.defaults);
    }
}

TEST_F(schema, port_rows_are_numbered_from_1) {
    EXPECT_EQ(run("SELECT * FROM interface_setting"), "1|0|3|0|0|0 2|0|3|0|0|0");
}

struct range {
    const char *table;
    const char *column;
    long long low;
    long long high;
};

constexpr long long int32_low = -2147483648LL;
constexpr long long int32_high = 2147483647LL;

constexpr range ranges[] = {
    {"transactions", "transactionEnable", 0, 255},
    {"transactions", "transactionType", 0, 255},
    {"transactions", "triggerMode", 0, 255},
    {"transactions", "cyclicInterval", int32_low, int32_high},
    {"transactions", "fpFunc", 0, 255},
    {"transactions", "fpTimeout", 0, 65535},
    {"transactions", "triggerByRTR", 0, 255},
    {"transactions", "consumeToutEnable", 0, 255},
    {"transactions", "consumeTimeout", 0, 65535},
    {"transactions", "timeoutRetry", 0, 255},
    {"transactions", "responseTimeout", int32_low, int32_high},
    {"frame", "canId", 0, 0x1FFFFFFF},
    {"frame", "dataLength", 0, 255},
    {"frame", "frameType", 0, 255},
    {"block", "blockType", 0, 255},
    {"block", "startOffset", 0, 255},
    {"block", "tagType", 0, 255},
    {"block", "tagSize", 0, 255},
    {"block", "swap", 0, 255},
    {"block", "scalingFunc", 0, 255},
    {"block", "constantSize", 0, 255},
    // Keys last: their change takes the children's parent away at the end of the list.
    {"block", "blockId", 0, 65535},
    {"interface_setting", "portId", 0, 255},
};

TEST_F(schema, fields_are_limited_to_what_their_records_hold) {
    add_chain();
    EXPECT_EQ(run("DELETE FROM interface_setting WHERE portId = 2"), "");
    EXPECT_EQ(run("PRAGMA foreign_keys = OFF"), "");
    for (const range &range : ranges) {
        const auto set = [&](long long value) {
            return run("UPDATE " + std::string(range.table) + " SET " + range.column + " = " +
                       std::to_string(value));
        };
        const std::string refusal = std::string("error: CHECK constraint failed: ") + range.column;
        EXPECT_EQ(set(range.low), "") << range.column;
        EXPECT_EQ(set(range.high), "") << range.column;
        EXPECT_EQ(set(range.low - 1), refusal);
        EXPECT_EQ(set(range.high + 1), refusal);
    }
}

TEST_F(schema, keys_are_limited_to_what_their_records_hold) {
    add_chain();
    const auto insert = [this](const std::string &into, long long key) {
        return run("INSERT INTO " + into + " VALUES (" + std::to_string(key) +
                   (into[0] == 'd' ? ", 1, 'a')" : ", 1)"));
    };
    const struct {
        const char *into;
        const char *key;
        long long high;
    } keys[] = {{"device (deviceId, portId, deviceName)", "deviceId", 255},
                {"transactions (transactionId, deviceId)", "transactionId", 65535},
                {"frame (frameId, transactionId)", "frameId", 65535},
                {"block (blockId, frameId)", "blockId", 65535}};
    for (const auto &key : keys) {
        const std::string refusal = std::string("error: CHECK constraint failed: ") + key.key;
        EXPECT_EQ(insert(key.into, 0), "");
        EXPECT_EQ(insert(key.into, key.high), "");
        EXPECT_EQ(insert(key.into, -1), refusal);
        EXPECT_EQ(insert(key.into, key.high + 1), refusal);
    }
}

TEST_F(schema, codes_without_a_meaning_are_accepted) {
    add_chain();
    EXPECT_EQ(run("UPDATE interface_setting SET frameFormat = -1, baudrate = 99,"
                  " initialDelay = -5, busOffReset = 2, resistor = 3"),
              "");
    EXPECT_EQ(run("UPDATE block SET blockType = 5, tagType = 14, tagSize = 0, swap = 9"), "");
    EXPECT_EQ(run("UPDATE block SET startOffset = 7, tagSize = 8, tagType = 8"), "");
}

TEST_F(schema, texts_may_be_null_or_long_where_readers_take_them) {
    add_chain();
    EXPECT_EQ(run("UPDATE transactions SET transactionName = NULL"), "");
    EXPECT_EQ(run("UPDATE block SET tagName = NULL, access = NULL, fpData = NULL,"
                  " constantName = NULL, constantValue = NULL"),
              "");
    EXPECT_EQ(run("UPDATE block SET access = 'rw+', fpData = printf('%040d', 0)"), "");
}

TEST_F(schema, device_number_255_fits_and_256_does_not) {
    EXPECT_EQ(run("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 255)"
                  " INSERT INTO device SELECT i, 1, 'd' || i FROM n"),
              "");
    EXPECT_EQ(run("INSERT INTO device (deviceName, portId) VALUES ('more', 1)"),
              "error: device is full");
    EXPECT_EQ(run("INSERT INTO device VALUES (0, 1, 'more')"), "error: device is full");
    EXPECT_EQ(run("SELECT count(*) FROM device"), "255");
    EXPECT_EQ(run("DELETE FROM device WHERE deviceId = 7"), "");
    EXPECT_EQ(run("INSERT INTO device VALUES (7, 1, 'again')"), "");
}

TEST_F(schema, transaction_number_512_fits_and_513_does_not) {
    add_chain();
    EXPECT_EQ(run("WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 512)"
                  " INSERT INTO transactions (transactionId, deviceId) SELECT i, 1 FROM n"),
              "");
    EXPECT_EQ(run("INSERT INTO transactions (deviceId) VALUES (1)"), "error: transactions is full");
    EXPECT_EQ(run("SELECT count(*) FROM transactions"), "512");
    EXPECT_EQ(run("UPDATE transactions SET transactionName = 'x'"), "");
    EXPECT_EQ(run("DELETE FROM transactions WHERE transactionId = 7"), "");
    EXPECT_EQ(run("INSERT INTO transactions (deviceId) VALUES (1)"), "");
}

TEST_F(schema, child_needs_its_parent) {
    const std::string refusal = "error: FOREIGN KEY constraint failed";
    EXPECT_EQ(run("INSERT INTO device VALUES (1, 3, 'd')"), refusal);
    EXPECT_EQ(run("INSERT INTO transactions (deviceId) VALUES (1)"), refusal);
    EXPECT_EQ(run("INSERT INTO frame (transactionId) VALUES (1)"), refusal);
    EXPECT_EQ(run("INSERT INTO block (frameId) VALUES (1)"), refusal);
    EXPECT_EQ(counts(), "0|0|0|0");
}

TEST_F(schema, children_go_with_their_parent) {
    add_chain();
    EXPECT_EQ(run("DELETE FROM frame"), "");
    EXPECT_EQ(counts(), "1|1|0|0");
    EXPECT_EQ(run("DELETE FROM device; "), "");
    add_chain();
    EXPECT_EQ(run("DELETE FROM transactions"), "");
    EXPECT_EQ(counts(), "1|0|0|0");
    EXPECT_EQ(run("DELETE FROM device"), "");
    add_chain();
    EXPECT_EQ(run("DELETE FROM interface_setting WHERE portId = 1"), "");
    EXPECT_EQ(counts(), "0|0|0|0");
}

TEST_F(schema, hexadecimal_identifiers_are_numbers) {
    add_chain();
    EXPECT_EQ(run("UPDATE frame SET canId = 0x1FFFFFFF"), "");
    EXPECT_EQ(run("SELECT canId FROM frame"), "536870911");
    EXPECT_EQ(run("UPDATE frame SET canId = 0x20000000"), "error: CHECK constraint failed: canId");
}

} // namespace
