#include "can/transmit.h"
#include "can_port_fixture.h"

#include <atomic>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class transaction_engine : public can_port_fixture {
protected:
    can_lines pass() {
        (void)tx();
        return can_take_lines({"send", "refused", "result"});
    }
    can_lines pass_at(uint32_t now) {
        can_clock_set(now);
        return pass();
    }
    /** Answer a request; drops what the reception notes. */
    void respond(uint32_t id, std::initializer_list<uint8_t> data) {
        receive(id, data);
        (void)can_take_lines();
    }
};

TEST_F(transaction_engine, a_pass_without_module_fails_with_a_message) {
    EXPECT_EQ(can_errors_of([] { EXPECT_EQ(can_tx_handler(nullptr), -1); }),
              can_error("can_tx_handler", "can_module is NULL\n"));
}

TEST_F(transaction_engine, a_pass_without_transactions_does_nothing) {
    build();
    EXPECT_EQ(tx(), 0);
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

/* Building and sending a frame. */

TEST_F(transaction_engine, a_sent_frame_is_recorded_and_then_its_success_noted) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x123);
    module.port_index = 2;
    build();
    (void)tx();
    EXPECT_THAT(can_take_lines(),
                ElementsAre("send 123#00", "traffic sent 123#00 port 2", "result p success"));
    EXPECT_EQ(can_device_record().txCount, 1U);
    EXPECT_EQ(can_device_record().bit_count, 75U);
    EXPECT_EQ(info("p")->state, STATE_SUCCESS);
}

TEST_F(transaction_engine, a_refused_frame_is_neither_counted_nor_recorded) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x123);
    build();
    can_calls().refuse_frames = true;
    EXPECT_EQ(tx(), 0);
    EXPECT_THAT(can_take_lines(), ElementsAre("refused 123#00", "result p failed"));
    EXPECT_EQ(can_device_record().txCount, 0U);
    EXPECT_EQ(can_device_record().bit_count, 0U);
}

TEST_F(transaction_engine, a_sent_frame_arrives_on_the_bus_as_16_bytes) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x123);
    build();
    can_dx_put("can_proprietary/dev/p_v", {0x2a});
    (void)tx();
    can_frame frame{};
    ASSERT_EQ(recv(bus, &frame, sizeof frame, MSG_DONTWAIT), 16);
    EXPECT_EQ(can_frame_text(frame), "123#2a");
    for (size_t i = 1; i < CAN_MAX_DLEN; i++) {
        EXPECT_EQ(frame.data[i], 0);
    }
}

TEST_F(transaction_engine, frames_of_an_extended_port_carry_the_extended_flag) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x123);
    module.settings.frameFormat = 1;
    build();
    EXPECT_THAT(pass(), ElementsAre("send 80000123#00", "result p success"));
}

TEST_F(transaction_engine, a_frame_holds_its_constants_and_its_swapped_tags) {
    transaction_config *transaction =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_BOOTUP);
    frame_config *frame = can_add_frame(transaction, 0x10, 8, FRAME_PRODUCED);
    can_add_constant(frame, 0x1234, 2, 0);
    can_add_tag(frame, "w", TAG_UINT32, 4, 2)->swap = 3;
    can_add_tag(frame, "b", TAG_UINT16, 2, 6)->swap = 1;
    build();
    can_dx_put("can_proprietary/dev/p_w", {1, 2, 3, 4});
    can_dx_put("can_proprietary/dev/p_b", {5, 6});
    EXPECT_THAT(pass(), ElementsAre("send 10#3412040302010605", "result p success"));
    // The data buffer keeps the tag's own order.
    EXPECT_EQ(can_hex({info("p")->frames->data.data(), 8}), "3412010203040506");
}

TEST_F(transaction_engine, scaling_has_no_part_in_sending) {
    transaction_config *transaction = can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10);
    tag_block_config *tag = transaction->frames->blocks->tag;
    tag->scalingFunc = SCALING_INTERCEPT;
    tag->scaling = {2, 1, 0, 0};
    build();
    can_dx_put("can_proprietary/dev/p_v", {9});
    EXPECT_THAT(pass(), ElementsAre("send 10#09", "result p success"));
}

