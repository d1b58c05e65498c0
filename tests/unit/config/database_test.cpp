#include "config_fixture.h"
#include "fault_countdown.h"
#include "small_disk.h"
#include "sqlite_memory_fault.h"

#include <cerrno>
#include <unistd.h>

namespace {

/** Reads of SQLite that end with EIO. One at a time. */
class failing_reads {
public:
    failing_reads() {
        replace("read", reinterpret_cast<sqlite3_syscall_ptr>(failing_read));
        replace("pread", reinterpret_cast<sqlite3_syscall_ptr>(failing_pread));
        replace("pread64", reinterpret_cast<sqlite3_syscall_ptr>(failing_pread));
    }
    failing_reads(const failing_reads &) = delete;
    failing_reads &operator=(const failing_reads &) = delete;
    ~failing_reads() {
        for (const char *name : {"read", "pread", "pread64"}) {
            replace(name, nullptr); // the system's again
        }
    }

    static fault_countdown countdown;

private:
    static void replace(const char *name, sqlite3_syscall_ptr call) {
        sqlite3_vfs *vfs = sqlite3_vfs_find(nullptr);
        (void)vfs->xSetSystemCall(vfs, name, call);
    }

    static bool fails() {
        errno = EIO;
        return countdown.fails_now();
    }

    static ssize_t failing_read(int fd, void *data, size_t size) {
        return fails() ? -1 : ::read(fd, data, size);
    }

    static ssize_t failing_pread(int fd, void *data, size_t size, off_t at) {
        return fails() ? -1 : ::pread(fd, data, size, at);
    }
};

fault_countdown failing_reads::countdown;

/** Opening, closing and transactions. */
class database : public started_gateway {
protected:
    static std::string quoted(const char *before, const char *after = "") {
        return before + working_db_path() + after;
    }

    /** What opening the working copy logs; it has to fail. */
    static messages failing_open() {
        sqlite3 *db = nullptr;
        messages logged = messages_of([&db] { db = can_proprietary_db_get(); });
        EXPECT_EQ(db, nullptr);
        (void)sqlite3_close(db);
        return logged;
    }

    static void expect_corrupt(const char *reason) {
        const std::string pragma = "open_db|SQL " + std::string(reason) + ". ";
        EXPECT_THAT(
            failing_open(),
            ElementsAre(pragma + working_db_path() + "\n",
                        pragma + working_db_path() + "\n",
                        "is_db_integrity_corrupt|db is corrupt by integrity check, " +
                            std::string(reason) + "\n",
                        quoted("open_db|db '", "' is corrupt, remove db and exit process\n")));
        expect_no_database();
        EXPECT_EQ(can_proprietary_restart, 1);
        EXPECT_EQ(can_proprietary_db_init_user_config(), 0);
        EXPECT_EQ(rows_of(working_db_path(), "SELECT portId FROM interface_setting"), "1 2");
    }

