#include "can/receive.h"
#include "can_port_fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/can/error.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class receive_wait : public can_port_fixture {
protected:
    void set_state(const char *name, uint8_t state, uint32_t deadline = 0) {
        info(name)->state = state;
        info(name)->deadline = deadline;
    }
    /** Take a transaction out of every list. */
    trans_list_node *unlink(const char *name) {
        trans_list_node *found = node(name);
        for (trans_list &list : module.lists) {
            (void)can_proprietary_remove_list(&list, found);
        }
        return found;
    }
    void move(const char *name, list_id to) { list_append(&list_of(&module, to), unlink(name)); }
};

TEST_F(receive_wait, is_a_second_without_transactions) {
    build();
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(receive_wait, is_a_second_with_consume_and_idle_on_change_transactions_only) {
    can_add_consume(device(), "c", 1);
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 2);
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 3, 4);
    build();
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(receive_wait, is_none_for_good_after_a_produced_bootup_frame) {
    can_add_produce(device(), "b", TRIGGER_BOOTUP, 1);
    build();
    (void)tx();
    EXPECT_THAT(names(PRODUCE_IDLE), ElementsAre("b"));
    EXPECT_EQ(wait(), 0U);
    can_clock_advance(1000000);
    EXPECT_EQ(wait(), 0U);
}

TEST_F(receive_wait, with_a_done_bootup_request_follows_the_state_of_the_first_alone) {
    can_add_request(device(), "first", TRIGGER_BOOTUP, 1, 2);
    can_add_request(device(), "second", TRIGGER_BOOTUP, 3, 4);
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 5)->cyclicInterval = 1;
    can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 6);
    build();
    move("first", REQUEST_IDLE);
    move("second", REQUEST_IDLE);
    set_state("second", STATE_SUCCESS);
    struct expectation {
        uint8_t state;
        uint32_t deadline;
        uint32_t wait;
    };
    for (const expectation &row : {expectation{STATE_READY, 0, 0},
                                   expectation{STATE_SUCCESS, 0, 0},
                                   expectation{STATE_FAILED, 0, 0},
                                   expectation{STATE_WAITING, 1400, 400},
                                   expectation{STATE_WAITING, 2500, 1000},
                                   expectation{STATE_WAITING, 1000, 0},
                                   expectation{STATE_WAITING, 900, 0},
                                   expectation{STATE_TIMEOUT, 0, 1000},
                                   expectation{STATE_INITIAL, 0, 1000},
                                   expectation{77, 0, 1000}}) {
        set_state("first", row.state, row.deadline);
        EXPECT_EQ(wait(), row.wait) << int{row.state} << " " << row.deadline;
    }
    // Not even a due frame or deadline shortens it.
    set_state("first", STATE_TIMEOUT);
    can_clock_advance(100);
    move("change", PRODUCE_CHANGE_QUEUE);
    module.earliest_fp_deadline = can_clock_now();
    module.earliest_consume_deadline = can_clock_now();
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(receive_wait, of_produce_idle_goes_before_request_idle) {
    can_add_request(device(), "r", TRIGGER_BOOTUP, 1, 2);
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 3);
    build();
    move("r", REQUEST_IDLE);
    set_state("r", STATE_TIMEOUT);
    EXPECT_EQ(wait(), 1000U);
    move("p", PRODUCE_IDLE);
    EXPECT_EQ(wait(), 0U);
}

TEST_F(receive_wait, is_none_while_a_changed_frame_is_to_be_sent) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 1);
    build();
    move("p", PRODUCE_CHANGE_QUEUE);
    EXPECT_EQ(wait(), 0U);
}

