#include "can/reception.h"
#include "can_port_fixture.h"

#include <gtest/gtest.h>
#include <utility>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *communicating = "write can_proprietary/dev/status 00000000";
constexpr const char *timed_out = "write can_proprietary/dev/status 01000080";

class reception : public can_port_fixture {
protected:
    /** The frame as the dispatch hands it over. */
    can_lines take(uint32_t id, std::initializer_list<uint8_t> data) {
        can_frame frame{};
        frame.can_id = id;
        frame.len = static_cast<uint8_t>(data.size());
        std::copy(data.begin(), data.end(), frame.data);
        can_proprietary_receive_data(&module, frame);
        return can_take_lines();
    }

    /** The same without the device's status, which the first frame changes. */
    can_lines take_again(uint32_t id, std::initializer_list<uint8_t> data) {
        (void)can_proprietary_update_status_tag(0, DEVICE_COMMUNICATING);
        (void)can_take_lines();
        return take(id, data);
    }

    /** A device whose consume transaction "c" receives frames of that length as 0x10. */
    frame_config *consume(uint8_t length) {
        config = can_add_transaction(device(), "c", TRANSACTION_CONSUME, TRIGGER_CYCLIC);
        return can_add_frame(config, 0x10, length, FRAME_CONSUMED);
    }

    transaction_config *config = nullptr;
};

TEST_F(reception, a_consumed_frame_sets_status_result_and_tag_and_commits) {
    can_add_consume(device(), "c", 0x10);
    build();
    EXPECT_THAT(take(0x10, {0x2a}),
                ElementsAre(communicating,
                            "commit",
                            "result c success",
                            "write can_proprietary/dev/c_v 2a",
                            "commit"));
    EXPECT_EQ(info("c")->state, STATE_SUCCESS);
}

TEST_F(reception, identifiers_nobody_expects_are_dropped) {
    can_add_consume(device(), "c", 0x10);
    build();
    EXPECT_THAT(take(0x11, {0x2a}), IsEmpty());
    EXPECT_THAT(take(0x810, {0x2a}), IsEmpty()); // same bucket
}

TEST_F(reception, flags_of_the_identifier_do_not_count) {
    can_add_consume(device(), "c", 0x1abcdef0);
    build();
    EXPECT_THAT(take_again(0x1abcdef0 | CAN_EFF_FLAG, {1}),
                ElementsAre("result c success", "write can_proprietary/dev/c_v 01", "commit"));
}

TEST_F(reception, only_the_transaction_built_last_receives_a_shared_identifier) {
    can_add_consume(device(), "first", 0x10);
    can_add_consume(device(), "second", 0x10);
    build();
    EXPECT_THAT(
        take_again(0x10, {1}),
        ElementsAre("result second success", "write can_proprietary/dev/second_v 01", "commit"));
    EXPECT_EQ(info("first")->state, STATE_INITIAL);
}

TEST_F(reception, a_wrong_length_fails_and_publishes_nothing) {
    can_add_consume(device(), "c", 0x10);
    build();
    EXPECT_THAT(take(0x10, {1, 2}), ElementsAre(communicating, "commit", "result c failed"));
    EXPECT_THAT(take(0x10, {}), ElementsAre("result c failed"));
    EXPECT_EQ(info("c")->state, STATE_FAILED);
}

TEST_F(reception, a_wrong_constant_fails_and_publishes_nothing) {
    frame_config *frame = consume(4);
    can_add_tag(frame, "v", TAG_UINT8, 1, 0);
    can_add_constant(frame, 0x1234, 2, 2);
    build();
    EXPECT_THAT(take_again(0x10, {7, 0, 0x34, 0x12}),
                ElementsAre("result c success", "write can_proprietary/dev/c_v 07", "commit"));
    EXPECT_THAT(take(0x10, {7, 0, 0x12, 0x34}), ElementsAre("result c failed"));
    EXPECT_THAT(take(0x10, {7, 0, 0x34, 0x13}), ElementsAre("result c failed"));
}

TEST_F(reception, every_constant_must_match) {
    frame_config *frame = consume(2);
    can_add_constant(frame, 1, 1, 0);
    can_add_constant(frame, 2, 1, 1);
    build();
    EXPECT_THAT(take_again(0x10, {1, 2}), ElementsAre("result c success", "commit"));
    EXPECT_THAT(take(0x10, {1, 3}), ElementsAre("result c failed"));
    EXPECT_THAT(take(0x10, {0, 2}), ElementsAre("result c failed"));
}

