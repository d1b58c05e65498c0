#include "can/fault_protection.h"
#include "can_port_fixture.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class fault_protection : public can_port_fixture {
protected:
    /** A produced frame of two bytes with a tag in each, protected after 50 ms. */
    transaction_config *add(const char *name, trigger_mode trigger, int32_t id) {
        transaction_config *made =
            can_add_transaction(device(), name, TRANSACTION_PRODUCE, trigger);
        frame_config *frame = can_add_frame(made, id, 2, FRAME_PRODUCED);
        can_add_tag(frame, "a", TAG_UINT8, 1, 0);
        can_add_tag(frame, "b", TAG_UINT8, 1, 1);
        can_protect(made, 50, "ee");
        return made;
    }

    can_lines check_at(uint32_t now, const char *name = "p") {
        can_clock_set(now);
        check_fault_protection(&module, node(name));
        return can_take_lines();
    }

    std::string frame_of(const char *name = "p") {
        const frame_info *frame = info(name)->frames;
        return can_hex({frame->data.data(), frame->config->dataLength});
    }

    data_info *tag(const char *name) {
        for (function_block_info *block = info("p")->frames->blocks; block != nullptr;
             block = block->next) {
            if (block->kind == BLOCK_TAG && strcmp(block->data->config->tagName, name) == 0) {
                return block->data;
            }
        }
        return nullptr;
    }
};

constexpr const char *both_written[] = {"write can_proprietary/dev/p_a ee",
                                        "write can_proprietary/dev/p_b ee"};

TEST_F(fault_protection, does_nothing_before_the_deadline) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    EXPECT_THAT(check_at(1049), IsEmpty());
    EXPECT_EQ(info("p")->fp_deadline, 1050U);
}

TEST_F(fault_protection, needs_more_than_the_timeout) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    EXPECT_THAT(check_at(1050), IsEmpty());
    EXPECT_EQ(frame_of(), "0000");
    EXPECT_THAT(check_at(1051), ElementsAre(both_written[0], both_written[1], "commit"));
    EXPECT_EQ(frame_of(), "eeee");
    EXPECT_EQ(tag("a")->fault_mark, 1);
    EXPECT_EQ(tag("b")->fault_mark, 1);
}

TEST_F(fault_protection, comes_once_for_each_fault) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    (void)check_at(1051);
    EXPECT_THAT(check_at(1200), IsEmpty());
    EXPECT_THAT(check_at(100000), IsEmpty());
}

TEST_F(fault_protection, spares_the_tags_that_are_updated) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    can_clock_set(1030);
    can_dx_put("can_proprietary/dev/p_b", {7});
    EXPECT_THAT(check_at(1051), ElementsAre(both_written[0], "commit"));
    EXPECT_EQ(frame_of(), "ee07");
    EXPECT_EQ(info("p")->fp_deadline, 1080U); // from the tag that is left
    EXPECT_THAT(check_at(1080), IsEmpty());
    EXPECT_THAT(check_at(1081), ElementsAre(both_written[1], "commit"));
    EXPECT_EQ(frame_of(), "eeee");
}

TEST_F(fault_protection, looks_again_from_the_earliest_update) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    can_clock_set(1010);
    can_dx_put("can_proprietary/dev/p_a", {1});
    can_clock_set(1040);
    can_dx_put("can_proprietary/dev/p_b", {1});
    EXPECT_THAT(check_at(1050), IsEmpty());
    EXPECT_EQ(info("p")->fp_deadline, 1060U);
}

TEST_F(fault_protection, ends_with_a_write_of_another_value) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    (void)check_at(1051);
    can_dx_put("can_proprietary/dev/p_a", {7});
    EXPECT_EQ(tag("a")->fault_mark, 0);
    EXPECT_EQ(tag("b")->fault_mark, 1);
    EXPECT_EQ(frame_of(), "07ee");
    EXPECT_THAT(check_at(1101), IsEmpty());
    EXPECT_THAT(check_at(1102), ElementsAre(both_written[0], "commit"));
}

