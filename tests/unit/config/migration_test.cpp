#include "config/read.h"
#include "config_fixture.h"
#include "crash_point.h"
#include "read_fault.h"

namespace {

/** A gateway with rows, applied, and an edit that is not. */
class migration : public started_gateway {
protected:
    migration() {
        execute(working_db_path(),
                "INSERT INTO device VALUES (7, 2, 'seven'), (9, 1, 'nine');"
                "INSERT INTO transactions (transactionId, deviceId, transactionName)"
                " VALUES (300, 9, 't');"
                "INSERT INTO frame VALUES (500, 300, 0x1ABCDEF0, 8, 1);"
                "INSERT INTO block (blockId, frameId, tagName) VALUES (600, 500, 'tag')");
        EXPECT_EQ(can_proprietary_conf_apply(), 0);
        execute(working_db_path(), "UPDATE device SET deviceName = 'edit'");
    }

    static void ship(const std::string &text) { write(shipped_schema_path(), text); }

    /** The shipped schema with one column more and one less. */
    static std::string changed_schema() {
        std::string text = schema();
        const auto replace = [&text](const std::string &from, const std::string &to) {
            const size_t at = text.find(from);
            ASSERT_NE(at, std::string::npos) << from;
            text.replace(at, from.size(), to);
        };
        replace("deviceName TEXT NOT NULL", "deviceName TEXT NOT NULL, colour TEXT DEFAULT 'red'");
        replace("    resistor INTEGER NOT NULL DEFAULT 0\n", "    other INTEGER DEFAULT 5\n");
        return text;
    }

    static std::string devices(const std::string &file) {
        return rows_of(file, "SELECT deviceId, portId, deviceName FROM device");
    }

    static void expect_old_databases_whole() {
        EXPECT_EQ(devices(persistent_db_path()), "7|2|seven 9|1|nine");
        EXPECT_EQ(devices(working_db_path()), "7|2|edit 9|1|edit");
        EXPECT_NE(read(saved_schema_path()), read(shipped_schema_path()));
    }

    static void expect_migrated() {
        EXPECT_EQ(read(saved_schema_path()), read(shipped_schema_path()));
        for (const std::string &file : {persistent_db_path(), working_db_path()}) {
            EXPECT_EQ(rows_of(file, "SELECT * FROM device"), "7|2|seven|red 9|1|nine|red");
            EXPECT_EQ(rows_of(file, "SELECT * FROM interface_setting"), "1|0|3|0|0|5 2|0|3|0|0|5");
            EXPECT_EQ(rows_of(file, "SELECT * FROM frame"), "500|300|448585456|8|1");
            EXPECT_EQ(rows_of(file, "SELECT blockId, tagName FROM block"), "600|tag");
            EXPECT_EQ(rows_of(file, "SELECT transactionId FROM transactions"), "300");
            EXPECT_EQ(rows_of(file, "PRAGMA integrity_check"), "ok");
        }
        EXPECT_EQ(rows_of(default_db_path(), "SELECT count(colour) FROM device"), "0");
    }

    static messages failing_start() {
        return messages_of([] { EXPECT_EQ(can_proprietary_db_init_user_config(), -1); });
    }