    static void expect_not_to_open(const char *reason) {
        EXPECT_THAT(failing_open(),
                    ElementsAre("open_db|Can't open database: " + std::string(reason) + ". " +
                                working_db_path() + "\n"));
        EXPECT_EQ(can_proprietary_restart, 0);
    }
};

TEST_F(database, connection_is_set_up_and_opening_logs_nothing) {
    sqlite3 *db = nullptr;
    EXPECT_THAT(messages_of([&db] { db = can_proprietary_db_get(); }), IsEmpty());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(sqlite3_set_authorizer(db, nullptr, nullptr), SQLITE_OK); // to look behind it
    EXPECT_EQ(rows_of(db, "PRAGMA synchronous"), "0");
    EXPECT_EQ(rows_of(db, "PRAGMA foreign_keys"), "1");
    EXPECT_EQ(rows_of(db, "PRAGMA journal_mode"), "delete");
    EXPECT_EQ(sqlite3_db_readonly(db, "main"), 0);
    EXPECT_NE(sqlite3_db_mutex(db), nullptr); // fully serialised
    EXPECT_EQ(g_fake_busy_timeout.asked_ms, 5000);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(database, connection_for_port_rows_has_no_foreign_keys) {
    sqlite3 *db = open_db_no_foreign(persistent_db_path().c_str(), "shown");
    ASSERT_NE(db, nullptr);
    EXPECT_NE(sqlite3_db_mutex(db), nullptr);
    EXPECT_EQ(rows_of(db, "PRAGMA synchronous"), "0");
    EXPECT_EQ(rows_of(db, "PRAGMA foreign_keys"), "0");
    EXPECT_EQ(rows_of(db, "PRAGMA journal_mode"), "delete");
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(database, connection_for_port_rows_is_not_created_and_shows_the_name_it_was_given) {
    EXPECT_THAT(messages_of([this] {
                    EXPECT_EQ(open_db_no_foreign(path("missing").c_str(), "shown"), nullptr);
                }),
                ElementsAre("open_db_no_foreign|Can't open database: "
                            "unable to open database file. shown\n"));
    EXPECT_FALSE(exists(path("missing")));
    EXPECT_EQ(can_proprietary_restart, 0);
}

TEST_F(database, missing_working_copy_is_not_created) {
    std::filesystem::remove(working_db_path());
    expect_not_to_open("unable to open database file");
    EXPECT_FALSE(exists(working_db_path()));
}

TEST_F(database, folder_in_place_of_the_working_copy_is_not_corruption) {
    std::filesystem::remove(working_db_path());
    std::filesystem::create_directory(working_db_path());
    expect_not_to_open("unable to open database file");
    expect_all_databases();
}

TEST_F(database, unreadable_working_copy_is_not_corruption) {
    ASSERT_EQ(chmod(working_db_path().c_str(), 0), 0);
    std::filesystem::permissions(path_, std::filesystem::perms::all);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(seteuid(65534), 0); // root may read everything
    }
    const messages logged = failing_open();
    if (root) {
        ASSERT_EQ(seteuid(0), 0);
    }
    EXPECT_THAT(
        logged,
        ElementsAre(quoted("open_db|Can't open database: unable to open database file. ", "\n")));
    EXPECT_EQ(can_proprietary_restart, 0);
    expect_all_databases();
}

TEST_F(database, working_copy_that_is_no_database_removes_all_three) {
    write(working_db_path(), std::string(8192, 'x'));
    expect_corrupt("file is not a database");
}

TEST_F(database, truncated_working_copy_removes_all_three) {
    const std::string whole = read(working_db_path());
    write(working_db_path(), whole.substr(0, whole.size() / 2));
    expect_corrupt("database disk image is malformed");
}

TEST_F(database, damaged_schema_page_removes_all_three) {
    std::string bytes = read(working_db_path());
    bytes.replace(100, 8, 8, 'z');
    write(working_db_path(), bytes);
    expect_corrupt("database disk image is malformed");
}

TEST_F(database, read_that_fails_is_not_corruption) {
    for (const bool lasting : {false, true}) {
        int failed = 0;
        do {
            failing_reads::countdown.arm(++failed, lasting);
            sqlite3 *db = nullptr;
            {
                const failing_reads reads;
                (void)messages_of([&db] { db = can_proprietary_db_get(); });
            }
            EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
            EXPECT_EQ(can_proprietary_restart, 0) << failed;
            expect_all_databases();
        } while (failing_reads::countdown.disarm());
        EXPECT_GT(failed, 2);
    }
}

TEST_F(database, one_database_that_cannot_be_removed_does_not_spare_the_others) {
    std::filesystem::remove(default_db_path());
    std::filesystem::create_directories(default_db_path() + "/x");
    write(working_db_path(), std::string(8192, 'x'));
    EXPECT_EQ(failing_open().size(), 4U); // of the opening; the removal says nothing
    EXPECT_TRUE(exists(default_db_path()));
    EXPECT_FALSE(exists(persistent_db_path()));
    EXPECT_FALSE(exists(working_db_path()));
    EXPECT_EQ(can_proprietary_restart, 1);
}

TEST_F(database, journal_goes_with_a_corrupt_database) {
    write(working_db_path(), std::string(8192, 'x'));
    write(persistent_db_path() + "-journal", "x");
    (void)failing_open();
    EXPECT_THAT(files(), ElementsAre("data/config/kt-can-proprietary/default/can_proprietary.sql"));
}

TEST_F(database, empty_file_passes_for_a_database_without_tables) {
    write(working_db_path(), "");
    sqlite3 *db = nullptr;
    EXPECT_THAT(messages_of([&db] { db = can_proprietary_db_get(); }), IsEmpty());
    ASSERT_NE(db, nullptr);
    int count = 7;
    EXPECT_EQ(can_proprietary_db_get_row_count(db, "device", nullptr, &count), -1);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
    expect_all_databases();
}

TEST_F(database, findings_of_an_integrity_check_that_runs_count_as_sound) {
    {
        const connection db = connect(working_db_path());
        EXPECT_EQ(rows_of(db.get(), "PRAGMA ignore_check_constraints = ON"), "");
        EXPECT_EQ(rows_of(db.get(), "INSERT INTO device VALUES (300, 1, 'a')"), "");
    }
    ASSERT_NE(rows_of(working_db_path(), "PRAGMA integrity_check"), "ok");
    sqlite3 *db = nullptr;
    EXPECT_THAT(messages_of([&db] { db = can_proprietary_db_get(); }), IsEmpty());
    EXPECT_NE(db, nullptr);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
    EXPECT_EQ(can_proprietary_restart, 0);
}

TEST_F(database, lock_that_does_not_come_free_fails_and_removes_nothing) {
    const connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    const std::string pragma = quoted("open_db|SQL database is locked. ", "\n");
    EXPECT_THAT(failing_open(),
                ElementsAre(pragma,
                            pragma,
                            quoted("open_db|Can't open database: database is locked. ", "\n")));
    EXPECT_EQ(can_proprietary_restart, 0);
    expect_all_databases();
}

TEST_F(database, lock_is_waited_for_once_in_full) {
    const connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    g_fake_busy_timeout.waits = 0;
    (void)failing_open();
    EXPECT_EQ(g_fake_busy_timeout.waits, 1);
}

TEST_F(database, connection_waits_after_an_opening_that_met_a_lock) {
    connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    g_fake_busy_timeout.after_wait = [&locker] { locker.reset(); };
    sqlite3 *db = nullptr;
    EXPECT_THAT(messages_of([&db] { db = can_proprietary_db_get(); }),
                ElementsAre(quoted("open_db|SQL database is locked. ", "\n")));
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(g_fake_busy_timeout.asked_ms, 5000);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(database, shared_lock_of_a_reader_does_not_disturb) {
    const connection reader = connect(working_db_path());
    ASSERT_EQ(rows_of(reader.get(), "BEGIN; SELECT count(*) FROM device"), "0");
    sqlite3 *db = nullptr;
    EXPECT_THAT(messages_of([&db] { db = can_proprietary_db_get(); }), IsEmpty());
    EXPECT_NE(db, nullptr);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(database, want_of_memory_removes_nothing) {
    bool opened_at_last = false;
    for (int nth = 1; !opened_at_last; nth++) {
        for (const bool lasting : {false, true}) {
            sqlite_memory_fault::arm(nth, lasting);
            sqlite3 *db = nullptr;
            const messages logged = messages_of([&db] { db = can_proprietary_db_get(); });
            opened_at_last = !sqlite_memory_fault::disarm();
            EXPECT_TRUE(db != nullptr || !logged.empty()) << nth;
            EXPECT_EQ(can_proprietary_db_close(db), 0);
            ASSERT_EQ(can_proprietary_restart, 0) << nth;
        }
    }
    expect_all_databases();
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT count(*) FROM interface_setting"), "2");
}

TEST_F(database, read_only_file_opens_for_reading) {
    const small_disk disk(path("run"), "size=256k");
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    start();
    ASSERT_TRUE(disk.make_read_only());
    sqlite3 *db = nullptr;
    EXPECT_THAT(messages_of([&db] { db = can_proprietary_db_get(); }), IsEmpty());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(rows_of(db, "SELECT count(*) FROM interface_setting"), "2");
    EXPECT_EQ(rows_of(db, "DELETE FROM device"), "error: attempt to write a readonly database");
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(database, close_accepts_null) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_db_close(nullptr), 0); }), IsEmpty());
}

