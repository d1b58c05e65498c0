#include "config_fixture.h"
#include "fake_stat.h"
#include "read_fault.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr const char *init = "can_proprietary_db_init_user_config|";

messages failing_start() {
    return messages_of([] { EXPECT_EQ(can_proprietary_db_init_user_config(), -1); });
}

std::string failed_removal(const std::string &file, const char *reason) {
    return init + std::string("Fail to remove ") + file + ", Error : " + reason + "\n";
}

/** The first start, and starts that find some of the files. */
class first_start : public gateway {};

TEST_F(first_start, makes_all_files_and_logs_nothing) {
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(files(), files_of_a_started_gateway());
    EXPECT_EQ(read(saved_schema_path()), schema());
    constexpr const char *ports = "SELECT * FROM interface_setting";
    EXPECT_EQ(rows_of(default_db_path(), ports), "");
    EXPECT_EQ(rows_of(persistent_db_path(), ports), "1|0|3|0|0|0 2|0|3|0|0|0");
    EXPECT_EQ(rows_of(working_db_path(), ports), "1|0|3|0|0|0 2|0|3|0|0|0");
    int changed = 7;
    EXPECT_EQ(can_proprietary_db_get_ram_modified(&changed), 0);
    EXPECT_EQ(changed, 0);
}

TEST_F(first_start, makes_one_row_per_port) {
    for (const int ports : {0, 1, 5}) {
        std::filesystem::remove_all(path("data"));
        std::filesystem::remove_all(path("run"));
        g_can_port_count = ports;
        start();
        EXPECT_EQ(rows_of(working_db_path(),
                          "SELECT count(*), ifnull(max(portId), 0)"
                          " FROM interface_setting"),
                  std::to_string(ports) + "|" + std::to_string(ports));
    }
}

TEST_F(first_start, number_of_ports_stays_that_of_the_persistent_database) {
    start();
    g_can_port_count = 4;
    std::filesystem::remove_all(path("run"));
    start();
    EXPECT_EQ(rows_of(working_db_path(), "SELECT portId FROM interface_setting"), "1 2");
}

TEST_F(first_start, databases_without_a_default_database_are_not_trusted) {
    start();
    for (const std::string &file : {persistent_db_path(), working_db_path()}) {
        execute(file, "INSERT INTO device VALUES (1, 1, 'old')");
    }
    std::filesystem::remove(default_db_path());
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT count(*) FROM device"), "0");
    EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM device"), "0");
}

TEST_F(first_start, old_database_that_cannot_be_removed_stops_it) {
    for (const std::string &file : {persistent_db_path(), working_db_path()}) {
        std::filesystem::create_directories(file + "/x");
        EXPECT_THAT(failing_start(), ElementsAre(failed_removal(file, "Directory not empty")));
        std::filesystem::remove_all(file);
    }
    for (const std::string &file : {persistent_db_path(), working_db_path()}) {
        std::filesystem::create_directories(file + "/x");
    }
    EXPECT_THAT(failing_start(), // the persistent one goes first
                ElementsAre(failed_removal(persistent_db_path(), "Directory not empty")));
    std::filesystem::remove_all(persistent_db_path());
    std::filesystem::remove_all(working_db_path());
    start();
}