    static std::string failed_merge() {
        return "do_migration|merge '" + persistent_db_path() + "' into '" + default_db_path() +
               "' fail!\n";
    }
};

TEST_F(migration, same_schema_changes_nothing) {
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(devices(working_db_path()), "7|2|edit 9|1|edit");
}

TEST_F(migration, rows_keep_their_keys_and_lose_what_was_not_applied) {
    ship(changed_schema());
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    expect_migrated();
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

TEST_F(migration, difference_of_one_byte_is_a_changed_schema) {
    std::string other_letter = schema();
    other_letter[3]++; // in a comment
    for (const std::string &text : {schema() + "\n", other_letter, schema()}) {
        ship(text);
        EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
        EXPECT_EQ(read(saved_schema_path()), text);
        EXPECT_EQ(devices(working_db_path()), "7|2|seven 9|1|nine");
    }
}

TEST_F(migration, rows_that_the_new_schema_would_refuse_are_kept) {
    std::string text = schema();
    text.replace(text.find("BETWEEN 0 AND 255),\n    portId"), 17, "BETWEEN 0 AND 8");
    ship(text);
    start();
    EXPECT_EQ(devices(working_db_path()), "7|2|seven 9|1|nine");
}

TEST_F(migration, vanished_shipped_schema_fails_and_changes_nothing) {
    std::filesystem::remove(shipped_schema_path());
    const std::string reason = "get_file_contents|Fail to open " + shipped_schema_path() +
                               ", Error : No such file or directory\n";
    EXPECT_THAT(
        failing_start(),
        ElementsAre(reason,
                    "is_sql_the_same|can not read  " + shipped_schema_path() + " schema\n",
                    reason,
                    "create_default_db|can not read  " + shipped_schema_path() + " db schema\n"));
    EXPECT_EQ(devices(persistent_db_path()), "7|2|seven 9|1|nine");
    ship(schema());
    start();
    EXPECT_EQ(devices(persistent_db_path()), "7|2|seven 9|1|nine");
}

TEST_F(migration, schema_that_is_read_in_part_costs_no_rows) {
    ship(changed_schema());
    g_read_fault.read = 3; // behind the comparison of both
    EXPECT_THAT(
        failing_start(),
        ElementsAre("get_file_contents|Fail to read schema. " + shipped_schema_path() + "\n",
                    "create_default_db|can not read  " + shipped_schema_path() + " db schema\n"));
    expect_old_databases_whole();
    start();
    expect_migrated();
}

TEST_F(migration, vanished_saved_schema_stops_every_start_and_removes_nothing) {
    std::filesystem::remove(saved_schema_path());
    for (int i = 0; i < 2; i++) {
        EXPECT_THAT(
            failing_start(),
            ElementsAre("get_file_contents|Fail to open " + saved_schema_path() +
                            ", Error : No such file or directory\n",
                        "is_sql_the_same|can not read  " + saved_schema_path() + " db schema\n",
                        "can_proprietary_db_init_user_config|Fail to remove " +
                            saved_schema_path() + ", Error : No such file or directory\n"));
    }
    expect_all_databases();
    EXPECT_EQ(devices(persistent_db_path()), "7|2|seven 9|1|nine");
}

TEST_F(migration, schema_that_is_no_sql_keeps_the_old_databases) {
    ship("NONSENSE;");
    EXPECT_THAT(failing_start(),
                ElementsAre("create_default_db|Fail to set schema. "
                            "near \"NONSENSE\": syntax error\n"));
    expect_old_databases_whole();
    ship(changed_schema());
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    expect_migrated();
}

TEST_F(migration, failed_merge_keeps_rows_and_is_tried_again) {
    const std::string rows = read(persistent_db_path());
    write(persistent_db_path(), std::string(8192, 'x'));
    ship(changed_schema());
    for (int i = 0; i < 2; i++) {
        const messages logged = failing_start();
        ASSERT_FALSE(logged.empty());
        EXPECT_EQ(logged.back(), failed_merge());
    }
    EXPECT_EQ(read(persistent_db_path()), std::string(8192, 'x'));
    EXPECT_EQ(devices(working_db_path()), "7|2|edit 9|1|edit");
    write(persistent_db_path(), rows);
    start();
    expect_migrated();
}

TEST_F(migration, vanished_persistent_database_fails_once_and_then_starts_anew) {
    std::filesystem::remove(persistent_db_path());
    ship(changed_schema());
    EXPECT_THAT(failing_start(), ElementsAre(failed_merge()));
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    for (const std::string &file : {persistent_db_path(), working_db_path()}) {
        EXPECT_EQ(rows_of(file, "SELECT count(colour) FROM device"), "0");
        EXPECT_EQ(rows_of(file, "SELECT * FROM interface_setting"), "1|0|3|0|0|5 2|0|3|0|0|5");
    }
}

TEST_F(migration, working_copy_that_cannot_be_removed_stops_it) {
    std::filesystem::remove(working_db_path());
    std::filesystem::create_directories(working_db_path() + "/x");
    ship(changed_schema());
    EXPECT_THAT(failing_start(),
                ElementsAre("do_migration|Fail to remove " + working_db_path() +
                            ", Error : Directory not empty\n"));
    std::filesystem::remove_all(working_db_path());
    start();
    expect_migrated();
}

TEST_F(migration, default_database_that_cannot_be_replaced_stops_it) {
    std::filesystem::remove(default_db_path());
    std::filesystem::create_directories(default_db_path() + "/x");
    ship(changed_schema());
    EXPECT_THAT(failing_start(),
                ElementsAre("do_migration|Fail to remove " + default_db_path() +
                            ", Error : Is a directory\n"));
    expect_old_databases_whole();
}

TEST_F(migration, saved_schema_that_cannot_be_written_repeats_it) {
    ship(changed_schema());
    messages logged;
    for (int nth = 1; logged != messages{"do_migration|file copy fail\n"}; nth++) {
        // A single failed step makes the start fail, and the next one mends it.
        crash_point::fail_change(nth);
        int result = 7;
        logged = messages_of([&result] { result = can_proprietary_db_init_user_config(); });
        ASSERT_TRUE(crash_point::stop_failing()) << "no step made the copy of the schema fail";
        if (result == 0) {
            ship(read(shipped_schema_path()) + "\n");
        }
    }
    EXPECT_NE(read(saved_schema_path()), read(shipped_schema_path()));
    start();
    expect_migrated();
}

TEST_F(migration, journal_of_the_working_copy_is_not_played_back_into_its_successor) {
    execute(working_db_path(),
            "CREATE TABLE filler (x); INSERT INTO filler"
            " VALUES (randomblob(3000000))");
    const auto edit = [] {
        const connection db = connect(working_db_path());
        (void)rows_of(db.get(),
                      "PRAGMA cache_size = 1; BEGIN;"
                      "UPDATE filler SET x = randomblob(3000000); COMMIT");
    };
    ASSERT_TRUE(crash_point::crashes(600, edit)); // in the midst of writing its pages
    ASSERT_GT(std::filesystem::file_size(working_db_path() + "-journal"), 100000U);
    ship(changed_schema());
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    expect_migrated();
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

} // namespace
