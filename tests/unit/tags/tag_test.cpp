#include "can_capture.h"
#include "can_clock.h"
#include "can_dx_fake.h"
#include "can_journal.h"
#include "tags/tag.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

/** The records around one tag of a port, its handle made. */
class tag_of_frame : public ::testing::Test {
protected:
    tag_of_frame() {
        can_dx_reset();
        can_clock_set(1000);
        can_clock_on_read({});
        (void)pthread_mutex_init(&module.mutex, nullptr);
        module.event_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        transaction.config = &transaction_row;
        frame.config = &frame_row;
        data.transaction = &transaction;
        data.config = &block;
        data.tag = &info;
        info = {name, nullptr, &module, &frame, &data};
        describe(TAG_UINT16, 2, 0);
        can_proprietary_dx_create();
        (void)can_take_lines();
    }
    ~tag_of_frame() override {
        can_proprietary_tag_release(&info);
        can_proprietary_dx_destroy();
        can_clock_on_read({});
        (void)pthread_mutex_destroy(&module.mutex);
        (void)close(module.event_fd);
        (void)can_take_lines();
    }

    void describe(tag_type type, uint8_t size, uint8_t offset) {
        block.tagType = type;
        block.tagSize = size;
        block.startOffset = offset;
        data.tag_size = size;
    }

    void provide() {
        ASSERT_EQ(can_proprietary_tag_register(&info, &block, 2), 0);
        (void)can_take_lines();
    }

    bool is_woken() {
        uint64_t count = 0;
        return read(module.event_fd, &count, sizeof count) == sizeof count;
    }

    char name[2] = "t";
    can_module module{};
    frame_config frame_row{};
    transaction_config transaction_row{};
    tag_block_config block{};
    frame_info frame{};
    transaction_info transaction{};
    data_info data{};
    tag_info info{};
};

/* The handle. */

TEST(tag_service, is_joined_and_left_under_the_services_name) {
    can_dx_reset();
    can_proprietary_dx_create();
    EXPECT_NE(g_dx_handle, nullptr);
    can_proprietary_dx_destroy();
    EXPECT_EQ(g_dx_handle, nullptr);
    EXPECT_THAT(can_take_lines(), ElementsAre("join can_proprietary", "leave"));
}

TEST(tag_service, that_cannot_be_joined_leaves_no_handle) {
    can_dx_reset();
    can_dx().refuse_handle = true;
    can_proprietary_dx_create();
    EXPECT_EQ(g_dx_handle, nullptr);
    (void)can_take_lines();
    can_proprietary_tag_commit();
    can_proprietary_dx_destroy();
    EXPECT_THAT(can_take_lines(), IsEmpty());
    can_dx_reset();
}

/* Registration. */

TEST_F(tag_of_frame, is_provided_with_its_type_size_and_mode_and_a_zero_value) {
    EXPECT_EQ(can_proprietary_tag_register(&info, &block, 1), 0);
    EXPECT_THAT(can_take_lines(), ElementsAre("provide t type 6 size 2 mode 1", "write t 0000"));
    EXPECT_EQ(info.tag, can_dx_find("t"));
    EXPECT_EQ(dx_tag_get_user_data(info.tag), &info);
}

TEST_F(tag_of_frame, is_as_large_as_the_tag_service_says_and_starts_with_zeros) {
    describe(TAG_UINT64, 2, 0); // the value is as wide as the type
    EXPECT_EQ(can_proprietary_tag_register(&info, &block, 2), 0);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("provide t type 8 size 8 mode 2", "write t 0000000000000000"));
}

TEST_F(tag_of_frame, of_the_largest_size_starts_with_zeros_too) {
    describe(TAG_RAW, 255, 0);
    EXPECT_EQ(can_proprietary_tag_register(&info, &block, 2), 0);
    EXPECT_THAT(
        can_take_lines(),
        ElementsAre("provide t type 13 size 255 mode 2", "write t " + std::string(510, '0')));
}

TEST_F(tag_of_frame, that_cannot_be_provided_is_printed) {
    can_dx().refuse_tags = true;
    EXPECT_EQ(can_output_of([&] { EXPECT_EQ(can_proprietary_tag_register(&info, &block, 1), -1); }),
              "de create dx_tag:t fail, dx_tag_new return NULL\n");
    EXPECT_EQ(info.tag, nullptr);
    can_proprietary_tag_release(&info);
}

TEST_F(tag_of_frame, without_tag_service_is_printed_too) {
    dx_handle *handle = std::exchange(g_dx_handle, nullptr);
    EXPECT_EQ(can_output_of([&] { EXPECT_EQ(can_proprietary_tag_register(&info, &block, 1), -1); }),
              "de create dx_tag:t fail, dx_tag_new return NULL\n");
    EXPECT_THAT(can_take_lines(), IsEmpty());
    g_dx_handle = handle;
}

TEST_F(tag_of_frame, is_withdrawn_on_release) {
    provide();
    can_proprietary_tag_release(&info);
    EXPECT_EQ(info.tag, nullptr);
    EXPECT_THAT(can_take_lines(), ElementsAre("destroy t"));
}