TEST_F(fault_protection, does_not_end_with_a_write_of_the_fault_value) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    (void)check_at(1051);
    can_dx_put("can_proprietary/dev/p_a", {0xee});
    EXPECT_EQ(tag("a")->fault_mark, 1);
    EXPECT_EQ(tag("a")->last_update, 1051U);
}

TEST_F(fault_protection, is_postponed_by_a_write_of_the_same_value) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    can_clock_set(1040);
    can_dx_put("can_proprietary/dev/p_a", {0});
    can_dx_put("can_proprietary/dev/p_b", {0});
    EXPECT_FALSE(is_woken());
    EXPECT_THAT(check_at(1090), IsEmpty());
    EXPECT_THAT(check_at(1091), ElementsAre(both_written[0], both_written[1], "commit"));
}

TEST_F(fault_protection, puts_the_bytes_of_each_tag_at_its_place) {
    transaction_config *made =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_CYCLIC);
    frame_config *frame = can_add_frame(made, 0x10, 8, FRAME_PRODUCED);
    can_add_constant(frame, 0x55, 1, 3);
    can_add_tag(frame, "wide", TAG_UINT32, 4, 4);
    can_add_tag(frame, "pair", TAG_RAW, 2, 1);
    can_protect(made, 50, "0102030405060708090a0b0c");
    build(1000);
    EXPECT_THAT(check_at(1051),
                ElementsAre("write can_proprietary/dev/p_wide 01020304",
                            "write can_proprietary/dev/p_pair 0102",
                            "commit"));
    EXPECT_EQ(frame_of(), "0001025501020304"); // the constant stays
}

TEST_F(fault_protection, value_is_swapped_in_the_sent_frame_alone) {
    transaction_config *made =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_ON_CHANGE);
    frame_config *frame = can_add_frame(made, 0x10, 2, FRAME_PRODUCED);
    can_add_tag(frame, "v", TAG_UINT16, 2, 0)->swap = 1;
    can_protect(made, 50, "0102");
    build(1000);
    EXPECT_THAT(check_at(1051), ElementsAre("write can_proprietary/dev/p_v 0102", "commit"));
    EXPECT_EQ(frame_of(), "0102");
    take_tag_writes();
    (void)tx();
    EXPECT_THAT(can_take_lines({"send"}), ElementsAre("send 10#0201"));
}

TEST_F(fault_protection, of_function_1_is_all_zero_bytes) {
    transaction_config *made = add("p", TRIGGER_CYCLIC, 0x10);
    made->fpFunc = FAULT_PROTECTION_ZERO;
    build(1000);
    can_dx_put("can_proprietary/dev/p_a", {9});
    can_dx_put("can_proprietary/dev/p_b", {9});
    EXPECT_THAT(check_at(1051),
                ElementsAre("write can_proprietary/dev/p_a 00",
                            "write can_proprietary/dev/p_b 00",
                            "commit"));
    EXPECT_EQ(frame_of(), "0000");
}

TEST_F(fault_protection, works_again_after_a_fault_of_any_length) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    for (const uint32_t length : {100U, 0x7fffffffU, 0x80000000U, 0x80001000U, 0xffffffffU}) {
        uint32_t now = can_clock_now() + 51;
        EXPECT_FALSE(check_at(now).empty()) << length;
        now += length;
        can_clock_set(now);
        can_dx_put("can_proprietary/dev/p_a", {7});
        can_dx_put("can_proprietary/dev/p_b", {7});
        EXPECT_THAT(check_at(now), IsEmpty()) << length;
        EXPECT_THAT(check_at(now + 50), IsEmpty()) << length;
        EXPECT_THAT(check_at(now + 51), ElementsAre(both_written[0], both_written[1], "commit"))
            << length;
        can_dx_put("can_proprietary/dev/p_a", {8});
        can_dx_put("can_proprietary/dev/p_b", {8});
    }
}

TEST_F(fault_protection, takes_an_update_behind_its_own_reading_of_the_clock_for_one_of_now) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    tag("a")->last_update = 1060;
    tag("b")->last_update = 1070;
    EXPECT_THAT(check_at(1055), IsEmpty());
    EXPECT_EQ(info("p")->fp_deadline, 1105U);
}

