#include "allocation_fault.h"
#include "import_fixture.h"
#include "sqlite_memory_fault.h"

namespace {

/** can_proprietary_conf_export() and the section writers. */
class export_file : public importing {
protected:
    std::string out_ = path("out.csv");

    std::string exported() {
        EXPECT_THAT(
            messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), 0); }),
            IsEmpty());
        return read(out_);
    }

    /** Fill the tables below the ports by hand. */
    static void fill(const std::string &sql) {
        execute(working_db_path(), "PRAGMA foreign_keys = ON; DELETE FROM device;" + sql);
    }

    /** The rows of one section of an export. */
    std::string rows_of_section(int section) {
        const std::string text = exported();
        const size_t from = text.find(section_tops[section]) + strlen(section_tops[section]);
        return text.substr(from, text.find("\n\n", from - 1) + 1 - from);
    }

    /** One transaction with these values in every column, and its line. */
    std::string transaction_line(const std::string &type_to_end) {
        fill("INSERT INTO device VALUES (1, 1, 'd');"
             "INSERT INTO transactions VALUES (1, 1, 1, 'n', " +
             type_to_end + ")");
        return rows_of_section(2);
    }

    std::string block_line(const std::string &values, int fpFunc = 0) {
        fill("INSERT INTO device VALUES (1, 1, 'd');"
             "INSERT INTO transactions (transactionId, deviceId, fpFunc) VALUES (1, 1, " +
             std::to_string(fpFunc) +
             ");"
             "INSERT INTO frame VALUES (1, 1, 1, 8, 0); INSERT INTO block VALUES (1, 1, " +
             values + ")");
        return rows_of_section(4);
    }

    /** A section by its writer, on a connection of the test's own. */
    std::string section(int (*writer)(sqlite3 *, FILE *), sqlite3 *db, int expected) {
        const file_ptr file(fopen(out_.c_str(), "w"));
        EXPECT_EQ(writer(db, file.get()), expected);
        EXPECT_EQ(fflush(file.get()), 0);
        return read(out_);
    }
};

constexpr const char *exporting = "can_proprietary_conf_export|";

TEST_F(export_file, an_empty_configuration) {
    std::string expected = "version: 1.0.0\n\n";
    for (int i = 0; i < 5; i++) {
        expected +=
            section_tops[i] + std::string(i == 0 ? "1,0,3,0,0,0\n2,0,3,0,0,0\n" : "") + "\n";
    }
    EXPECT_EQ(exported(), expected);
}

TEST_F(export_file, an_imported_file_comes_out_as_it_went_in) {
    ASSERT_EQ(import(file_rows()), 0);
    EXPECT_EQ(exported(), file_rows().text());
}

TEST_F(export_file, slope_and_offset_read_back_from_the_point_columns) {
    file_rows file;
    file.section[4] = "1,1,0,0,a,6,2,ro,0,,1,2.500000,-1.000000,,,,,,,\n";
    ASSERT_EQ(import(file), 0);
    EXPECT_EQ(rows_of_section(4), "1,1,0,0,a,6,2,ro,0,,1,0.000000,1.000000,,,,,,,\n");
    EXPECT_EQ(block_line("0, 0, 'a', 6, 2, 'ro', 0, '', 1, 8, 9, 2.5, -1, 7, 7, 'c', 1, ''"),
              "1,1,0,0,a,6,2,ro,0,,1,2.500000,-1.000000,,,,,,,\n");
}

TEST_F(export_file, a_longer_file_of_before_is_cut) {
    write(out_, std::string(100000, '#'));
    const std::string first = exported();
    EXPECT_EQ(first.rfind("version: 1.0.0\n", 0), 0U);
    EXPECT_EQ(first.find('#'), std::string::npos);
}

TEST_F(export_file, rows_come_in_the_order_of_the_database) {
    fill("INSERT INTO device VALUES (7, 1, 'c'), (3, 2, 'b'), (200, 1, 'a')");
    EXPECT_EQ(rows_of_section(1), "3,2,b\n7,1,c\n200,1,a\n");
}

TEST_F(export_file, flags_of_a_port_are_0_or_1) {
    execute(
        working_db_path(),
        "UPDATE interface_setting SET frameFormat = -7, initialDelay = 2147483647, busOffReset = "
        "7, resistor = -1 WHERE portId = 1");
    EXPECT_EQ(rows_of_section(0), "1,-7,3,2147483647,1,1\n2,0,3,0,0,0\n");
}