TEST_F(first_start, missing_schema_stops_it) {
    std::filesystem::remove(shipped_schema_path());
    EXPECT_THAT(
        failing_start(),
        ElementsAre("get_file_contents|Fail to open " + shipped_schema_path() +
                        ", Error : No such file or directory\n",
                    "create_default_db|can not read  " + shipped_schema_path() + " db schema\n"));
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(first_start, schema_that_is_no_sql_stops_it_and_leaves_nothing) {
    write(shipped_schema_path(), schema() + "NONSENSE;");
    EXPECT_THAT(failing_start(),
                ElementsAre("create_default_db|Fail to set schema. "
                            "near \"NONSENSE\": syntax error\n"));
    EXPECT_THAT(files(), IsEmpty());
    write(shipped_schema_path(), schema());
    start();
}

TEST_F(first_start, empty_schema_gives_no_port_rows_and_stops_it) {
    write(shipped_schema_path(), "");
    EXPECT_THAT(
        failing_start(),
        ElementsAre("get_file_contents|Fail to read schema. " + shipped_schema_path() + "\n"));
    EXPECT_FALSE(exists(persistent_db_path()));
    EXPECT_FALSE(exists(persistent_db_path() + ".new"));
}

TEST_F(first_start, schema_that_is_read_in_part_stops_it_and_leaves_nothing) {
    g_read_fault.read = 1;
    EXPECT_THAT(
        failing_start(),
        ElementsAre("get_file_contents|Fail to read schema. " + shipped_schema_path() + "\n",
                    "create_default_db|can not read  " + shipped_schema_path() + " db schema\n"));
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

TEST_F(first_start, persistent_database_that_cannot_be_looked_for_is_not_made_without_tables) {
    g_read_fault.looked_for = persistent_db_path();
    EXPECT_THAT(failing_start(),
                ElementsAre(init + std::string("Copy can_proprietary config DB fail!\n")));
    EXPECT_FALSE(exists(persistent_db_path()));
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM interface_setting"), "2");
}

TEST_F(first_start, default_folder_that_cannot_be_made_stops_it) {
    make_folder_of(persistent_db_path());
    write(path("data/config/kt-can-proprietary/default"), "a file where the folder should be");
    EXPECT_THAT(failing_start(),
                ElementsAre("create_default_db|Fail to open default file. "
                            "unable to open database file\n"));
}

TEST_F(first_start, saved_schema_that_cannot_be_written_stops_it) {
    std::filesystem::create_directories(saved_schema_path() + "/x");
    EXPECT_THAT(failing_start(), ElementsAre("create_default_db|file copy fail\n"));
    EXPECT_THAT(files(), IsEmpty());
    std::filesystem::remove_all(saved_schema_path());
    start();
}

TEST_F(first_start, persistent_database_that_cannot_be_made_stops_it) {
    std::filesystem::create_directories(persistent_db_path() + ".new/x");
    EXPECT_THAT(failing_start(),
                ElementsAre("db_copy|sqlite dest file (" + persistent_db_path() + ") open fail\n",
                            init + std::string("Copy can_proprietary default config DB fail!\n")));
    EXPECT_FALSE(exists(persistent_db_path()));
    std::filesystem::remove_all(persistent_db_path() + ".new");
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
}

TEST_F(first_start, working_copy_that_cannot_be_made_stops_it) {
    std::filesystem::create_directories(working_db_path() + ".new/x");
    EXPECT_THAT(failing_start(),
                ElementsAre("db_copy|sqlite dest file (" + working_db_path() + ") open fail\n",
                            init + std::string("Copy can_proprietary config DB fail!\n")));
    std::filesystem::remove_all(working_db_path() + ".new");
    start();
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

/** Later starts. */
class next_start : public started_gateway {
protected:
    /** The memory file system is empty after a boot. */
    void boot() const { std::filesystem::remove_all(path("run")); }
};

TEST_F(next_start, pass_after_a_pass_keeps_edits_that_are_not_applied) {
    execute(working_db_path(), "INSERT INTO device VALUES (1, 1, 'edit')");
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(rows_of(working_db_path(), "SELECT deviceName FROM device"), "edit");
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT count(*) FROM device"), "0");
}

TEST_F(next_start, after_a_boot_the_working_copy_is_the_persistent_database) {
    execute(persistent_db_path(), "INSERT INTO device VALUES (1, 1, 'kept')");
    boot();
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(rows_of(working_db_path(), "SELECT deviceName FROM device"), "kept");
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

TEST_F(next_start, link_in_the_place_of_the_working_copy_is_not_followed) {
    boot();
    std::filesystem::create_directories(path("run/config/kt-can-proprietary"));
    std::filesystem::copy(persistent_db_path(), path("victim"));
    execute(path("victim"), "INSERT INTO device VALUES (1, 1, 'foreign')");
    const std::string untouched = read(path("victim"));
    std::filesystem::create_symlink(path("victim"), working_db_path());
    EXPECT_THAT(
        messages_of([] { start(); }),
        ElementsAre("drop_working_link|" + working_db_path() + " is a symbolic link, removed\n"));
    execute(working_db_path(), "INSERT INTO device VALUES (2, 1, 'own')");
    EXPECT_EQ(rows_of(working_db_path(), "SELECT deviceName FROM device"), "own");
    EXPECT_EQ(read(path("victim")), untouched);
}

TEST_F(next_start, working_folder_that_cannot_be_made_stops_it) {
    boot();
    write(path("run"), "a file where the folder should be");
    EXPECT_THAT(failing_start(),
                ElementsAre("db_copy|sqlite dest file (" + working_db_path() + ") open fail\n",
                            init + std::string("Copy can_proprietary config DB fail!\n")));
    std::filesystem::remove(path("run"));
    start();
}

TEST_F(next_start, vanished_persistent_database_is_made_from_the_default) {
    std::filesystem::remove(persistent_db_path());
    boot();
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT portId FROM interface_setting"), "1 2");
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

TEST_F(next_start, persistent_file_that_is_no_database_stops_it_and_stays) {
    write(persistent_db_path(), std::string(8192, 'x'));
    boot();
    EXPECT_THAT(failing_start(),
                ElementsAre("db_copy|sqlite3_backup_step rc=26\n",
                            init + std::string("Copy can_proprietary config DB fail!\n")));
    EXPECT_EQ(read(persistent_db_path()), std::string(8192, 'x'));
    EXPECT_FALSE(exists(working_db_path()));
}

TEST_F(next_start, damaged_persistent_page_shows_when_its_copy_is_opened) {
    const std::string whole = read(persistent_db_path());
    write(persistent_db_path(), whole.substr(0, 4096) + std::string(whole.size() - 4096, 'z'));
    boot();
    start();
    EXPECT_EQ(messages_of([] { EXPECT_EQ(can_proprietary_db_get(), nullptr); }).size(), 4U);
    expect_no_database();
    EXPECT_EQ(can_proprietary_restart, 1);
    start();
    EXPECT_EQ(rows_of(working_db_path(), "SELECT portId FROM interface_setting"), "1 2");
}

TEST_F(next_start, default_database_that_is_no_database_stops_a_new_persistent_one) {
    write(default_db_path(), std::string(8192, 'x'));
    std::filesystem::remove(persistent_db_path());
    EXPECT_THAT(failing_start(),
                ElementsAre("db_copy|sqlite3_backup_step rc=26\n",
                            init + std::string("Copy can_proprietary default config DB fail!\n")));
    EXPECT_FALSE(exists(persistent_db_path()));
}

TEST_F(next_start, damaged_default_database_removes_all_when_its_copy_gets_its_rows) {
    const std::string whole = read(default_db_path());
    write(default_db_path(), whole.substr(0, 4096) + std::string(whole.size() - 4096, 'z'));
    std::filesystem::remove(persistent_db_path());
    const std::string pragma = "open_db_no_foreign|SQL error: database disk image is malformed. " +
                               persistent_db_path() + "\n";
    EXPECT_THAT(failing_start(),
                ElementsAre(pragma,
                            pragma,
                            "is_db_integrity_corrupt|db is corrupt by integrity check, "
                            "database disk image is malformed\n",
                            "open_db_no_foreign|db '" + persistent_db_path() +
                                "' is corrupt, remove db and exit process\n",
                            "insert_default_row|Cannot open '" + persistent_db_path() + "'\n"));
    expect_no_database();
    EXPECT_EQ(can_proprietary_restart, 1);
    start();
    expect_all_databases();
}

TEST_F(next_start, leftovers_of_starts_that_were_cut_off_do_no_harm) {
    for (const std::string &file : databases()) {
        for (const char *suffix : {".new", ".new-journal", ".new.new", ".new.new-journal"}) {
            write(file + suffix, std::string(8192, 'x'));
        }
    }
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    for (const std::string &file : databases()) {
        std::filesystem::remove(file);
    }
    EXPECT_THAT(messages_of([] { start(); }), IsEmpty());
    for (const std::string &file : databases()) {
        EXPECT_EQ(rows_of(file, "PRAGMA integrity_check"), "ok");
        EXPECT_FALSE(exists(file + ".new"));
        EXPECT_FALSE(exists(file + ".new-journal"));
    }
}

/** Apply, discard and change detection. */
class edited_gateway : public started_gateway {
protected:
    edited_gateway() {
        execute(working_db_path(), "INSERT INTO device VALUES (1, 1, 'edit')");
        set_age(-10);
    }

    /** Seconds from now to the working copy's modification time. */
    static void set_age(int seconds) {
        timespec times[2] = {};
        (void)clock_gettime(CLOCK_REALTIME, &times[0]);
        times[0].tv_sec += seconds;
        times[1] = times[0];
        EXPECT_EQ(utimensat(AT_FDCWD, working_db_path().c_str(), times, 0), 0);
    }

    static int changed() {
        int flag = 7;
        EXPECT_EQ(can_proprietary_db_get_ram_modified(&flag), 0);
        return flag;
    }

    static std::string devices(const std::string &file) {
        return rows_of(file, "SELECT deviceName FROM device");
    }
};

TEST_F(edited_gateway, edit_shows_as_changed) {
    EXPECT_EQ(changed(), 1);
    set_age(10);
    EXPECT_EQ(changed(), 1);
}

TEST_F(edited_gateway, edit_within_the_same_second_is_not_seen) {
    EXPECT_EQ(can_proprietary_db_update_ram_modified_time(), 0);
    struct stat status {};
    ASSERT_EQ(stat(working_db_path().c_str(), &status), 0);
    const timespec times[2] = {{status.st_mtime, 1}, {status.st_mtime, 999999999}};
    ASSERT_EQ(utimensat(AT_FDCWD, working_db_path().c_str(), times, 0), 0);
    EXPECT_EQ(changed(), 0);
    const timespec later[2] = {{status.st_mtime + 1, 0}, {status.st_mtime + 1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, working_db_path().c_str(), later, 0), 0);
    EXPECT_EQ(changed(), 1);
}

TEST_F(edited_gateway, apply_saves_the_edit) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_apply(), 0); }), IsEmpty());
    EXPECT_EQ(devices(persistent_db_path()), "edit");
    EXPECT_EQ(devices(working_db_path()), "edit");
    EXPECT_EQ(changed(), 0);
    EXPECT_EQ(can_proprietary_restart, 0);
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

TEST_F(edited_gateway, apply_makes_a_vanished_persistent_database) {
    std::filesystem::remove(persistent_db_path());
    EXPECT_EQ(can_proprietary_conf_apply(), 0);
    EXPECT_EQ(devices(persistent_db_path()), "edit");
}

TEST_F(edited_gateway, apply_makes_no_folder) {
    std::filesystem::remove_all(path("data"));
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_apply(), -5); }),
                ElementsAre("db_copy|sqlite dest file (" + persistent_db_path() + ") open fail\n",
                            "can_proprietary_conf_apply|apply config fail\n"));
    EXPECT_FALSE(exists(path("data")));
    EXPECT_EQ(changed(), 1);
}