/* Writing. */

TEST_F(tag_of_frame, is_written_with_the_bytes_given) {
    provide();
    const uint8_t value[] = {1, 2};
    EXPECT_EQ(can_proprietary_tag_write(info.tag, value), 0);
    EXPECT_THAT(can_take_lines(), ElementsAre("write t 0102"));
    can_proprietary_tag_commit();
    EXPECT_THAT(can_take_lines(), ElementsAre("commit"));
}

TEST_F(tag_of_frame, reports_a_failed_write) {
    provide();
    can_dx().fail_writes = true;
    const uint8_t value[] = {1, 2};
    EXPECT_EQ(can_proprietary_tag_write(info.tag, value), -1);
}

TEST_F(tag_of_frame, that_is_missing_is_printed_when_it_is_written) {
    const uint8_t value[] = {1};
    EXPECT_EQ(can_output_of([&] { EXPECT_EQ(can_proprietary_tag_write(nullptr, value), -1); }),
              "can_proprietary_tag_write: dx_tag is NULL!\n");
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

/* Values written by other applications. */

TEST_F(tag_of_frame, takes_a_written_value_unchanged_to_its_place) {
    describe(TAG_UINT32, 4, 3);
    block.swap = 3;
    block.scalingFunc = SCALING_INTERCEPT;
    block.scaling = {2, 1, 0, 0};
    provide();
    can_clock_set(1234);
    can_dx_put("t", {1, 2, 3, 4});
    EXPECT_EQ(can_hex({frame.data.data(), 8}), "0000000102030400");
    EXPECT_EQ(transaction.data_changed, 1);
    EXPECT_EQ(data.last_update, 1234U);
    EXPECT_TRUE(is_woken());
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(tag_of_frame, clears_the_fault_mark_with_a_new_value) {
    provide();
    data.fault_mark = 1;
    can_dx_put("t", {1, 2});
    EXPECT_EQ(data.fault_mark, 0);
}

TEST_F(tag_of_frame, changes_only_the_time_of_update_with_an_equal_value) {
    provide();
    frame.data[0] = 1;
    frame.data[1] = 2;
    data.fault_mark = 1;
    can_clock_set(1234);
    can_dx_put("t", {1, 2});
    EXPECT_EQ(data.last_update, 1234U);
    EXPECT_EQ(transaction.data_changed, 0);
    EXPECT_EQ(data.fault_mark, 1);
    EXPECT_FALSE(is_woken());
}

TEST_F(tag_of_frame, has_its_time_of_update_before_the_port_is_woken) {
    provide();
    bool woken_too_early = false;
    can_clock_on_read([&] { woken_too_early = is_woken(); });
    can_dx_put("t", {1, 2});
    EXPECT_FALSE(woken_too_early);
    EXPECT_TRUE(is_woken());
}

TEST_F(tag_of_frame, is_taken_under_the_ports_mutex_and_leaves_it_free) {
    provide();
    int seen = 0;
    can_clock_on_read([&] { seen = pthread_mutex_trylock(&module.mutex); });
    can_dx_put("t", {1, 2});
    EXPECT_EQ(seen, EBUSY);
    EXPECT_EQ(pthread_mutex_trylock(&module.mutex), 0);
    (void)pthread_mutex_unlock(&module.mutex);
}

TEST_F(tag_of_frame, is_written_through_for_sent_frames_only) {
    for (const auto &[type, is_taken] :
         std::vector<std::pair<uint8_t, bool>>{{FRAME_PRODUCED, true},
                                               {FRAME_CONSUMED, false},
                                               {FRAME_REQUEST, true},
                                               {FRAME_RESPONSE, false},
                                               {4, true}}) {
        frame_row.frameType = type;
        if (info.tag == nullptr) {
            provide();
        }
        frame.data = {};
        transaction.data_changed = 0;
        data.last_update = 5;
        data.fault_mark = 1;
        can_dx_put("t", {1, 2});
        EXPECT_EQ(can_hex({frame.data.data(), 2}), is_taken ? "0102" : "0000") << int{type};
        EXPECT_EQ(transaction.data_changed, is_taken ? 1 : 0) << int{type};
        EXPECT_EQ(data.last_update, is_taken ? 1000U : 5U) << int{type};
        EXPECT_EQ(data.fault_mark, is_taken ? 0 : 1) << int{type};
        EXPECT_EQ(is_woken(), is_taken) << int{type};
    }
}

TEST_F(tag_of_frame, of_size_0_cannot_be_read) {
    describe(TAG_UINT8, 0, 0);
    provide();
    EXPECT_EQ(
        can_errors_of([&] { can_dx_put("t", {1}); }),
        can_error("can_proprietary_subscribe_callback", "can_proprietary_dx_tag_read fail\n"));
    EXPECT_EQ(frame.data[0], 0);
    EXPECT_FALSE(is_woken());
}

TEST_F(tag_of_frame, of_8_bytes_at_byte_7_stays_in_the_buffer) {
    describe(TAG_UINT64, 8, 7);
    provide();
    can_dx_put("t", {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(can_hex(frame.data), "00000000000000010203040506070800");
}

TEST_F(tag_of_frame, of_size_255_at_byte_255_is_cut_to_the_buffer) {
    describe(TAG_RAW, 255, 255);
    frame.data.fill(0xee);
    std::vector<uint8_t> value(255, 0x11);
    // The tag service knows no such size: its fake does.
    info.tag = dx_tag_provider_new(g_dx_handle, "t", TAG_RAW, 255, 2);
    dx_tag_set_user_data(info.tag, &info);
    can_dx_put("t", value);
    EXPECT_EQ(can_hex(frame.data), "eeeeeeeeeeeeeeee1111111111111111");
    EXPECT_TRUE(is_woken());
}

TEST_F(tag_of_frame, that_cannot_be_read_is_logged) {
    provide();
    can_dx().fail_reads = true;
    EXPECT_EQ(
        can_errors_of([&] {
            can_dx_put("t", {1, 2});
        }),
        can_error("can_proprietary_subscribe_callback", "can_proprietary_dx_tag_read fail\n"));
    EXPECT_EQ(data.last_update, 0U);
    EXPECT_FALSE(is_woken());
}

TEST_F(tag_of_frame, names_the_missing_link) {
    provide();
    const auto error_of = [&](dx_tag *tag) {
        return can_errors_of([&] { can_proprietary_subscribe_callback(tag); });
    };
    const auto message = [](const std::string &text) {
        return can_error("can_proprietary_subscribe_callback", text);
    };
    EXPECT_EQ(error_of(nullptr), message("cur_tag is NULL\n"));
    info.frame = nullptr;
    EXPECT_EQ(error_of(info.tag), message("frame_info is NULL\n"));
    info.data = nullptr;
    EXPECT_EQ(error_of(info.tag), message("data_info is NULL\n"));
    dx_tag_set_user_data(info.tag, nullptr);
    EXPECT_EQ(error_of(info.tag), message("tag_info is NULL\n"));
    EXPECT_FALSE(is_woken());
}

/* Dispatch. */

class tag_dispatch : public tag_of_frame {
protected:
    void SetUp() override {
        provide();
        can_dx_put_silently("t", {1, 2});
    }
    bool is_taken() { return dx_tag_has_read(info.tag) == 1; }
};

TEST_F(tag_dispatch, looks_at_the_indices_whose_bit_is_set) {
    for (const unsigned index : {0U, 7U, 8U, 31U, 32U, 1023U}) {
        can_dx_put_silently("t", {1, 2});
        can_dx_move(info.tag, index);
        can_dx_deliver((index + 1) % DX_INDEX_COUNT);
        EXPECT_FALSE(is_taken()) << index;
        can_dx_deliver(index);
        EXPECT_TRUE(is_taken()) << index;
    }
}

TEST_F(tag_dispatch, looks_at_every_index) {
    can_dx_move(info.tag, 777);
    can_dx_deliver_all();
    EXPECT_TRUE(is_taken());
}

TEST_F(tag_dispatch, leaves_out_tags_whose_change_has_been_taken) {
    uint8_t buffer[2];
    (void)dx_tag_read(info.tag, buffer, sizeof buffer);
    can_dx_deliver_all();
    EXPECT_EQ(transaction.data_changed, 0);
    EXPECT_FALSE(is_woken());
}

TEST_F(tag_dispatch, walks_the_whole_chain_of_an_index) {
    can_dx_move(info.tag, 5);
    dx_tag *other = dx_tag_provider_new(g_dx_handle, "other", TAG_UINT8, 1, 2);
    can_dx_move(other, 5);
    can_dx_put_silently("other", {1});
    const std::string errors = can_errors_of([] { can_dx_deliver(5); });
    EXPECT_EQ(errors, can_error("can_proprietary_subscribe_callback", "tag_info is NULL\n"));
    EXPECT_TRUE(is_taken());
    dx_tag_destroy(other);
}

TEST_F(tag_dispatch, leaves_out_entries_without_a_tag) {
    can_dx_move(info.tag, 5);
    dx_tag *gone = dx_tag_provider_new(g_dx_handle, "gone", TAG_UINT8, 1, 2);
    can_dx_move(gone, 5);
    ASSERT_EQ(std::exchange(dx_lookup_head(g_dx_handle, 5)->tag, nullptr), gone);
    EXPECT_EQ(can_errors_of([] { can_dx_deliver(5); }), "");
    EXPECT_TRUE(is_taken());
    dx_tag_destroy(gone);
}

TEST_F(tag_dispatch, does_nothing_without_the_services_record) {
    void *user = dx_get_user_data(g_dx_handle);
    dx_set_user_data(g_dx_handle, nullptr);
    can_dx_deliver_all();
    EXPECT_FALSE(is_taken());
    struct {
        dx_handle *handle;
        void (*callback)(dx_tag *);
    } without_callback{g_dx_handle, nullptr};
    dx_set_user_data(g_dx_handle, &without_callback);
    can_dx_deliver_all();
    EXPECT_FALSE(is_taken());
    dx_set_user_data(g_dx_handle, user);
    can_dx_deliver_all();
    EXPECT_TRUE(is_taken());
}

} // namespace