TEST_F(export_file, columns_of_a_transaction_that_are_not_relevant_stay_empty) {
    EXPECT_EQ(transaction_line("0, 0, 5, 2, 6, 7, 1, 8, 9, 10"), "1,1,1,n,0,0,5,2,6,7,,,,\n");
    EXPECT_EQ(transaction_line("0, 0, 5, 1, 6, 7, 1, 8, 9, 10"), "1,1,1,n,0,0,5,1,6,7,,,,\n");
    EXPECT_EQ(transaction_line("0, 1, 5, 0, 6, 7, 1, 8, 9, 10"), "1,1,1,n,0,1,,0,,7,,,,\n");
    EXPECT_EQ(transaction_line("0, 2, 5, 3, 6, 7, 1, 8, 9, 10"), "1,1,1,n,0,2,,3,,7,,,,\n");
    EXPECT_EQ(transaction_line("1, 0, 5, 2, 6, 7, 1, 8, 9, 10"), "1,1,1,n,1,,,,,,1,8,,\n");
    EXPECT_EQ(transaction_line("1, 0, 5, 2, 6, 7, 0, 8, 9, 10"), "1,1,1,n,1,,,,,,0,,,\n");
    EXPECT_EQ(transaction_line("1, 0, 5, 2, 6, 7, 2, 8, 9, 10"), "1,1,1,n,1,,,,,,2,,,\n");
    EXPECT_EQ(transaction_line("2, 0, 5, 1, 6, 7, 1, 8, 9, 10"), "1,1,1,n,2,0,5,1,6,,,,9,10\n");
    EXPECT_EQ(transaction_line("2, 1, 5, 0, 6, 7, 1, 8, 9, 10"), "1,1,1,n,2,1,,0,,,,,9,10\n");
    EXPECT_EQ(transaction_line("3, 0, 5, 2, 6, 7, 1, 8, 9, 10"), "1,1,1,n,3,,,,,,,,,\n");
}

TEST_F(export_file, a_transaction_without_a_name) {
    fill(
        "INSERT INTO device VALUES (1, 1, 'd'); INSERT INTO transactions (transactionId, deviceId) "
        "VALUES (1, 1)");
    EXPECT_EQ(rows_of_section(2), "1,1,1,,0,0,1000,0,,0,,,,\n");
}

TEST_F(export_file, can_ids_are_upper_case_hexadecimal) {
    fill(
        "INSERT INTO device VALUES (1, 1, 'd'); INSERT INTO transactions (transactionId, deviceId) "
        "VALUES (1, 1); INSERT INTO frame VALUES (1, 1, 0, 0, 0), (2, 1, 0x1ab, 8, 255), (3, 1, "
        "0x1FFFFFFF, 255, 3)");
    EXPECT_EQ(rows_of_section(3), "1,1,0,0,0\n2,1,1AB,8,255\n3,1,1FFFFFFF,255,3\n");
}

TEST_F(export_file, columns_of_a_tag_that_are_not_relevant_stay_empty) {
    const std::string numbers = ", 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 'c', 2, 'FF'";
    EXPECT_EQ(block_line("0, 3, 'a', 6, 2, 'ro', 1, '44', 0" + numbers),
              "1,1,0,3,a,6,2,ro,1,,0,,,,,,,,,\n");
    EXPECT_EQ(block_line("0, 3, 'a', 6, 2, 'ro', 1, '44', 2" + numbers),
              "1,1,0,3,a,6,2,ro,1,,2,,,3.500000,4.500000,5.500000,6.500000,,,\n");
    EXPECT_EQ(block_line("0, 3, 'a', 6, 2, 'ro', 1, '44', 3" + numbers),
              "1,1,0,3,a,6,2,ro,1,,3,,,,,,,,,\n");
    EXPECT_EQ(block_line("0, 3, 'a', 13, 2, 'ro', 1, '44', 2" + numbers),
              "1,1,0,3,a,13,2,ro,1,,,,,,,,,,,\n");
}

/** On processors without a wider type SQLite reads a large number some bits off. */
double as_sqlite_reads(const std::string &text) {
    sqlite3 *db = nullptr;
    sqlite3_stmt *row = nullptr;
    EXPECT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(db, ("SELECT " + text).c_str(), -1, &row, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(row), SQLITE_ROW);
    const double value = sqlite3_column_double(row, 0);
    (void)sqlite3_finalize(row);
    (void)sqlite3_close(db);
    return value;
}

