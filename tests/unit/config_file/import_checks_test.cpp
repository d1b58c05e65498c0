#include "config/import_checks.h"
#include "import_fixture.h"

namespace {

/** What is asked about rows that are in. */
class import_checks : public importing {
protected:
    static std::string consuming(int id, int device, const std::string &name) {
        return std::to_string(id) + "," + std::to_string(device) + ",1," + name + ",1,,,,,,0,,,\n";
    }

    static std::string tag(int id, int frame, const std::string &name, int size = 1) {
        return std::to_string(id) + "," + std::to_string(frame) + ",0,0," + name + ",13," +
               std::to_string(size) + ",ro,0,,,,,,,,,,,\n";
    }

    static std::string constant(int id, int frame, int size = 1) {
        return std::to_string(id) + "," + std::to_string(frame) + ",1,0,,,,,,,,,,,,,,c," +
               std::to_string(size) + ",00\n";
    }

    static file_rows blocks(const std::string &rows) {
        file_rows file;
        file.section[2] = consuming(1, 1, "a") + consuming(2, 1, "b");
        file.section[3] = "1,1,1,8,1\n2,2,2,8,1\n";
        file.section[4] = rows;
        return file;
    }

    static file_rows frames(const std::string &transactions, const std::string &rows) {
        file_rows file;
        file.section[2] = transactions;
        file.section[3] = rows;
        file.section[4].clear();
        return file;
    }

