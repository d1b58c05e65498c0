#include "config/config_file.h"
#include "raised_keys.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

struct classification {
    std::string message;
    const char *prefix;
    const char *key;
    std::string column_name;
};

void expect_classified(const classification &row) {
    conf_import_error err{};
    classify_import_error(&err, row.message.c_str(), row.prefix);
    EXPECT_STREQ(err.key, row.key) << row.message;
    EXPECT_EQ(err.column_name, row.column_name) << row.message;
}

TEST(import_error, no_message_is_a_syntax_error) {
    conf_import_error err{};
    classify_import_error(&err, nullptr, "device.");
    EXPECT_STREQ(err.key, "syntax-err");
    EXPECT_STREQ(err.column_name, "");
}

TEST(import_error, a_key_that_a_trigger_raises_is_the_key) {
    for (const std::string key : raised_keys) {
        expect_classified({key, "device.", key.c_str(), ""});
        expect_classified({"Error: " + key + " in there", "device.", key.c_str(), ""});
        expect_classified({key + "x", "device.", key.c_str(), ""});
    }
}

TEST(import_error, the_text_behind_a_raised_key_is_the_column) {
    for (const std::string key : raised_keys) {
        expect_classified({key + ":deviceName", "device.", key.c_str(), "deviceName"});
        expect_classified({"x " + key + ":a b:c", "device.", key.c_str(), "a b:c"});
        expect_classified({key + ": b", "device.", key.c_str(), " b"});
        expect_classified({key + ":", "device.", key.c_str(), ""});
        expect_classified({key + " :b", "device.", key.c_str(), ""});
        const std::string longest(49, 'n');
        expect_classified({key + ":" + longest, "device.", key.c_str(), longest});
        expect_classified({key + ":" + longest + "m", "device.", key.c_str(), longest});
    }
}

TEST(import_error, of_two_raised_keys_the_earlier_of_the_list_wins) {
    for (size_t i = 0; i + 1 < std::size(raised_keys); i++) {
        const std::string early = raised_keys[i];
        const std::string late = raised_keys[i + 1];
        expect_classified({late + ":x " + early + ":y", "device.", early.c_str(), "y"});
    }
}

TEST(import_error, a_raised_key_goes_before_what_sqlite_says) {
    for (const char *text : {"device is full",
                             "transactions is full",
                             "FOREIGN KEY constraint failed",
                             "CHECK constraint failed: x",
                             "UNIQUE constraint failed: device.x"}) {
        expect_classified({text + std::string(" invalid-frame"), "device.", "invalid-frame", ""});
    }
}

TEST(import_error, messages_of_sqlite_and_of_the_schema) {
    const classification rows[] = {
        {"device is full", "device.", "table-full", ""},
        {"transactions is full", "transactions.", "table-full", ""},
        {"transactions is full", "device.", "table-full", ""},
        {"the device is full now", "device.", "table-full", ""},
        {"Device is full", "device.", "syntax-err", ""},
        {"frame is full", "frame.", "syntax-err", ""},
        {"FOREIGN KEY constraint failed", "frame.", "foreign-key-constraint-failed", ""},
        {"FOREIGN KEY constraint", "frame.", "foreign-key-constraint-failed", ""},
        {"foreign key constraint failed", "frame.", "syntax-err", ""},
        {"CHECK constraint failed: portId", "device.", "check-constraint-failed", "portId"},
        {"CHECK constraint failed: a: b", "device.", "check-constraint-failed", "a: b"},
        {"x: CHECK constraint failed: b", "device.", "check-constraint-failed", "b"},
        {"CHECK constraint failed", "device.", "check-constraint-failed", ""},
        {"CHECK constraint failed:portId", "device.", "check-constraint-failed", ""},
        {"UNIQUE constraint failed: device.deviceId", "device.", "unique-constraint", "deviceId"},
        {"UNIQUE constraint failed: block.frameId, block.tagName",
         "block.",
         "unique-constraint",
         "frameId,tagName"},
        {"UNIQUE constraint failed: block.frameId, block.tagName x",
         "block.",
         "unique-constraint",
         "frameId,tagName"},
        {"UNIQUE constraint failed: device.deviceId", "frame.", "unique-constraint", ""},
        {"UNIQUE constraint failed", "frame.", "unique-constraint", ""},
        {"NOT NULL constraint failed: device.portId", "device.", "syntax-err", ""},
        {"near \"x\": syntax error", "device.", "syntax-err", ""},
        {"no such column: abc", "device.", "syntax-err", ""},
        {"datatype mismatch", "device.", "syntax-err", ""},
        {"database is locked", "device.", "syntax-err", ""},
        {"", "device.", "syntax-err", ""},
    };
    for (const classification &row : rows) {
        expect_classified(row);
    }
}

TEST(import_error, the_order_of_the_messages) {
    expect_classified({"FOREIGN KEY constraint: device is full", "device.", "table-full", ""});
    expect_classified({"CHECK constraint failed: FOREIGN KEY constraint",
                       "device.",
                       "foreign-key-constraint-failed",
                       ""});
    expect_classified({"UNIQUE constraint failed: device.x CHECK constraint failed: y",
                       "device.",
                       "check-constraint-failed",
                       "y"});
}

TEST(import_error, column_names_are_bounded) {
    const std::string longest(49, 'c');
    expect_classified(
        {"CHECK constraint failed: " + longest, "device.", "check-constraint-failed", longest});
    expect_classified({"CHECK constraint failed: " + longest + "d",
                       "device.",
                       "check-constraint-failed",
                       longest});
    expect_classified(
        {"UNIQUE constraint failed: device." + longest, "device.", "unique-constraint", longest});
    expect_classified({"UNIQUE constraint failed: device." + std::string(30, 'a') + ", device." +
                           std::string(30, 'b'),
                       "device.",
                       "unique-constraint",
                       std::string(30, 'a') + "," + std::string(18, 'b')});
}

TEST(import_error, only_key_and_column_name_are_filled) {
    conf_import_error err{};
    err.line = 7;
    err.column = 3;
    strcpy(err.table_name, "device");
    classify_import_error(&err, "CHECK constraint failed: portId", "device.");
    EXPECT_EQ(err.line, 7);
    EXPECT_EQ(err.column, 3);
    EXPECT_STREQ(err.table_name, "device");
}

} // namespace