TEST_F(export_file, reals_are_written_as_printf_writes_them) {
    constexpr std::array numbers = {0.0,
                                    0.1,
                                    -0.1,
                                    0.0000005,
                                    0.0000015,
                                    2.5e-7,
                                    1.0,
                                    255.0,
                                    -40.25,
                                    1e15,
                                    1e16,
                                    1e22,
                                    1e300,
                                    -1e300,
                                    123456.789,
                                    1.0 / 3,
                                    2147483647.0,
                                    9007199254740993.0};
    for (const double number : numbers) {
        std::array<char, 512> sql{};
        (void)snprintf(sql.data(), sql.size(), "%.17e", number);
        std::array<char, 512> expected{};
        (void)snprintf(expected.data(), expected.size(), "%f", as_sqlite_reads(sql.data()));
        const std::string line = block_line("0, 3, 'a', 6, 2, 'ro', 1, '44', 2, 0, 0, " +
                                            std::string(sql.data()) + ", 0, 0, 0, 'c', 1, ''");
        EXPECT_EQ(line,
                  "1,1,0,3,a,6,2,ro,1,,2,,," + std::string(expected.data()) +
                      ",0.000000,0.000000,0.000000,,,\n");
    }
}

TEST_F(export_file, tag_types_above_13_are_exported_with_their_scaling) {
    const std::string numbers = ", 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 'c', 2, 'FF'";
    for (const char *type : {"14", "255", "0", "12"}) {
        EXPECT_EQ(block_line("0, 3, 'a', " + std::string(type) + ", 2, 'ro', 1, '44', 1" + numbers),
                  "1,1,0,3,a," + std::string(type) + ",2,ro,1,,1,3.500000,4.500000,,,,,,,\n");
    }
}

TEST_F(export_file, fpData_is_exported_where_fpFunc_is_2) {
    const std::string tag = "0, 3, 'a', 13, 2, 'wo', 1, '44', 0, 1, 0, 0, 1, 0, 1, 'c', 1, ''";
    EXPECT_EQ(block_line(tag, 2), "1,1,0,3,a,13,2,wo,1,44,,,,,,,,,,\n");
    for (const int fpFunc : {0, 1, 3}) {
        EXPECT_EQ(block_line(tag, fpFunc), "1,1,0,3,a,13,2,wo,1,,,,,,,,,,,\n") << fpFunc;
    }
}

TEST_F(export_file, texts_are_cut_where_their_records_are) {
    const std::string rest = ", 0, 1, 0, 0, 1, 0, 1, 'c', 1, ''";
    const std::string most(24, 'F');
    EXPECT_EQ(block_line("0, 3, 'a', 13, 2, 'rw', 1, '" + most + "'" + rest, 2),
              "1,1,0,3,a,13,2,rw,1," + most + ",,,,,,,,,,\n");
    EXPECT_EQ(block_line("0, 3, 'a', 13, 2, 'rwx', 1, '" + most + "0'" + rest, 2),
              "1,1,0,3,a,13,2,rw,1," + most + ",,,,,,,,,,\n");
    EXPECT_EQ(block_line("0, 3, NULL, 13, 2, NULL, 1, NULL" + rest, 2),
              "1,1,0,3,,13,2,,1,,,,,,,,,,,\n");
}

TEST_F(export_file, names_have_no_bound) {
    const std::string name(300, 'n');
    fill("INSERT INTO device VALUES (1, 1, '" + name + "')");
    EXPECT_EQ(rows_of_section(1), "1,1," + name + "\n");
}

TEST_F(export_file, texts_are_written_as_they_are) {
    fill("INSERT INTO device VALUES (1, 1, 'a\"b'), (2, 1, 'a,b'), (3, 1, '%s%n'), (4, 1, '')");
    EXPECT_EQ(rows_of_section(1), "1,1,a\"b\n2,1,a,b\n3,1,%s%n\n4,1,\n");
}

TEST_F(export_file, a_constant_is_as_wide_as_its_size) {
    const auto constant = [this](int size, const std::string &value) {
        return block_line("1, 3, 'tag', 13, 1, 'ro', 0, '', 0, 1, 0, 0, 1, 0, 1, 'c', " +
                          std::to_string(size) + ", '" + value + "'");
    };
    const std::string row = "1,1,1,3,,,,,,,,,,,,,,c,";
    EXPECT_EQ(constant(1, "5A"), row + "1,5A\n");
    EXPECT_EQ(constant(1, "5a"), row + "1,5A\n");
    EXPECT_EQ(constant(2, "ABC"), row + "2,0ABC\n");
    EXPECT_EQ(constant(2, "5A"), row + "2,005A\n");
    EXPECT_EQ(constant(2, ""), row + "2,0000\n");
    EXPECT_EQ(constant(1, "123456"), row + "1,123456\n"); // wider than its size
    EXPECT_EQ(constant(8, "0123456789ABCDEF"), row + "8,0123456789ABCDEF\n");
    EXPECT_EQ(constant(8, "FFFFFFFFFFFFFFFF"), row + "8,FFFFFFFFFFFFFFFF\n");
    EXPECT_EQ(constant(8, "0123456789ABCDEF01"), row + "8,0123456789ABCDEF\n");
    EXPECT_EQ(constant(0, ""), row + "0,0\n");
    EXPECT_EQ(constant(255, "1"), row + "255," + std::string(509, '0') + "1\n");
}

