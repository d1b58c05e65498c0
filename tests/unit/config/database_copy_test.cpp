#include "config_fixture.h"
#include "crash_point.h"
#include "small_disk.h"

namespace {

/** db_copy(). */
class database_copy : public gateway {
protected:
    database_copy() { make(source, "source"); }

    static void make(const std::string &file, const std::string &content) {
        write(file, "");
        execute(file, "CREATE TABLE t (x); INSERT INTO t VALUES ('" + content + "')");
    }

    static std::string content(const std::string &file) { return rows_of(file, "SELECT x FROM t"); }

    static messages failing_copy(const char *to, const char *from) {
        return messages_of([&] { EXPECT_EQ(db_copy(to, from), -1); });
    }

    messages failing_copy() const { return failing_copy(target.c_str(), source.c_str()); }

    static std::string message(const std::string &text) { return "db_copy|" + text + "\n"; }

    std::string source = path("source");
    std::string target = path("target");
};

TEST_F(database_copy, new_destination_holds_everything_and_nothing_else_is_left) {
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(db_copy(target.c_str(), source.c_str()), 0); }),
                IsEmpty());
    EXPECT_EQ(content(target), "source");
    EXPECT_THAT(names(), ElementsAre("etc", "source", "target"));
    EXPECT_THAT(g_fake_sleep.slept_ms, IsEmpty());
}

TEST_F(database_copy, existing_destination_is_overwritten) {
    make(target, "old");
    execute(target, "CREATE TABLE another (y)");
    EXPECT_EQ(db_copy(target.c_str(), source.c_str()), 0);
    EXPECT_EQ(content(target), "source");
    EXPECT_EQ(rows_of(target, "SELECT name FROM sqlite_schema"), "t");
    EXPECT_THAT(names(), ElementsAre("etc", "source", "target"));
}

TEST_F(database_copy, missing_paths_are_logged_source_first) {
    EXPECT_THAT(failing_copy("x", nullptr), ElementsAre(message("src_path is null")));
    EXPECT_THAT(failing_copy(nullptr, nullptr), ElementsAre(message("src_path is null")));
    EXPECT_THAT(failing_copy(nullptr, source.c_str()), ElementsAre(message("dst_path is null")));
}

TEST_F(database_copy, source_that_cannot_be_opened_is_logged_before_the_destination) {
    const std::string missing = path("no/source");
    const std::string nowhere = path("no/target");
    const auto expected = ElementsAre(message("sqlite source file (" + missing + ") open fail"));
    EXPECT_THAT(failing_copy(target.c_str(), missing.c_str()), expected);
    EXPECT_THAT(failing_copy(nowhere.c_str(), missing.c_str()), expected);
    EXPECT_THAT(names(), ElementsAre("etc", "source"));
}

TEST_F(database_copy, destination_that_cannot_be_opened_is_logged) {
    const std::string nowhere = path("no/target");
    EXPECT_THAT(failing_copy(nowhere.c_str(), source.c_str()),
                ElementsAre(message("sqlite dest file (" + nowhere + ") open fail")));
    std::filesystem::create_directory(target);
    EXPECT_THAT(failing_copy(),
                ElementsAre(message("sqlite dest file (" + target + ") open fail")));
}

TEST_F(database_copy, source_that_is_no_database_fails_with_its_code) {
    write(source, std::string(8192, 'x'));
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=26")));
    EXPECT_THAT(names(), ElementsAre("etc", "source"));
}

TEST_F(database_copy, failed_copy_leaves_an_existing_destination_as_it_was) {
    make(target, "old");
    write(source, std::string(8192, 'x'));
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=26")));
    EXPECT_EQ(content(target), "old");
}

TEST_F(database_copy, missing_source_is_created_empty) {
    std::filesystem::remove(source);
    EXPECT_EQ(db_copy(target.c_str(), source.c_str()), 0);
    EXPECT_EQ(read(source), "");
    EXPECT_EQ(rows_of(target, "SELECT count(*) FROM sqlite_schema"), "0");
}

TEST_F(database_copy, locked_source_is_tried_again_every_250_ms) {
    connection locker = connect(source);
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    g_fake_sleep.during = [&locker] {
        if (g_fake_sleep.slept_ms.size() == 3) {
            locker.reset();
        }
    };
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(db_copy(target.c_str(), source.c_str()), 0); }),
                IsEmpty());
    EXPECT_THAT(g_fake_sleep.slept_ms, ElementsAre(250, 250, 250));
    EXPECT_EQ(content(target), "source");
}

