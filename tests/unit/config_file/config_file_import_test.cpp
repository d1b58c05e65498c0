#include "import_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

/** can_proprietary_conf_import(): files and their sections. */
class import_file : public importing {
protected:
    static std::string top(int section) { return section_tops[section]; }

    static std::string section(int index) { return top(index) + file_rows().section[index] + "\n"; }

    static int64_t modified_ns(const std::string &file) {
        struct stat status {};
        EXPECT_EQ(stat(file.c_str(), &status), 0);
        return int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec;
    }
};

constexpr const char *driver = "can_proprietary_conf_import|";

TEST_F(import_file, the_rows_of_a_file_replace_those_of_the_working_copy) {
    execute(working_db_path(), "INSERT INTO device VALUES (9, 1, 'gone')");
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(import(file_rows()), 0); }), IsEmpty());
    EXPECT_EQ(everything(),
              "interface_setting: 1|0|3|0|0|0 2|1|7|500|1|1\n"
              "device: 1|1|drive 2|2|sensor\n"
              "transactions: 1|1|1|state|1|0|1000|0|10000|0|1|200|0|1000 "
              "2|1|1|command|0|0|500|2|300|1|0|10000|0|1000 "
              "3|2|0|poll|2|1|1000|0|10000|0|0|10000|3|250\n"
              "frame: 1|1|385|8|1 2|2|513|2|0 3|3|448585456|1|2 4|3|448585457|8|3\n"
              "block: 1|1|0|0|speed|6|2|ro|1||0|1.0|0.0|0.0|1.0|0.0|1.0|constantName|1| "
              "2|1|0|2|temp|6|2|ro|0||2|1.0|0.0|0.0|100.0|-40.0|85.5|constantName|1| "
              "3|1|1|7|tag|13|1|ro|0||0|1.0|0.0|0.0|1.0|0.0|1.0|kind|1|5A "
              "4|2|0|0|target|6|2|wo|0|0102|0|1.0|0.0|0.0|1.0|0.0|1.0|constantName|1| "
              "5|3|1|0|tag|13|1|ro|0||0|1.0|0.0|0.0|1.0|0.0|1.0|ask|2|0ABC "
              "6|4|0|0|raw|13|4|ro|0||0|1.0|0.0|0.0|1.0|0.0|1.0|constantName|1|\n");
    EXPECT_EQ(
        committed("SELECT DISTINCT typeof(constantValue), typeof(canId) FROM block JOIN frame "
                  "USING (frameId)"),
        "text|integer");
}

TEST_F(import_file, only_the_working_copy_changes) {
    const std::string persistent = read(persistent_db_path());
    ASSERT_EQ(import(file_rows()), 0);
    EXPECT_EQ(read(persistent_db_path()), persistent);
    EXPECT_THAT(files(), ::testing::ElementsAreArray(files_of_a_started_gateway()));
}

TEST_F(import_file, empty_sections_leave_empty_tables) {
    ASSERT_EQ(import(file_rows()), 0);
    file_rows rows;
    for (int i = 1; i < 5; i++) {
        rows.section[i].clear();
    }
    EXPECT_EQ(import(rows), 0);
    EXPECT_EQ(everything(),
              "interface_setting: 1|0|3|0|0|0 2|1|7|500|1|1\ndevice: \ntransactions: \nframe: \n"
              "block: \n");
}

TEST_F(import_file, the_version_line_is_never_looked_at) {
    const std::string text = file_rows().text();
    for (const char *other :
         {"", "version: 2.0.0\n", "\xef\xbb\xbfversion: 1.0.0\r\n", "x\n\n\n"}) {
        EXPECT_EQ(import(replaced(text, "version: 1.0.0\n\n", other)), 0) << other;
    }
}

TEST_F(import_file, lines_outside_of_sections_that_do_not_begin_with_a_bracket_are_skipped) {
    std::string text;
    for (int i = 0; i < 5; i++) {
        text += " [nothing]\nx[device]\n1,2,3\n\n#\n" + section(i) + "7,7,skipped\n" +
                std::string(300, 'x') + "\n";
    }
    EXPECT_EQ(import(text), 0);
    EXPECT_EQ(committed("SELECT deviceName FROM device"), "drive sensor");
}