TEST_F(export_file, real_numbers_have_six_decimals) {
    EXPECT_EQ(
        block_line("0, 0, 'a', 6, 2, 'ro', 0, '', 2, 0, 0, 0.1, -1e-7, 1e15, 123456.7890123, "
                   "'c', 1, ''"),
        "1,1,0,0,a,6,2,ro,0,,2,,,0.100000,-0.000000,1000000000000000.000000,123456.789012,,,\n");
}

TEST_F(export_file, a_block_of_an_unknown_type_cannot_be_read_and_so_not_be_exported) {
    fill(
        "INSERT INTO device VALUES (1, 1, 'd'); INSERT INTO transactions (transactionId, deviceId) "
        "VALUES (1, 1); INSERT INTO frame VALUES (1, 1, 1, 8, 0); INSERT INTO block (blockId, "
        "frameId, blockType) VALUES (1, 1, 1), (2, 1, 2)");
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); }),
                ElementsAre("block_get_row|param fail\n"));
}

TEST_F(export_file, missing_path_and_working_copy) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_export(nullptr), -1); }),
                ElementsAre(exporting + std::string("Null parm.\n")));
    std::filesystem::remove(working_db_path());
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); }),
                ElementsAre("open_db|Can't open database: unable to open database file. " +
                                working_db_path() + "\n",
                            exporting + std::string("get db fail\n")));
    EXPECT_FALSE(exists(out_));
}

TEST_F(export_file, a_file_that_cannot_be_opened_counts_as_success) {
    EXPECT_THAT(messages_of([this] {
                    EXPECT_EQ(can_proprietary_conf_export(path("no/out.csv").c_str()), 0);
                }),
                ElementsAre(exporting + std::string("open fail\n"),
                            "Error: : No such file or directory\n"));
    EXPECT_THAT(
        messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(path("etc").c_str()), 0); }),
        ElementsAre(exporting + std::string("open fail\n"), "Error: : Is a directory\n"));
}

TEST_F(export_file, a_disk_without_room_fails_the_export) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_export("/dev/full"), -1); }),
                ElementsAre(exporting + std::string("No space left on device\n")));
}

TEST_F(export_file, a_write_that_failed_early_fails_the_export) {
    g_import_faults.unreadable = true;
    EXPECT_EQ(
        messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); }).size(),
        1U);
}

using writer = int (*)(sqlite3 *, FILE *);

constexpr writer writers[] = {export_interface_setting_parm,
                              export_device_parm,
                              export_transaction_parm,
                              export_frame_parm,
                              export_block_parm};

constexpr const char *functions[] = {"export_interface_setting_parm",
                                     "export_device_parm",
                                     "export_transaction_parm",
                                     "export_frame_parm",
                                     "export_block_parm"};

TEST_F(export_file, a_section_whose_rows_cannot_be_read_still_ends_with_its_empty_line) {
    sqlite3 *empty = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &empty), SQLITE_OK);
    const connection db(empty);
    for (int i = 0; i < 5; i++) {
        const messages said = messages_of([&] {
            EXPECT_EQ(section(writers[i], db.get(), -1), section_tops[i] + std::string("\n"));
        });
        const std::string name = table_names[i];
        EXPECT_THAT(said,
                    ElementsAre(functions[i] + ("|no such table: " + name +
                                                ". Sql: SELECT * FROM " + name + "\n")));
    }
}

TEST_F(export_file, the_first_section_that_fails_is_the_last_one_written) {
    execute(working_db_path(), "ALTER TABLE transactions RENAME TO elsewhere");
    EXPECT_THAT(
        messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); }),
        ElementsAre("export_transaction_parm|no such table: transactions. Sql: SELECT * FROM "
                    "transactions\n"));
    EXPECT_EQ(read(out_),
              std::string("version: 1.0.0\n\n") + section_tops[0] + "1,0,3,0,0,0\n2,0,3,0,0,0\n\n" +
                  section_tops[1] + "\n" + section_tops[2] + "\n");
}