TEST_F(database_copy, locked_destination_is_tried_again) {
    make(target, "old");
    connection reader = connect(target);
    ASSERT_EQ(rows_of(reader.get(), "BEGIN; SELECT x FROM t"), "old");
    g_fake_sleep.during = [&reader] {
        if (g_fake_sleep.slept_ms.size() == 2) {
            reader.reset();
        }
    };
    EXPECT_EQ(db_copy(target.c_str(), source.c_str()), 0);
    EXPECT_THAT(g_fake_sleep.slept_ms, ElementsAre(250, 250));
    EXPECT_EQ(content(target), "source");
}

TEST_F(database_copy, stop_of_the_service_ends_the_waiting) {
    make(target, "old");
    const connection locker = connect(target);
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    g_fake_sleep.during = [] { g_stop_requested = 1; };
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=5")));
    EXPECT_THAT(g_fake_sleep.slept_ms, ElementsAre(250));
    EXPECT_EQ(rows_of(locker.get(), "SELECT x FROM t"), "old");
}

TEST_F(database_copy, stop_before_a_new_destination_leaves_none) {
    const connection locker = connect(source);
    ASSERT_EQ(rows_of(locker.get(), "BEGIN EXCLUSIVE"), "");
    g_fake_sleep.during = [] { g_stop_requested = 1; };
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=5")));
    EXPECT_THAT(names(), ElementsAre("etc", "source"));
}

TEST_F(database_copy, leftovers_of_a_copy_that_was_cut_off_are_replaced) {
    write(target + ".new", std::string(8192, 'x'));
    write(target + ".new-journal", std::string(8192, 'x'));
    EXPECT_EQ(db_copy(target.c_str(), source.c_str()), 0);
    EXPECT_EQ(content(target), "source");
    EXPECT_THAT(names(), ElementsAre("etc", "source", "target"));
}

TEST_F(database_copy, journal_of_a_vanished_destination_is_not_played_back_into_the_copy) {
    int journals = 0;
    for (int nth = 1;; nth++) {
        std::filesystem::remove(target);
        make(target, "old");
        execute(target, "CREATE TABLE another (y); INSERT INTO another VALUES (randomblob(9000))");
        if (!crash_point::crashes(nth, [this] { (void)db_copy(target.c_str(), source.c_str()); })) {
            break;
        }
        journals += exists(target + "-journal") ? 1 : 0;
        std::filesystem::remove(target);
        ASSERT_EQ(db_copy(target.c_str(), source.c_str()), 0);
        ASSERT_EQ(content(target), "source") << nth;
        ASSERT_EQ(rows_of(target, "PRAGMA integrity_check"), "ok") << nth;
        EXPECT_THAT(names(), ElementsAre("etc", "source", "target"));
    }
    EXPECT_GE(journals, 3);
}

TEST_F(database_copy, copy_that_was_cut_off_leaves_the_old_or_the_new_content_whole) {
    int old = 0;
    for (int nth = 1;; nth++) {
        std::filesystem::remove(target);
        make(target, "old");
        execute(target, "CREATE TABLE another (y); INSERT INTO another VALUES (randomblob(9000))");
        const bool crashed =
            crash_point::crashes(nth, [this] { (void)db_copy(target.c_str(), source.c_str()); });
        const std::string found = content(target);
        ASSERT_TRUE(found == "source" || (crashed && found == "old")) << nth << found;
        ASSERT_EQ(rows_of(target, "PRAGMA integrity_check"), "ok") << nth;
        if (!crashed) {
            break;
        }
        old += found == "old" ? 1 : 0;
    }
    EXPECT_GE(old, 5);
}

TEST_F(database_copy, full_disk_fails_and_changes_nothing) {
    const std::string folder = path("disk");
    std::filesystem::create_directory(folder);
    const small_disk disk(folder, "size=32k");
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    execute(source, "INSERT INTO t VALUES (randomblob(100000))");
    target = folder + "/target";
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=13")));
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    make(target, "old");
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=13")));
    EXPECT_EQ(content(target), "old");
}

TEST_F(database_copy, read_only_folder_fails_and_changes_nothing) {
    const std::string folder = path("disk");
    std::filesystem::create_directory(folder);
    const small_disk disk(folder, "size=64k");
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    target = folder + "/target";
    make(target, "old");
    ASSERT_TRUE(disk.make_read_only());
    EXPECT_THAT(failing_copy(), ElementsAre(message("sqlite3_backup_step rc=8")));
    EXPECT_EQ(content(target), "old");
    const std::string another = folder + "/another";
    EXPECT_THAT(failing_copy(another.c_str(), source.c_str()),
                ElementsAre(message("sqlite dest file (" + another + ") open fail")));
}

} // namespace