TEST_F(receive_wait, with_a_changed_request_follows_its_state) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 1, 2);
    build();
    move("r", REQUEST_CHANGE_QUEUE);
    for (const uint8_t state : {STATE_READY, STATE_SUCCESS, STATE_FAILED}) {
        set_state("r", state);
        EXPECT_EQ(wait(), 0U);
    }
    set_state("r", STATE_WAITING, 1300);
    EXPECT_EQ(wait(), 300U);
    set_state("r", STATE_WAITING, 3000);
    EXPECT_EQ(wait(), 1000U);
    set_state("r", STATE_WAITING, 999);
    EXPECT_EQ(wait(), 0U);
    set_state("r", STATE_TIMEOUT);
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(receive_wait, ends_with_the_next_cyclic_frame_or_request) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 1)->cyclicInterval = 300;
    can_add_produce(device(), "p2", TRIGGER_CYCLIC, 2)->cyclicInterval = 200;
    can_add_request(device(), "r", TRIGGER_CYCLIC, 3, 4)->cyclicInterval = 250;
    can_add_request(device(), "r2", TRIGGER_CYCLIC, 5, 6)->cyclicInterval = 150;
    build();
    EXPECT_EQ(wait(), 150U);
    move("r2", REQUEST_CHANGE_QUEUE); // any list that does not shorten the wait
    set_state("r2", STATE_TIMEOUT);
    EXPECT_EQ(wait(), 200U);
    move("p2", PRODUCE_BOOTUP);
    EXPECT_EQ(wait(), 250U);
    move("r", REQUEST_CHANGE_QUEUE);
    EXPECT_EQ(wait(), 300U);
}

TEST_F(receive_wait, is_none_for_a_cyclic_frame_that_is_due) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 1)->cyclicInterval = 10;
    build();
    can_clock_advance(10);
    EXPECT_EQ(wait(), 0U);
    can_clock_advance(10);
    EXPECT_EQ(wait(), 0U);
}

TEST_F(receive_wait, with_a_changed_request_under_way_still_ends_with_the_next_cyclic_frame) {
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 1, 2);
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 3)->cyclicInterval = 40;
    build();
    move("r", REQUEST_CHANGE_QUEUE);
    set_state("r", STATE_WAITING, 1300);
    EXPECT_EQ(wait(), 40U);
    set_state("r", STATE_WAITING, 1030);
    EXPECT_EQ(wait(), 30U);
}

TEST_F(receive_wait, with_a_cyclic_request_in_its_queue_follows_its_state) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 1, 2);
    build();
    move("r", REQUEST_CYCLIC_QUEUE);
    set_state("r", STATE_READY);
    EXPECT_EQ(wait(), 0U);
    set_state("r", STATE_WAITING, 1300);
    EXPECT_EQ(wait(), 300U);
    set_state("r", STATE_WAITING, 3000);
    EXPECT_EQ(wait(), 1000U);
    set_state("r", STATE_WAITING, 1000);
    EXPECT_EQ(wait(), 0U);
    for (const uint8_t state : {STATE_SUCCESS, STATE_FAILED, STATE_TIMEOUT, STATE_INITIAL}) {
        set_state("r", state, 1300);
        EXPECT_EQ(wait(), 1000U);
    }
}