TEST_F(transaction_engine, only_the_bytes_of_the_frame_are_sent) {
    transaction_config *transaction =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_BOOTUP);
    frame_config *frame = can_add_frame(transaction, 0x10, 8, FRAME_PRODUCED);
    can_add_tag(frame, "v", TAG_UINT64, 8, 7);
    build();
    can_dx_put("can_proprietary/dev/p_v", {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_THAT(pass(), ElementsAre("send 10#0000000000000001", "result p success"));
}

TEST_F(transaction_engine, a_swap_beyond_the_frame_brings_zeros_in) {
    transaction_config *transaction =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_BOOTUP);
    frame_config *frame = can_add_frame(transaction, 0x10, 8, FRAME_PRODUCED);
    can_add_tag(frame, "v", TAG_UINT64, 8, 7)->swap = 4;
    build();
    can_dx_put("can_proprietary/dev/p_v", {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_THAT(pass(), ElementsAre("send 10#0000000000000000", "result p success"));
}

TEST_F(transaction_engine, a_swap_beyond_the_length_brings_zeros_in) {
    transaction_config *transaction =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_BOOTUP);
    frame_config *frame = can_add_frame(transaction, 0x10, 3, FRAME_PRODUCED);
    can_add_tag(frame, "v", TAG_RAW, 4, 0)->swap = 4;
    build();
    can_dx_put("can_proprietary/dev/p_v", {1, 2, 3, 4});
    EXPECT_THAT(pass(), ElementsAre("send 10#000302", "result p success"));
}

TEST_F(transaction_engine, only_the_first_frame_of_a_produce_transaction_is_sent) {
    can_add_frame(can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10), 0x11, 1, FRAME_PRODUCED);
    build();
    EXPECT_THAT(pass(), ElementsAre("send 10#00", "result p success"));
}

TEST_F(transaction_engine, a_port_without_diagnostic_record_sends_all_the_same) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10);
    build();
    can_device().has_diag_record = false;
    EXPECT_THAT(pass(), ElementsAre("send 10#00", "result p success"));
}

TEST_F(transaction_engine, a_transaction_without_frames_fails_and_goes_home) {
    can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_BOOTUP);
    can_add_transaction(device(), "r", TRANSACTION_REQUEST, TRIGGER_BOOTUP);
    build();
    EXPECT_THAT(pass(), ElementsAre("result r failed", "result p failed"));
    EXPECT_THAT(names(PRODUCE_IDLE), ElementsAre("p"));
    (void)pass();
    EXPECT_THAT(names(REQUEST_IDLE), ElementsAre("r"));
}

/* Bootup. */

TEST_F(transaction_engine, bootup_frames_are_sent_once_in_order) {
    can_add_produce(device(), "a", TRIGGER_BOOTUP, 0x10);
    can_add_produce(device(), "b", TRIGGER_BOOTUP, 0x11);
    build();
    EXPECT_THAT(pass(),
                ElementsAre("send 10#00", "result a success", "send 11#00", "result b success"));
    EXPECT_THAT(names(PRODUCE_IDLE), ElementsAre("a", "b"));
    EXPECT_THAT(names(PRODUCE_BOOTUP), IsEmpty());
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, a_bootup_request_is_sent_before_the_bootup_frames) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10);
    can_add_request(device(), "r", TRIGGER_BOOTUP, 0x20, 0x21);
    build();
    EXPECT_THAT(pass(), ElementsAre("send 20#00", "send 10#00", "result p success"));
    EXPECT_THAT(names(REQUEST_BOOTUP), ElementsAre("r"));
    EXPECT_EQ(module.waiting, node("r"));
}

TEST_F(transaction_engine, a_refused_bootup_frame_stays_and_holds_up_the_next) {
    can_add_produce(device(), "a", TRIGGER_BOOTUP, 0x10);
    can_add_produce(device(), "b", TRIGGER_BOOTUP, 0x11);
    build();
    can_calls().refused_ids = {0x10};
    EXPECT_THAT(pass(), ElementsAre("refused 10#00", "result a failed"));
    EXPECT_EQ(info("a")->state, STATE_INITIAL);
    EXPECT_THAT(names(PRODUCE_BOOTUP), ElementsAre("a", "b"));
    can_calls().refused_ids = {0x11};
    EXPECT_THAT(pass(),
                ElementsAre("send 10#00", "result a success", "refused 11#00", "result b failed"));
    EXPECT_THAT(names(PRODUCE_BOOTUP), ElementsAre("b"));
    EXPECT_THAT(names(PRODUCE_IDLE), ElementsAre("a"));
}

TEST_F(transaction_engine, nothing_else_runs_while_bootup_lasts) {
    can_add_request(device(), "boot", TRIGGER_BOOTUP, 0x20, 0x21)->responseTimeout = 5000;
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 1;
    can_add_request(device(), "request", TRIGGER_CYCLIC, 0x11, 0x12);
    can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 0x13);
    build();
    EXPECT_THAT(pass(), ElementsAre("send 20#00"));
    write_tag("dev/change_v", {1});
    receive(0x10 | CAN_RTR_FLAG, {});
    EXPECT_THAT(pass_at(3000), IsEmpty());
    respond(0x21, {1});
    EXPECT_THAT(pass(), IsEmpty()); // it goes home with this pass
    EXPECT_THAT(names(REQUEST_IDLE), ElementsAre("boot"));
    EXPECT_THAT(pass(),
                ElementsAre("send 10#00",
                            "result cyclic success",
                            "send 13#01",
                            "result change success",
                            "send 11#00",
                            "send 10#00",
                            "result cyclic success"));
}

