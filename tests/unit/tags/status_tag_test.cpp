#include "allocation_fault.h"
#include "can_capture.h"
#include "can_dx_fake.h"
#include "can_journal.h"
#include "tags/status_tag.h"
#include "tags/tag.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class status_tags : public ::testing::Test {
protected:
    status_tags() {
        can_dx_reset();
        can_proprietary_dx_create();
        (void)can_take_lines();
    }
    ~status_tags() override {
        can_proprietary_device_status_release();
        EXPECT_EQ(can_dx_tag_count(), 0U);
        can_proprietary_dx_destroy();
        (void)can_take_lines();
    }
    /** @return the slot, -1 without one */
    int create(const char *device) {
        uint8_t slot = 77;
        const int result = can_proprietary_create_device_status_tag(device, &slot);
        EXPECT_TRUE(result == 0 || slot == 77);
        return result == 0 ? slot : -1;
    }
    static std::string error_of(uint8_t slot) {
        return can_errors_of(
            [&] { EXPECT_EQ(can_proprietary_update_status_tag(slot, DEVICE_COMMUNICATING), -1); });
    }
    static std::string message(const std::string &text) {
        return can_error("can_proprietary_update_status_tag", text);
    }
};

TEST_F(status_tags, are_read_only_numbers_of_4_bytes_that_start_as_unknown) {
    can_proprietary_device_status_init(2);
    EXPECT_EQ(create("dev"), 0);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("provide can_proprietary/dev/status type 3 size 4 mode 1",
                            "write can_proprietary/dev/status 00000080"));
}

TEST_F(status_tags, take_the_slots_in_order) {
    can_proprietary_device_status_init(3);
    EXPECT_EQ(create("a"), 0);
    EXPECT_EQ(create("b"), 1);
    EXPECT_EQ(create("c"), 2);
}

TEST_F(status_tags, end_with_the_devices_counted) {
    can_proprietary_device_status_init(1);
    EXPECT_EQ(create("a"), 0);
    uint8_t slot = 77;
    EXPECT_EQ(
        can_errors_of([&] { EXPECT_EQ(can_proprietary_create_device_status_tag("b", &slot), -4); }),
        can_error("can_proprietary_create_device_status_tag",
                  "fail to find unused device status tag\n"));
    EXPECT_EQ(slot, 77);
    EXPECT_EQ(can_dx_find("can_proprietary/b/status"), nullptr);
}

TEST_F(status_tags, of_no_devices_have_no_slot) {
    can_proprietary_device_status_init(0);
    (void)can_errors_of([&] { EXPECT_EQ(create("a"), -1); });
    EXPECT_EQ(error_of(0), message("dx tag is NULL"));
}

TEST_F(status_tags, of_255_devices_all_have_a_slot) {
    can_proprietary_device_status_init(255);
    for (int i = 0; i < 255; i++) {
        ASSERT_EQ(create(std::to_string(i).c_str()), i);
    }
    (void)can_take_lines();
    EXPECT_EQ(can_proprietary_update_status_tag(254, DEVICE_COMMUNICATING), 0);
    EXPECT_EQ(error_of(255), message("dx tag is NULL"));
    EXPECT_THAT(can_take_lines(),
                ElementsAre("write can_proprietary/254/status 00000000", "commit"));
}

TEST_F(status_tags, need_a_name_and_a_place_for_the_slot) {
    can_proprietary_device_status_init(1);
    uint8_t slot = 77;
    EXPECT_EQ(can_errors_of(
                  [&] { EXPECT_EQ(can_proprietary_create_device_status_tag(nullptr, &slot), -1); }),
              can_error("can_proprietary_create_device_status_tag", "device_name is NULL\n"));
    EXPECT_EQ(can_errors_of(
                  [&] { EXPECT_EQ(can_proprietary_create_device_status_tag("a", nullptr), -1); }),
              can_error("can_proprietary_create_device_status_tag", "device_index is NULL\n"));
    EXPECT_EQ(create("a"), 0);
}

TEST_F(status_tags, that_cannot_be_provided_leave_their_slot_free) {
    can_proprietary_device_status_init(1);
    can_dx().refuse_tags = true;
    EXPECT_EQ(can_output_of([&] { EXPECT_EQ(create("a"), -1); }),
              "de create dx_tag:can_proprietary/a/status fail, dx_tag_new return NULL\n");
    can_dx().refuse_tags = false;
    EXPECT_EQ(create("b"), 0);
}

