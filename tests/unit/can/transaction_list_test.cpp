#include "allocation_fault.h"
#include "can/transaction_list.h"
#include "can_port_fixture.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class transaction_list : public can_port_fixture {
protected:
    int init(uint8_t counted_devices = 10, uint32_t now = 1000) {
        can_proprietary_device_status_init(counted_devices);
        (void)can_take_lines();
        module.configuration = devices;
        return can_proprietary_transaction_list_init(&module, now);
    }

    /** The message of a build that fails, without the wrapping. */
    void expect_failure(const std::string &message) {
        EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(init(), -1); }),
                  can_error("can_proprietary_transaction_list_init", message));
    }
};

TEST_F(transaction_list, of_a_port_without_devices_is_empty) {
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(can_take_lines(), IsEmpty());
    EXPECT_EQ(module.earliest_fp_deadline, no_deadline);
    EXPECT_EQ(module.earliest_consume_deadline, no_deadline);
}

struct placed {
    uint8_t type;
    uint8_t trigger;
    list_id list;
    list_id home;
    uint8_t state;
};

constexpr placed placements[] = {
    {0, 0, PRODUCE_CYCLIC, PRODUCE_CYCLIC, 255},
    {2, 0, REQUEST_CYCLIC, REQUEST_CYCLIC, 255},
    {0, 1, PRODUCE_ON_CHANGE, PRODUCE_ON_CHANGE, 255},
    {2, 1, REQUEST_ON_CHANGE, REQUEST_ON_CHANGE, 255},
    {0, 2, PRODUCE_BOOTUP, PRODUCE_IDLE, 255},
    {2, 2, REQUEST_BOOTUP, REQUEST_IDLE, 3},
    {1, 0, CONSUME, CONSUME, 255},
    {1, 1, CONSUME, CONSUME, 255},
    {1, 2, CONSUME, CONSUME, 255},
    {0, 3, CONSUME, CONSUME, 255},
    {2, 200, CONSUME, CONSUME, 255},
    {3, 0, CONSUME, CONSUME, 255},
};

TEST_F(transaction_list, places_each_kind_in_its_list) {
    for (const placed &row : placements) {
        SCOPED_TRACE("type " + std::to_string(row.type) + " trigger " +
                     std::to_string(row.trigger));
        transaction_config *made = can_add_consume(device(), "t", 0x10);
        made->transactionType = row.type;
        made->triggerMode = row.trigger;
        ASSERT_EQ(init(), 0);
        EXPECT_THAT(names(row.list), ElementsAre("t"));
        EXPECT_EQ(node("t")->home, &list_of(&module, row.home));
        EXPECT_EQ(info("t")->state, row.state);
        EXPECT_STREQ(node("t")->device_name, "dev");
        can_proprietary_transaction_list_free(&module);
        conf_free_device_list(std::exchange(devices, nullptr));
        can_proprietary_device_status_release();
    }
}

TEST_F(transaction_list, places_consumed_frames_with_timeout_apart) {
    can_add_consume(device(), "plain", 0x10);
    can_add_consume(device(), "timed", 0x11)->consumeToutEnable = 1;
    can_add_consume(device(), "also", 0x12)->consumeToutEnable = 2;
    ASSERT_EQ(init(), 0);
    EXPECT_THAT(names(CONSUME), ElementsAre("plain"));
    EXPECT_THAT(names(CONSUME_WITH_TIMEOUT), ElementsAre("timed", "also"));
}

TEST_F(transaction_list, keeps_the_order_of_the_configuration) {
    can_add_consume(device("a"), "1", 0x10);
    can_add_consume(device("b"), "2", 0x11);
    can_add_consume(device("a"), "3", 0x12);
    ASSERT_EQ(init(), 0);
    EXPECT_THAT(names(CONSUME), ElementsAre("1", "3", "2"));
}

TEST_F(transaction_list, allocates_the_request_buffers_that_are_needed) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x10, 0x11);
    can_add_request(device(), "r2", TRIGGER_CYCLIC, 0x12, 0x13);
    can_add_produce(device(), "p", TRIGGER_BOOTUP, 0x14);
    ASSERT_EQ(init(), 0);
    EXPECT_NE(module.cyclic_request, nullptr);
    EXPECT_EQ(module.bootup_request, nullptr);
    EXPECT_EQ(module.change_request, nullptr);
}