TEST_F(transaction_engine, bootup_requests_run_one_after_the_other) {
    can_add_request(device(), "a", TRIGGER_BOOTUP, 0x20, 0x21);
    can_add_request(device(), "b", TRIGGER_BOOTUP, 0x22, 0x23);
    build();
    EXPECT_THAT(pass(), ElementsAre("send 20#00"));
    EXPECT_THAT(pass(), IsEmpty());
    respond(0x21, {1});
    EXPECT_THAT(pass(), ElementsAre("send 22#00"));
    EXPECT_THAT(names(REQUEST_IDLE), ElementsAre("a"));
    EXPECT_THAT(pass_at(1100), ElementsAre("result b timeout"));
    EXPECT_THAT(names(REQUEST_IDLE), ElementsAre("a", "b"));
    EXPECT_THAT(names(REQUEST_BOOTUP), IsEmpty());
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, a_bootup_transaction_does_not_run_when_its_tag_is_written) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10);
    build();
    (void)pass();
    write_tag("dev/p_v", {5});
    EXPECT_THAT(pass(), IsEmpty());
}

/* Cyclic frames. */

TEST_F(transaction_engine, a_cyclic_frame_is_sent_every_interval) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    EXPECT_THAT(pass_at(1099), IsEmpty());
    EXPECT_THAT(pass_at(1100), ElementsAre("send 10#00", "result p success"));
    EXPECT_THAT(names(PRODUCE_CYCLIC), ElementsAre("p"));
    EXPECT_THAT(pass_at(1199), IsEmpty());
    EXPECT_THAT(pass_at(1203), ElementsAre("send 10#00", "result p success"));
    EXPECT_THAT(pass_at(1302), IsEmpty()); // from the time it was sent
    EXPECT_THAT(pass_at(1303), ElementsAre("send 10#00", "result p success"));
}

TEST_F(transaction_engine, cyclic_frames_of_one_interval_keep_their_order) {
    for (const char *name : {"a", "b", "c"}) {
        can_add_produce(device(), name, TRIGGER_CYCLIC, *name);
    }
    build(1000);
    for (const uint32_t now : {1100U, 1200U, 1300U}) {
        EXPECT_THAT(pass_at(now),
                    ElementsAre("send 61#00",
                                "result a success",
                                "send 62#00",
                                "result b success",
                                "send 63#00",
                                "result c success"));
    }
}

TEST_F(transaction_engine, the_fastest_cyclic_frame_is_in_time_whatever_its_place) {
    can_add_produce(device(), "slow", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 300;
    can_add_produce(device(), "fast", TRIGGER_CYCLIC, 0x11)->cyclicInterval = 20;
    build(1000);
    EXPECT_EQ(wait(), 20U);
    EXPECT_THAT(pass_at(1020), ElementsAre("send 11#00", "result fast success"));
    EXPECT_THAT(names(PRODUCE_CYCLIC), ElementsAre("fast", "slow"));
}

TEST_F(transaction_engine, a_written_tag_is_in_the_next_cyclic_frame_and_sends_none) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    write_tag("dev/p_v", {7});
    EXPECT_THAT(pass(), IsEmpty());
    EXPECT_THAT(pass_at(1100), ElementsAre("send 10#07", "result p success"));
    EXPECT_EQ(info("p")->data_changed, 1); // only on-change transactions clear it
}

TEST_F(transaction_engine, a_refused_cyclic_frame_holds_up_the_queue_and_is_tried_again) {
    for (const char *name : {"a", "b", "c"}) {
        can_add_produce(device(), name, TRIGGER_CYCLIC, *name);
    }
    build(1000);
    can_calls().refused_ids = {'b'};
    EXPECT_THAT(pass_at(1100),
                ElementsAre("send 61#00", "result a success", "refused 62#00", "result b failed"));
    EXPECT_THAT(names(PRODUCE_CYCLIC_QUEUE), ElementsAre("b", "c"));
    EXPECT_THAT(pass_at(1101), ElementsAre("refused 62#00", "result b failed"));
    can_calls().refused_ids = {};
    EXPECT_THAT(pass_at(1110),
                ElementsAre("send 62#00", "result b success", "send 63#00", "result c success"));
    EXPECT_THAT(names(PRODUCE_CYCLIC), ElementsAre("a", "b", "c"));
    EXPECT_EQ(info("a")->next_send, 1200U);
    EXPECT_EQ(info("b")->next_send, 1210U);
}

TEST_F(transaction_engine, cyclic_frames_run_across_the_wrap_of_the_clock) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    can_add_produce(device(), "q", TRIGGER_CYCLIC, 0x11)->cyclicInterval = 40;
    build(0xffffffc0U);
    EXPECT_THAT(pass_at(0xffffffe8U), ElementsAre("send 11#00", "result q success"));
    EXPECT_THAT(pass_at(0xffffffffU), IsEmpty());
    EXPECT_THAT(pass_at(0x10), ElementsAre("send 11#00", "result q success"));
    EXPECT_THAT(pass_at(0x23), IsEmpty());
    EXPECT_THAT(pass_at(0x24), ElementsAre("send 10#00", "result p success"));
}