TEST_F(database, close_fails_while_a_statement_lives) {
    sqlite3 *db = can_proprietary_db_get();
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT 1", -1, &statement, nullptr), SQLITE_OK);
    EXPECT_THAT(messages_of([db] { EXPECT_EQ(can_proprietary_db_close(db), -1); }),
                ElementsAre("can_proprietary_db_close|close db fail\n"));
    EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
    EXPECT_EQ(can_proprietary_db_close(db), 0);
}

TEST_F(database, end_of_a_transaction_gives_the_result_of_its_close) {
    for (const int commit : {0, 1}) {
        sqlite3 *db = can_proprietary_db_get();
        can_proprietary_db_start_set_db(db);
        sqlite3_stmt *statement = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT 1", -1, &statement, nullptr), SQLITE_OK);
        EXPECT_THAT(
            messages_of([db, commit] { EXPECT_EQ(can_proprietary_db_end_set_db(db, commit), -1); }),
            ElementsAre("can_proprietary_db_close|close db fail\n"));
        EXPECT_EQ(sqlite3_get_autocommit(db), 1); // the transaction itself has ended
        EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
        EXPECT_EQ(can_proprietary_db_close(db), 0);
    }
}

TEST_F(database, commit_keeps_what_was_written) {
    sqlite3 *db = can_proprietary_db_get();
    can_proprietary_db_start_set_db(db);
    EXPECT_EQ(rows_of(db, "INSERT INTO device VALUES (1, 1, 'a')"), "");
    EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM device"), "0");
    EXPECT_EQ(can_proprietary_db_end_set_db(db, 1), 0);
    EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM device"), "1");
}