TEST_F(reception, tags_are_published_in_block_order_with_one_commit) {
    frame_config *frame = consume(8);
    can_add_tag(frame, "last", TAG_RAW, 2, 6);
    can_add_constant(frame, 0x55, 1, 5);
    can_add_tag(frame, "first", TAG_RAW, 2, 0);
    can_add_tag(frame, "middle", TAG_RAW, 3, 2);
    build();
    EXPECT_THAT(take_again(0x10, {1, 2, 3, 4, 5, 0x55, 7, 8}),
                ElementsAre("result c success",
                            "write can_proprietary/dev/c_last 0708",
                            "write can_proprietary/dev/c_first 0102",
                            "write can_proprietary/dev/c_middle 030405",
                            "commit"));
}

TEST_F(reception, received_bytes_are_swapped_and_then_scaled) {
    frame_config *frame = consume(2);
    tag_block_config *tag = can_add_tag(frame, "v", TAG_UINT16, 2, 0);
    tag->swap = 1;
    tag->scalingFunc = SCALING_INTERCEPT;
    tag->scaling = {2, 1, 0, 0};
    build();
    // 0x0102 * 2 + 1, least significant byte first
    EXPECT_THAT(take_again(0x10, {0x01, 0x02}),
                ElementsAre("result c success", "write can_proprietary/dev/c_v 0502", "commit"));
}

TEST_F(reception, raw_tags_are_swapped_but_never_scaled) {
    frame_config *frame = consume(2);
    tag_block_config *tag = can_add_tag(frame, "v", TAG_RAW, 2, 0);
    tag->swap = 4;
    tag->scalingFunc = SCALING_INTERCEPT;
    tag->scaling = {2, 1, 0, 0};
    build();
    EXPECT_THAT(take_again(0x10, {0x01, 0x02}),
                ElementsAre("result c success", "write can_proprietary/dev/c_v 0201", "commit"));
}

TEST_F(reception, where_blocks_overlap_the_later_sees_the_decoded_bytes) {
    frame_config *frame = consume(2);
    can_add_tag(frame, "swapped", TAG_RAW, 2, 0)->swap = 1;
    can_add_tag(frame, "same", TAG_RAW, 2, 0);
    build();
    EXPECT_THAT(take_again(0x10, {0x01, 0x02}),
                ElementsAre("result c success",
                            "write can_proprietary/dev/c_swapped 0201",
                            "write can_proprietary/dev/c_same 0201",
                            "commit"));
}

TEST_F(reception, constants_are_compared_before_blocks_are_decoded) {
    frame_config *frame = consume(2);
    can_add_tag(frame, "v", TAG_RAW, 2, 0)->swap = 1;
    can_add_constant(frame, 0x01, 1, 0);
    build();
    EXPECT_THAT(take_again(0x10, {0x01, 0x02}),
                ElementsAre("result c success", "write can_proprietary/dev/c_v 0201", "commit"));
}

TEST_F(reception, a_block_of_8_bytes_at_byte_7_publishes_zeros_behind_the_frame) {
    frame_config *frame = consume(8);
    can_add_tag(frame, "v", TAG_UINT64, 8, 7);
    build();
    EXPECT_THAT(take_again(0x10, {1, 2, 3, 4, 5, 6, 7, 8}),
                ElementsAre("result c success",
                            "write can_proprietary/dev/c_v 0800000000000000",
                            "commit"));
}

TEST_F(reception, a_tag_behind_the_frames_length_reads_as_zero) {
    frame_config *frame = consume(1);
    can_add_tag(frame, "v", TAG_UINT16, 2, 1);
    build();
    can_frame received{};
    received.can_id = 0x10;
    received.len = 1;
    std::fill(std::begin(received.data), std::end(received.data), uint8_t{0xff});
    can_proprietary_receive_data(&module, received);
    EXPECT_THAT(can_take_lines({"write"}),
                ElementsAre(communicating, "write can_proprietary/dev/c_v 0000"));
}

