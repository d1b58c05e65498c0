#include "import_fixture.h"

using ::testing::AnyOf;
using ::testing::StrEq;

namespace {

/** Fields that try to be more than a value: they fail the import and change nothing. */
class import_smuggling : public importing {
protected:
    import_smuggling() { EXPECT_EQ(import(file_rows()), 0); }

    /** Every place of a file where a number stands; the place is marked. */
    static std::vector<std::string> number_places() {
        std::vector<std::string> found;
        const file_rows plain;
        const std::pair<int, const char *> rows[] = {{0, "1,0,3,0,0,0"},
                                                     {1, "1,1,drive"},
                                                     {2, "2,1,1,command,0,0,500,2,300,1,,,,"},
                                                     {3, "1,1,181,8,1"},
                                                     {4,
                                                      "2,1,0,2,temp,6,2,ro,0,,2,,,0.000000,"
                                                      "100.000000,-40.000000,85.500000,,,"}};
        for (const auto &[section, row] : rows) {
            const std::string line = row;
            for (size_t at = 0; at < line.size();) {
                const size_t end = std::min(line.find(',', at), line.size());
                const std::string field = line.substr(at, end - at);
                if (field.find_first_of("0123456789") == 0 || field.starts_with("-")) {
                    file_rows file = plain;
                    file.section[section] = replaced(
                        plain.section[section], line, line.substr(0, at) + "@" + line.substr(end));
                    found.push_back(file.text());
                }
                at = end + 1;
            }
        }
        return found;
    }
};

TEST_F(import_smuggling, a_number_column_takes_no_function_no_query_and_no_second_statement) {
    const char *values[] = {"(SELECT 1)",
                            "1);DELETE FROM device;--",
                            "1;DROP TABLE device",
                            "load_extension('/tmp/x.so')",
                            "load_extension(char(47))",
                            "random()",
                            "abs(-1)",
                            "count(*)",
                            "1--",
                            "1/*",
                            "'1'",
                            "\"1\"",
                            "[1]",
                            "`1`",
                            "?",
                            "?1",
                            ":a",
                            "@a",
                            "$a",
                            "x'41'",
                            "1||1",
                            "1=1",
                            "1*2",
                            "1+1",
                            "1 - 1",
                            "0x1E+1",
                            "1);ATTACH ':memory:' AS a;--",
                            "1) ON CONFLICT DO NOTHING"};
    const std::vector<std::string> places = number_places();
    ASSERT_EQ(places.size(), 34U);
    const std::string before = everything();
    for (const std::string &place : places) {
        for (const char *value : values) {
            const captured_log quiet;
            ASSERT_EQ(import(replaced(place, "@", value)), -1) << place << value;
            // A type that begins with a digit asks for further columns first.
            ASSERT_THAT(err.key, AnyOf(StrEq("syntax-err"), StrEq("missing-necessary-parameter")))
                << value;
            ASSERT_EQ(everything(), before) << value;
        }
    }
}

TEST_F(import_smuggling, what_a_number_column_says_of_a_value_that_is_none) {
    file_rows file;
    file.section[1] = "1,(SELECT 1),drive\n";
    EXPECT_THAT(refused(file, "syntax-err", "device", 1),
                ElementsAre(insert_message(readers[1], 1, "unrecognized token")));
    file.section[1] = "1, 0x1e+2,drive\n"; // a sum, blank or not
    EXPECT_THAT(refused(file, "syntax-err", "device", 1),
                ElementsAre(insert_message(readers[1], 1, "unrecognized token")));
    file.section[1] = "attach,1,drive\n";
    EXPECT_THAT(refused(file, "syntax-err", "device", 1),
                ElementsAre(insert_message(readers[1], 1, "no such column: attach")));
    file.section[1] = "1,load_extension,drive\n";
    EXPECT_THAT(refused(file, "syntax-err", "device", 1),
                ElementsAre(insert_message(readers[1], 1, "no such column: load_extension")));
}

TEST_F(import_smuggling, a_text_cannot_leave_its_quotes) {
    const char *values[] = {"'",
                            "''",
                            "o'clock",
                            "x');DELETE FROM device;--",
                            "x' || (SELECT deviceName FROM device) || '",
                            "' || load_extension(char(47)) || '",
                            "x'--",
                            "x'/*"};
    const struct {
        int line;
        const char *part;
        const char *by;
    } places[] = {{1, "1,1,0,0,speed,6,2,ro,", "1,1,0,0,speed,6,2,@,"},
                  {4, "wo,0,0102,", "wo,0,@,"},
                  {3, "kind,1,5A", "kind,1,@"}};
    for (const auto &place : places) {
        for (const char *value : values) {
            file_rows file;
            file.section[4] = replaced(file.section[4], place.part, replaced(place.by, "@", value));
            EXPECT_THAT(
                refused(file, "syntax-err", "block", place.line),
                ElementsAre(insert_message(readers[4], place.line, "near \"'\": syntax error")));
        }
    }
}

TEST_F(import_smuggling, a_text_without_quotes_is_stored_as_it_stands) {
    for (const char *value : {"a;b",
                              "a--b",
                              "/*",
                              "\"",
                              "%s%n%d",
                              "\\",
                              "DROP TABLE device",
                              ");DELETE FROM device;--",
                              "load_extension(x)",
                              "\x01\x7f",
                              "\xc3\xa9",
                              "\xff\xfe"}) {
        file_rows file;
        file.section[4] =
            replaced(file.section[4], "wo,0,0102,", "wo,0," + std::string(value) + ",");
        EXPECT_EQ(import(file), 0) << value;
        EXPECT_EQ(committed("SELECT fpData FROM block WHERE blockId = 4"), value);
    }
}

TEST_F(import_smuggling, a_word_of_sql_that_is_a_value_is_one) {
    file_rows file;
    file.section[0] = "1,TRUE,+3,- 5,1e1,0x10\n2,0,3,0,0,0\n";
    EXPECT_EQ(import(file), 0);
    EXPECT_EQ(committed("SELECT * FROM interface_setting WHERE portId = 1"), "1|1|3|-5|10|16");
}

TEST_F(import_smuggling, a_row_is_one_statement) {
    file_rows file;
    file.section[1] = "1,1,drive); DELETE FROM interface_setting; --\n";
    EXPECT_THAT(refused(file, "syntax-err", "device", 1, 3), ::testing::SizeIs(1));
    file.section[1] = "1,1,drive,);DELETE FROM interface_setting;--\n2,2,sensor\n";
    EXPECT_EQ(import(file), 0); // beyond the columns nothing is looked at
    EXPECT_EQ(committed("SELECT count(*) FROM interface_setting"), "2");
}

TEST_F(import_smuggling, a_section_cannot_name_another_table) {
    for (const char *head :
         {"[sqlite_master]", "[sqlite_schema]", "[device;block]", "[main.device]"}) {
        (void)refused(file_rows().text() + head + "\nx\n1,1,x\n", "syntax-err", "", 7);
    }
}

} // namespace