TEST_F(receive_wait, ends_with_the_earliest_fault_protection_deadline) {
    build();
    module.earliest_fp_deadline = 1200;
    EXPECT_EQ(wait(), 200U);
    module.earliest_fp_deadline = 1000;
    EXPECT_EQ(wait(), 0U);
    module.earliest_fp_deadline = 3000;
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(receive_wait, is_not_shortened_by_a_fault_protection_deadline_that_has_passed) {
    build();
    module.earliest_fp_deadline = 999;
    EXPECT_EQ(wait(), 1000U);
}

TEST_F(receive_wait, ends_with_the_earliest_consume_deadline) {
    transaction_config *consume = can_add_consume(device(), "c", 1);
    consume->consumeToutEnable = 1;
    consume->consumeTimeout = 70;
    build();
    EXPECT_EQ(wait(), 70U);
    can_clock_advance(70);
    EXPECT_EQ(wait(), 0U);
    can_clock_advance(30);
    EXPECT_EQ(wait(), 0U);
}

TEST_F(receive_wait, ends_with_the_deadline_of_a_waiting_bootup_request) {
    can_add_request(device(), "b", TRIGGER_BOOTUP, 1, 2);
    build();
    EXPECT_EQ(wait(), 1000U); // a refused one is tried again with the next pass
    set_state("b", STATE_WAITING, 1300);
    EXPECT_EQ(wait(), 300U);
    set_state("b", STATE_WAITING, 900);
    EXPECT_EQ(wait(), 0U);
}

TEST_F(receive_wait, is_right_across_the_wrap_of_the_clock) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 1)->cyclicInterval = 300;
    transaction_config *consume = can_add_consume(device(), "c", 2);
    consume->consumeToutEnable = 1;
    consume->consumeTimeout = 200;
    can_add_request(device(), "r", TRIGGER_ON_CHANGE, 3, 4);
    build(0xffffffc0U);
    EXPECT_EQ(wait(), 200U);
    move("r", REQUEST_CHANGE_QUEUE);
    set_state("r", STATE_WAITING, 0x10);
    EXPECT_EQ(wait(), 0x50U);
    module.earliest_fp_deadline = 5;
    EXPECT_EQ(wait(), 0x45U);
    can_clock_set(6);
    EXPECT_EQ(wait(), 10U);
}

class receive_pass : public can_port_fixture {
protected:
    void SetUp() override { module.port_index = 3; }
    diag_record &record = can_device_record();
};

TEST_F(receive_pass, without_module_fails_with_a_message) {
    EXPECT_EQ(can_errors_of([] { EXPECT_EQ(can_rx_handler(nullptr), -1); }),
              can_error("can_rx_handler", "can_module_get fail\n"));
}

TEST_F(receive_pass, waits_a_second_when_there_is_nothing_to_do) {
    build();
    EXPECT_EQ(rx(), 0);
    EXPECT_THAT(can_calls().waits_ms, ElementsAre(1000));
}

TEST_F(receive_pass, waits_as_long_as_the_engine_can_afford) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 1)->cyclicInterval = 45;
    build();
    (void)rx();
    EXPECT_THAT(can_calls().waits_ms, ElementsAre(45));
}

TEST_F(receive_pass, waits_for_the_beginning_of_a_due_millisecond) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 50;
    build(1000);
    can_clock_set_us_passed(300);
    (void)rx();
    can_clock_set(1049);
    can_clock_set_us_passed(999);
    (void)rx();
    can_clock_set(1050);
    can_clock_set_us_passed(300);
    (void)rx(); // it is due
    EXPECT_THAT(can_calls().waits_us, ElementsAre(49700, 1, 0));
}

/** The kernel may be late by a thousandth. */
TEST_F(receive_pass, ends_a_long_scheduled_wait_early) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 100;
    build(1000);
    (void)rx();
    can_clock_set_us_passed(1);
    (void)rx();
    EXPECT_THAT(can_calls().waits_us, ElementsAre(99900, 99999));
}

TEST_F(receive_pass, with_nothing_scheduled_waits_a_second) {
    can_clock_set_us_passed(300);
    build(1000);
    (void)rx();
    EXPECT_THAT(can_calls().waits_us, ElementsAre(1000000));
}

TEST_F(receive_pass, returns_the_result_of_a_failed_wait) {
    build();
    can_calls().select_errno = EINTR;
    put(0x10, {1});
    EXPECT_EQ(rx(), -1);
    EXPECT_EQ(record.rxCount, 0U);
}

TEST_F(receive_pass, times_out_consumed_frames_before_it_waits) {
    can_add_consume(device(), "c", 0x10)->consumeToutEnable = 1;
    build(1000);
    can_clock_set(1100);
    can_calls().on_select = [] { can_note("wait"); };
    put(0x10, {1});
    (void)rx();
    EXPECT_THAT(can_take_lines({"result", "wait"}),
                ElementsAre("result c timeout", "wait", "result c success"));
    EXPECT_THAT(can_calls().waits_ms, ElementsAre(0)); // reckoned before
}