TEST_F(reception, a_length_above_8_is_neither_read_nor_good) {
    can_add_tag(consume(9), "v", TAG_UINT8, 1, 0);
    build();
    can_frame received{};
    received.can_id = 0x10;
    received.len = 9;
    can_proprietary_receive_data(&module, received); // its length is the configured one
    received.len = 255;
    can_proprietary_receive_data(&module, received);
    EXPECT_THAT(can_take_lines({"result"}), ElementsAre("result c success", "result c failed"));
}

TEST_F(reception, a_missing_tag_is_printed_and_does_not_stop_the_others) {
    frame_config *frame = consume(2);
    can_add_tag(frame, "a", TAG_UINT8, 1, 0);
    can_add_tag(frame, "b", TAG_UINT8, 1, 1);
    build();
    dx_tag *&missing = info("c")->frames->blocks->tag;
    dx_tag *kept = std::exchange(missing, nullptr);
    (void)can_proprietary_update_status_tag(0, DEVICE_COMMUNICATING);
    can_lines lines;
    const std::string output = can_output_of([&] { lines = take_again(0x10, {1, 2}); });
    EXPECT_EQ(output, "can_proprietary_tag_write: dx_tag is NULL!\n");
    EXPECT_THAT(lines,
                ElementsAre("result c success", "write can_proprietary/dev/c_b 02", "commit"));
    missing = kept;
}

TEST_F(reception, succeeds_where_the_tag_service_takes_no_values) {
    can_add_consume(device(), "c", 0x10);
    build();
    can_dx().fail_writes = true;
    can_lines lines;
    EXPECT_EQ(can_errors_of([&] { lines = take(0x10, {1}); }),
              can_error("can_proprietary_update_status_tag", "dx tag wrtie fail"));
    EXPECT_THAT(lines, ElementsAre("result c success", "commit"));
    EXPECT_EQ(info("c")->state, STATE_SUCCESS);
}

TEST_F(reception, constants_that_overlap_and_differ_match_no_frame) {
    frame_config *frame = consume(2);
    can_add_constant(frame, 0x1111, 2, 0);
    can_add_constant(frame, 0x22, 1, 1);
    build();
    EXPECT_THAT(take_again(0x10, {0x11, 0x11}), ElementsAre("result c failed"));
    EXPECT_THAT(take_again(0x10, {0x11, 0x22}), ElementsAre("result c failed"));
}

TEST_F(reception, every_frame_of_a_consume_transaction_is_held_against_its_first) {
    frame_config *frame = consume(1);
    can_add_tag(frame, "v", TAG_UINT8, 1, 0);
    can_add_frame(config, 0x11, 2, FRAME_CONSUMED);
    build();
    EXPECT_THAT(take_again(0x11, {5}),
                ElementsAre("result c success", "write can_proprietary/dev/c_v 05", "commit"));
    EXPECT_THAT(take(0x11, {5, 6}), ElementsAre("result c failed"));
}

TEST_F(reception, a_frame_of_another_kind_only_shows_that_the_device_communicates) {
    transaction_config *odd = can_add_consume(device(), "odd", 0x10);
    odd->transactionType = 3;
    odd->consumeToutEnable = 1;
    build();
    const uint32_t deadline = info("odd")->deadline;
    can_clock_advance(10);
    EXPECT_THAT(take(0x10, {1}), ElementsAre(communicating, "commit"));
    EXPECT_EQ(info("odd")->state, STATE_INITIAL);
    EXPECT_EQ(info("odd")->deadline, deadline);
}

TEST_F(reception, each_device_has_its_own_status) {
    can_add_consume(device("a"), "x", 0x10);
    can_add_consume(device("b"), "y", 0x11);
    build();
    (void)take(0x11, {1});
    EXPECT_THAT(can_dx_value(can_dx_find("can_proprietary/a/status")), ElementsAre(0, 0, 0, 0x80));
    EXPECT_THAT(can_dx_value(can_dx_find("can_proprietary/b/status")), ElementsAre(0, 0, 0, 0));
}

TEST_F(reception, a_device_without_status_tag_is_served_all_the_same) {
    can_add_consume(device(), "c", 0x10);
    build();
    info("c")->device_status_index = no_device_index;
    can_lines lines;
    EXPECT_EQ(can_errors_of([&] { lines = take(0x10, {1}); }), "");
    EXPECT_THAT(lines,
                ElementsAre("result c success", "write can_proprietary/dev/c_v 01", "commit"));
}