TEST_F(import_file, the_rest_of_a_long_line_is_a_line_of_its_own) {
    const std::string text = file_rows().text();
    EXPECT_EQ(import(std::string(254, 'x') + "[unknown]\n" + text), 0);
    (void)refused(std::string(255, 'x') + "[unknown]\n" + text, "syntax-err", "", 0);
    EXPECT_EQ(import(std::string(256, 'x') + "[unknown]\n" + text), 0);
}

TEST_F(import_file, a_head_is_found_anywhere_in_its_line) {
    std::string text = file_rows().text();
    for (const char *head :
         {"[interface-setting]", "[device]", "[transactions]", "[frame]", "[block]"}) {
        text = replaced(text, head, "[" + std::string(head) + ",,,  ");
    }
    EXPECT_EQ(import(text), 0);
}

TEST_F(import_file, of_two_heads_in_a_line_the_earlier_table_wins) {
    std::string text = file_rows().text();
    text = replaced(text, "[device]", "[block][device]");
    EXPECT_EQ(import(text), 0);
    EXPECT_EQ(import(replaced(text, "[block]\n", "[block][frame]\n")), -1);
    EXPECT_STREQ(err.table_name, "frame");
}

TEST_F(import_file, an_unknown_head) {
    for (const std::string head :
         {"[devices]", "[]", "[", "[Device]", "[interface_setting]", "[dev"}) {
        EXPECT_THAT(
            refused(head + "\n" + file_rows().text(), "syntax-err", "", 0),
            ElementsAre(driver + ("Data error at line 0, table name error : " + head) + "\n\n"));
    }
}

TEST_F(import_file, an_unknown_head_names_the_line_read_last) {
    const std::string text = section(0) + section(1) + section(2) + "[x]\r\n" + section(3);
    EXPECT_THAT(
        refused(text, "syntax-err", "", 4),
        ElementsAre(driver + std::string("Data error at line 4, table name error : [x]\r\n\n")));
    EXPECT_THAT(refused(section(0) + section(1) + section(2) + "[", "syntax-err", "", 4),
                ElementsAre(driver + std::string("Data error at line 4, table name error : [\n")));
}

TEST_F(import_file, each_missing_section_is_named) {
    for (int missing = 0; missing < 5; missing++) {
        std::string text;
        for (int i = 0; i < 5; i++) {
            // Without rows, so that nothing refers to rows that are not there.
            text += i == missing ? "" : top(i) + (i == 0 ? file_rows().section[0] : "") + "\n";
        }
        // The empty line of the last section, or the transactions that its frames were held to.
        const int line = missing == 4 ? 0 : 1;
        EXPECT_THAT(refused(text, "missing-table", table_names[missing], line),
                    ElementsAre(driver + std::string("miss table ") + table_names[missing] + "\n"));
    }
}

TEST_F(import_file, of_several_missing_sections_the_last_one_stays) {
    EXPECT_THAT(refused(section(0) + section(1), "missing-table", "block", 3),
                ElementsAre(driver + std::string("miss table transactions\n"),
                            driver + std::string("miss table frame\n"),
                            driver + std::string("miss table block\n")));
    EXPECT_THAT(refused(top(3) + "\n" + top(4), "missing-table", "transactions", 0),
                ElementsAre(driver + std::string("miss table interface_setting\n"),
                            driver + std::string("miss table device\n"),
                            driver + std::string("miss table transactions\n")));
    for (const char *text : {"", "version: 1.0.0\n", "\n", "device\n"}) {
        EXPECT_EQ(refused(text, "missing-table", "block", 0).size(), 5U);
    }
}