TEST_F(transaction_engine, an_interval_of_0_sends_once_a_pass) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 0;
    build(1000);
    EXPECT_THAT(pass(), ElementsAre("send 10#00", "result p success"));
    EXPECT_THAT(pass(), ElementsAre("send 10#00", "result p success"));
}

TEST_F(transaction_engine, an_interval_of_half_a_turn_of_the_clock_holds_up_no_other) {
    can_add_produce(device(), "never", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 0x7fffffff;
    can_add_produce(device(), "always", TRIGGER_CYCLIC, 0x11)->cyclicInterval = -5;
    build(1000);
    EXPECT_EQ(wait(), 0U);
    EXPECT_THAT(pass(), ElementsAre("send 11#00", "result always success"));
    EXPECT_THAT(pass(), ElementsAre("send 11#00", "result always success"));
}

/* On-change frames. */

TEST_F(transaction_engine, a_written_tag_sends_its_on_change_frame_once) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10);
    build();
    EXPECT_THAT(pass(), IsEmpty());
    write_tag("dev/p_v", {7});
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("p"));
    EXPECT_THAT(pass(), ElementsAre("send 10#07", "result p success"));
    EXPECT_THAT(names(PRODUCE_ON_CHANGE), ElementsAre("p"));
    EXPECT_EQ(info("p")->data_changed, 0);
    take_tag_writes();
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, a_tag_written_with_its_own_value_sends_nothing) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10);
    build();
    write_tag("dev/p_v", {7});
    (void)pass();
    write_tag("dev/p_v", {7});
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, two_writes_before_the_pass_send_the_later_value_once) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10);
    build();
    write_tag("dev/p_v", {7});
    write_tag("dev/p_v", {8});
    EXPECT_THAT(pass(), ElementsAre("send 10#08", "result p success"));
    take_tag_writes();
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, changed_frames_go_home_to_the_tail) {
    for (const char *name : {"a", "b", "c"}) {
        can_add_produce(device(), name, TRIGGER_ON_CHANGE, *name);
    }
    build();
    write_tag("dev/a_v", {1});
    (void)pass();
    EXPECT_THAT(names(PRODUCE_ON_CHANGE), ElementsAre("b", "c", "a"));
    can_dx_put("can_proprietary/dev/a_v", {2});
    can_dx_put("can_proprietary/dev/c_v", {2});
    take_tag_writes(); // in the order of the list
    EXPECT_THAT(pass(),
                ElementsAre("send 63#02", "result c success", "send 61#02", "result a success"));
}

TEST_F(transaction_engine, a_refused_on_change_frame_is_sent_later_with_the_latest_value) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10);
    build();
    can_calls().refuse_frames = true;
    write_tag("dev/p_v", {7});
    EXPECT_THAT(pass(), ElementsAre("refused 10#07", "result p failed"));
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("p"));
    write_tag("dev/p_v", {8});
    can_calls().refuse_frames = false;
    EXPECT_THAT(pass(), ElementsAre("send 10#08", "result p success"));
    EXPECT_THAT(pass(), IsEmpty());
}

/* Requests. */

TEST_F(transaction_engine, a_cyclic_request_awaits_its_response_and_starts_anew) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    build(1000);
    EXPECT_THAT(pass_at(1100), ElementsAre("send 20#00"));
    EXPECT_EQ(info("r")->state, STATE_WAITING);
    EXPECT_EQ(info("r")->deadline, 1200U);
    EXPECT_EQ(module.waiting, node("r"));
    EXPECT_THAT(names(REQUEST_CYCLIC_QUEUE), ElementsAre("r"));
    can_clock_set(1130);
    respond(0x21, {1});
    EXPECT_THAT(names(REQUEST_CYCLIC_QUEUE), ElementsAre("r"));
    EXPECT_THAT(pass_at(1140), IsEmpty());
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("r"));
    EXPECT_EQ(module.waiting, nullptr);
    EXPECT_THAT(pass_at(1239), IsEmpty());
    EXPECT_THAT(pass_at(1240), ElementsAre("send 20#00")); // from the time it went home
}

TEST_F(transaction_engine, a_written_cyclic_request_wakes_nobody_when_it_goes_home) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    build(1000);
    (void)pass_at(1100);
    write_tag("dev/r_v", {7});
    respond(0x21, {1});
    EXPECT_THAT(pass_at(1140), IsEmpty());
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("r"));
    EXPECT_FALSE(is_woken());
    EXPECT_THAT(pass_at(1240), ElementsAre("send 20#07"));
}

TEST_F(transaction_engine, a_failed_response_ends_the_request_too) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21)->timeoutRetry = 3;
    build(1000);
    (void)pass_at(1100);
    receive(0x21, {1, 2});
    EXPECT_THAT(can_take_lines({"result"}), ElementsAre("result r failed"));
    EXPECT_THAT(pass_at(1110), IsEmpty());
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("r"));
    EXPECT_EQ(info("r")->next_send, 1210U);
}