TEST_F(status_tags, without_tag_service_are_missing) {
    can_proprietary_device_status_init(1);
    dx_handle *handle = std::exchange(g_dx_handle, nullptr);
    EXPECT_EQ(can_output_of([&] { EXPECT_EQ(create("a"), -1); }),
              "de create dx_tag:can_proprietary/a/status fail, dx_tag_new return NULL\n");
    g_dx_handle = handle;
}

TEST_F(status_tags, have_names_of_at_most_386_bytes) {
    can_proprietary_device_status_init(1);
    EXPECT_EQ(create(std::string(500, 'x').c_str()), 0);
    EXPECT_NE(can_dx_find("can_proprietary/" + std::string(370, 'x')), nullptr);
}

TEST_F(status_tags, are_written_and_committed_when_the_status_changes) {
    can_proprietary_device_status_init(2);
    (void)create("a");
    (void)create("b");
    (void)can_take_lines();
    EXPECT_EQ(can_proprietary_update_status_tag(1, DEVICE_COMMUNICATING), 0);
    EXPECT_EQ(can_proprietary_update_status_tag(1, DEVICE_TIMEOUT), 0);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("write can_proprietary/b/status 00000000",
                            "commit",
                            "write can_proprietary/b/status 01000080",
                            "commit"));
}

TEST_F(status_tags, are_not_written_while_the_status_stays) {
    can_proprietary_device_status_init(1);
    (void)create("a");
    (void)can_take_lines();
    EXPECT_EQ(can_proprietary_update_status_tag(0, DEVICE_UNKNOWN), 0);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    EXPECT_EQ(can_proprietary_update_status_tag(0, DEVICE_COMMUNICATING), 0);
    (void)can_take_lines();
    EXPECT_EQ(can_proprietary_update_status_tag(0, DEVICE_COMMUNICATING), 0);
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(status_tags, with_an_index_equal_to_the_count_have_no_tag) {
    can_proprietary_device_status_init(2);
    (void)create("a");
    (void)create("b");
    EXPECT_EQ(error_of(2), message("dx tag is NULL"));
}

TEST_F(status_tags, above_the_count_are_refused_with_both_numbers) {
    can_proprietary_device_status_init(2);
    EXPECT_EQ(error_of(3), message("device_index: 3 greater than 2\n"));
    EXPECT_EQ(error_of(255), message("device_index: 255 greater than 2\n"));
}

TEST_F(status_tags, in_a_slot_not_taken_are_missing) {
    can_proprietary_device_status_init(2);
    EXPECT_EQ(error_of(0), message("dx tag is NULL"));
}

TEST_F(status_tags, that_cannot_be_written_are_tried_again) {
    can_proprietary_device_status_init(1);
    (void)create("a");
    (void)can_take_lines();
    can_dx().fail_writes = true;
    EXPECT_EQ(error_of(0), message("dx tag wrtie fail"));
    EXPECT_THAT(can_take_lines(), IsEmpty());
    can_dx().fail_writes = false;
    EXPECT_EQ(can_proprietary_update_status_tag(0, DEVICE_COMMUNICATING), 0);
    EXPECT_THAT(can_take_lines(), ElementsAre("write can_proprietary/a/status 00000000", "commit"));
}

TEST_F(status_tags, are_destroyed_with_the_table_which_may_be_made_again) {
    can_proprietary_device_status_init(2);
    (void)create("a");
    (void)create("b");
    (void)can_take_lines();
    can_proprietary_device_status_release();
    EXPECT_THAT(
        can_take_lines(),
        ElementsAre("destroy can_proprietary/a/status", "destroy can_proprietary/b/status"));
    EXPECT_EQ(error_of(0), message("dx tag is NULL"));
    can_proprietary_device_status_release();
    can_proprietary_device_status_init(1);
    EXPECT_EQ(create("c"), 0);
}

TEST_F(status_tags, are_missing_where_memory_does_not_suffice_for_the_table) {
    for (const int nth : {1, 2}) {
        allocation_fault::arm(nth);
        can_proprietary_device_status_init(2);
        EXPECT_TRUE(allocation_fault::disarm());
        (void)can_errors_of([&] { EXPECT_EQ(create("a"), -1); });
        EXPECT_EQ(error_of(0), message("dx tag is NULL"));
        EXPECT_EQ(error_of(1), message("device_index: 1 greater than 0\n"));
        can_proprietary_device_status_release();
    }
}

} // namespace
