#include "config_fixture.h"
#include "crash_point.h"

namespace {

constexpr const char *device_names = "SELECT deviceName FROM device";

/** Power or process fails before any change that a step makes: the next start comes up whole. */
class cut_off : public gateway {
protected:
    /** Both files of a next start, and no file beside the usual ones. */
    void expect_whole(const std::string &devices, int nth) const {
        for (const std::string &file : {persistent_db_path(), working_db_path()}) {
            ASSERT_EQ(rows_of(file, "PRAGMA integrity_check"), "ok") << nth;
            ASSERT_EQ(rows_of(file, "SELECT portId FROM interface_setting"), "1 2") << nth;
            ASSERT_EQ(rows_of(file, device_names), devices) << nth << file;
        }
        ASSERT_EQ(read(saved_schema_path()), read(shipped_schema_path())) << nth;
    }

    /** A power failure empties the memory file system, a killed process leaves it. */
    void lose(bool power) const {
        if (power) {
            std::filesystem::remove_all(path("run"));
        }
    }

    static void start_quietly() {
        ASSERT_THAT(messages_of([] { start(); }), IsEmpty());
    }

    /** A gateway that has been started, its rows old and, not applied, new. */
    void restore_gateway() const {
        if (!exists(path("saved"))) {
            make_gateway();
        }
        for (const char *folder : {"data", "run", "etc"}) {
            std::filesystem::remove_all(path(folder));
            std::filesystem::copy(
                path("saved/") + folder, path(folder), std::filesystem::copy_options::recursive);
        }
        EXPECT_EQ(can_proprietary_db_update_ram_modified_time(), 0);
    }

    void make_gateway() const {
        start();
        for (const std::string &file : {persistent_db_path(), working_db_path()}) {
            const std::string name = file == working_db_path() ? "new" : "old";
            execute(file,
                    "INSERT INTO device VALUES (1, 1, '" + name +
                        "');"
                        "INSERT INTO transactions (deviceId, transactionName) SELECT 1,"
                        " hex(randomblob(600)) FROM (VALUES (1), (2), (3), (4), (5), (6))");
        }
        for (const char *folder : {"data", "run", "etc"}) {
            std::filesystem::create_directory(path("saved"));
            std::filesystem::rename(path(folder), path("saved/") + folder);
        }
    }
};

TEST_F(cut_off, first_start) {
    for (const bool power : {false, true}) {
        int steps = 0;
        for (bool crashed = true; crashed; steps += power ? 5 : 1) {
            std::filesystem::remove_all(path("data"));
            std::filesystem::remove_all(path("run"));
            crashed = crash_point::crashes(steps + 1, [] { start(); });
            lose(power);
            start_quietly();
            expect_whole("", steps);
            ASSERT_FALSE(HasFatalFailure());
            EXPECT_EQ(files(), files_of_a_started_gateway()) << steps;
        }
        EXPECT_GT(steps, 40);
    }
}

TEST_F(cut_off, boot) {
    int steps = 0;
    for (bool crashed = true; crashed; steps++) {
        restore_gateway();
        lose(true);
        crashed = crash_point::crashes(steps + 1, [] { start(); });
        start_quietly();
        expect_whole("old", steps);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_EQ(files(), files_of_a_started_gateway()) << steps;
    }
    EXPECT_GT(steps, 10);
}

TEST_F(cut_off, migration) {
    for (const bool power : {false, true}) {
        int steps = 0;
        for (bool crashed = true; crashed; steps += power ? 5 : 1) {
            restore_gateway();
            write(shipped_schema_path(), schema() + "CREATE TABLE added (x);\n");
            crashed = crash_point::crashes(steps + 1, [] { start(); });
            lose(power);
            start_quietly();
            expect_whole("old", steps);
            ASSERT_FALSE(HasFatalFailure());
            EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM added"), "0");
        }
        EXPECT_GT(steps, 40);
    }
}

TEST_F(cut_off, apply) {
    int old = 0;
    int steps = 0;
    for (bool crashed = true; crashed; steps++) {
        restore_gateway();
        crashed = crash_point::crashes(steps + 1, [] { (void)can_proprietary_conf_apply(); });
        lose(true);
        start_quietly();
        const std::string found = rows_of(persistent_db_path(), device_names);
        old += found == "old" ? 1 : 0;
        expect_whole(found, steps);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_TRUE(found == "new" || (crashed && found == "old")) << steps << found;
    }
    EXPECT_GT(old, 5);
    EXPECT_GT(steps, 10);
}

TEST_F(cut_off, discard) {
    int steps = 0;
    for (bool crashed = true; crashed; steps++) {
        restore_gateway();
        crashed = crash_point::crashes(steps + 1, [] { (void)can_proprietary_conf_discard(); });
        start_quietly();
        sqlite3 *db = can_proprietary_db_get();
        ASSERT_NE(db, nullptr);
        const std::string found = rows_of(db, device_names);
        EXPECT_TRUE(found == "old" || (crashed && found == "new")) << steps << found;
        EXPECT_EQ(can_proprietary_db_close(db), 0);
        EXPECT_EQ(rows_of(persistent_db_path(), device_names), "old");
    }
    EXPECT_GT(steps, 10);
}

TEST_F(cut_off, removal_of_corrupt_databases) {
    int steps = 0;
    for (bool crashed = true; crashed; steps++) {
        restore_gateway();
        crashed = crash_point::crashes(steps + 1, [] { remove_all_databases(); });
        if (steps == 0) {
            EXPECT_TRUE(exists(default_db_path())); // nothing was removed yet
            continue;
        }
        start_quietly();
        expect_whole("", steps);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_EQ(files(), files_of_a_started_gateway()) << steps;
    }
    EXPECT_EQ(steps, 7);
}

TEST_F(cut_off, failed_change_of_a_start_is_mended_by_the_next) {
    for (const bool migrates : {false, true}) {
        int steps = 0;
        for (bool failed = true; failed; steps++) {
            restore_gateway();
            if (migrates) {
                write(shipped_schema_path(), schema() + "CREATE TABLE added (x);\n");
            } else {
                std::filesystem::remove_all(path("data"));
                std::filesystem::remove_all(path("run"));
            }
            crash_point::fail_change(steps + 1);
            int result = 7;
            const messages logged =
                messages_of([&result] { result = can_proprietary_db_init_user_config(); });
            failed = crash_point::stop_failing();
            ASSERT_TRUE(result == 0 || (result == -1 && failed)) << steps;
            start_quietly();
            expect_whole(migrates ? "old" : "", steps);
            ASSERT_FALSE(HasFatalFailure());
            EXPECT_EQ(can_proprietary_restart, 0) << steps;
        }
        EXPECT_GT(steps, 40);
    }
}

} // namespace