TEST_F(transaction_engine, a_written_tag_runs_its_request_once) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21);
    build();
    write_tag("dev/r_v", {7});
    EXPECT_EQ(info("r")->state, STATE_READY);
    EXPECT_THAT(names(REQUEST_CHANGE_QUEUE), ElementsAre("r"));
    EXPECT_THAT(pass(), ElementsAre("send 20#07"));
    EXPECT_EQ(info("r")->data_changed, 0);
    respond(0x21, {1});
    EXPECT_THAT(pass(), IsEmpty());
    EXPECT_THAT(names(REQUEST_ON_CHANGE), ElementsAre("r"));
    take_tag_writes();
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, a_second_write_while_the_request_waits_is_sent_afterwards) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21);
    build();
    write_tag("dev/r_v", {7});
    (void)pass();
    write_tag("dev/r_v", {8});
    EXPECT_THAT(pass(), IsEmpty());
    respond(0x21, {1});
    EXPECT_THAT(pass(), IsEmpty());
    EXPECT_TRUE(is_woken());
    take_tag_writes();
    EXPECT_THAT(pass(), ElementsAre("send 20#08"));
}

TEST_F(transaction_engine, a_second_write_is_sent_after_a_timeout_too) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21);
    build(1000);
    write_tag("dev/r_v", {7});
    (void)pass();
    write_tag("dev/r_v", {8});
    EXPECT_THAT(pass_at(1100), ElementsAre("result r timeout"));
    EXPECT_TRUE(is_woken());
    take_tag_writes();
    EXPECT_THAT(pass(), ElementsAre("send 20#08"));
}

TEST_F(transaction_engine, request_times_out_without_retry_when_timeoutRetry_is_0) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    build(1000);
    (void)pass_at(1100);
    EXPECT_THAT(pass_at(1199), IsEmpty());
    can_clock_set(1200);
    (void)tx();
    EXPECT_THAT(
        can_take_lines(),
        ElementsAre("result r timeout", "write can_proprietary/dev/status 01000080", "commit"));
    EXPECT_EQ(info("r")->state, STATE_TIMEOUT);
    EXPECT_EQ(module.waiting, nullptr);
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("r"));
    EXPECT_EQ(info("r")->next_send, 1300U);
    EXPECT_THAT(pass_at(1300), ElementsAre("send 20#00"));
}

TEST_F(transaction_engine, request_is_resent_timeoutRetry_times) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21)->timeoutRetry = 2;
    build(1000);
    EXPECT_THAT(pass_at(1100), ElementsAre("send 20#00"));
    EXPECT_THAT(pass_at(1205), ElementsAre("send 20#00"));
    EXPECT_EQ(info("r")->retry_count, 1);
    EXPECT_EQ(info("r")->deadline, 1305U);
    EXPECT_THAT(pass_at(1304), IsEmpty());
    EXPECT_THAT(pass_at(1305), ElementsAre("send 20#00"));
    EXPECT_EQ(info("r")->retry_count, 2);
    EXPECT_THAT(pass_at(1405), ElementsAre("result r timeout"));
    EXPECT_THAT(pass_at(1505), ElementsAre("send 20#00"));
    EXPECT_EQ(info("r")->retry_count, 0);
}

TEST_F(transaction_engine, a_resent_request_is_not_built_anew) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21)->timeoutRetry = 1;
    build(1000);
    write_tag("dev/r_v", {7});
    EXPECT_THAT(pass(), ElementsAre("send 20#07"));
    write_tag("dev/r_v", {8});
    EXPECT_THAT(pass_at(1100), ElementsAre("send 20#07"));
    EXPECT_EQ(info("r")->data_changed, 1);
}

TEST_F(transaction_engine, a_resent_request_is_counted_and_recorded_again) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21)->timeoutRetry = 1;
    build(1000);
    (void)pass_at(1100);
    can_clock_set(1200);
    (void)tx();
    EXPECT_THAT(can_take_lines(), ElementsAre("send 20#00", "traffic sent 20#00 port 0"));
    EXPECT_EQ(can_device_record().txCount, 2U);
    EXPECT_EQ(can_device_record().bit_count, 150U);
}

TEST_F(transaction_engine, a_timeout_of_a_device_without_status_tag_is_a_timeout_all_the_same) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    build(1000);
    info("r")->device_status_index = no_device_index;
    (void)pass_at(1100);
    can_clock_set(1200);
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(tx(), 0); }), "");
    EXPECT_THAT(can_take_lines(), ElementsAre("result r timeout"));
}

TEST_F(transaction_engine, a_timeout_is_one_where_the_tag_service_takes_no_values) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    build(1000);
    (void)pass_at(1100);
    can_clock_set(1200);
    can_dx().fail_writes = true;
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(tx(), 0); }),
              can_error("can_proprietary_update_status_tag", "dx tag wrtie fail"));
    EXPECT_THAT(can_take_lines(), ElementsAre("result r timeout"));
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("r"));
}

