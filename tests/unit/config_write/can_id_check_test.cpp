#include "write_fixture.h"

namespace {

class can_id_check : public config_write {
protected:
    can_id_check() { end(0); }

    /** The check's result with two frames of these types on one identifier. */
    static int check_with(int first, int second, int second_id = 0x100) {
        execute(working_db_path(),
                "DELETE FROM frame; INSERT INTO frame VALUES (1, 1, 256, 8, " +
                    std::to_string(first) + "), (2, 2, " + std::to_string(second_id) + ", 8, " +
                    std::to_string(second) + ")");
        int result = 1;
        EXPECT_THAT(messages_of([&] { result = can_proprietary_conf_check_canId_duplicate(); }),
                    IsEmpty());
        return result;
    }
};

TEST_F(can_id_check, a_consumed_frame_shares_with_no_consumed_and_no_response_frame) {
    for (int first = 0; first <= 3; first++) {
        for (int second = 0; second <= 3; second++) {
            const bool conflict = (first == FRAME_CONSUMED && second == FRAME_CONSUMED) ||
                                  (first == FRAME_CONSUMED && second == FRAME_RESPONSE) ||
                                  (first == FRAME_RESPONSE && second == FRAME_CONSUMED);
            EXPECT_EQ(check_with(first, second), conflict ? -1 : 0) << first << " " << second;
        }
    }
}

TEST_F(can_id_check, other_identifiers_do_not_conflict) {
    EXPECT_EQ(check_with(FRAME_CONSUMED, FRAME_CONSUMED, 0x101), 0);
    EXPECT_EQ(check_with(FRAME_CONSUMED, FRAME_RESPONSE, 0x101), 0);
}

TEST_F(can_id_check, devices_ports_and_transactions_do_not_matter) {
    execute(working_db_path(),
            "DELETE FROM frame; INSERT INTO frame VALUES (1, 1, 5, 8, 1), (2, 3, 5, 8, 1)");
    EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), -1);
    execute(working_db_path(),
            "DELETE FROM frame; INSERT INTO frame VALUES (1, 1, 5, 8, 1), (2, 1, 5, 8, 1)");
    EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), -1);
}

TEST_F(can_id_check, no_frames_do_not_conflict) {
    execute(working_db_path(), "DELETE FROM frame");
    EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), 0);
}

TEST_F(can_id_check, only_committed_frames_count) {
    begin();
    ASSERT_EQ(seen("INSERT INTO frame VALUES (9, 2, 385, 8, 1)"), "");
    EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), 0);
    end(1);
    EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), -1);
}

TEST_F(can_id_check, a_failed_prepare_shows_the_statement_with_its_runs_of_blanks) {
    execute(working_db_path(), "DROP TABLE block; DROP TABLE frame");
    EXPECT_THAT(
        messages_of([] { EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), -1); }),
        ElementsAre(
            "can_proprietary_conf_check_canId_duplicate|no such table: frame. SQL: SELECT 1 FROM "
            "frame f1 WHERE EXISTS (    SELECT 1 FROM frame f2     WHERE f2.canId = f1.canId     "
            "AND (        (f1.frameType = 3 AND f2.frameType = 1)         OR (f1.frameType = 1 AND "
            "f2.frameType IN (1,3))     )     AND f2.frameId != f1.frameId) LIMIT 1\n"));
}

TEST_F(can_id_check, a_working_copy_that_cannot_be_opened_is_a_failed_parameter) {
    std::filesystem::remove(working_db_path());
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), -1); }),
                ElementsAre("open_db|Can't open database: unable to open database file. " +
                                working_db_path() + "\n",
                            "can_proprietary_conf_check_canId_duplicate|param fail\n"));
}

TEST_F(can_id_check, without_memory_it_is_minus_7) {
    allocation_fault::arm(1);
    EXPECT_EQ(can_proprietary_conf_check_canId_duplicate(), -7);
    EXPECT_TRUE(allocation_fault::disarm());
}

} // namespace