/** A request that has been sent as 0x20 and awaits 0x21. */
class response : public reception {
protected:
    void SetUp() override {
        transaction_config *request =
            can_add_transaction(device(), "r", TRANSACTION_REQUEST, TRIGGER_ON_CHANGE);
        can_add_tag(can_add_frame(request, 0x20, 1, FRAME_REQUEST), "v", TAG_UINT8, 1, 0);
        frame_config *frame = can_add_frame(request, 0x21, 2, FRAME_RESPONSE);
        can_add_tag(frame, "r", TAG_UINT8, 1, 0);
        can_add_constant(frame, 0x77, 1, 1);
        build();
        write_tag("dev/r_v", {1});
        (void)tx();
        ASSERT_EQ(info("r")->state, STATE_WAITING);
        (void)can_take_lines();
    }
};

TEST_F(response, that_is_good_succeeds_and_is_published) {
    EXPECT_THAT(take(0x21, {5, 0x77}),
                ElementsAre(communicating,
                            "commit",
                            "result r success",
                            "write can_proprietary/dev/r_r 05",
                            "commit"));
    EXPECT_EQ(info("r")->state, STATE_SUCCESS);
    EXPECT_THAT(names(REQUEST_CHANGE_QUEUE), ElementsAre("r")); // until the next transmit pass
}

TEST_F(response, of_a_wrong_length_fails_the_request) {
    EXPECT_THAT(take(0x21, {5}), ElementsAre(communicating, "commit", "result r failed"));
    EXPECT_EQ(info("r")->state, STATE_FAILED);
}

TEST_F(response, with_a_wrong_constant_fails_the_request) {
    EXPECT_THAT(take_again(0x21, {5, 0x78}), ElementsAre("result r failed"));
    EXPECT_EQ(info("r")->state, STATE_FAILED);
}

TEST_F(response, of_another_identifier_is_dropped) {
    EXPECT_THAT(take(0x20, {5, 0x77}), IsEmpty());
    EXPECT_EQ(info("r")->state, STATE_WAITING);
}

TEST_F(response, that_nobody_awaits_is_dropped) {
    (void)take(0x21, {5, 0x77});
    (void)tx();
    (void)can_take_lines();
    EXPECT_THAT(take(0x21, {5, 0x77}), IsEmpty());
}

TEST_F(response, that_a_consume_transaction_expects_goes_there) {
    hash_table_insert(0x21, node("r"), module.remote_request_table); // no part in reception
    trans_list_node consumer = *node("r");
    transaction_info consumer_info{};
    transaction_config consumer_config{};
    consumer_config.transactionType = TRANSACTION_CONSUME;
    consumer_info.config = &consumer_config;
    consumer_info.frames = info("r")->frames;
    consumer_info.device_status_index = no_device_index;
    consumer_info.diag_slot = 99;
    consumer.transaction = &consumer_info;
    hash_table_insert(0x21, &consumer, module.receive_table);
    EXPECT_THAT(take(0x21, {5}),
                ElementsAre("result  success", "write can_proprietary/dev/r_v 05", "commit"));
    EXPECT_EQ(info("r")->state, STATE_WAITING);
}

TEST_F(reception, a_request_without_response_frame_is_not_matched) {
    transaction_config *request =
        can_add_transaction(device(), "r", TRANSACTION_REQUEST, TRIGGER_ON_CHANGE);
    can_add_tag(can_add_frame(request, 0x20, 1, FRAME_REQUEST), "v", TAG_UINT8, 1, 0);
    build();
    write_tag("dev/r_v", {1});
    (void)tx();
    (void)can_take_lines();
    EXPECT_THAT(take(0x20, {5}), IsEmpty());
    EXPECT_THAT(take(0, {5}), IsEmpty());
}

class consume_timeout : public reception {
protected:
    transaction_config *add(const char *name, int32_t id, uint16_t timeout) {
        transaction_config *made = can_add_consume(device(), name, id);
        made->consumeToutEnable = 1;
        made->consumeTimeout = timeout;
        return made;
    }
    can_lines check_at(uint32_t now) {
        can_clock_set(now);
        can_proprietary_check_consume_timeout(&module, now);
        return can_take_lines();
    }
};