TEST_F(receive_pass, without_descriptors_only_waits) {
    const int32_t socket = std::exchange(module.socket, 0);
    const int32_t event_fd = std::exchange(module.event_fd, -1);
    build();
    EXPECT_EQ(rx(), 0);
    module.socket = socket;
    module.event_fd = event_fd;
}

TEST_F(receive_pass, takes_one_frame) {
    build();
    put(0x10, {1});
    put(0x11, {1, 2});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 1U);
    EXPECT_EQ(record.bit_count, 75U);
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 2U);
    EXPECT_EQ(record.bit_count, 75U + 83U);
}

TEST_F(receive_pass, takes_a_frame_through_a_descriptor_beyond_the_first_word_of_a_set) {
    constexpr int beyond = 8 * sizeof(fd_mask) + 1;
    const int high = fcntl(module.socket, F_DUPFD_CLOEXEC, beyond);
    ASSERT_GE(high, beyond);
    (void)close(std::exchange(module.socket, high));
    build();
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 0U);
    put(0x10, {1});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 1U);
}

TEST_F(receive_pass, takes_tag_writes_and_a_frame_together) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 1);
    build();
    can_dx_put("can_proprietary/dev/p_v", {5});
    put(0x10, {1});
    EXPECT_EQ(rx(), 0);
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("p"));
    EXPECT_EQ(record.rxCount, 1U);
    EXPECT_FALSE(is_woken());
}

TEST_F(receive_pass, with_tag_writes_alone_returns_the_number_of_ready_descriptors) {
    build();
    can_module_wake(&module);
    can_module_wake(&module);
    EXPECT_EQ(rx(), 1);
    EXPECT_FALSE(is_woken());
    EXPECT_TRUE(module.fp_check_wanted);
}

TEST_F(receive_pass, drops_what_is_not_a_whole_frame) {
    build();
    const std::array<uint8_t, 20> bytes{};
    ASSERT_EQ(send(bus, bytes.data(), 15, 0), 15);
    EXPECT_EQ(rx(), 1);
    ASSERT_EQ(send(bus, bytes.data(), 1, 0), 1);
    EXPECT_EQ(rx(), 1);
    EXPECT_EQ(record.rxCount, 0U);
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(receive_pass, of_a_failed_read_logs_the_reason) {
    build();
    put(0x10, {1});
    can_calls().receive_errno = ENETDOWN;
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(rx(), 1); }),
              can_error("can_link_note_error", "port_idx = 3, Network is down\n"));
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 1U);
}

TEST_F(receive_pass, takes_what_had_come_before_the_interface_went) {
    build();
    put(0x10, {1});
    can_calls().receive_errno = ENODEV;
    EXPECT_EQ(rx(), 1);
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 1U);
}

TEST_F(receive_pass, leaves_alone_a_socket_that_goes_on_telling_of_its_end) {
    build();
    put(0x10, {1});
    for (int turn = 0; turn < 2; ++turn) {
        can_calls().receive_errno = ENODEV;
        EXPECT_EQ(rx(), 1);
    }
    can_calls().receive_errno = ENODEV;
    can_module_wake(&module);
    EXPECT_EQ(rx(), 1);
    EXPECT_TRUE(module.fp_check_wanted);
    EXPECT_EQ(can_calls().receive_errno, ENODEV); // nothing was read
}

TEST_F(receive_pass, without_diagnostic_record_logs_an_empty_line_and_drops_the_frame) {
    can_add_consume(device(), "c", 0x10);
    build();
    can_device().has_diag_record = false;
    put(0x10, {1});
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(rx(), 0); }),
              can_error("can_error_notification", "\n"));
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(receive_pass, records_a_data_frame_before_it_is_served) {
    can_add_consume(device(), "c", 0x10);
    build();
    put(0x10, {0x2a});
    (void)rx();
    EXPECT_THAT(can_take_lines({"traffic", "result"}),
                ElementsAre("traffic received 10#2a port 3", "result c success"));
}