TEST_F(database, every_commit_flag_but_0_commits) {
    for (const int flag : {-1, 2}) {
        sqlite3 *db = can_proprietary_db_get();
        can_proprietary_db_start_set_db(db);
        EXPECT_EQ(rows_of(db, "INSERT INTO device (portId, deviceName) VALUES (1, 'a')"), "");
        EXPECT_EQ(can_proprietary_db_end_set_db(db, flag), 0);
    }
    EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM device"), "2");
}

TEST_F(database, rollback_forgets_what_was_written) {
    sqlite3 *db = can_proprietary_db_get();
    can_proprietary_db_start_set_db(db);
    EXPECT_EQ(rows_of(db, "INSERT INTO device VALUES (1, 1, 'a')"), "");
    EXPECT_THAT(messages_of([db] { EXPECT_EQ(can_proprietary_db_end_set_db(db, 0), 0); }),
                IsEmpty());
    EXPECT_EQ(rows_of(working_db_path(), "SELECT count(*) FROM device"), "0");
}

TEST_F(database, rollback_without_a_transaction_is_no_failure) {
    sqlite3 *db = can_proprietary_db_get();
    EXPECT_THAT(messages_of([db] { EXPECT_EQ(can_proprietary_db_end_set_db(db, 0), 0); }),
                IsEmpty());
}

TEST_F(database, commit_that_a_reader_blocks_fails_and_changes_nothing) {
    const connection reader = connect(working_db_path());
    ASSERT_EQ(rows_of(reader.get(), "BEGIN; SELECT count(*) FROM device"), "0");
    sqlite3 *db = can_proprietary_db_get();
    can_proprietary_db_start_set_db(db);
    EXPECT_EQ(rows_of(db, "INSERT INTO device VALUES (1, 1, 'a')"), "");
    EXPECT_THAT(messages_of([db] { EXPECT_EQ(can_proprietary_db_end_set_db(db, 1), -1); }),
                ElementsAre("can_proprietary_db_end_set_db|sqlite exec database is locked\n"));
    EXPECT_EQ(rows_of(reader.get(), "COMMIT; SELECT count(*) FROM device"), "0");
}

TEST_F(database, begin_without_a_connection_is_logged) {
    const messages logged = messages_of([] { can_proprietary_db_start_set_db(nullptr); });
    EXPECT_THAT(logged,
                ElementsAre("can_proprietary_db_start_set_db|db is NULL\n",
                            "can_proprietary_db_start_set_db|"
                            "sqlite: begin transaction is fail\n"));
}

TEST_F(database, begin_inside_a_transaction_is_logged) {
    sqlite3 *db = can_proprietary_db_get();
    can_proprietary_db_start_set_db(db);
    EXPECT_THAT(messages_of([db] { can_proprietary_db_start_set_db(db); }),
                ElementsAre("can_proprietary_db_start_set_db|"
                            "sqlite: begin transaction is fail\n"));
    EXPECT_EQ(can_proprietary_db_end_set_db(db, 0), 0);
}

} // namespace