TEST_F(edited_gateway, discard_takes_the_edit_back) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_discard(), 0); }), IsEmpty());
    EXPECT_EQ(devices(working_db_path()), "");
    EXPECT_EQ(changed(), 0);
    EXPECT_EQ(can_proprietary_restart, 0);
}

TEST_F(edited_gateway, failed_discard_keeps_the_edit_and_the_changed_flag) {
    write(persistent_db_path(), std::string(8192, 'x'));
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_discard(), -5); }),
                ElementsAre("db_copy|sqlite3_backup_step rc=26\n",
                            "can_proprietary_conf_discard|discard config fail\n"));
    EXPECT_EQ(devices(working_db_path()), "edit");
    EXPECT_EQ(changed(), 1);
}

TEST_F(edited_gateway, discard_remakes_the_folder_of_the_working_copy) {
    std::filesystem::remove_all(path("run"));
    EXPECT_EQ(can_proprietary_conf_discard(), 0);
    EXPECT_EQ(devices(working_db_path()), "");
}

TEST_F(edited_gateway, next_pass_counts_the_edit_as_unchanged) {
    start();
    EXPECT_EQ(changed(), 0);
    EXPECT_EQ(devices(working_db_path()), "edit");
}

TEST_F(edited_gateway, time_that_cannot_be_read_fails_start_apply_and_discard) {
    const struct {
        int (*call)();
        int result;
    } steps[] = {{can_proprietary_db_init_user_config, -1},
                 {can_proprietary_conf_apply, -5},
                 {can_proprietary_conf_discard, -5}};
    for (const auto &step : steps) {
        g_fake_stat.fails = true;
        EXPECT_THAT(messages_of([&step] { EXPECT_EQ(step.call(), step.result); }),
                    ElementsAre("get_ram_modified_time|Fail to get time, Error : "
                                "Input/output error\n",
                                "can_proprietary_db_update_ram_modified_time|get time fail\n"));
        g_fake_stat.fails = false;
    }
    EXPECT_EQ(devices(persistent_db_path()), "edit"); // the copy itself was made
}