TEST_F(transaction_list, allocates_a_request_buffer_for_each_trigger) {
    can_add_request(device(), "a", TRIGGER_CYCLIC, 0x10, 0x11);
    can_add_request(device(), "b", TRIGGER_ON_CHANGE, 0x10, 0x11);
    can_add_request(device(), "c", TRIGGER_BOOTUP, 0x10, 0x11);
    ASSERT_EQ(init(), 0);
    EXPECT_NE(module.cyclic_request, nullptr);
    EXPECT_NE(module.bootup_request, nullptr);
    EXPECT_NE(module.change_request, nullptr);
}

TEST_F(transaction_list, skips_disabled_transactions_entirely) {
    can_add_consume(device(), "off", 0x10)->transactionEnable = 0;
    can_add_request(device(), "off2", TRIGGER_CYCLIC, 0x11, 0x12)->transactionEnable = 0;
    ASSERT_EQ(init(), 0);
    can_module_build_tables(&module);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("provide can_proprietary/dev/status type 3 size 4 mode 1",
                            "write can_proprietary/dev/status 00000080"));
    for (int id = 0; id < LIST_COUNT; id++) {
        EXPECT_THAT(names(static_cast<list_id>(id)), IsEmpty());
    }
    EXPECT_EQ(module.cyclic_request, nullptr);
    EXPECT_EQ(hash_table_find(module.receive_table, 0x10), nullptr);
}

TEST_F(transaction_list, reckons_every_deadline_from_now) {
    transaction_config *made = can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    made->cyclicInterval = 70;
    can_protect(made, 80, "00");
    transaction_config *timed = can_add_consume(device(), "c", 0x11);
    timed->consumeToutEnable = 1;
    timed->consumeTimeout = 90;
    ASSERT_EQ(init(10, 0xfffffff0U), 0);
    EXPECT_EQ(info("p")->next_send, 54U);
    EXPECT_EQ(info("p")->fp_deadline, 64U);
    EXPECT_EQ(info("c")->deadline, 74U);
    EXPECT_EQ(tag_of("p")->last_update, 0xfffffff0U);
    EXPECT_EQ(module.earliest_consume_deadline, 74U);
}

TEST_F(transaction_list, makes_status_tags_transactions_and_tags_in_order) {
    can_add_produce(device("a"), "p", TRIGGER_CYCLIC, 0x10);
    can_add_request(device("b"), "r", TRIGGER_CYCLIC, 0x11, 0x12);
    module.port_index = 4;
    ASSERT_EQ(init(), 0);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("provide can_proprietary/a/status type 3 size 4 mode 1",
                            "write can_proprietary/a/status 00000080",
                            "register 4 a/p enabled",
                            "provide can_proprietary/a/p_v type 5 size 1 mode 2",
                            "write can_proprietary/a/p_v 00",
                            "provide can_proprietary/b/status type 3 size 4 mode 1",
                            "write can_proprietary/b/status 00000080",
                            "register 4 b/r enabled",
                            "provide can_proprietary/b/r_v type 5 size 1 mode 2",
                            "write can_proprietary/b/r_v 00",
                            "provide can_proprietary/b/r_r type 5 size 1 mode 1",
                            "write can_proprietary/b/r_r 00"));
    EXPECT_EQ(info("p")->device_status_index, 0);
    EXPECT_EQ(info("r")->device_status_index, 1);
}

TEST_F(transaction_list, keeps_the_diagnostic_slot_of_each_transaction) {
    can_device().first_slot = 40;
    can_add_consume(device(), "a", 0x10);
    can_add_consume(device(), "b", 0x11);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(info("a")->diag_slot, 40U);
    EXPECT_EQ(info("b")->diag_slot, 41U);
}

TEST_F(transaction_list, links_the_records_of_a_tag) {
    can_add_consume(device(), "c", 0x10)->frames->blocks->tag->tagSize = 3;
    ASSERT_EQ(init(), 0);
    const data_info *data = tag_of("c");
    EXPECT_EQ(data->tag_size, 3);
    EXPECT_EQ(data->fault_mark, 0);
    EXPECT_EQ(data->transaction, info("c"));
    EXPECT_EQ(data->tag->module, &module);
    EXPECT_EQ(data->tag->frame, info("c")->frames);
    EXPECT_EQ(data->tag->data, data);
    EXPECT_EQ(data->tag->tag, can_dx_find("can_proprietary/dev/c_v"));
    EXPECT_NE(data->tag->tag, nullptr);
    EXPECT_EQ(data->tag->name, nullptr); // memory that thousands of tags would take
}