TEST_F(receive_pass, hands_error_frames_to_the_error_notification) {
    build();
    put(CAN_ERR_FLAG | CAN_ERR_BUSOFF, {0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(rx(), 0);
    EXPECT_THAT(can_take_lines(), ElementsAre("bus 3 Bus off", "event bus off", "led 1"));
    EXPECT_EQ(record.rxCount, 0U);
    EXPECT_EQ(record.bit_count, 0U);
}

TEST_F(receive_pass, on_a_standard_port_drops_extended_frames_uncounted) {
    can_add_consume(device(), "c", 0x10);
    build();
    put(0x10 | CAN_EFF_FLAG, {1});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 0U);
    EXPECT_EQ(record.bit_count, 0U);
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

TEST_F(receive_pass, on_an_extended_port_drops_standard_frames_uncounted) {
    can_add_consume(device(), "c", 0x10);
    module.settings.frameFormat = 1;
    build();
    put(0x10, {1});
    put(0x10 | CAN_RTR_FLAG, {});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 0U);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    put(0x10 | CAN_EFF_FLAG, {1});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 1U);
    EXPECT_EQ(record.bit_count, 75U);
    EXPECT_THAT(can_take_lines({"traffic", "result"}),
                ElementsAre("traffic received 80000010#01 port 3", "result c success"));
}

