#include "rest/config_json.h"
#include "rest_fixture.h"

namespace {

class config_json_build : public rest_unit {
protected:
    config_json_build() {
        transaction.transactionId = 65535;
        transaction.deviceId = 255;
        transaction.transactionEnable = 1;
        transaction.transactionName = name;
        transaction.cyclicInterval = 10;
        transaction.consumeTimeout = 65535;
        transaction.responseTimeout = 20;
        transaction.timeoutRetry = 5;
        transaction.fpTimeout = 100;
        frame.frameId = 3;
        frame.transactionId = 4;
        frame.canId = 0x1FFFFFFF;
        frame.dataLength = 8;
        constant.blockId = 5;
        constant.frameId = 3;
        constant.constantName = name;
        constant.constantSize = 2;
        constant.constantValue = 0x1A;
        tag.blockId = 6;
        tag.frameId = 3;
        tag.tagName = name;
        tag.tagType = 13;
        tag.tagSize = 8;
        memcpy(tag.access, "ro", 3);
        memcpy(tag.fpData, "0A", 3);
        tag.scaling = {2.5, -1, 0.1, 1e300};
    }

    std::string transaction_of_type(uint8_t type) {
        transaction.transactionType = type;
        const json_ptr value(json_value_init_object());
        EXPECT_EQ(can_proprietary_get_transaction_config_to_json_object(value.get(), &transaction),
                  0);
        return text_of(value);
    }

    std::string block_text(const block_config &block) {
        const json_ptr value(json_value_init_array());
        EXPECT_EQ(can_proprietary_get_block_config_to_json_array(json_value_get_array(value.get()),
                                                                 &block),
                  0);
        return text_of(value);
    }

    std::string constant_of(uint8_t size, uint64_t number) {
        constant.constantSize = size;
        constant.constantValue = number;
        const json_ptr value = parsed(block_text(constant_block));
        return json_object_get_string(json_array_get_object(json_value_get_array(value.get()), 0),
                                      "constantValue");
    }

    /** What the whole list of one transaction with a frame and two blocks logs while it fails. */
    std::vector<std::string> failing_list(const std::string &call, int nth = 1) {
        transaction.frames = &frame;
        frame.blocks = &tag_block;
        tag_block.next = &constant_block;
        const json_ptr output(json_value_init_object());
        json_fault::arm(call, nth);
        const auto messages = messages_of([&] {
            EXPECT_EQ(
                can_proprietary_get_transaction_config_to_json_array(output.get(), &transaction), 1)
                << call;
        });
        EXPECT_TRUE(json_fault::disarm()) << call;
        EXPECT_EQ(text_of(output), "{}") << call;
        return messages;
    }