TEST_F(import_file, the_line_that_ends_a_section_is_counted) {
    for (const char *end : {"\n", "\r\n", " x\n", ",,\n"}) {
        EXPECT_THAT(
            refused(top(1) + end + "[x]", "syntax-err", "", 1),
            ElementsAre(driver + std::string("Data error at line 1, table name error : [x]\n")))
            << end;
    }
    EXPECT_EQ(refused(section(0) + top(1), "missing-table", "block", 0).size(), 3U);
    EXPECT_EQ(refused(section(0) + top(1) + "1,1,x", "missing-table", "block", 1).size(), 3U);
    EXPECT_EQ(refused(section(0) + top(1) + "1,1,x\n\n", "missing-table", "block", 2).size(), 3U);
}

TEST_F(import_file, a_file_may_end_with_its_last_row) {
    std::string text = file_rows().text();
    ASSERT_TRUE(text.ends_with(",\n\n"));
    text.pop_back();
    EXPECT_EQ(import(text), 0);
    text.pop_back();
    EXPECT_EQ(import(text), 0);
    EXPECT_EQ(committed("SELECT count(*) FROM block"), "6");
}

TEST_F(import_file, a_file_may_end_with_a_header) {
    std::string text = section(0) + section(1) + section(2) + section(3) + top(4);
    EXPECT_EQ(import(text), 0);
    text.pop_back();
    EXPECT_EQ(import(text), 0);
}