    messages refused_ports(const std::string &rows, int line) {
        file_rows file;
        for (std::string &section : file.section) {
            section.clear();
        }
        file.section[0] = rows;
        return refused(file, "internal-err", "interface_setting", line);
    }
};

constexpr const char *port_message =
    "import_interface_setting_parm|interface_setting_table rows does not match the expected number "
    "of ports .\n";

TEST_F(import_checks, there_is_one_interface_row_per_port) {
    EXPECT_THAT(refused_ports("1,0,3,0,0,0\n", 2), ElementsAre(port_message));
    EXPECT_THAT(refused_ports("", 1), ElementsAre(port_message));
    EXPECT_THAT(refused_ports("1,0,3,0,0,0\n2,0,3,0,0,0\n3,0,3,0,0,0\n", 4),
                ElementsAre(port_message));
    g_can_port_count = 1;
    EXPECT_THAT(refused_ports("1,0,3,0,0,0\n2,0,3,0,0,0\n", 3), ElementsAre(port_message));
    file_rows file;
    for (std::string &section : file.section) {
        section.clear();
    }
    file.section[0] = "7,0,3,0,0,0\n"; // the number counts, not which they are
    EXPECT_EQ(import(file), 0);
}

TEST_F(import_checks, a_transaction_name_is_used_once_in_a_device) {
    file_rows file = frames(consuming(1, 1, "a") + consuming(2, 2, "a") + consuming(3, 1, "b") +
                                consuming(4, 1, "A"),
                            "1,1,1,8,1\n2,2,1,8,1\n3,3,1,8,1\n4,4,1,8,1\n");
    EXPECT_EQ(import(file), 0);
    file.section[2] += consuming(5, 2, "a") + consuming(6, 1, "a");
    EXPECT_THAT(
        refused(file, "duplicate-name", "transactions", 5),
        ElementsAre("import_transaction_parm|transaction name duplicate in deviceId = 2\n"));
}

TEST_F(import_checks, transactions_have_their_number_of_frames) {
    const struct {
        const char *type;
        int frames;
        bool accepted;
    } rows[] = {{"0", 0, false},
                {"0", 1, true},
                {"0", 2, false},
                {"1", 0, false},
                {"1", 1, true},
                {"1", 2, false},
                {"2", 0, false},
                {"2", 1, false},
                {"2", 2, true},
                {"2", 3, false},
                {"3", 1, false},
                {"3", 2, true},
                {"255", 2, true}};
    for (const auto &row : rows) {
        // The second of two transactions; the first one is as it must be.
        std::string text = "1,1,8,1\n";
        for (int i = 0; i < row.frames; i++) {
            text += std::to_string(10 + i) + ",2,1,8,1\n";
        }
        const file_rows file =
            frames(consuming(1, 1, "a") + "2,1,1,b," + row.type + ",1,,0,,0,0,,0,0\n", "1," + text);
        if (row.accepted) {
            EXPECT_EQ(import(file), 0) << row.type << row.frames;
            continue;
        }
        const bool two = std::string(row.type) > "1";
        EXPECT_THAT(refused(file, "invalid-frame", "frame", 2),
                    ElementsAre(std::string("import_frame_parm|") +
                                (two ? "must have exactly two frames\n"
                                     : "must have exactly one frame\n")));
    }
}

TEST_F(import_checks, the_line_of_a_wrong_number_of_frames_is_the_transactions_position) {
    const std::string transactions =
        consuming(30, 1, "a") + consuming(20, 1, "b") + consuming(10, 1, "c");
    // By key, as the database gives them: 10, 20, 30.
    EXPECT_THAT(
        refused(frames(transactions, "1,10,1,8,1\n2,20,1,8,1\n"), "invalid-frame", "frame", 3),
        ElementsAre("import_frame_parm|must have exactly one frame\n"));
    EXPECT_THAT(refused(frames(transactions, ""), "invalid-frame", "frame", 1),
                ElementsAre("import_frame_parm|must have exactly one frame\n"));
}

TEST_F(import_checks, a_tag_name_is_used_once_in_a_frame) {
    EXPECT_EQ(import(blocks(tag(1, 1, "a") + tag(2, 2, "a") + tag(3, 1, "b") + tag(4, 1, "A"))), 0);
    EXPECT_THAT(
        refused(
            blocks(tag(1, 1, "a") + tag(2, 2, "b") + tag(3, 2, "b")), "duplicate-name", "block", 3),
        ElementsAre("import_block_parm|tag name duplicate in frameId = 2\n"));
}

TEST_F(import_checks, the_tags_of_a_frame_take_at_most_8_bytes) {
    EXPECT_EQ(import(blocks(tag(1, 1, "a", 8) + tag(2, 2, "a", 4) + tag(3, 2, "b", 4))), 0);
    EXPECT_THAT(refused(blocks(tag(1, 1, "a", 9)), "tagsize-exceeds-limit", "block", 1),
                ElementsAre("import_block_parm|tagSize total in frameId = 1 exceeds limit (total = "
                            "9)\n"));
    EXPECT_THAT(refused(blocks(tag(1, 2, "a", 4) + tag(2, 1, "b") + tag(3, 2, "b", 5)),
                        "tagsize-exceeds-limit",
                        "block",
                        3),
                ElementsAre("import_block_parm|tagSize total in frameId = 2 exceeds limit (total = "
                            "9)\n"));
    EXPECT_THAT(refused(blocks(tag(1, 1, "a", 255)), "tagsize-exceeds-limit", "block", 1),
                ElementsAre("import_block_parm|tagSize total in frameId = 1 exceeds limit (total = "
                            "255)\n"));
}

TEST_F(import_checks, a_constant_counts_as_one_byte_when_a_tag_follows) {
    EXPECT_EQ(import(blocks(constant(1, 1, 8) + tag(2, 1, "a", 7))), 0);
    EXPECT_THAT(
        refused(blocks(constant(1, 1) + tag(2, 1, "a", 8)), "tagsize-exceeds-limit", "block", 2),
        ElementsAre("import_block_parm|tagSize total in frameId = 1 exceeds limit (total = "
                    "9)\n"));
    EXPECT_EQ(import(blocks(tag(1, 1, "a", 8) + constant(2, 1, 8) + constant(3, 1, 8))), 0);
}

TEST_F(import_checks, constants_are_tags_of_the_same_name_when_a_tag_follows) {
    EXPECT_EQ(import(blocks(constant(1, 1) + constant(2, 1) + constant(3, 2) + tag(4, 2, "a"))), 0);
    EXPECT_THAT(
        refused(
            blocks(constant(1, 1) + constant(2, 1) + tag(3, 1, "a")), "duplicate-name", "block", 3),
        ElementsAre("import_block_parm|tag name duplicate in frameId = 1\n"));
    EXPECT_THAT(refused(blocks(constant(1, 1) + tag(2, 1, "tag")), "duplicate-name", "block", 2),
                ElementsAre("import_block_parm|tag name duplicate in frameId = 1\n"));
}

TEST_F(import_checks, a_name_used_twice_is_said_before_a_size_beyond_the_limit) {
    EXPECT_THAT(
        refused(blocks(tag(1, 1, "a", 5) + tag(2, 1, "a", 5)), "duplicate-name", "block", 2),
        ::testing::SizeIs(1));
}

/** The same checks where the database cannot answer, on a connection of the test's own. */
class failing_checks : public import_checks {
protected:
    failing_checks() : db_(connect(working_db_path())) {
        EXPECT_EQ(import(file_rows()), 0);
        // Their conditions are queries, too.
        (void)rows_of(db_.get(), "DROP TRIGGER device_is_full; DROP TRIGGER transactions_is_full");
        err = {};
    }