TEST_F(fault_protection, is_right_across_the_wrap_of_the_clock) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(0xffffffe0U); // 32 ms before the wrap
    EXPECT_THAT(check_at(0xffffffffU), IsEmpty());
    EXPECT_THAT(check_at(17), IsEmpty());
    EXPECT_THAT(check_at(18), IsEmpty());
    EXPECT_THAT(check_at(19), ElementsAre(both_written[0], both_written[1], "commit"));
}

TEST_F(fault_protection, across_the_wrap_takes_the_smallest_clock_value_for_the_earliest_update) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(0xffffffe0U);
    can_clock_set(3);
    can_dx_put("can_proprietary/dev/p_b", {1});
    (void)check_at(18); // a was updated earlier, but its clock value is larger
    EXPECT_EQ(info("p")->fp_deadline, 53U);
}

TEST_F(fault_protection, of_a_cyclic_transaction_wakes_nobody) {
    add("p", TRIGGER_CYCLIC, 0x10);
    build(1000);
    (void)check_at(1051);
    EXPECT_FALSE(is_woken());
    EXPECT_EQ(info("p")->data_changed, 0);
}

TEST_F(fault_protection, of_an_on_change_transaction_marks_it_and_wakes_the_port) {
    add("p", TRIGGER_ON_CHANGE, 0x10);
    build(1000);
    EXPECT_THAT(check_at(1050), IsEmpty());
    EXPECT_FALSE(is_woken());
    (void)check_at(1051);
    EXPECT_TRUE(is_woken());
    EXPECT_EQ(info("p")->data_changed, 1);
    take_tag_writes();
    (void)tx();
    EXPECT_THAT(can_take_lines({"send"}), ElementsAre("send 10#eeee"));
}

TEST_F(fault_protection, concerns_the_first_frame_only) {
    transaction_config *request = can_add_request(device(), "p", TRIGGER_CYCLIC, 0x10, 0x11);
    can_protect(request, 50, "ee");
    build(1000);
    EXPECT_THAT(check_at(1051), ElementsAre("write can_proprietary/dev/p_v ee", "commit"));
}

TEST_F(fault_protection, of_a_transaction_without_frames_does_nothing) {
    transaction_config *made =
        can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_ON_CHANGE);
    made->fpFunc = FAULT_PROTECTION_ZERO;
    build(1000);
    EXPECT_THAT(check_at(5000), IsEmpty());
    (void)tx();
    EXPECT_THAT(can_take_lines(), IsEmpty());
}

/** Transmit passes over several on-change transactions. */
class fault_protection_of_port : public fault_protection {
protected:
    can_lines pass_at(uint32_t now) {
        can_clock_set(now);
        (void)tx();
        return can_take_lines({"write"});
    }
};

TEST_F(fault_protection_of_port, reckons_the_earliest_deadline_in_the_first_pass) {
    add("p", TRIGGER_ON_CHANGE, 0x10)->fpTimeout = 90;
    add("q", TRIGGER_ON_CHANGE, 0x11)->fpTimeout = 70;
    build(1000);
    EXPECT_THAT(pass_at(1000), IsEmpty());
    EXPECT_EQ(module.earliest_fp_deadline, 1070U);
    EXPECT_EQ(wait(), 70U);
}

TEST_F(fault_protection_of_port, has_no_deadline_without_protected_on_change_transactions) {
    add("p", TRIGGER_CYCLIC, 0x10);
    add("q", TRIGGER_ON_CHANGE, 0x11)->fpFunc = FAULT_PROTECTION_NONE;
    add("r", TRIGGER_ON_CHANGE, 0x12)->fpFunc = 3;
    build(1000);
    EXPECT_THAT(pass_at(1000), IsEmpty());
    EXPECT_EQ(module.earliest_fp_deadline, no_deadline);
    EXPECT_THAT(pass_at(1099), IsEmpty());
}