TEST_F(transaction_engine, cyclic_requests_go_home_to_their_place_in_time) {
    can_add_request(device(), "late", TRIGGER_CYCLIC, 0x20, 0x21)->cyclicInterval = 500;
    can_add_request(device(), "soon", TRIGGER_CYCLIC, 0x22, 0x23)->cyclicInterval = 100;
    can_add_request(device(), "same", TRIGGER_CYCLIC, 0x24, 0x25)->cyclicInterval = 400;
    build(1000);
    EXPECT_THAT(pass_at(1100), ElementsAre("send 22#00"));
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("same", "late"));
    respond(0x23, {1});
    info("soon")->next_send = 0; // reckoned anew
    can_clock_set(1300);
    EXPECT_THAT(pass(), IsEmpty()); // home for 1400, behind the one that was there
    EXPECT_EQ(info("soon")->next_send, 1400U);
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("same", "soon", "late"));
}

TEST_F(transaction_engine, a_refused_resend_is_tried_again_with_the_next_pass) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21)->timeoutRetry = 1;
    build(1000);
    (void)pass_at(1100);
    can_calls().refuse_frames = true;
    EXPECT_THAT(pass_at(1200), ElementsAre("refused 20#00", "result r failed"));
    EXPECT_EQ(info("r")->retry_count, 0);
    EXPECT_EQ(info("r")->deadline, 1200U);
    EXPECT_EQ(info("r")->state, STATE_WAITING);
    can_calls().refuse_frames = false;
    EXPECT_THAT(pass_at(1210), ElementsAre("send 20#00"));
    EXPECT_EQ(info("r")->deadline, 1310U);
    EXPECT_THAT(pass_at(1310), ElementsAre("result r timeout"));
}

TEST_F(transaction_engine, a_refused_request_stays_ready) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21);
    build();
    can_calls().refuse_frames = true;
    write_tag("dev/r_v", {7});
    EXPECT_THAT(pass(), ElementsAre("refused 20#07", "result r failed"));
    EXPECT_EQ(info("r")->state, STATE_READY);
    EXPECT_EQ(module.waiting, nullptr);
    write_tag("dev/r_v", {8});
    can_calls().refuse_frames = false;
    EXPECT_THAT(pass(), ElementsAre("send 20#08"));
}

TEST_F(transaction_engine, a_response_deadline_may_lie_behind_the_wrap_of_the_clock) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21)->timeoutRetry = 1;
    build(0xffffffc0U);
    write_tag("dev/r_v", {7});
    (void)pass();
    EXPECT_THAT(pass_at(0xffffffffU), IsEmpty());
    EXPECT_THAT(pass_at(0x23), IsEmpty());
    EXPECT_THAT(pass_at(0x24), ElementsAre("send 20#07"));
    EXPECT_THAT(pass_at(0x24 + 100), ElementsAre("result r timeout"));
}

TEST_F(transaction_engine, a_cyclic_request_comes_home_and_again_across_the_wrap_of_the_clock) {
    transaction_config *request = can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    request->cyclicInterval = 200;
    build(0xffffff00U);
    EXPECT_THAT(pass_at(0xffffffc8U), ElementsAre("send 20#00")); // waits until 0x2c
    EXPECT_THAT(pass_at(0x2b), IsEmpty());
    EXPECT_THAT(pass_at(0x2c), ElementsAre("result r timeout"));
    EXPECT_EQ(info("r")->next_send, 0x2cU + 200);
    EXPECT_THAT(pass_at(0x2c + 199), IsEmpty());
    EXPECT_THAT(pass_at(0x2c + 200), ElementsAre("send 20#00"));
}

TEST_F(transaction_engine, a_bootup_request_times_out_across_the_wrap_of_the_clock) {
    can_add_request(device(), "r", TRIGGER_BOOTUP, 0x20, 0x21);
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 50;
    build(0xffffffc0U);
    EXPECT_THAT(pass(), ElementsAre("send 20#00")); // waits until 0x24
    EXPECT_THAT(pass_at(0xffffffffU), IsEmpty());
    EXPECT_THAT(pass_at(0x23), IsEmpty());
    EXPECT_THAT(pass_at(0x24), ElementsAre("result r timeout"));
    EXPECT_THAT(pass_at(0x25), ElementsAre("send 10#00", "result p success"));
}

TEST_F(transaction_engine, completed_requests_make_room_for_the_next_in_the_same_pass) {
    can_add_request(device(), "a", TRIGGER_ON_CHANGE, 0x20, 0x21);
    can_add_request(device(), "b", TRIGGER_ON_CHANGE, 0x22, 0x23);
    build();
    can_dx_put("can_proprietary/dev/a_v", {1});
    can_dx_put("can_proprietary/dev/b_v", {2});
    take_tag_writes();
    EXPECT_THAT(pass(), ElementsAre("send 20#01"));
    EXPECT_THAT(pass(), IsEmpty());
    respond(0x21, {1});
    EXPECT_THAT(pass(), ElementsAre("send 22#02"));
    EXPECT_THAT(names(REQUEST_ON_CHANGE), ElementsAre("a"));
}