    /** Read a section, from behind its head. */
    int section(int (*reading)(sqlite3 *, FILE *, conf_import_error *),
                int index,
                const std::string &rows) {
        write(file_, std::string(section_tops[index]).substr(strlen(head(index))) + rows);
        const file_ptr file(fopen(file_.c_str(), "r"));
        err = {};
        return reading(db_.get(), file.get(), &err);
    }

    static const char *head(int index) {
        static const char *heads[] = {
            "[interface-setting]\n", "[device]\n", "[transactions]\n", "[frame]\n", "[block]\n"};
        return heads[index];
    }

    /** From now on no query prepares. */
    void deny_queries() {
        (void)sqlite3_set_authorizer(
            db_.get(),
            [](void *, int action, const char *, const char *, const char *, const char *) {
                return action == SQLITE_SELECT ? SQLITE_DENY : SQLITE_OK;
            },
            nullptr);
    }

    void expect_failed(const messages &said, const std::string &message, int line, int column = 0) {
        EXPECT_THAT(said, ElementsAre(message));
        EXPECT_STREQ(err.key, "internal-err") << message;
        EXPECT_EQ(err.line, line) << message;
        EXPECT_EQ(err.column, column) << message;
    }

    connection db_;
};

using reader = int (*)(sqlite3 *, FILE *, conf_import_error *);

constexpr reader functions[] = {import_interface_setting_parm,
                                import_device_parm,
                                import_transaction_parm,
                                import_frame_parm,
                                import_block_parm};

TEST_F(failing_checks, a_table_whose_rows_cannot_be_deleted) {
    sqlite3 *empty = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &empty), SQLITE_OK);
    db_.reset(empty);
    for (int i = 0; i < 5; i++) {
        const messages said = messages_of([&] { EXPECT_EQ(section(functions[i], i, ""), -1); });
        expect_failed(said,
                      std::string(readers[i]) + "|sqlite exec no such table: " + table_names[i] +
                          "\n",
                      0);
    }
}

TEST_F(failing_checks, a_section_without_a_header) {
    const char *texts[] = {"get csv_line error",
                           "get csv_line error",
                           "get csv_line error",
                           "get csv_line error",
                           "Data error at line 0, syntax error\n"};
    for (int i = 0; i < 5; i++) {
        write(file_, "");
        const file_ptr file(fopen(file_.c_str(), "r"));
        err = {};
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(functions[i](db_.get(), file.get(), &err), -1); }),
                    ElementsAre(std::string(readers[i]) + "|" + texts[i]));
        EXPECT_STREQ(err.key, "syntax-err");
        EXPECT_STREQ(err.table_name, ""); // the caller's to fill
    }
}

TEST_F(failing_checks, a_header_of_other_columns) {
    const char *texts[] = {"column name error\n",
                           "colum name error\n",
                           "transaction column name error\n",
                           "colum name error\n",
                           "colum name error\n"};
    for (int i = 0; i < 5; i++) {
        write(file_, "portId,deviceId\n1,2,3\n");
        const file_ptr file(fopen(file_.c_str(), "r"));
        err = {};
        err.line = 7;
        const std::string line = i == 0 ? "7" : "0"; // all but the first begin anew
        EXPECT_THAT(
            messages_of([&] { EXPECT_EQ(functions[i](db_.get(), file.get(), &err), -1); }),
            ElementsAre(std::string(readers[i]) + "|Data error at line " + line + ", " + texts[i]));
        EXPECT_STREQ(err.key, "column-name-failed");
        EXPECT_EQ(rows_of(db_.get(), "SELECT count(*) FROM device"), "2");
    }
}

TEST_F(failing_checks, a_header_may_stand_anywhere_in_its_line) {
    write(file_, "  deviceId,portId,deviceName,and,more\r\n7,1,x\n");
    const file_ptr file(fopen(file_.c_str(), "r"));
    EXPECT_EQ(import_device_parm(db_.get(), file.get(), &err), 0);
    EXPECT_EQ(rows_of(db_.get(), "SELECT deviceName FROM device"), "x");
}