TEST_F(fault_protection_of_port, goes_through_the_four_lists_in_order) {
    for (const char *name : {"p", "q"}) {
        can_protect(can_add_produce(device(), name, TRIGGER_ON_CHANGE, 0x10), 50, "ee");
    }
    for (const char *name : {"r", "s"}) {
        can_protect(can_add_request(device(), name, TRIGGER_ON_CHANGE, 0x20, 0x21), 50, "ee");
    }
    build(1000);
    can_calls().refuse_frames = true;
    write_tag("dev/q_v", {1});
    write_tag("dev/s_v", {1});
    EXPECT_THAT(pass_at(1000), IsEmpty());
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("q"));
    EXPECT_THAT(names(REQUEST_CHANGE_QUEUE), ElementsAre("s"));
    EXPECT_THAT(pass_at(1051),
                ElementsAre("write can_proprietary/dev/p_v ee",
                            "write can_proprietary/dev/r_v ee",
                            "write can_proprietary/dev/q_v ee",
                            "write can_proprietary/dev/s_v ee"));
}

TEST_F(fault_protection_of_port, with_every_tag_in_fault_waits_for_a_write) {
    add("p", TRIGGER_ON_CHANGE, 0x10);
    build(1000);
    (void)pass_at(1000);
    EXPECT_THAT(pass_at(1051), ElementsAre(both_written[0], both_written[1]));
    EXPECT_EQ(module.earliest_fp_deadline, no_deadline);
    take_tag_writes();
    (void)pass_at(1051); // sends the fault value
    EXPECT_EQ(wait(), 1000U);
    can_clock_set(1200);
    write_tag("dev/p_a", {5});
    EXPECT_THAT(pass_at(1200), IsEmpty());
    EXPECT_EQ(module.earliest_fp_deadline, 1250U);
    EXPECT_THAT(pass_at(1251), ElementsAre(both_written[0]));
}

TEST_F(fault_protection_of_port, works_again_after_a_fault_of_half_a_turn_of_the_clock) {
    add("p", TRIGGER_ON_CHANGE, 0x10);
    build(1000);
    (void)pass_at(1000);
    EXPECT_THAT(pass_at(1051), ElementsAre(both_written[0], both_written[1]));
    take_tag_writes();
    (void)pass_at(1051);
    can_clock_set(0x80001000U);
    write_tag("dev/p_a", {5});
    EXPECT_THAT(pass_at(0x80001000U), IsEmpty());
    EXPECT_EQ(wait(), 50U);
    EXPECT_THAT(pass_at(0x80001000U + 51), ElementsAre(both_written[0]));
}

TEST_F(fault_protection_of_port, counts_an_update_at_the_last_value_of_the_clock) {
    add("p", TRIGGER_ON_CHANGE, 0x10);
    build(0xffffffffU);
    (void)pass_at(0xffffffffU);
    EXPECT_EQ(module.earliest_fp_deadline, 49U);
    EXPECT_THAT(pass_at(49), IsEmpty());
    EXPECT_EQ(module.earliest_fp_deadline, 49U);
    EXPECT_THAT(pass_at(50), ElementsAre(both_written[0], both_written[1]));
}

TEST_F(fault_protection_of_port, does_not_check_anything_before_the_earliest_deadline) {
    add("p", TRIGGER_ON_CHANGE, 0x10);
    build(1000);
    (void)pass_at(1000);
    info("p")->fp_deadline = 1001; // would be due
    (void)pass_at(1049);
    EXPECT_EQ(info("p")->fp_deadline, 1001U);
    (void)pass_at(1050);
    EXPECT_EQ(info("p")->fp_deadline, 1050U);
}

TEST_F(fault_protection_of_port, is_not_checked_during_bootup) {
    add("p", TRIGGER_ON_CHANGE, 0x10);
    can_add_produce(device(), "boot", TRIGGER_BOOTUP, 0x20);
    build(1000);
    can_calls().refuse_frames = true;
    EXPECT_THAT(pass_at(1051), IsEmpty());
    EXPECT_THAT(pass_at(2000), IsEmpty());
    can_calls().refuse_frames = false;
    EXPECT_THAT(pass_at(2001), IsEmpty()); // the bootup frame alone
    EXPECT_THAT(pass_at(2002), ElementsAre(both_written[0], both_written[1]));
}