TEST_F(import_file, lines_may_end_as_on_other_systems) {
    ASSERT_EQ(import(file_rows()), 0);
    const std::string expected = everything();
    std::string text;
    for (const char c : file_rows().text()) {
        text += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    EXPECT_EQ(import(text), 0);
    EXPECT_EQ(everything(), expected);
}

TEST_F(import_file, a_row_ends_at_its_first_carriage_return) {
    file_rows rows;
    rows.section[1] = "1,1,drive\r,x'\n2,2,sensor\r\r\n";
    EXPECT_EQ(import(rows), 0);
    EXPECT_EQ(committed("SELECT deviceName FROM device"), "drive sensor");
}

TEST_F(import_file, a_row_that_begins_with_white_space_ends_its_section) {
    for (const char *row : {" 3,1,x\n", "\t3,1,x\n", "\r\n", "\v\n", "\f3,1,x\n", " \n"}) {
        file_rows rows;
        rows.section[1] += row + std::string("this,is,not,read'\n");
        EXPECT_EQ(import(rows), 0) << row;
        EXPECT_EQ(committed("SELECT deviceName FROM device"), "drive sensor");
    }
}

TEST_F(import_file, a_row_of_commas_alone_ends_its_section) {
    for (const std::string row : {",\n", ",,,,,\r\n", ",,,,,,,,,,,,,,,,,,,\n", ",,\r"}) {
        file_rows rows;
        rows.section[1] += row + "this,is,not,read'\n";
        EXPECT_EQ(import(rows), row.ends_with("\n") ? 0 : -1) << row;
    }
    file_rows rows;
    rows.section[1] += ",,x\n";
    EXPECT_THAT(refused(rows, "missing-necessary-parameter", "device", 3, 1),
                ElementsAre(missing_message("import_device_parm", 3, 1)));
}

TEST_F(import_file, spreadsheets_pad_every_line_with_commas) {
    ASSERT_EQ(import(file_rows()), 0);
    const std::string expected = everything();
    std::string padded;
    std::string line;
    for (const char c : file_rows().text()) {
        if (c != '\n') {
            line += c;
            continue;
        }
        const auto fields = std::count(line.begin(), line.end(), ',');
        padded += line + std::string(static_cast<size_t>(19 - fields), ',') + "\r\n";
        line.clear();
    }
    EXPECT_EQ(import(padded), 0);
    EXPECT_EQ(everything(), expected);
}

TEST_F(import_file, without_an_empty_line_the_next_head_is_a_row) {
    const struct {
        int section;
        const char *key;
        int line;
        const char *message;
    } rows[] = {
        {0,
         "missing-necessary-parameter",
         3,
         "Data error at line 3, missing necessary parameter in column 2\n"},
        {1,
         "missing-necessary-parameter",
         3,
         "Data error at line 3, missing necessary parameter in column 2\n"},
        {2, "invalid-val", 4, "Missing value for column 2 at line 4\n"},
        {3,
         "missing-necessary-parameter",
         5,
         "Data error at line 5, missing necessary parameter in column 2\n"},
    };
    for (const auto &row : rows) {
        const std::string text = replaced(
            file_rows().text(), "\n\n" + top(row.section + 1), "\n" + top(row.section + 1));
        EXPECT_THAT(refused(text, row.key, table_names[row.section], row.line, 2),
                    ElementsAre(readers[row.section] + ("|" + std::string(row.message))));
    }
}

TEST_F(import_file, a_section_that_comes_twice_is_read_twice_and_the_last_one_stays) {
    ASSERT_EQ(import(file_rows()), 0);
    const std::string expected = everything();
    file_rows other;
    other.section[1] = "7,1,other\n";
    other.section[2] = other.section[3] = other.section[4] = "";
    EXPECT_EQ(import(other.text() + file_rows().text()), 0);
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(import(file_rows().text() + section(4) + section(4)), 0);
    EXPECT_EQ(everything(), expected);
}

TEST_F(import_file, a_section_takes_the_rows_below_it_along) {
    EXPECT_EQ(import(file_rows().text() + section(0)), 0);
    EXPECT_EQ(everything(),
              "interface_setting: 1|0|3|0|0|0 2|1|7|500|1|1\ndevice: \ntransactions: \nframe: \n"
              "block: \n");
    EXPECT_EQ(import(file_rows().text() + section(2)), 0);
    EXPECT_EQ(committed("SELECT count(*) FROM transactions"), "3");
    EXPECT_EQ(committed("SELECT count(*) FROM frame"), "0");
    EXPECT_EQ(committed("SELECT count(*) FROM block"), "0");
}

TEST_F(import_file, frames_are_counted_against_the_transactions_that_are_there_at_their_end) {
    ASSERT_EQ(import(file_rows()), 0);
    // The old transactions, to which the frames belong, go with the sections behind.
    EXPECT_EQ(import(section(3) + section(0) + section(1) + section(2) + top(4)), 0);
    EXPECT_EQ(committed("SELECT count(*) FROM transactions"), "3");
    EXPECT_EQ(committed("SELECT count(*) FROM frame"), "0");
    ASSERT_EQ(import(file_rows()), 0);
    // One that fits what is to come does not fit what is there.
    const std::string frames = top(3) + "1,1,181,8,1\n\n";
    const std::string transactions = top(2) + "1,1,1,state,1,,,,,,1,200,,\n\n";
    EXPECT_THAT(
        refused(
            frames + section(0) + section(1) + transactions + top(4), "invalid-frame", "frame", 2),
        ElementsAre("import_frame_parm|must have exactly one frame\n"));
}

TEST_F(import_file, a_child_section_in_front_of_its_parents_refers_to_no_row) {
    const std::string text = section(0) + section(1) + section(3) + section(2) + section(4);
    EXPECT_THAT(refused(text, "foreign-key-constraint-failed", "frame", 1),
                ElementsAre(insert_message(readers[3], 1, "FOREIGN KEY constraint failed")));
}

TEST_F(import_file, the_line_numbers_of_interfaces_go_on) {
    const std::string twice = section(0) + replaced(section(0), "1,0,3", "1,,3");
    EXPECT_THAT(refused(twice, "missing-necessary-parameter", "interface_setting", 4, 2),
                ElementsAre(missing_message(readers[0], 4, 2)));
    const std::string behind = section(0) + section(1) + section(2) + section(3) + section(4) +
                               replaced(section(0), "2,1,7", "2,,7");
    EXPECT_THAT(refused(behind, "missing-necessary-parameter", "interface_setting", 9, 2),
                ElementsAre(missing_message(readers[0], 9, 2)));
}

TEST_F(import_file, the_line_numbers_of_all_others_begin_anew) {
    const std::string text =
        section(0) + section(1) + replaced(section(1), "1,1,drive", "1,,drive");
    EXPECT_THAT(refused(text, "missing-necessary-parameter", "device", 1, 2),
                ElementsAre(missing_message(readers[1], 1, 2)));
}

TEST_F(import_file, missing_arguments_and_files) {
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(can_proprietary_conf_import(nullptr, &err), -1); }),
                ElementsAre(driver + std::string("Null parm.\n")));
    EXPECT_THAT(messages_of([this] {
                    EXPECT_EQ(can_proprietary_conf_import(path("none").c_str(), &err), -1);
                }),
                ElementsAre(driver + std::string("open fail\n")));
    EXPECT_STREQ(err.key, "");
    EXPECT_THAT(messages_of([this] {
                    EXPECT_EQ(can_proprietary_conf_import(path("etc").c_str(), &err), -1);
                }),
                ::testing::SizeIs(5)); // a folder opens and holds no section
    EXPECT_STREQ(err.key, "missing-table");
}