    char name[5] = "name";
    transaction_config transaction{};
    frame_config frame{};
    constant_block_config constant{};
    tag_block_config tag{};
    block_config constant_block = {BLOCK_CONSTANT, &constant, nullptr, nullptr};
    block_config tag_block = {BLOCK_TAG, nullptr, &tag, nullptr};
};

const std::string common = R"({"transactionId":65535,"deviceId":255,"transactionEnable":true,)"
                           R"("transactionName":"name","transactionType":)";

TEST_F(config_json_build, a_sent_transaction) {
    EXPECT_EQ(transaction_of_type(0),
              common + R"(0,"trigger":0,"cyclicInterval":10,"fpFunc":0,"fpTimeout":100,)"
                       R"("triggerByRTR":false})");
}

TEST_F(config_json_build, a_consumed_transaction) {
    EXPECT_EQ(transaction_of_type(1),
              common + R"(1,"consumeToutEnable":false,"consumeTimeout":65535})");
}

TEST_F(config_json_build, a_request) {
    EXPECT_EQ(transaction_of_type(2),
              common + R"(2,"trigger":0,"cyclicInterval":10,"fpFunc":0,"fpTimeout":100,)"
                       R"("responseTimeout":20,"timeoutRetry":5})");
}

TEST_F(config_json_build, any_bit_but_bit_1_makes_the_consume_shape) {
    for (int type = 0; type <= 255; type++) {
        EXPECT_EQ(has_consume_shape(static_cast<uint8_t>(type)), type != 0 && type != 2) << type;
    }
    EXPECT_EQ(transaction_of_type(6),
              common + R"(6,"consumeToutEnable":false,"consumeTimeout":65535})");
}

TEST_F(config_json_build, flags_are_booleans_whatever_their_value) {
    transaction.transactionEnable = 0;
    transaction.consumeToutEnable = 255;
    EXPECT_NE(transaction_of_type(1).find(R"("transactionEnable":false)"), std::string::npos);
    EXPECT_NE(transaction_of_type(1).find(R"("consumeToutEnable":true)"), std::string::npos);
    transaction.triggerByRTR = 2;
    EXPECT_NE(transaction_of_type(0).find(R"("triggerByRTR":true)"), std::string::npos);
}

TEST_F(config_json_build, a_frame_shows_an_unsigned_identifier_and_no_type) {
    json_ptr value(json_value_init_object());
    EXPECT_EQ(can_proprietary_get_frame_config_to_json_object(value.get(), &frame), 0);
    EXPECT_EQ(text_of(value),
              R"({"frameId":3,"transactionId":4,"canId":536870911,"dataLength":8})");
    frame.canId = -1;
    value.reset(json_value_init_object());
    EXPECT_EQ(can_proprietary_get_frame_config_to_json_object(value.get(), &frame), 0);
    EXPECT_NE(text_of(value).find(R"("canId":4294967295)"), std::string::npos);
}

TEST_F(config_json_build, a_constant_block) {
    EXPECT_EQ(block_text(constant_block),
              R"([{"blockType":1,"blockId":5,"frameId":3,"constantName":"name","constantSize":2,)"
              R"("startOffset":0,"constantValue":"001A"}])");
}

TEST_F(config_json_build, a_constant_value_is_16_digits_at_most) {
    EXPECT_EQ(constant_of(0, 0), "0");
    EXPECT_EQ(constant_of(0, 0xABC), "ABC");
    EXPECT_EQ(constant_of(1, 0xABC), "ABC");
    EXPECT_EQ(constant_of(8, 1), "0000000000000001");
    EXPECT_EQ(constant_of(8, UINT64_MAX), "FFFFFFFFFFFFFFFF");
    EXPECT_EQ(constant_of(255, 1).size(), 16U);
}

TEST_F(config_json_build, a_tag_block_shows_its_two_shared_numbers_twice) {
    EXPECT_EQ(block_text(tag_block),
              R"([{"blockType":0,"blockId":6,"frameId":3,"tagName":"name","tagType":13,)"
              R"("tagSize":8,"access":"ro","startOffset":0,"swap":0,"fpData":"0A",)"
              R"("scalingFunc":0,"interceptSlope":2.5,"interceptOffset":-1,)"
              R"("pointSourceMin":2.5,"pointSourceMax":-1,"pointTargetMin":0.1,)"
              R"("pointTargetMax":1e+300}])");
}

TEST_F(config_json_build, a_block_that_is_no_constant_has_the_shape_of_a_tag) {
    for (const uint8_t kind : {uint8_t{2}, uint8_t{5}, uint8_t{255}}) {
        tag_block.blockType = kind;
        EXPECT_THAT(block_text(tag_block),
                    ::testing::StartsWith(R"([{"blockType":)" + std::to_string(kind) +
                                          R"(,"blockId":6,"frameId":3,"tagName":"name",)"));
    }
}

TEST_F(config_json_build, lists_keep_their_order_and_may_be_empty) {
    transaction_config second{};
    second.transactionName = name;
    transaction.next = &second;
    frame_config second_frame{};
    frame.next = &second_frame;
    transaction.frames = &frame;
    const json_ptr output(json_value_init_object());
    ASSERT_EQ(can_proprietary_get_transaction_config_to_json_array(output.get(), &transaction), 0);
    const JSON_Array *list = json_object_dotget_array(object_of(output), "data.transactionList");
    ASSERT_EQ(json_array_get_count(list), 2U);
    const JSON_Array *frames = json_object_get_array(json_array_get_object(list, 0), "frameList");
    ASSERT_EQ(json_array_get_count(frames), 2U);
    EXPECT_EQ(json_object_get_number(json_array_get_object(frames, 0), "frameId"), 3);
    EXPECT_EQ(
        json_array_get_count(json_object_get_array(json_array_get_object(frames, 0), "blockList")),
        0U);
    EXPECT_EQ(
        json_array_get_count(json_object_get_array(json_array_get_object(list, 1), "frameList")),
        0U);
    const json_ptr none(json_value_init_object());
    ASSERT_EQ(can_proprietary_get_transaction_config_to_json_array(none.get(), nullptr), 0);
    EXPECT_EQ(text_of(none), R"({"data":{"transactionList":[]}})");
}

const std::string object_function = "can_proprietary_get_transaction_config_to_json_object|";
const std::string list_function = "can_proprietary_get_transaction_config_to_json_array|";
const std::string frame_function = "can_proprietary_get_frame_config_to_json_object|";
const std::string frames_function = "can_proprietary_get_frame_config_to_json_array|";
const std::string blocks_function = "can_proprietary_get_block_config_to_json_array|";

TEST_F(config_json_build, a_member_of_a_transaction_that_cannot_be_set) {
    const std::vector<std::vector<std::string>> members = {{"triggerByRTR",
                                                            "trigger",
                                                            "cyclicInterval",
                                                            "fpFunc",
                                                            "fpTimeout",
                                                            "transactionId",
                                                            "deviceId",
                                                            "transactionEnable",
                                                            "transactionName",
                                                            "transactionType"},
                                                           {"consumeToutEnable", "consumeTimeout"},
                                                           {"responseTimeout", "timeoutRetry"}};
    for (size_t type = 0; type < members.size(); type++) {
        transaction.transactionType = static_cast<uint8_t>(type);
        for (const std::string &member : members[type]) {
            EXPECT_THAT(failing_list(member),
                        ElementsAre(object_function + "set " + member + " fail\n",
                                    list_function + "can_proprietary_get_transaction_config_to_"
                                                    "json_object fail\n"));
        }
    }
}

TEST_F(config_json_build, a_member_of_a_frame_that_cannot_be_set) {
    for (const char *member : {"frameId", "canId", "dataLength"}) {
        EXPECT_THAT(
            failing_list(member),
            ElementsAre(frame_function + "set " + member + " fail\n",
                        frames_function + "can_proprietary_get_frame_config_to_json_object fail\n",
                        list_function + "can_proprietary_get_frame_config_to_json_array fail\n"));
    }
}

TEST_F(config_json_build, a_member_of_a_block_that_cannot_be_set) {
    for (const char *member : {"blockType",
                               "blockId",
                               "tagName",
                               "tagType",
                               "tagSize",
                               "access",
                               "startOffset",
                               "swap",
                               "fpData",
                               "scalingFunc",
                               "interceptSlope",
                               "interceptOffset",
                               "pointSourceMin",
                               "pointSourceMax",
                               "pointTargetMin",
                               "pointTargetMax",
                               "constantName",
                               "constantSize",
                               "constantValue"}) {
        const std::string shown = member == std::string("scalingFunc") ? "interceptSlope" : member;
        EXPECT_THAT(failing_list(member),
                    ElementsAre(blocks_function + "set " + shown + " fail\n",
                                frames_function + "can_proprietary_get_block_config_to_json_array "
                                                  "fail\n",
                                list_function + "can_proprietary_get_frame_config_to_json_array "
                                                "fail\n"));
    }
}

TEST_F(config_json_build, a_list_that_cannot_be_made_or_set) {
    const std::string frames_failed =
        list_function + "can_proprietary_get_frame_config_to_json_array fail\n";
    const std::string blocks_failed =
        frames_function + "can_proprietary_get_block_config_to_json_array fail\n";
    EXPECT_THAT(failing_list("init_array"),
                ElementsAre(list_function + "init transaction_table_arr fail\n"));
    EXPECT_THAT(failing_list("init_array", 2),
                ElementsAre(frames_function + "frmae_table_arr fail\n", frames_failed));
    EXPECT_THAT(failing_list("init_array", 3),
                ElementsAre(frames_function + "init block_table_arr fail\n", frames_failed));
    EXPECT_THAT(failing_list("init_object"),
                ElementsAre(list_function + "init transaction_val fail\n"));
    EXPECT_THAT(failing_list("init_object", 2),
                ElementsAre(frames_function + "init frame_val fail\n", frames_failed));
    EXPECT_THAT(
        failing_list("init_object", 3),
        ElementsAre(blocks_function + "init block_val fail\n", blocks_failed, frames_failed));
    EXPECT_THAT(failing_list("append"),
                ElementsAre(list_function + "append transaction_val fail\n"));
    EXPECT_THAT(failing_list("append", 2),
                ElementsAre(frames_function + "append frame_val fail\n", frames_failed));
    EXPECT_THAT(failing_list("append", 3),
                ElementsAre(blocks_function + "append block_table_arr fail\n",
                            blocks_failed,
                            frames_failed));
    EXPECT_THAT(
        failing_list("blockList"),
        ElementsAre(frames_function + "set block list to frame list fail\n", frames_failed));
    EXPECT_THAT(failing_list("frameList"),
                ElementsAre(frames_function + "set frame list fail\n", frames_failed));
    EXPECT_THAT(failing_list("data.transactionList"),
                ElementsAre(list_function + "set transaction list list fail\n"));
}

TEST_F(config_json_build, every_failure_is_reported_and_leaves_nothing_behind) {
    transaction.frames = &frame;
    frame.blocks = &tag_block;
    tag_block.next = &constant_block;
    const captured_log quiet;
    const int calls = json_fault::sweep(
        [&] {
            const json_ptr output(json_value_init_object());
            return output == nullptr ? 1
                                     : can_proprietary_get_transaction_config_to_json_array(
                                           output.get(), &transaction);
        },
        [](int result, int nth) { EXPECT_EQ(result, 1) << nth; });
    EXPECT_GT(calls, 45);
}

} // namespace