TEST_F(transaction_engine, after_a_timeout_the_next_request_waits_for_the_next_pass) {
    can_add_request(device(), "a", TRIGGER_ON_CHANGE, 0x20, 0x21);
    can_add_request(device(), "b", TRIGGER_ON_CHANGE, 0x22, 0x23);
    build(1000);
    can_dx_put("can_proprietary/dev/a_v", {1});
    can_dx_put("can_proprietary/dev/b_v", {2});
    take_tag_writes();
    (void)pass();
    EXPECT_THAT(pass_at(1100), ElementsAre("result a timeout"));
    EXPECT_THAT(pass_at(1100), ElementsAre("send 22#02"));
}

TEST_F(transaction_engine, a_cyclic_request_waits_for_the_one_on_change) {
    can_add_request(device(), "change", TRIGGER_ON_CHANGE, 0x20, 0x21);
    can_add_request(device(), "cyclic", TRIGGER_CYCLIC, 0x22, 0x23);
    build(1000);
    can_clock_set(1100);
    write_tag("dev/change_v", {1});
    EXPECT_THAT(pass(), ElementsAre("send 20#01")); // both are due
    EXPECT_THAT(names(REQUEST_CYCLIC_QUEUE), ElementsAre("cyclic"));
    EXPECT_EQ(module.waiting, node("change"));
    EXPECT_THAT(pass_at(1150), IsEmpty());
    respond(0x21, {1});
    EXPECT_THAT(pass_at(1160), ElementsAre("send 22#00"));
    EXPECT_EQ(module.waiting, node("cyclic"));
}

TEST_F(transaction_engine, a_request_on_change_waits_for_the_cyclic_one) {
    can_add_request(device(), "change", TRIGGER_ON_CHANGE, 0x20, 0x21);
    can_add_request(device(), "cyclic", TRIGGER_CYCLIC, 0x22, 0x23);
    build(1000);
    EXPECT_THAT(pass_at(1100), ElementsAre("send 22#00"));
    write_tag("dev/change_v", {1});
    EXPECT_THAT(pass_at(1150), IsEmpty());
    EXPECT_EQ(module.waiting, node("cyclic"));
    EXPECT_THAT(pass_at(1200), ElementsAre("result cyclic timeout")); // step after the other's
    EXPECT_THAT(pass_at(1201), ElementsAre("send 20#01"));
}

TEST_F(transaction_engine, a_request_in_an_unknown_state_is_named_under_its_handler) {
    can_add_request(device(), "change", TRIGGER_ON_CHANGE, 0x20, 0x21);
    can_add_request(device(), "cyclic", TRIGGER_CYCLIC, 0x22, 0x23);
    build(1000);
    can_clock_set(1100);
    write_tag("dev/change_v", {1});
    info("change")->state = STATE_TIMEOUT;
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(tx(), 0); }),
              can_error("dx_request_send_handler", "unknown request trans state: 2\n"));
    info("cyclic")->state = STATE_INITIAL;
    info("change")->state = 7;
    module.waiting = nullptr;
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(tx(), 0); }),
              can_error("dx_request_send_handler", "unknown request trans state: 7\n") +
                  can_error("cyclic_request_send_handler", "unknown request trans state: 255\n"));
    EXPECT_THAT(names(REQUEST_CHANGE_QUEUE), ElementsAre("change"));
    EXPECT_THAT(names(REQUEST_CYCLIC_QUEUE), ElementsAre("cyclic"));
}

TEST_F(transaction_engine, a_bootup_request_in_an_unknown_state_is_named_under_its_handler) {
    can_add_request(device(), "r", TRIGGER_BOOTUP, 0x20, 0x21);
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10);
    build();
    info("r")->state = 100;
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(tx(), 0); }),
              can_error("bootup_request_send_handler", "unknown request trans state: 100\n"));
    EXPECT_THAT(can_take_lines({"send"}), ElementsAre("send 10#00")); // the phase goes on
}

/* Answers to remote requests. */

TEST_F(transaction_engine, a_remote_request_is_answered_once) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 1;
    build();
    can_dx_put("can_proprietary/dev/p_v", {7});
    receive(0x10 | CAN_RTR_FLAG, {});
    (void)can_take_lines();
    EXPECT_THAT(pass(), ElementsAre("send 10#07", "result p success"));
    EXPECT_EQ(module.pending_answer, nullptr);
    EXPECT_THAT(pass(), IsEmpty());
    EXPECT_THAT(names(PRODUCE_CYCLIC), ElementsAre("p"));
    EXPECT_EQ(info("p")->next_send, 1100U);
}

TEST_F(transaction_engine, an_answer_knows_no_fault_protection) {
    transaction_config *transaction = can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    transaction->triggerByRTR = 1;
    transaction->cyclicInterval = 500;
    can_protect(transaction, 50, "ee");
    build(1000);
    can_dx_put("can_proprietary/dev/p_v", {7});
    can_clock_set(1200);
    receive(0x10 | CAN_RTR_FLAG, {});
    (void)can_take_lines();
    EXPECT_THAT(pass(), ElementsAre("send 10#07", "result p success"));
    EXPECT_EQ(tag_of("p")->fault_mark, 0);
}

