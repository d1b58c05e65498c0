#include "import_fixture.h"
#include "raised_keys.h"

namespace {

/** One row on its way from the file into its table. */
class import_row : public importing {
protected:
    /** The file with that section replaced. */
    static file_rows with(int section, const std::string &rows) {
        file_rows file;
        file.section[section] = rows;
        for (int below = section + 1; below < 5; below++) {
            file.section[below].clear(); // what would refer to rows that are gone
        }
        return file;
    }

    static file_rows transaction(const std::string &row) { return with(2, row + "\n"); }
    static file_rows block(const std::string &row) { return with(4, row + "\n"); }

    /** The row, read back. */
    std::string stored(int section, const std::string &row) {
        // Transactions without frames pass because the frame section comes before them.
        std::string text;
        const file_rows file = with(section, row + "\n");
        const int order[] = {0, 1, section == 2 ? 3 : 2, section == 2 ? 2 : 3, 4};
        for (const int i : order) {
            text += section_tops[i] + file.section[i] + "\n";
        }
        EXPECT_EQ(import(text), 0) << row << " " << err.key;
        return committed(std::string("SELECT * FROM ") + table_names[section]);
    }
};

/** A row with the fields of a section's columns, comma-separated, some of them left empty. */
std::string without_field(const std::string &row, int column) {
    std::string result;
    int at = 1;
    for (const char c : row) {
        at += c == ',' ? 1 : 0;
        result += at == column && c != ',' ? "" : std::string(1, c);
    }
    return result;
}

TEST_F(import_row, every_relevant_column_must_have_a_value) {
    const struct {
        int section;
        std::string row;
        std::vector<int> columns;
    } rows[] = {
        {0, "1,0,3,0,0,0", {1, 2, 3, 4, 5, 6}},
        {1, "1,1,drive", {1, 2, 3}},
        {2, "1,1,1,n,0,0,500,1,300,1,,,,", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {2, "1,1,1,n,1,,,,,,1,200,,", {1, 2, 3, 4, 5, 11, 12}},
        {2, "1,1,1,n,2,0,500,2,300,,,,3,250", {1, 2, 3, 4, 5, 6, 7, 8, 9, 13, 14}},
        {3, "1,1,181,8,1", {1, 2, 3, 4, 5}},
        {4, "1,2,0,0,n,12,2,ro,1,0102,1,2,3,,,,,,,", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}},
        {4, "1,1,0,0,n,1,2,ro,1,,2,,,1,2,3,4,,,", {1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 14, 15, 16, 17}},
        {4, "1,1,1,0,,,,,,,,,,,,,,n,1,5A", {1, 2, 3, 4, 18, 19, 20}},
    };
    for (const auto &row : rows) {
        for (const int column : row.columns) {
            const std::string line = without_field(row.row, column);
            const file_rows file = with(row.section, line + "\n");
            EXPECT_THAT(
                refused(file, "missing-necessary-parameter", table_names[row.section], 1, column),
                ElementsAre(missing_message(readers[row.section], 1, column)))
                << line;
        }
    }
}

TEST_F(import_row, the_word_NULL_is_no_value) {
    EXPECT_THAT(refused(with(1, "1,1,NULL\n"), "missing-necessary-parameter", "device", 1, 3),
                ElementsAre(missing_message(readers[1], 1, 3)));
    EXPECT_EQ(stored(1, "1,1,NULLs"), "1|1|NULLs");
    EXPECT_EQ(stored(1, "1,1,null"), "1|1|null");
}

TEST_F(import_row, what_a_row_lacks_at_its_end) {
    const struct {
        int section;
        std::string row;
        int column;
    } rows[] = {{0, "1,0,3,0,0", 6},
                {0, "1", 2},
                {1, "1,1", 3},
                {1, "1", 2},
                {3, "1,1,181,8", 5},
                {3, "1", 2}};
    for (const auto &row : rows) {
        EXPECT_THAT(refused(with(row.section, row.row + "\n"),
                            "missing-necessary-parameter",
                            table_names[row.section],
                            1,
                            row.column),
                    ElementsAre(missing_message(readers[row.section], 1, row.column)));
    }
}

TEST_F(import_row, a_transaction_or_block_with_too_few_columns_is_an_invalid_value) {
    const std::string transaction_row = "1,1,1,n,1,,,,,,1,200,,";
    const std::string block_row = "1,1,0,0,n,13,1,ro,0,,,,,,,,,,,";
    for (const auto &[section, row] : {std::pair(2, transaction_row), std::pair(4, block_row)}) {
        int column = section == 2 ? 14 : 20;
        for (std::string line = row; column > 1; column--) {
            line = line.substr(0, line.rfind(','));
            EXPECT_THAT(
                refused(with(section, line + "\n"), "invalid-val", table_names[section], 1, column),
                ElementsAre(short_message(readers[section], 1, column)))
                << line;
        }
    }
}

TEST_F(import_row, fields_beyond_the_columns_are_ignored) {
    EXPECT_EQ(stored(1, "1,1,drive,x'y,(,;,"), "1|1|drive");
    EXPECT_EQ(stored(3, "1,1,181,8,1,'\n2,2,201,2,0\n3,3,1,1,2\n4,3,2,1,3"),
              "1|1|385|8|1 2|2|513|2|0 3|3|1|1|2 4|3|2|1|3");
}

TEST_F(import_row, a_column_that_is_not_relevant_holds_its_default_whatever_the_field_says) {
    const std::string any = "1,1,1,n,TYPE,7,77,7,77,7,7,77,7,77";
    const auto by_type = [&](const std::string &type) {
        return stored(2, replaced(any, "TYPE", type));
    };
    EXPECT_EQ(by_type("1"), "1|1|1|n|1|0|1000|0|10000|0|7|10000|0|1000");
    EXPECT_EQ(by_type("0"), "1|1|1|n|0|7|1000|7|10000|7|0|10000|0|1000");
    EXPECT_EQ(by_type("2"), "1|1|1|n|2|7|1000|7|10000|0|0|10000|7|77");
    EXPECT_EQ(by_type("3"), "1|1|1|n|3|0|1000|0|10000|0|0|10000|0|1000");
    EXPECT_EQ(stored(2, "1,1,1,n,1,0,77,1,77,1,1,77,7,77"),
              "1|1|1|n|1|0|1000|0|10000|0|1|77|0|1000");
    EXPECT_EQ(stored(2, "1,1,1,n,0,0,77,2,77,1,1,77,7,77"), "1|1|1|n|0|0|77|2|77|1|0|10000|0|1000");
    EXPECT_EQ(stored(2, "1,1,1,n,2,0,77,1,77,1,1,77,7,78"), "1|1|1|n|2|0|77|1|77|0|0|10000|7|78");
    // Not even SQL in it is looked at.
    EXPECT_EQ(stored(2, "1,1,1,n,1,',(,;,--,x y,0,/*,\",#"),
              "1|1|1|n|1|0|1000|0|10000|0|0|10000|0|1000");
}

TEST_F(import_row, columns_of_a_block_that_are_not_relevant_hold_their_defaults) {
    const std::string defaults = "1.0|0.0|0.0|1.0|0.0|1.0";
    EXPECT_EQ(stored(4, "1,1,1,5,x,1,2,wo,3,44,1,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|1|5|tag|13|1|ro|0||0|" + defaults + "|kind|2|0ABC");
    EXPECT_EQ(stored(4, "1,1,0,5,x,13,2,wo,3,44,1,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|0|5|x|13|2|wo|3||0|" + defaults + "|constantName|1|");
    EXPECT_EQ(stored(4, "1,1,0,5,x,14,2,wo,3,44,1,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|0|5|x|14|2|wo|3||0|" + defaults + "|constantName|1|");
    EXPECT_EQ(stored(4, "1,1,0,5,x,12,2,wo,3,44,0,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|0|5|x|12|2|wo|3||0|" + defaults + "|constantName|1|");
    EXPECT_EQ(stored(4, "1,1,0,5,x,12,2,wo,3,44,1,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|0|5|x|12|2|wo|3||1|5.0|6.0|0.0|1.0|0.0|1.0|constantName|1|");
    EXPECT_EQ(stored(4, "1,1,0,5,x,12,2,wo,3,44,2,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|0|5|x|12|2|wo|3||2|1.0|0.0|7.0|8.0|9.0|10.0|constantName|1|");
    EXPECT_EQ(stored(4, "1,1,0,5,x,12,2,wo,3,44,3,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|0|5|x|12|2|wo|3||3|" + defaults + "|constantName|1|");
    EXPECT_EQ(stored(4, "1,1,2,5,x,12,2,wo,3,44,1,5,6,7,8,9,10,kind,2,0ABC"),
              "1|1|2|5|tag|13|1|ro|0||0|" + defaults + "|constantName|1|");
}

TEST_F(import_row, fpData_is_relevant_where_the_transaction_of_the_frame_has_fpFunc_2) {
    // Frame 2 is of such a transaction, frame 1 is not, frame 9 of none.
    EXPECT_EQ(committed("SELECT 1"), "1");
    EXPECT_THAT(stored(4, "1,2,0,5,x,13,2,wo,3,44,,,,,,,,,,"), ::testing::HasSubstr("|wo|3|44|0|"));
    EXPECT_THAT(stored(4, "1,1,0,5,x,13,2,wo,3,44,,,,,,,,,,"), ::testing::HasSubstr("|wo|3||0|"));
    EXPECT_THAT(
        refused(
            block("1,2,0,5,x,13,2,wo,3,,,,,,,,,,,"), "missing-necessary-parameter", "block", 1, 10),
        ElementsAre(missing_message(readers[4], 1, 10)));
    EXPECT_THAT(
        refused(
            block("1,9,0,5,x,13,2,wo,3,,,,,,,,,,,"), "foreign-key-constraint-failed", "block", 1),
        ElementsAre(insert_message(readers[4], 1, "FOREIGN KEY constraint failed")));
    file_rows file = with(4, "1,2,0,5,x,13,2,wo,3,44,,,,,,,,,,\n");
    file.section[2] = replaced(file.section[2], "500,2,300", "500,1,300");
    EXPECT_EQ(import(file), 0);
    EXPECT_EQ(committed("SELECT fpData FROM block"), "");
}

TEST_F(import_row, whether_fpData_is_relevant_is_asked_for_each_frame_anew) {
    EXPECT_THAT(stored(4,
                       "1,1,0,0,a,13,1,ro,0,44,,,,,,,,,,\n2,2,0,0,a,13,1,wo,0,55,,,,,,,,,,\n"
                       "3,1,0,1,b,13,1,ro,0,66,,,,,,,,,,\n4,2,0,1,b,13,1,wo,0,77,,,,,,,,,,"),
                ::testing::Truly([](const std::string &rows) {
                    return rows.find("|a|13|1|ro|0||") != std::string::npos &&
                           rows.find("|a|13|1|wo|0|55|") != std::string::npos &&
                           rows.find("|b|13|1|ro|0||") != std::string::npos &&
                           rows.find("|b|13|1|wo|0|77|") != std::string::npos;
                }));
}

TEST_F(import_row, scalingFunc_is_relevant_up_to_tagType_12) {
    EXPECT_THAT(
        refused(
            block("1,1,0,5,x,12,2,wo,3,,,,,,,,,,,"), "missing-necessary-parameter", "block", 1, 11),
        ElementsAre(missing_message(readers[4], 1, 11)));
    EXPECT_THAT(stored(4, "1,1,0,5,x,14,2,wo,3,,,,,,,,,,,"), ::testing::HasSubstr("|x|14|"));
}

TEST_F(import_row, a_device_name_with_other_characters) {
    for (const char *name :
         {"dr ive", "drive!", "\xc3\xa9", "a/b", "\"a\"", "a;b", "a'b", "(", "a\tb"}) {
        EXPECT_THAT(
            refused(
                with(1, "1,1,ok\n2,1," + std::string(name) + "\n"), "syntax-err", "device", 2, 3),
            ElementsAre("import_device_parm|Data error: Invalid characters in 'deviceName' "
                        "at line 2, column 3\n"));
    }
}

TEST_F(import_row, a_transaction_name_with_other_characters) {
    EXPECT_THAT(refused(transaction("1,1,1,a b,1,,,,,,0,,,"), "invalid-name", "transactions", 1, 4),
                ElementsAre("import_transaction_parm|Data error: Invalid characters in "
                            "'transactionName' at line 1, column 4\n"));
}

TEST_F(import_row, a_block_name_with_other_characters_names_no_column) {
    EXPECT_THAT(refused(block("1,1,0,0,a b,13,1,ro,0,,,,,,,,,,,"), "invalid-name", "block", 1),
                ElementsAre("import_block_parm|Data error: Invalid characters in tagName"));
    EXPECT_THAT(refused(block("1,1,1,0,,,,,,,,,,,,,,a b,1,5A"), "invalid-name", "block", 1),
                ElementsAre("import_block_parm|Data error: Invalid characters in constantName"));
}

TEST_F(import_row, names_are_of_letters_digits_and_four_signs) {
    const std::string allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~";
    EXPECT_EQ(stored(1, "1,1," + allowed), "1|1|" + allowed);
    for (int c = 1; c < 256; c++) {
        const char byte = static_cast<char>(c);
        if (strchr(",\r\n", byte) != nullptr) {
            continue;
        }
        const captured_log quiet;
        const bool accepted = import(with(1, std::string("1,1,n") + byte + "n\n")) == 0;
        EXPECT_EQ(accepted, allowed.find(byte) != std::string::npos) << c;
    }
}

TEST_F(import_row, a_bad_name_is_said_before_what_the_database_says) {
    EXPECT_THAT(refused(with(1, "x,99,a b\n"), "syntax-err", "device", 1, 3), ::testing::SizeIs(1));
    EXPECT_THAT(refused(with(1, "(,1\n"), "missing-necessary-parameter", "device", 1, 3),
                ElementsAre(missing_message(readers[1], 1, 3)));
}

TEST_F(import_row, a_line_of_255_characters_is_whole) {
    // 250 and the line feed fill the buffer; with 251 the line feed is left for the next line.
    for (const size_t length : {249, 250}) {
        const std::string name(length, 'n');
        EXPECT_EQ(stored(1, "1,1," + name + "\n2,1,next"), "1|1|" + name + " 2|1|next") << length;
    }
    const std::string name(251, 'n');
    EXPECT_EQ(stored(1, "1,1," + name + "\n2,1,next"), "1|1|" + name);
}

TEST_F(import_row, the_rest_of_a_longer_row_is_a_row_of_its_own) {
    const std::string name(251, 'n');
    EXPECT_THAT(
        refused(with(1, "1,1," + name + "m\n"), "missing-necessary-parameter", "device", 2, 2),
        ElementsAre(missing_message(readers[1], 2, 2)));
    EXPECT_EQ(stored(1, "1,1," + name + "2,1,next"), "1|1|" + name + " 2|1|next");
    EXPECT_EQ(stored(1, "1,1," + name + " 2,1,next"), "1|1|" + name);
}

TEST_F(import_row, a_line_may_grow_to_255_characters_when_its_empty_fields_are_filled) {
    for (const size_t growth : {4, 8, 12}) { // behind the name, so many fields are empty
        const std::string commas(growth / 4, ',');
        const std::string fits(255 - 4 - 5 * commas.size(), 'n');
        EXPECT_EQ(stored(1, "1,1," + fits + commas), "1|1|" + fits);
        EXPECT_THAT(
            refused(with(1, "1,1," + fits + "m" + commas + "\n"), "internal-err", "device", 1),
            IsEmpty());
    }
    const std::string inner(255 - 2 - 14 - 4 * 8, 'n');
    EXPECT_THAT(
        refused(transaction("1,1,1," + inner + "m,1,,,,,,0,,,"), "internal-err", "transactions", 1),
        IsEmpty());
}

TEST_F(import_row, a_can_id_is_hexadecimal_with_and_without_its_prefix) {
    const auto can_id = [this](const std::string &field) {
        file_rows file;
        file.section[3] = replaced(file.section[3], "1,1,181,", "1,1," + field + ",");
        file.section[4].clear();
        EXPECT_EQ(import(file), 0) << field << err.key;
        return committed("SELECT printf('%X', canId) FROM frame WHERE frameId = 1");
    };
    EXPECT_EQ(can_id("1A3"), "1A3");
    EXPECT_EQ(can_id("1a3"), "1A3");
    EXPECT_EQ(can_id("0x1a3"), "1A3");
    EXPECT_EQ(can_id("0X1A3"), "1A3");
    EXPECT_EQ(can_id("10"), "10");
    EXPECT_EQ(can_id("0"), "0");
    EXPECT_EQ(can_id("1FFFFFFF"), "1FFFFFFF");
    // Of what the prefix makes of it 19 characters are kept; a field with a prefix stays as it is.
    EXPECT_EQ(can_id("000000000000001A3"), "1A3");
    EXPECT_EQ(can_id("0000000000000001A3"), "1A");
    EXPECT_EQ(can_id("0x00000000000000000000001A3"), "1A3");
}

TEST_F(import_row, a_number_decides_as_the_database_reads_it) {
    file_rows file;
    file.section[2] = replaced(file.section[2], "state,1,", "state,0x1,");
    EXPECT_EQ(import(file), 0);
    EXPECT_EQ(committed("SELECT transactionType, consumeTimeout FROM transactions WHERE "
                        "transactionId = 1"),
              "1|200");
}

TEST_F(import_row, a_can_id_that_no_frame_carries) {
    const auto refuse = [this](const std::string &field,
                               const std::string &key,
                               const std::string &column_name = "") {
        file_rows file;
        file.section[3] = replaced(file.section[3], "1,1,181,", "1,1," + field + ",");
        return refused(file, key, "frame", 1, 0, column_name);
    };
    for (const char *field : {"20000000", "FFFFFFFF", "FFFFFFFFFFFFFFFF", "0x20000000"}) {
        EXPECT_THAT(refuse(field, "check-constraint-failed", "canId"),
                    ElementsAre(insert_message(readers[3], 1, "CHECK constraint failed: canId")));
    }
    EXPECT_THAT(
        refuse("11111111111111111", "syntax-err"),
        ElementsAre(insert_message(readers[3], 1, "hex literal too big: 0x11111111111111111")));
    for (const char *field : {"xyz", "0x", "1G", "-1", "0x 1", "1.5"}) {
        EXPECT_THAT(refuse(field, "syntax-err"), ::testing::SizeIs(1)) << field;
    }
}

TEST_F(import_row, what_the_database_refuses) {
    const struct {
        int section;
        std::string rows;
        int line;
        const char *key;
        const char *column_name;
        const char *message;
    } rows[] = {
        {0,
         "1,0,3,0,0,0\n1,0,3,0,0,0\n",
         2,
         "unique-constraint",
         "portId",
         "UNIQUE constraint failed: interface_setting.portId"},
        {0,
         "256,0,3,0,0,0\n",
         1,
         "check-constraint-failed",
         "portId",
         "CHECK constraint failed: portId"},
        {0,
         "-1,0,3,0,0,0\n",
         1,
         "check-constraint-failed",
         "portId",
         "CHECK constraint failed: portId"},
        {0, "x,0,3,0,0,0\n", 1, "syntax-err", "", "no such column: x"},
        {0,
         "1,null,3,0,0,0\n",
         1,
         "syntax-err",
         "",
         "NOT NULL constraint failed: interface_setting.frameFormat"},
        {1,
         "1,1,a\n1,1,b\n",
         2,
         "unique-constraint",
         "deviceId",
         "UNIQUE constraint failed: device.deviceId"},
        {1,
         "256,1,a\n",
         1,
         "check-constraint-failed",
         "deviceId",
         "CHECK constraint failed: deviceId"},
        {1, "1,3,a\n", 1, "foreign-key-constraint-failed", "", "FOREIGN KEY constraint failed"},
        {1, "1.5,1,a\n", 1, "syntax-err", "", "datatype mismatch"},
        {1, "1 2,1,a\n", 1, "syntax-err", "", "near \"2\": syntax error"},
        {2,
         "1,3,1,n,1,,,,,,0,,,\n",
         1,
         "foreign-key-constraint-failed",
         "",
         "FOREIGN KEY constraint failed"},
        {2,
         "1,1,1,n,1,,,,,,0,,,\n1,1,1,m,1,,,,,,0,,,\n",
         2,
         "unique-constraint",
         "transactionId",
         "UNIQUE constraint failed: transactions.transactionId"},
        {2,
         "65536,1,1,n,1,,,,,,0,,,\n",
         1,
         "check-constraint-failed",
         "transactionId",
         "CHECK constraint failed: transactionId"},
        {2,
         "1,1,1,n,256,,,,,,0,,,\n",
         1,
         "check-constraint-failed",
         "transactionType",
         "CHECK constraint failed: transactionType"},
        {2,
         "1,1,1,n,1,,,,,,1,65536,,\n",
         1,
         "check-constraint-failed",
         "consumeTimeout",
         "CHECK constraint failed: consumeTimeout"},
        {3,
         "1,9,181,8,1\n",
         1,
         "foreign-key-constraint-failed",
         "",
         "FOREIGN KEY constraint failed"},
        {3,
         "1,1,181,8,1\n1,1,181,8,1\n",
         2,
         "unique-constraint",
         "frameId",
         "UNIQUE constraint failed: frame.frameId"},
        {3,
         "65536,1,181,8,1\n",
         1,
         "check-constraint-failed",
         "frameId",
         "CHECK constraint failed: frameId"},
        {3,
         "1,1,181,256,1\n",
         1,
         "check-constraint-failed",
         "dataLength",
         "CHECK constraint failed: dataLength"},
        {4,
         "1,1,2,0,,,,,,,,,,,,,,,,\n1,1,2,0,,,,,,,,,,,,,,,,\n",
         2,
         "unique-constraint",
         "blockId",
         "UNIQUE constraint failed: block.blockId"},
        {4,
         "1,1,256,0,,,,,,,,,,,,,,,,\n",
         1,
         "check-constraint-failed",
         "blockType",
         "CHECK constraint failed: blockType"},
        {4,
         "1,1,0,0,n,-1,1,ro,0,,0,,,,,,,,,\n",
         1,
         "check-constraint-failed",
         "tagType",
         "CHECK constraint failed: tagType"},
        {4, "1,1,0,0,n,1,1,ro,0,,1,nan,0,,,,,,,\n", 1, "syntax-err", "", "no such column: nan"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(refused(with(row.section, row.rows),
                            row.key,
                            table_names[row.section],
                            row.line,
                            0,
                            row.column_name),
                    ElementsAre(insert_message(readers[row.section], row.line, row.message)))
            << row.rows;
    }
}

TEST_F(import_row, the_maxima_are_accepted_and_one_more_is_not) {
    file_rows file;
    for (int i = 1; i < 5; i++) {
        file.section[i].clear();
    }
    for (int id = 0; id < 255; id++) {
        file.section[1] += std::to_string(id) + ",1,d" + std::to_string(id) + "\n";
    }
    for (int id = 0; id < 512; id++) {
        const std::string text = std::to_string(id);
        file.section[2] += text + ",1,1,t" + text + ",1,,,,,,0,,,\n";
        file.section[3] += text + "," + text + ",1,8,1\n";
    }
    EXPECT_EQ(import(file), 0) << err.key;
    EXPECT_EQ(committed("SELECT count(*) FROM frame"), "512");
    file_rows more = file;
    more.section[1] += "255,1,d\n";
    EXPECT_THAT(refused(more, "table-full", "device", 256),
                ElementsAre(insert_message(readers[1], 256, "device is full")));
    more = file;
    more.section[2] += "512,1,1,t,1,,,,,,0,,,\n";
    EXPECT_THAT(refused(more, "table-full", "transactions", 513),
                ElementsAre(insert_message(readers[2], 513, "transactions is full")));
}

TEST_F(import_row, the_largest_keys_and_values) {
    EXPECT_EQ(stored(0, "255,2147483647,-2147483648,-1,7,-7\n0,0,0,0,0,0"),
              "0|0|0|0|0|0 255|2147483647|-2147483648|-1|7|-7");
    EXPECT_EQ(stored(1, "255,2,n\n0,1,n"), "0|1|n 255|2|n");
    EXPECT_EQ(stored(2, "65535,1,255,n,0,255,,255,,255,,,,"),
              "65535|1|255|n|0|255|1000|255|10000|255|0|10000|0|1000");
    EXPECT_THAT(stored(4, "65535,1,0,255,n,12,0,rw,255,,1,1e300,-1E-5,,,,,,,"),
                ::testing::StartsWith("65535|1|0|255|n|12|0|rw|255||1|1.0e+300|-1.0e-05|"));
}

TEST_F(import_row, keys_that_a_trigger_raises_come_with_their_column) {
    for (const std::string key : raised_keys) {
        for (const char *column : {"", "deviceName"}) {
            const std::string raised = key + (*column == '\0' ? "" : ":") + column;
            execute(working_db_path(),
                    "DROP TRIGGER IF EXISTS rule; CREATE TRIGGER rule BEFORE INSERT ON device WHEN "
                    "NEW.deviceId = 2 BEGIN SELECT RAISE(ABORT, '" +
                        raised + "'); END");
            EXPECT_THAT(refused(file_rows(), key, "device", 2, 0, column),
                        ElementsAre(insert_message(readers[1], 2, raised)));
        }
    }
}

TEST_F(import_row, a_zero_byte_ends_its_line) {
    using namespace std::string_literals;
    file_rows file;
    file.section[1] = "1,1,dri\0ve,x'\n2,2,sensor\n"s;
    EXPECT_EQ(import(file), 0);
    EXPECT_EQ(committed("SELECT deviceName FROM device"), "dri sensor");
    file.section[1] = "1,1,drive\n\0"s + "2,2,sensor\n";
    file.section[2] = file.section[3] = file.section[4] = "";
    EXPECT_EQ(import(file), 0);
    EXPECT_EQ(committed("SELECT deviceName FROM device"), "drive");
}

} // namespace