TEST_F(transaction_list, cuts_a_tags_name_at_386_bytes) {
    transaction_config *made = can_add_consume(device(), "c", 0x10);
    free(made->transactionName);
    made->transactionName = strdup(std::string(500, 'x').c_str());
    ASSERT_EQ(init(), 0);
    const tag_info *tag = head_of(&module, CONSUME)->transaction->frames->blocks->data->tag;
    const std::string name = "can_proprietary/dev/" + std::string(366, 'x');
    EXPECT_EQ(name.size(), 386U);
    EXPECT_EQ(tag->tag, can_dx_find(name.c_str()));
    EXPECT_NE(tag->tag, nullptr);
}

TEST_F(transaction_list, lays_constants_into_the_data_buffers) {
    frame_config *frame =
        can_add_frame(can_add_transaction(device(), "p", TRANSACTION_PRODUCE, TRIGGER_CYCLIC),
                      0x10,
                      8,
                      FRAME_PRODUCED);
    can_add_constant(frame, 0x1234, 2, 0);
    can_add_tag(frame, "v", TAG_UINT8, 1, 2);
    can_add_constant(frame, 0x0abc, 2, 6);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(can_hex({info("p")->frames->data.data(), 8}), "341200000000bc0a");
}

TEST_F(transaction_list, builds_every_frame_of_a_transaction) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x10, 0x11);
    ASSERT_EQ(init(), 0);
    const frame_info *frame = info("r")->frames;
    EXPECT_EQ(frame->config->canId, 0x10);
    EXPECT_EQ(frame->next->config->canId, 0x11);
    EXPECT_EQ(frame->next->next, nullptr);
}

TEST_F(transaction_list, with_fpFunc_1_makes_the_fault_value_24_zero_digits) {
    transaction_config *made = can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    can_protect(made, 50, "ee");
    made->fpFunc = FAULT_PROTECTION_ZERO;
    ASSERT_EQ(init(), 0);
    EXPECT_STREQ(made->frames->blocks->tag->fpData, "000000000000000000000000");
}

TEST_F(transaction_list, with_another_fpFunc_keeps_the_fault_value) {
    for (const uint8_t function : {FAULT_PROTECTION_NONE, FAULT_PROTECTION_VALUE}) {
        transaction_config *made =
            can_add_produce(device(), function == 0 ? "none" : "value", TRIGGER_CYCLIC, 0x10);
        can_protect(made, 50, "ee");
        made->fpFunc = function;
    }
    ASSERT_EQ(init(), 0);
    EXPECT_STREQ(tag_of("none")->config->fpData, "ee");
    EXPECT_STREQ(tag_of("value")->config->fpData, "ee");
}

TEST_F(transaction_list, refuses_a_tag_with_another_access_than_ro_and_wo) {
    for (const char *access : {"rw", "", "r", "RO"}) {
        transaction_config *made = can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
        tag_block_config *tag = made->frames->blocks->tag;
        (void)snprintf(tag->access, sizeof tag->access, "%s", access);
        expect_failure("unknown tag access\n");
        EXPECT_EQ(can_dx_find("can_proprietary/dev/p_v"), nullptr);
        can_proprietary_transaction_list_free(&module);
        conf_free_device_list(std::exchange(devices, nullptr));
        can_proprietary_device_status_release();
    }
}

TEST_F(transaction_list, fills_the_fault_value_before_it_refuses_a_tag) {
    transaction_config *made = can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    made->fpFunc = FAULT_PROTECTION_ZERO;
    strncpy(made->frames->blocks->tag->access, "rw", 3);
    expect_failure("unknown tag access\n");
    EXPECT_STREQ(made->frames->blocks->tag->fpData, "000000000000000000000000");
}

TEST_F(transaction_list, refuses_a_block_of_an_unknown_kind) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10)->frames->blocks->blockType = 2;
    expect_failure("unknown function block\n");
}

TEST_F(transaction_list, stops_at_the_first_failure_and_keeps_what_was_built) {
    can_add_produce(device(), "good", TRIGGER_CYCLIC, 0x10);
    can_add_produce(device(), "bad", TRIGGER_CYCLIC, 0x11)->frames->blocks->blockType = 9;
    can_add_produce(device(), "never", TRIGGER_CYCLIC, 0x12);
    expect_failure("unknown function block\n");
    EXPECT_THAT(names(PRODUCE_CYCLIC), ElementsAre("good", "bad"));
    EXPECT_NE(can_dx_find("can_proprietary/dev/good_v"), nullptr);
}

TEST_F(transaction_list, goes_on_without_a_tag_that_cannot_be_provided) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    can_dx().refuse_tags = true;
    const std::string output = can_output_of([&] { EXPECT_EQ(init(), 0); });
    EXPECT_EQ(output,
              "de create dx_tag:can_proprietary/dev/status fail, dx_tag_new return NULL\n"
              "de create dx_tag:can_proprietary/dev/p_v fail, dx_tag_new return NULL\n");
    EXPECT_THAT(names(PRODUCE_CYCLIC), ElementsAre("p"));
    EXPECT_EQ(tag_of("p")->tag->tag, nullptr);
    EXPECT_EQ(info("p")->device_status_index, no_device_index);
}

