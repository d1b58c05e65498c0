#include "config_fixture.h"
#include "new_fault.h"

namespace {

class no_memory : public gateway {
protected:
    void SetUp() override {
        if (!new_fault::available) {
            GTEST_SKIP() << "operator new cannot be replaced here";
        }
    }

    /** @return number of attempts that failed with that code; every other one gave 0 */
    template <typename Attempt>
    static int failures(int code, Attempt attempt) {
        int failed = 0;
        (void)messages_of([&] {
            (void)new_fault::sweep(attempt, [&](int result, int nth) {
                EXPECT_TRUE(result == 0 || result == code) << result << " at allocation " << nth;
                failed += result == code ? 1 : 0;
            });
        });
        return failed;
    }
};

TEST_F(no_memory, start_fails_and_the_next_one_succeeds) {
    EXPECT_GT(failures(-1, [] { return can_proprietary_db_init_user_config(); }), 0);
    start();
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

TEST_F(no_memory, apply_and_discard_fail_and_lose_nothing) {
    start();
    execute(working_db_path(), "INSERT INTO device VALUES (1, 1, 'edit')");
    EXPECT_GT(failures(-5, [] { return can_proprietary_conf_apply(); }), 0);
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT deviceName FROM device"), "edit");
    execute(working_db_path(), "DELETE FROM device");
    EXPECT_GT(failures(-5, [] { return can_proprietary_conf_discard(); }), 0);
    EXPECT_EQ(rows_of(working_db_path(), "SELECT deviceName FROM device"), "edit");
}

TEST_F(no_memory, working_copy_is_not_opened) {
    start();
    const auto open = [] {
        sqlite3 *db = can_proprietary_db_get();
        return can_proprietary_db_close(db) == 0 && db != nullptr ? 0 : -1;
    };
    EXPECT_GT(failures(-1, open), 0);
    EXPECT_EQ(files(), files_of_a_started_gateway());
}

} // namespace
