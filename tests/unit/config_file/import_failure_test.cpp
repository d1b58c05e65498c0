#include "allocation_fault.h"
#include "crash_point.h"
#include "import_fixture.h"
#include "small_disk.h"
#include "sqlite_memory_fault.h"

namespace {

/** Locks, lack of memory, full disks and cut-off processes: the old rows or the new ones, whole. */
class import_failure : public importing {
protected:
    import_failure() {
        EXPECT_EQ(import(file_rows()), 0);
        old_ = everything();
        const std::string saved = read(working_db_path());
        EXPECT_EQ(import(other()), 0);
        new_ = everything();
        write(working_db_path(), saved);
        EXPECT_EQ(everything(), old_);
    }

    /** Rows enough to fill some pages. */
    static file_rows other() {
        file_rows file;
        file.section[1] = "1,1,other\n2,2,sensor\n";
        for (int id = 10; id < 300; id++) {
            file.section[4] += std::to_string(id) + ",1,1,7,,,,,,,,,,,,,,constant" +
                               std::to_string(id) + ",1,5A\n";
        }
        return file;
    }

    std::string old_;
    std::string new_;
};

constexpr const char *deletes = "import_interface_setting_parm|sqlite exec ";

TEST_F(import_failure, another_writer) {
    const connection locker = connect(working_db_path());
    ASSERT_EQ(rows_of(locker.get(), "BEGIN IMMEDIATE"), "");
    EXPECT_THAT(refused(other(), "internal-err", "interface_setting", 0),
                ElementsAre(deletes + std::string("database is locked\n")));
    ASSERT_EQ(rows_of(locker.get(), "ROLLBACK"), "");
    EXPECT_EQ(import(other()), 0);
}

TEST_F(import_failure, a_reader_that_stays_makes_the_commit_fail) {
    const connection reader = connect(working_db_path());
    ASSERT_EQ(rows_of(reader.get(), "BEGIN; SELECT count(*) FROM device"), "2");
    EXPECT_THAT(failing_import(other().text()),
                ElementsAre("can_proprietary_db_end_set_db|sqlite exec database is locked\n"));
    EXPECT_STREQ(err.key, "internal-err");
    EXPECT_STREQ(err.table_name, "");
    ASSERT_EQ(rows_of(reader.get(), "ROLLBACK"), "");
    EXPECT_EQ(everything(), old_);
    EXPECT_EQ(import(other()), 0);
}

TEST_F(import_failure, other_connections_see_the_old_rows_until_the_commit) {
    int looks = 0;
    g_import_faults.before_step = [&](const char *sql) {
        if (strstr(sql, "INSERT INTO") != nullptr) {
            looks++;
            ASSERT_EQ(everything(), old_);
        }
    };
    EXPECT_EQ(import(other()), 0);
    g_import_faults.before_step = nullptr;
    EXPECT_GT(looks, 300);
    EXPECT_EQ(everything(), new_);
}

TEST_F(import_failure, a_read_only_working_copy) {
    const std::string saved = read(working_db_path());
    const small_disk disk(path("run/config/kt-can-proprietary"), "size=1m");
    if (!disk.mounted()) {
        GTEST_SKIP() << "cannot mount here";
    }
    write(working_db_path(), saved);
    ASSERT_TRUE(disk.make_read_only());
    EXPECT_THAT(refused(other(), "internal-err", "interface_setting", 0),
                ElementsAre(deletes + std::string("attempt to write a readonly database\n")));
}

TEST_F(import_failure, without_an_sql_transaction_no_row_is_touched) {
    g_import_faults.no_transaction = true;
    EXPECT_THAT(refused(other(), "internal-err", "", 0), IsEmpty());
}

TEST_F(import_failure, a_file_that_cannot_be_read_to_its_end) {
    g_import_faults.unreadable = true;
    EXPECT_THAT(refused(other(), "internal-err", "", 297), IsEmpty());
}

TEST_F(import_failure, lack_of_memory_in_the_database) {
    int failures = 0;
    for (int nth = 1; nth < 6000; nth += nth < 100 ? 1 : 29) {
        const captured_log quiet;
        write(file_, other().text());
        err = {};
        sqlite_memory_fault::arm(nth, false);
        const int result = can_proprietary_conf_import(file_.c_str(), &err);
        const bool failed = sqlite_memory_fault::disarm();
        can_proprietary_restart = 0;
        const std::string found = everything();
        if (result == 0) {
            ASSERT_EQ(found, new_) << nth;
            ASSERT_EQ(import(file_rows()), 0);
        } else {
            ASSERT_EQ(result, -1) << nth;
            ASSERT_EQ(found, old_) << nth;
            failures++;
        }
        if (!failed) {
            break;
        }
    }
    EXPECT_GT(failures, 20);
}

TEST_F(import_failure, lasting_lack_of_memory_in_the_database) {
    for (int nth = 1; nth < 300; nth += 3) {
        const captured_log quiet;
        write(file_, other().text());
        err = {};
        sqlite_memory_fault::arm(nth, true);
        const int result = can_proprietary_conf_import(file_.c_str(), &err);
        (void)sqlite_memory_fault::disarm();
        ASSERT_EQ(everything(), result == 0 ? new_ : old_) << nth;
        if (result == 0) {
            break;
        }
    }
}

TEST_F(import_failure, a_write_that_fails) {
    int failures = 0;
    for (int nth = 1;; nth++) {
        const captured_log quiet;
        write(file_, other().text());
        err = {};
        crash_point::fail_change(nth);
        const int result = can_proprietary_conf_import(file_.c_str(), &err);
        const bool failed = crash_point::stop_failing();
        if (result == 0) {
            ASSERT_EQ(everything(), new_) << nth;
            if (!failed) {
                break;
            }
            ASSERT_EQ(import(file_rows()), 0);
            continue;
        }
        failures++;
        ASSERT_STRNE(err.key, "") << nth;
        ASSERT_EQ(everything(), old_) << nth;
        ASSERT_EQ(can_proprietary_restart, 0) << nth;
    }
    EXPECT_GT(failures, 5);
}

TEST_F(import_failure, a_process_that_ends_before_any_change_of_the_disk) {
    const std::string saved = read(working_db_path());
    int kept = 0;
    int nth = 1;
    for (bool crashed = true; crashed; nth++) {
        write(working_db_path(), saved);
        crashed = crash_point::crashes(nth, [this] { (void)import(other()); });
        const captured_log quiet;
        ASSERT_EQ(can_proprietary_db_init_user_config(), 0);
        const std::string found = everything();
        ASSERT_TRUE(found == new_ || (crashed && found == old_)) << nth << found;
        ASSERT_EQ(rows_of(working_db_path(), "PRAGMA integrity_check"), "ok");
        kept += found == old_ ? 1 : 0;
    }
    EXPECT_GT(kept, 5);
    EXPECT_GT(nth, 10);
}

TEST_F(import_failure, a_full_disk) {
    const std::string saved = read(working_db_path());
    for (const int pages : {0, 1, 2, 4, 8}) {
        const std::string folder = path("run/config/kt-can-proprietary");
        const std::string size =
            "size=" + std::to_string(saved.size() + static_cast<size_t>(pages) * 4096);
        const small_disk disk(folder, size.c_str());
        if (!disk.mounted()) {
            GTEST_SKIP() << "cannot mount here";
        }
        write(working_db_path(), saved);
        const messages said = messages_of([this] { EXPECT_EQ(import(other()), -1); });
        ASSERT_EQ(said.size(), 1U) << pages;
        EXPECT_THAT(said[0], ::testing::HasSubstr("database or disk is full")) << pages;
        EXPECT_EQ(everything(), old_) << pages;
        EXPECT_EQ(can_proprietary_restart, 0);
    }
}

} // namespace