TEST_F(failing_checks, port_rows_that_cannot_be_counted) {
    deny_queries();
    const std::string rows = file_rows().section[0];
    expect_failed(messages_of([&] { EXPECT_EQ(section(functions[0], 0, rows), -1); }),
                  "import_interface_setting_parm|not authorized. SQL: SELECT COUNT(*) FROM "
                  "interface_setting\n",
                  2);
}

TEST_F(failing_checks, names_of_transactions_that_cannot_be_compared) {
    deny_queries();
    expect_failed(
        messages_of([&] { EXPECT_EQ(section(functions[2], 2, consuming(1, 1, "a")), -1); }),
        "import_transaction_parm|sqlite exec not authorized, at line 1\n",
        1);
}

TEST_F(failing_checks, frames_that_cannot_be_counted) {
    deny_queries();
    expect_failed(messages_of([&] { EXPECT_EQ(section(functions[3], 3, ""), -1); }),
                  "import_frame_parm|sqlite exec not authorized, at line 0\n",
                  0);
}

TEST_F(failing_checks, the_owner_of_a_tag_that_cannot_be_looked_up) {
    deny_queries();
    expect_failed(
        messages_of([&] { EXPECT_EQ(section(functions[4], 4, tag(1, 2, "a")), -1); }),
        "import_block_parm|not authorized. SQL: SELECT * FROM transactions t JOIN frame f "
        "ON t.transactionId = f.transactionId WHERE f.frameId = 2\n",
        1,
        3);
}

TEST_F(failing_checks, every_check_that_is_interrupted_fails_the_import) {
    const struct {
        const char *part;
        int nth;
        const char *table;
        int line;
        int column;
        std::string message;
    } rows[] = {
        {"COUNT(*) FROM interface_setting",
         1,
         "interface_setting",
         3,
         0,
         "import_interface_setting_parm|interrupted. SQL: SELECT COUNT(*) FROM "
         "interface_setting\n"},
        {"GROUP BY transactionName",
         1,
         "transactions",
         1,
         0,
         "import_transaction_parm|sqlite exec interrupted, at line 1\n"},
        {"GROUP BY transactionName",
         3,
         "transactions",
         3,
         0,
         "import_transaction_parm|sqlite exec interrupted, at line 3\n"},
        {"SELECT transactionType",
         1,
         "frame",
         0,
         0,
         "import_frame_parm|sqlite exec interrupted, at line 0\n"},
        {"SELECT transactionType",
         3,
         "frame",
         2,
         0,
         "import_frame_parm|sqlite exec interrupted, at line 2\n"},
        {"SELECT transactionType",
         4,
         "frame",
         3,
         0,
         "import_frame_parm|sqlite exec interrupted, at line 3\n"},
        {"COUNT(*) FROM frame",
         2,
         "frame",
         2,
         0,
         "import_frame_parm|sqlite exec interrupted, at line 2\n"},
        {"JOIN frame",
         1,
         "block",
         1,
         3,
         "import_block_parm|interrupted. SQL: SELECT * FROM transactions t JOIN frame f ON "
         "t.transactionId = f.transactionId WHERE f.frameId = 1\n"},
        {"JOIN frame",
         2,
         "block",
         4,
         3,
         "import_block_parm|interrupted. SQL: SELECT * FROM transactions t JOIN frame f ON "
         "t.transactionId = f.transactionId WHERE f.frameId = 2\n"},
        {"GROUP BY tagName",
         2,
         "block",
         2,
         0,
         "import_block_parm|sqlite exec interrupted, at line 2\n"},
        {"SUM(tagSize)",
         3,
         "block",
         4,
         0,
         "import_block_parm|sqlite exec interrupted, at line 4\n"},
    };
    for (const auto &row : rows) {
        g_import_faults.interrupted = row.part;
        g_import_faults.nth = row.nth;
        EXPECT_THAT(refused(file_rows(), "internal-err", row.table, row.line, row.column),
                    ElementsAre(row.message));
        EXPECT_EQ(g_import_faults.interrupted, "") << row.part;
    }
}

TEST(section_checks, the_key_of_an_error_is_bounded) {
    conf_import_error err{};
    set_import_key(&err, std::string(60, 'k').c_str());
    EXPECT_EQ(err.key, std::string(49, 'k'));
    EXPECT_STREQ(err.column_name, "");
}

} // namespace