TEST_F(transaction_engine, a_refused_answer_is_not_tried_again) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 1;
    build();
    receive(0x10 | CAN_RTR_FLAG, {});
    (void)can_take_lines();
    can_calls().refuse_frames = true;
    EXPECT_THAT(pass(), ElementsAre("refused 10#00", "result p failed"));
    can_calls().refuse_frames = false;
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(transaction_engine, an_answer_leaves_a_changed_frame_to_be_sent) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10)->triggerByRTR = 1;
    build();
    write_tag("dev/p_v", {7});
    receive(0x10 | CAN_RTR_FLAG, {});
    (void)can_take_lines();
    EXPECT_THAT(pass(),
                ElementsAre("send 10#07", "result p success", "send 10#07", "result p success"));
}

TEST_F(transaction_engine, a_done_bootup_frame_answers_remote_requests) {
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10)->triggerByRTR = 1;
    build();
    (void)pass();
    receive(0x10 | CAN_RTR_FLAG, {});
    (void)can_take_lines();
    EXPECT_THAT(pass(), ElementsAre("send 10#00", "result p success"));
    EXPECT_THAT(names(PRODUCE_IDLE), ElementsAre("p"));
}

/* A whole pass. */

TEST_F(transaction_engine, a_pass_goes_through_its_steps_in_order) {
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 0x10);
    can_protect(can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 0x11), 100, "ee");
    can_add_request(device(), "request", TRIGGER_ON_CHANGE, 0x12, 0x13);
    can_add_produce(device(), "answer", TRIGGER_ON_CHANGE, 0x16)->triggerByRTR = 1;
    build(1000);
    (void)tx();
    write_tag("dev/request_v", {1});
    can_dx_put("can_proprietary/dev/change_v", {1});
    can_clock_set(1200);
    tag_of("change")->last_update = 1050;
    receive(0x16 | CAN_RTR_FLAG, {});
    (void)can_take_lines();
    (void)tx();
    EXPECT_THAT(can_take_lines({"send", "write"}),
                ElementsAre("write can_proprietary/dev/change_v ee", // fault protection
                            "send 16#00",                            // remote request
                            "send 12#01",                            // request on change
                            "send 11#ee",                            // on change
                            "send 10#00"));                          // cyclic
}

TEST_F(transaction_engine, a_cyclic_request_is_sent_between_the_changed_and_the_cyclic_frames) {
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 0x10);
    can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 0x11);
    can_add_request(device(), "request", TRIGGER_CYCLIC, 0x12, 0x13);
    build(1000);
    can_clock_set(1100);
    write_tag("dev/change_v", {1});
    (void)tx();
    EXPECT_THAT(can_take_lines({"send"}), ElementsAre("send 11#01", "send 12#00", "send 10#00"));
}

TEST_F(transaction_engine, a_refusal_in_one_queue_does_not_hold_up_the_others) {
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 0x10);
    can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 0x11);
    can_add_request(device(), "request", TRIGGER_CYCLIC, 0x12, 0x13);
    build(1000);
    can_calls().refused_ids = {0x11, 0x12};
    can_clock_set(1100);
    write_tag("dev/change_v", {1});
    EXPECT_THAT(pass(),
                ElementsAre("refused 11#01",
                            "result change failed",
                            "refused 12#00",
                            "result request failed",
                            "send 10#00",
                            "result cyclic success"));
}

TEST_F(transaction_engine, the_change_check_takes_marked_nodes_of_the_home_lists_only) {
    can_add_produce(device(), "a", TRIGGER_ON_CHANGE, 0x10);
    can_add_produce(device(), "b", TRIGGER_ON_CHANGE, 0x11);
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x12, 0x13);
    can_add_request(device(), "s", TRIGGER_ON_CHANGE, 0x14, 0x15);
    build();
    info("b")->data_changed = 1;
    info("s")->data_changed = 1;
    check_dx_transaction(&module);
    EXPECT_THAT(names(PRODUCE_ON_CHANGE), ElementsAre("a"));
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("b"));
    EXPECT_THAT(names(REQUEST_ON_CHANGE), ElementsAre("r"));
    EXPECT_THAT(names(REQUEST_CHANGE_QUEUE), ElementsAre("s"));
    EXPECT_EQ(info("s")->state, STATE_READY);
    EXPECT_EQ(info("b")->state, STATE_INITIAL);
    check_dx_transaction(&module);
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("b"));
}

TEST_F(transaction_engine, writes_from_another_thread_all_reach_the_bus) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10)->frames->blocks->tag->tagSize = 1;
    build();
    constexpr uint8_t last = 200;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (uint8_t value = 1; value <= last; value++) {
            can_dx_put("can_proprietary/dev/p_v", {value});
        }
        done = true;
    });
    while (!done) {
        (void)tx();
        (void)rx();
    }
    writer.join();
    (void)rx();
    (void)tx();
    const can_lines sent = can_take_lines({"send"});
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.back(), "send 10#c8");
}

} // namespace