TEST_F(export_file, rows_that_stop_coming_fail_the_export) {
    ASSERT_EQ(import(file_rows()), 0);
    for (int i = 0; i < 5; i++) {
        g_import_faults.interrupted = "SELECT * FROM " + std::string(table_names[i]);
        g_import_faults.nth = 2;
        EXPECT_THAT(
            messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); }),
            ElementsAre(functions[i] + std::string("|interrupted. Sql: SELECT * FROM ") +
                        table_names[i] + "\n"));
    }
}

constexpr const char *owner_message =
    ". SQL: SELECT * FROM transactions t JOIN frame f ON t.transactionId = f.transactionId WHERE "
    "f.frameId = ";

TEST_F(export_file, the_owner_of_a_tag_that_cannot_be_looked_up) {
    sqlite3 *own = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &own), SQLITE_OK);
    const connection db(own);
    ASSERT_EQ(rows_of(own, schema()), "");
    ASSERT_EQ(
        rows_of(own,
                "INSERT INTO block (blockId, frameId, blockType, constantName) VALUES (1, 7, 1, "
                "'c'); INSERT INTO block (blockId, frameId) VALUES (2, 7); DROP TABLE "
                "transactions"),
        "");
    const messages said =
        messages_of([&] { EXPECT_TRUE(section(export_block_parm, own, -1).ends_with("\n")); });
    EXPECT_THAT(said,
                ElementsAre("write_tag_detail_info_to_csv|no such table: transactions" +
                                std::string(owner_message) + "7\n",
                            "export_block_parm|write_tag_detail_info_to_csv is fail"));
}

TEST_F(export_file, the_owner_of_a_tag_whose_look_up_is_interrupted) {
    ASSERT_EQ(import(file_rows()), 0);
    g_import_faults.interrupted = "JOIN frame";
    g_import_faults.nth = 2; // one look-up for each frame
    EXPECT_THAT(
        messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); }),
        ElementsAre("write_tag_detail_info_to_csv|interrupted" + std::string(owner_message) + "2\n",
                    "export_block_parm|write_tag_detail_info_to_csv is fail"));
}

TEST_F(export_file, lack_of_memory_for_a_block_record_is_minus_7) {
    ASSERT_EQ(import(file_rows()), 0);
    const connection db = connect(working_db_path());
    const file_ptr file(fopen(out_.c_str(), "w"));
    ASSERT_NE(file, nullptr);
    const int faults = allocation_fault::sweep(
        [&] {
            int result = 0;
            const messages said =
                messages_of([&] { result = export_block_parm(db.get(), file.get()); });
            if (result != 0) {
                EXPECT_THAT(said, ElementsAre("export_block_parm|Memory allocation failed\n"));
            }
            return result;
        },
        [](int result, int nth) { EXPECT_EQ(result, -7) << nth; });
    EXPECT_GE(faults, 6);
    allocation_fault::arm(1);
    EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -7);
    EXPECT_TRUE(allocation_fault::disarm());
}

TEST_F(export_file, lack_of_memory_in_the_database_never_gives_a_file_with_other_rows) {
    ASSERT_EQ(import(file_rows()), 0);
    const std::string expected = exported();
    int failures = 0;
    for (int nth = 1; nth < 3000; nth++) {
        const captured_log quiet;
        sqlite_memory_fault::arm(nth, false);
        const int result = can_proprietary_conf_export(out_.c_str());
        const bool failed = sqlite_memory_fault::disarm();
        if (result == 0) {
            ASSERT_EQ(read(out_), expected) << nth;
        } else {
            failures++;
        }
        if (!failed) {
            break;
        }
    }
    EXPECT_GT(failures, 10);
}

TEST_F(export_file, a_locked_working_copy) {
    const connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    const messages said =
        messages_of([this] { EXPECT_EQ(can_proprietary_conf_export(out_.c_str()), -1); });
    EXPECT_EQ(said.back(), exporting + std::string("get db fail\n"));
}

TEST_F(export_file, an_export_is_no_change) {
    const std::string before = read(working_db_path());
    (void)exported();
    EXPECT_EQ(read(working_db_path()), before);
    int changed = 7;
    EXPECT_EQ(can_proprietary_db_get_ram_modified(&changed), 0);
    EXPECT_EQ(changed, 0);
}

} // namespace