TEST_F(fault_protection_of_port, does_not_concern_bootup_transactions) {
    can_protect(can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x10), 50, "ee");
    can_protect(can_add_request(device(), "r", TRIGGER_BOOTUP, 0x20, 0x21), 50, "ee");
    build(1000);
    can_clock_set(2000);
    (void)tx();
    EXPECT_THAT(can_take_lines({"write", "send"}), ElementsAre("send 20#00", "send 10#00"));
    EXPECT_EQ(module.earliest_fp_deadline, no_deadline);
}

TEST_F(fault_protection_of_port, is_off_in_cyclic_frames_of_other_functions) {
    for (const uint8_t function : {uint8_t{0}, uint8_t{3}}) {
        const std::string name(1, static_cast<char>('a' + function));
        transaction_config *frame = can_add_produce(device(), name.c_str(), TRIGGER_CYCLIC, 0x10);
        can_protect(frame, 50, "ee");
        frame->fpFunc = function;
        transaction_config *request =
            can_add_request(device(), (name + "r").c_str(), TRIGGER_CYCLIC, 0x20, 0x21);
        can_protect(request, 50, "ee");
        request->fpFunc = function;
    }
    build(1000);
    can_clock_set(1100);
    (void)tx();
    EXPECT_THAT(can_take_lines({"write", "send"}),
                ElementsAre("send 20#00", "send 10#00", "send 10#00"));
}

TEST_F(fault_protection_of_port, of_a_request_on_change_is_no_part_of_its_sending) {
    can_protect(can_add_request(device(), "r", TRIGGER_ON_CHANGE, 0x20, 0x21), 50, "ee");
    build(1000);
    (void)pass_at(1000);
    write_tag("dev/r_v", {7});
    module.earliest_fp_deadline = 5000; // the step of the pass that looks at them stands aside
    module.fp_check_wanted = false;
    can_clock_set(1200);
    (void)tx();
    EXPECT_THAT(can_take_lines({"write", "send"}), ElementsAre("send 20#07"));
}

TEST_F(fault_protection_of_port, works_across_the_wrap_of_the_clock) {
    add("p", TRIGGER_ON_CHANGE, 0x10)->fpTimeout = 300;
    add("q", TRIGGER_ON_CHANGE, 0x11)->fpTimeout = 10;
    build(0xffffff00U);
    (void)pass_at(0xffffff00U);
    EXPECT_EQ(module.earliest_fp_deadline, 0xffffff0aU);
    (void)pass_at(0xffffff0bU); // q falls into fault
    EXPECT_EQ(module.earliest_fp_deadline, 44U);
    EXPECT_EQ(module.earliest_fp_deadline, info("p")->fp_deadline);
    EXPECT_THAT(pass_at(44), IsEmpty());
    EXPECT_THAT(pass_at(45), ElementsAre(both_written[0], both_written[1]));
}

TEST_F(fault_protection_of_port, of_a_cyclic_frame_is_checked_when_it_is_sent) {
    add("p", TRIGGER_CYCLIC, 0x10)->cyclicInterval = 60;
    build(1000);
    EXPECT_THAT(pass_at(1059), IsEmpty());
    can_clock_set(1060);
    (void)tx();
    EXPECT_THAT(can_take_lines({"write", "send"}),
                ElementsAre(both_written[0], both_written[1], "send 10#eeee"));
}

TEST_F(fault_protection_of_port, of_a_cyclic_request_is_checked_when_it_is_sent) {
    transaction_config *request = can_add_request(device(), "r", TRIGGER_CYCLIC, 0x20, 0x21);
    request->cyclicInterval = 60;
    can_protect(request, 50, "ee");
    build(1000);
    can_clock_set(1060);
    (void)tx();
    EXPECT_THAT(can_take_lines({"write", "send"}),
                ElementsAre("write can_proprietary/dev/r_v ee", "send 20#ee"));
}

} // namespace