TEST_F(consume_timeout, comes_when_the_deadline_is_due) {
    add("c", 0x10, 50);
    build(1000);
    EXPECT_THAT(check_at(1049), IsEmpty());
    EXPECT_EQ(info("c")->state, STATE_INITIAL);
    EXPECT_THAT(check_at(1050), ElementsAre(timed_out, "commit", "result c timeout"));
    EXPECT_EQ(info("c")->state, STATE_TIMEOUT);
    EXPECT_THAT(names(CONSUME_WITH_TIMEOUT), ElementsAre("c"));
}

TEST_F(consume_timeout, repeats_from_the_time_it_was_seen) {
    add("c", 0x10, 50);
    build(1000);
    EXPECT_THAT(check_at(1070), ElementsAre(timed_out, "commit", "result c timeout"));
    EXPECT_THAT(check_at(1119), IsEmpty());
    EXPECT_THAT(check_at(1120), ElementsAre("result c timeout")); // the status stays
    EXPECT_THAT(check_at(1170), ElementsAre("result c timeout"));
}

TEST_F(consume_timeout, starts_anew_with_every_frame) {
    add("c", 0x10, 50);
    build(1000);
    can_clock_set(1040);
    (void)take(0x10, {1});
    EXPECT_THAT(check_at(1050), IsEmpty());
    EXPECT_THAT(check_at(1089), IsEmpty());
    EXPECT_THAT(check_at(1090), ElementsAre(timed_out, "commit", "result c timeout"));
}

TEST_F(consume_timeout, starts_anew_with_a_frame_that_is_not_good) {
    add("c", 0x10, 50);
    build(1000);
    can_clock_set(1040);
    (void)take(0x10, {1, 2, 3});
    EXPECT_THAT(check_at(1089), IsEmpty());
    EXPECT_THAT(check_at(1090), ElementsAre(timed_out, "commit", "result c timeout"));
}

TEST_F(consume_timeout, ends_with_the_next_frame) {
    add("c", 0x10, 50);
    build(1000);
    (void)check_at(1050);
    EXPECT_THAT(take(0x10, {1}),
                ElementsAre(communicating,
                            "commit",
                            "result c success",
                            "write can_proprietary/dev/c_v 01",
                            "commit"));
    EXPECT_EQ(info("c")->state, STATE_SUCCESS);
}

TEST_F(consume_timeout, never_comes_without_consumeToutEnable) {
    can_add_consume(device(), "c", 0x10)->consumeTimeout = 1;
    build(1000);
    EXPECT_THAT(check_at(100000), IsEmpty());
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(consume_timeout, comes_for_each_transaction_at_its_own_time) {
    add("a", 0x10, 30);
    add("b", 0x11, 20);
    add("c", 0x12, 30);
    build(1000);
    EXPECT_THAT(check_at(1020), ElementsAre(timed_out, "commit", "result b timeout"));
    EXPECT_THAT(check_at(1030), ElementsAre("result a timeout", "result c timeout"));
    EXPECT_THAT(check_at(1040), ElementsAre("result b timeout"));
    EXPECT_THAT(check_at(1100),
                ElementsAre("result a timeout", "result b timeout", "result c timeout"));
}

TEST_F(consume_timeout, comes_across_the_wrap_of_the_clock) {
    add("c", 0x10, 50);
    build(0xffffffe0U); // due at 0x12
    EXPECT_THAT(check_at(0xffffffffU), IsEmpty());
    EXPECT_THAT(check_at(0x11), IsEmpty());
    EXPECT_THAT(check_at(0x12), ElementsAre(timed_out, "commit", "result c timeout"));
}

TEST_F(consume_timeout, is_kept_when_its_deadline_equals_the_mark_for_none) {
    add("c", 0x10, 50);
    build(0xffffffffU - 50);
    EXPECT_THAT(check_at(0xfffffffeU), IsEmpty());
    EXPECT_THAT(check_at(0xffffffffU), ElementsAre(timed_out, "commit", "result c timeout"));
    EXPECT_THAT(check_at(49), ElementsAre("result c timeout"));
}

TEST_F(consume_timeout, of_0_comes_with_every_pass) {
    add("c", 0x10, 0);
    build(1000);
    EXPECT_THAT(check_at(1000), ElementsAre(timed_out, "commit", "result c timeout"));
    EXPECT_THAT(check_at(1000), ElementsAre("result c timeout"));
}

} // namespace
