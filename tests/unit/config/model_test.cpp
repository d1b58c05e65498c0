#include "config/model.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>

namespace {

template <typename T>
T *zeroed() {
    return static_cast<T *>(calloc(1, sizeof(T)));
}

block_config *block_list() {
    auto *tag = zeroed<block_config>();
    tag->tag = zeroed<tag_block_config>();
    tag->tag->tagName = strdup("tag");
    auto *constant = zeroed<block_config>();
    constant->constant = zeroed<constant_block_config>();
    constant->constant->constantName = strdup("constant");
    tag->next = constant;
    constant->next = zeroed<block_config>();
    return tag;
}

frame_config *frame_list() {
    auto *frame = zeroed<frame_config>();
    frame->blocks = block_list();
    frame->next = zeroed<frame_config>();
    frame->next->blocks = block_list();
    return frame;
}

transaction_config *transaction() {
    auto *made = zeroed<transaction_config>();
    made->transactionName = strdup("transaction");
    made->frames = frame_list();
    return made;
}

device_config *device() {
    auto *made = zeroed<device_config>();
    made->deviceName = strdup("device");
    made->transactions = transaction();
    made->transactions->next = transaction();
    return made;
}

// What these do not free, the leak check of the sanitizer build reports.

TEST(model, release_accepts_null) {
    conf_free_block_list(nullptr);
    conf_free_frame_list(nullptr);
    conf_free_transaction(nullptr);
    conf_free_device(nullptr);
    conf_free_device_list(nullptr);
}

TEST(model, lists_are_released_with_all_they_hold) {
    conf_free_block_list(block_list());
    conf_free_frame_list(frame_list());
    device_config *first = device();
    first->next = device();
    first->next->next = zeroed<device_config>();
    conf_free_device_list(first);
}

TEST(model, half_built_records_are_released) {
    auto *block = zeroed<block_config>();
    block->tag = zeroed<tag_block_config>();
    block->next = zeroed<block_config>();
    block->next->constant = zeroed<constant_block_config>();
    conf_free_block_list(block);
    conf_free_transaction(zeroed<transaction_config>());
    conf_free_device(zeroed<device_config>());
}

TEST(model, one_transaction_is_released_without_its_next) {
    transaction_config *first = transaction();
    transaction_config *second = transaction();
    first->next = second;
    conf_free_transaction(first);
    EXPECT_STREQ(second->transactionName, "transaction");
    conf_free_transaction(second);
}

TEST(model, one_device_is_released_without_its_next) {
    device_config *first = device();
    device_config *second = device();
    first->next = second;
    conf_free_device(first);
    EXPECT_STREQ(second->deviceName, "device");
    conf_free_device(second);
}

TEST(model, fault_protection_functions_1_and_2_use_their_timeout) {
    transaction_config record{};
    for (int function = 0; function < 256; function++) {
        record.fpFunc = static_cast<uint8_t>(function);
        EXPECT_EQ(has_fault_protection(&record), function == 1 || function == 2) << function;
    }
}

template <typename Wanted, typename... Fields>
constexpr bool all_are = (std::is_same_v<Wanted, Fields> && ...);

TEST(model, fields_have_the_widths_that_their_values_are_cut_to) {
    using port = interface_config;
    using device = device_config;
    using transaction = transaction_config;
    using frame = frame_config;
    using constant = constant_block_config;
    using tag = tag_block_config;
    using overview = overview_info;
    EXPECT_TRUE((all_are<uint8_t, decltype(port::portId), decltype(device::deviceId)>));
    EXPECT_TRUE((all_are<uint8_t, decltype(device::portId), decltype(transaction::deviceId)>));
    EXPECT_TRUE((all_are<uint8_t,
                         decltype(transaction::transactionEnable),
                         decltype(transaction::transactionType),
                         decltype(transaction::triggerMode),
                         decltype(transaction::consumeToutEnable),
                         decltype(transaction::timeoutRetry),
                         decltype(transaction::triggerByRTR),
                         decltype(transaction::fpFunc)>));
    EXPECT_TRUE((all_are<uint8_t, decltype(frame::dataLength), decltype(frame::frameType)>));
    EXPECT_TRUE((all_are<uint8_t,
                         decltype(block_config::blockType),
                         decltype(constant::startOffset),
                         decltype(constant::constantSize),
                         decltype(tag::startOffset),
                         decltype(tag::tagType),
                         decltype(tag::tagSize),
                         decltype(tag::swap),
                         decltype(tag::scalingFunc)>));
    EXPECT_TRUE((all_are<uint8_t,
                         decltype(overview::port_num),
                         decltype(overview::device_num),
                         decltype(overview::transaction_num)>));
    EXPECT_TRUE((all_are<uint16_t,
                         decltype(transaction::transactionId),
                         decltype(transaction::consumeTimeout),
                         decltype(transaction::fpTimeout),
                         decltype(frame::frameId),
                         decltype(frame::transactionId),
                         decltype(constant::blockId),
                         decltype(constant::frameId),
                         decltype(tag::blockId),
                         decltype(tag::frameId)>));
    EXPECT_TRUE((all_are<int32_t,
                         decltype(port::frameFormat),
                         decltype(port::baudrate),
                         decltype(port::initialDelay),
                         decltype(transaction::cyclicInterval),
                         decltype(transaction::responseTimeout),
                         decltype(frame::canId)>));
    EXPECT_TRUE((all_are<bool, decltype(port::busOffReset), decltype(port::resistor)>));
    EXPECT_TRUE((all_are<uint64_t, decltype(constant::constantValue)>));
    EXPECT_EQ(sizeof(scaling_numbers), 4 * sizeof(double));
}

TEST(model, text_fields_have_room_for_their_terminators) {
    EXPECT_EQ(sizeof(tag_block_config::access), 3U);
    EXPECT_EQ(sizeof(tag_block_config::fpData), 25U);
}

} // namespace