TEST_F(transaction_list, goes_on_with_more_devices_than_were_counted) {
    can_add_consume(device("a"), "x", 0x10);
    can_add_consume(device("b"), "y", 0x11);
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(init(1), 0); }),
              can_error("can_proprietary_create_device_status_tag",
                        "fail to find unused device status tag\n"));
    EXPECT_EQ(info("x")->device_status_index, 0);
    EXPECT_EQ(info("y")->device_status_index, no_device_index);
    EXPECT_EQ(can_dx_find("can_proprietary/b/status"), nullptr);
}

TEST_F(transaction_list, is_released_with_its_tags_and_may_be_built_again) {
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x10, 0x11);
    ASSERT_EQ(init(), 0);
    can_proprietary_device_status_release();
    (void)can_take_lines();
    can_proprietary_transaction_list_free(&module);
    EXPECT_THAT(can_take_lines(),
                ElementsAre("destroy can_proprietary/dev/r_v", "destroy can_proprietary/dev/r_r"));
    EXPECT_THAT(names(REQUEST_CYCLIC), IsEmpty());
    can_proprietary_transaction_list_free(&module);
    ASSERT_EQ(init(), 0);
    EXPECT_THAT(names(REQUEST_CYCLIC), ElementsAre("r"));
}

TEST_F(transaction_list, names_the_record_that_memory_does_not_suffice_for) {
    // In the order in which a port with one bootup request asks for memory.
    frame_config *frame =
        can_add_frame(can_add_transaction(device(), "r", TRANSACTION_REQUEST, TRIGGER_BOOTUP),
                      0x10,
                      1,
                      FRAME_REQUEST);
    can_add_tag(frame, "v", TAG_UINT8, 1, 0);
    can_add_constant(frame, 1, 1, 0);
    const std::vector<std::string> messages = {"trans_list_node == NULL\n",
                                               "can_data == NULL\n",
                                               "transaction_info == NULL\n",
                                               "frame_info == NULL\n",
                                               "function_block_info == NULL\n",
                                               "data_info == NULL\n",
                                               "tag_info == NULL\n",
                                               "tag_info == NULL\n", // its name
                                               "function_block_info == NULL\n"};
    can_proprietary_device_status_init(1);
    module.configuration = devices;
    int nth = 0;
    for (const std::string &message : messages) {
        SCOPED_TRACE(++nth);
        int result = 0;
        const std::string errors = can_errors_of([&] {
            allocation_fault::arm(nth);
            result = can_proprietary_transaction_list_init(&module, 1000);
            EXPECT_TRUE(allocation_fault::disarm());
        });
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errors, can_error("can_proprietary_transaction_list_init", message));
        can_proprietary_transaction_list_free(&module);
        free(std::exchange(module.bootup_request, nullptr));
        can_proprietary_device_status_release();
        EXPECT_EQ(can_dx_tag_count(), 0U);
        can_proprietary_device_status_init(1);
    }
}

TEST_F(transaction_list, survives_the_failure_of_any_allocation) {
    can_add_produce(device(), "p", TRIGGER_ON_CHANGE, 0x10);
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x11, 0x12);
    can_add_request(device(), "s", TRIGGER_ON_CHANGE, 0x11, 0x12);
    can_add_request(device(), "t", TRIGGER_BOOTUP, 0x11, 0x12);
    can_add_consume(device("other"), "c", 0x13)->consumeToutEnable = 1;
    module.configuration = devices;
    bool reached = true;
    int nth = 1;
    for (; reached; nth++) {
        SCOPED_TRACE(nth);
        int result = 0;
        const std::string errors = can_errors_of([&] {
            can_proprietary_device_status_init(2);
            allocation_fault::arm(nth);
            result = can_proprietary_transaction_list_init(&module, 1000);
            reached = allocation_fault::disarm();
        });
        EXPECT_EQ(result, reached ? -1 : 0);
        EXPECT_EQ(errors.empty(), !reached);
        can_proprietary_transaction_list_free(&module);
        for (can_frame **buffer :
             {&module.bootup_request, &module.cyclic_request, &module.change_request}) {
            free(std::exchange(*buffer, nullptr));
        }
        can_proprietary_device_status_release();
        EXPECT_EQ(can_dx_tag_count(), 0U);
    }
    EXPECT_GT(nth, 50);
}

} // namespace