TEST_F(receive_pass, on_an_extended_port_takes_error_frames_too) {
    module.settings.frameFormat = 1;
    build();
    put(CAN_ERR_FLAG | CAN_ERR_RESTARTED, {0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(rx(), 0);
    EXPECT_THAT(can_take_lines(), ElementsAre("bus 3 Normal", "led 0"));
}

TEST_F(receive_pass, makes_the_answer_to_a_remote_frame_pending) {
    can_add_produce(device(), "a", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 1;
    can_add_produce(device(), "b", TRIGGER_CYCLIC, 0x11)->triggerByRTR = 1;
    build();
    put(0x10 | CAN_RTR_FLAG, {});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(module.pending_answer, node("a"));
    EXPECT_THAT(can_take_lines(), ElementsAre("traffic received 40000010# remote port 3"));
    EXPECT_EQ(record.rxCount, 1U);
    EXPECT_EQ(record.bit_count, 67U);
    put(0x11 | CAN_RTR_FLAG, {}); // a later one replaces it
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(module.pending_answer, node("b"));
}

TEST_F(receive_pass, of_a_remote_frame_nobody_answers_counts_and_records_it_only) {
    can_add_produce(device(), "a", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 1;
    can_add_consume(device(), "c", 0x12);
    build();
    put(0x10 | CAN_RTR_FLAG, {});
    (void)rx();
    (void)can_take_lines();
    put(0x12 | CAN_RTR_FLAG, {});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(module.pending_answer, node("a"));
    EXPECT_THAT(can_take_lines(), ElementsAre("traffic received 40000012# remote port 3"));
    EXPECT_EQ(record.rxCount, 2U);
}

TEST_F(receive_pass, counts_the_length_of_a_remote_frame_as_bits) {
    build();
    put(0x10 | CAN_RTR_FLAG, {0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(record.rxCount, 1U);
    EXPECT_EQ(record.bit_count, 67U + 64U);
}

TEST_F(receive_pass, masks_the_identifier_of_an_extended_remote_frame) {
    module.settings.frameFormat = 1;
    can_add_produce(device(), "a", TRIGGER_CYCLIC, 0x1abcdef0)->triggerByRTR = 1;
    build();
    put(0x1abcdef0 | CAN_RTR_FLAG | CAN_EFF_FLAG, {});
    EXPECT_EQ(rx(), 0);
    EXPECT_EQ(module.pending_answer, node("a"));
}

TEST_F(receive_pass, that_waited_in_vain_looks_for_lost_frames) {
    build();
    can_calls().dropped_frames = 5;
    EXPECT_EQ(
        can_errors_of([&] { (void)rx(); }),
        can_error("can_link_check_loss", "port_idx = 3, 5 frames lost in the receive buffer\n"));
}

TEST_F(receive_pass, of_a_busy_port_looks_for_lost_frames_now_and_then) {
    build();
    can_calls().dropped_frames = 5;
    const std::string errors = can_errors_of([&] {
        for (int i = 0; i < 8191; i++) {
            receive(0x10, {});
            (void)can_take_lines();
        }
    });
    EXPECT_EQ(errors, "");
    EXPECT_NE(can_errors_of([&] { receive(0x10, {}); }), "");
    EXPECT_EQ(module.frames_since_loss_check, 0U);
}

TEST_F(receive_pass, without_its_interface_does_not_keep_a_core_busy_with_what_cannot_be_sent) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10);
    build();
    trans_list_node *node = head_of(&module, PRODUCE_ON_CHANGE);
    ASSERT_EQ(can_proprietary_move_to_wait_send(&module, node), 0);
    (void)rx();
    module.link_lost = true;
    module.link_retry = 5000;
    (void)rx();
    EXPECT_THAT(can_calls().waits_ms, ElementsAre(0, 20));
}

TEST_F(receive_pass, looks_for_a_lost_interface) {
    build();
    module.link_lost = true;
    module.link_retry = 1000;
    can_calls().interface_index = 0;
    (void)rx();
    EXPECT_EQ(module.link_retry, 2000U);
}

class busy_port : public can_port_fixture {
protected:
    void put_frames(int count) {
        for (int i = 0; i < count; i++) {
            put(1, {7});
        }
    }
    std::vector<int64_t> waits_of_passes(int count) {
        can_calls().waits_ms.clear();
        for (int i = 0; i < count; i++) {
            (void)rx();
        }
        return can_calls().waits_ms;
    }
};

TEST_F(busy_port, looks_without_a_wait_as_long_as_frames_are_there) {
    can_add_consume(device(), "c", 1);
    build();
    can_calls().waited_us = 3;
    put_frames(3);
    EXPECT_THAT(waits_of_passes(4), ElementsAre(1000, 0, 0, 0, 1000));
    put_frames(1);
    EXPECT_THAT(waits_of_passes(1), ElementsAre(1000));
}

TEST_F(busy_port, waits_again_after_a_frame_that_it_had_to_wait_for) {
    can_add_consume(device(), "c", 1);
    build();
    can_calls().waited_us = 500;
    put_frames(2);
    EXPECT_THAT(waits_of_passes(2), ElementsAre(1000, 1000));
}

TEST_F(busy_port, keeps_its_deadlines_while_frames_are_there) {
    can_add_consume(device(), "c", 1);
    transaction_config *silent = can_add_consume(device(), "silent", 2);
    silent->consumeToutEnable = 1;
    build();
    can_calls().waited_us = 3;
    put_frames(2);
    (void)rx();
    can_clock_advance(silent->consumeTimeout);
    (void)rx();
    EXPECT_EQ(info("silent")->state, STATE_TIMEOUT);
}

TEST_F(busy_port, reads_no_clock_where_nothing_is_scheduled) {
    can_add_consume(device(), "c", 1);
    build();
    (void)tx();
    int reads = 0;
    can_clock_on_read([&] { reads++; });
    put_frames(1);
    (void)tx();
    (void)rx();
    can_clock_on_read(nullptr);
    EXPECT_EQ(reads, 0);
}

TEST_F(busy_port, reads_the_clock_once_for_a_pass_that_sends_nothing) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 2);
    build();
    int reads = 0;
    can_clock_on_read([&] { reads++; });
    (void)tx();
    (void)can_rx_continue(&module);
    can_clock_on_read(nullptr);
    EXPECT_EQ(reads, 1);
}

} // namespace