TEST_F(edited_gateway, time_of_a_missing_working_copy_cannot_be_read) {
    std::filesystem::remove(working_db_path());
    const std::string reason =
        "get_ram_modified_time|Fail to get time, Error : No such file or directory\n";
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_db_update_ram_modified_time(), -1); }),
                ElementsAre(reason, "can_proprietary_db_update_ram_modified_time|get time fail\n"));
    int flag = 7;
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(can_proprietary_db_get_ram_modified(&flag), -1); }),
                ElementsAre(reason, "can_proprietary_db_get_ram_modified|update fail\n"));
    EXPECT_EQ(flag, 7);
}

TEST_F(edited_gateway, paths_stand_below_the_root_and_without_one_they_are_the_gateways) {
    EXPECT_EQ(working_db_path(), path_ + "/run/config/kt-can-proprietary/can_proprietary.db");
    (void)unsetenv("KT_ROOT");
    EXPECT_EQ(shipped_schema_path(), "/etc/default/config/kt-can-proprietary/can_proprietary.sql");
    EXPECT_EQ(default_db_path(), "/data/config/kt-can-proprietary/default/can_proprietary.db");
    EXPECT_EQ(saved_schema_path(), "/data/config/kt-can-proprietary/default/can_proprietary.sql");
    EXPECT_EQ(persistent_db_path(), "/data/config/kt-can-proprietary/can_proprietary.db");
    EXPECT_EQ(working_db_path(), "/run/config/kt-can-proprietary/can_proprietary.db");
    (void)setenv("KT_ROOT", path_.c_str(), 1);
}

TEST_F(next_start, default_database_that_cannot_be_looked_for_costs_no_rows) {
    start();
    execute(persistent_db_path(), "INSERT INTO device VALUES (1, 1, 'kept')");
    const std::filesystem::path folder = std::filesystem::path(default_db_path()).parent_path();
    std::filesystem::rename(folder, path("aside"));
    std::filesystem::create_symlink("default", folder);
    (void)messages_of([] { EXPECT_EQ(can_proprietary_db_init_user_config(), -1); });
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT deviceName FROM device"), "kept");
    std::filesystem::remove(folder);
    std::filesystem::rename(path("aside"), folder);
    start();
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT deviceName FROM device"), "kept");
}

} // namespace
