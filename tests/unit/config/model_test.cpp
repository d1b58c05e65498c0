#include "config/model.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

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

TEST(model, text_fields_have_room_for_their_terminators) {
    EXPECT_EQ(sizeof(tag_block_config::access), 3U);
    EXPECT_EQ(sizeof(tag_block_config::fpData), 25U);
}

} // namespace
