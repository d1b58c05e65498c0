#include "config_fixture.h"

namespace {

class row_count : public started_gateway {
protected:
    row_count() {
        execute(working_db_path(),
                "INSERT INTO device VALUES (1, 1, 'a'), (2, 1, 'b'), (3, 2, 'c')");
    }
    ~row_count() override { EXPECT_EQ(can_proprietary_db_close(db), 0); }

    int count_where(const char *condition, int *count) {
        return can_proprietary_db_get_row_count(db, "device", condition, count);
    }

    sqlite3 *db = can_proprietary_db_get();
};

TEST_F(row_count, without_a_condition_all_rows_count) {
    int count = -1;
    EXPECT_EQ(count_where(nullptr, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(count_where("", &count), 0);
    EXPECT_EQ(count, 3);
}

TEST_F(row_count, condition_chooses_rows) {
    int count = -1;
    EXPECT_EQ(count_where("portId = 1", &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(count_where("portId = 9", &count), 0);
    EXPECT_EQ(count, 0);
}

TEST_F(row_count, missing_arguments_are_logged) {
    int count = 7;
    const std::string function = "can_proprietary_db_get_row_count|";
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_db_get_row_count(nullptr, "device", "", &count), -1);
                    EXPECT_EQ(can_proprietary_db_get_row_count(db, nullptr, "", &count), -1);
                    EXPECT_EQ(can_proprietary_db_get_row_count(db, "device", "", nullptr), -1);
                }),
                ElementsAre(function + "db is null\n",
                            function + "table_name is null\n",
                            function + "output_count is null\n"));
    EXPECT_EQ(count, 7);
}

TEST_F(row_count, failed_statement_gives_minus_1_and_logs_nothing) {
    int count = 7;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_db_get_row_count(db, "nothing", "", &count), -1);
                    EXPECT_EQ(count_where("no such thing", &count), -1);
                }),
                IsEmpty());
    EXPECT_EQ(count, 7);
}

TEST_F(row_count, step_that_meets_a_lock_gives_minus_1) {
    const connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    int count = 7;
    EXPECT_EQ(count_where("", &count), -1);
    EXPECT_EQ(count, 7);
}

TEST_F(row_count, statement_of_4095_bytes_is_the_longest) {
    const std::string start = "SELECT count(*) FROM device WHERE ";
    std::string condition = "deviceId = 12";
    condition.insert(0, sql_text_bytes - 1 - start.size() - condition.size(), ' ');
    execute(working_db_path(), "INSERT INTO device VALUES (12, 1, 'd')");
    int count = 7;
    EXPECT_EQ(count_where(condition.c_str(), &count), 0);
    EXPECT_EQ(count, 1);
    // Cut by one byte it would ask for device 1.
    count = 7;
    EXPECT_EQ(count_where((" " + condition).c_str(), &count), -1);
    EXPECT_EQ(count, 7);
}

} // namespace