TEST_F(import_file, a_working_copy_that_is_not_there) {
    std::filesystem::remove(working_db_path());
    EXPECT_THAT(failing_import(file_rows().text()),
                ElementsAre("open_db|Can't open database: unable to open database file. " +
                                working_db_path() + "\n",
                            driver + std::string("get db fail\n")));
    EXPECT_FALSE(exists(working_db_path()));
}

TEST_F(import_file, an_import_is_a_change_and_a_failed_one_is_none) {
    const timespec past[2] = {{1, 0}, {1, 0}}; // not within the tick of the clock of files
    ASSERT_EQ(utimensat(AT_FDCWD, working_db_path().c_str(), past, 0), 0);
    const int64_t before = modified_ns(working_db_path());
    const std::string content = read(working_db_path());
    (void)refused(section(0) + section(1), "missing-table", "block", 3);
    EXPECT_EQ(modified_ns(working_db_path()), before);
    EXPECT_EQ(read(working_db_path()), content);
    EXPECT_EQ(import(file_rows()), 0);
    EXPECT_NE(modified_ns(working_db_path()), before);
}

TEST_F(import_file, a_failed_import_of_many_rows_is_no_change_either) {
    ASSERT_EQ(import(file_rows()), 0);
    const int64_t before = modified_ns(working_db_path());
    const std::string content = read(working_db_path());
    file_rows rows;
    for (int id = 10; id < 60000; id++) {
        rows.section[4] += std::to_string(id) + ",1,2,0,,,,,,,,,,,,,,,,\n";
    }
    rows.section[4] += "x\n";
    const messages said = failing_import(rows.text());
    EXPECT_THAT(said, ElementsAre(short_message(readers[4], 59997, 2)));
    EXPECT_EQ(modified_ns(working_db_path()), before);
    EXPECT_TRUE(read(working_db_path()) == content);
}

TEST_F(import_file, the_same_file_again_gives_the_same_rows) {
    ASSERT_EQ(import(file_rows()), 0);
    const std::string expected = everything();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(import(file_rows()), 0);
        EXPECT_EQ(everything(), expected);
    }
}

TEST_F(import_file, truncated_at_any_byte_it_is_imported_or_refused_whole) {
    const std::string text = file_rows().text();
    const std::string before = everything();
    for (size_t length = 0; length < text.size(); length++) {
        const captured_log quiet;
        const int result = import(text.substr(0, length));
        if (result == 0) {
            EXPECT_NE(everything(), before) << length;
            execute(working_db_path(),
                    "PRAGMA foreign_keys = ON; DELETE FROM interface_setting;"
                    "INSERT INTO interface_setting VALUES (1, 0, 3, 0, 0, 0), (2, 0, 3, 0, 0, 0)");
            continue;
        }
        ASSERT_EQ(result, -1) << length;
        ASSERT_STRNE(err.key, "") << length;
        ASSERT_EQ(everything(), before) << length;
    }
}

} // namespace
