#include "can_config.h"

#include <cstdlib>
#include <cstring>

namespace {

template <typename Record>
Record *append(Record **list) {
    while (*list != nullptr) {
        list = &(*list)->next;
    }
    *list = static_cast<Record *>(calloc(1, sizeof(Record)));
    return *list;
}

template <typename Record>
Record *make() {
    return static_cast<Record *>(calloc(1, sizeof(Record)));
}

} // namespace

device_config *can_add_device(device_config **list, const char *name) {
    device_config *device = append(list);
    device->deviceName = strdup(name);
    return device;
}

transaction_config *can_add_transaction(device_config *device,
                                        const char *name,
                                        transaction_type type,
                                        trigger_mode trigger) {
    transaction_config *transaction = append(&device->transactions);
    transaction->transactionName = strdup(name);
    transaction->transactionEnable = 1;
    transaction->transactionType = type;
    transaction->triggerMode = trigger;
    transaction->cyclicInterval = 100;
    transaction->consumeTimeout = 100;
    transaction->responseTimeout = 100;
    transaction->fpTimeout = 100;
    return transaction;
}

frame_config *
can_add_frame(transaction_config *transaction, int32_t id, uint8_t length, frame_type type) {
    frame_config *frame = append(&transaction->frames);
    frame->canId = id;
    frame->dataLength = length;
    frame->frameType = type;
    return frame;
}

tag_block_config *
can_add_tag(frame_config *frame, const char *name, tag_type type, uint8_t size, uint8_t offset) {
    block_config *block = append(&frame->blocks);
    block->blockType = BLOCK_TAG;
    block->tag = make<tag_block_config>();
    block->tag->tagName = strdup(name);
    block->tag->tagType = type;
    block->tag->tagSize = size;
    block->tag->startOffset = offset;
    const bool received = frame->frameType == FRAME_CONSUMED || frame->frameType == FRAME_RESPONSE;
    memcpy(block->tag->access, received ? "ro" : "wo", sizeof block->tag->access);
    return block->tag;
}

constant_block_config *
can_add_constant(frame_config *frame, uint64_t value, uint8_t size, uint8_t offset) {
    block_config *block = append(&frame->blocks);
    block->blockType = BLOCK_CONSTANT;
    block->constant = make<constant_block_config>();
    block->constant->constantName = strdup("constant");
    block->constant->constantValue = value;
    block->constant->constantSize = size;
    block->constant->startOffset = offset;
    return block->constant;
}

transaction_config *
can_add_produce(device_config *device, const char *name, trigger_mode trigger, int32_t id) {
    transaction_config *transaction =
        can_add_transaction(device, name, TRANSACTION_PRODUCE, trigger);
    can_add_tag(can_add_frame(transaction, id, 1, FRAME_PRODUCED), "v", TAG_UINT8, 1, 0);
    return transaction;
}

transaction_config *can_add_consume(device_config *device, const char *name, int32_t id) {
    transaction_config *transaction =
        can_add_transaction(device, name, TRANSACTION_CONSUME, TRIGGER_CYCLIC);
    can_add_tag(can_add_frame(transaction, id, 1, FRAME_CONSUMED), "v", TAG_UINT8, 1, 0);
    return transaction;
}

transaction_config *can_add_request(device_config *device,
                                    const char *name,
                                    trigger_mode trigger,
                                    int32_t id,
                                    int32_t response_id) {
    transaction_config *transaction =
        can_add_transaction(device, name, TRANSACTION_REQUEST, trigger);
    can_add_tag(can_add_frame(transaction, id, 1, FRAME_REQUEST), "v", TAG_UINT8, 1, 0);
    can_add_tag(can_add_frame(transaction, response_id, 1, FRAME_RESPONSE), "r", TAG_UINT8, 1, 0);
    return transaction;
}

void can_protect(transaction_config *transaction, uint16_t timeout_ms, const char *value) {
    transaction->fpFunc = FAULT_PROTECTION_VALUE;
    transaction->fpTimeout = timeout_ms;
    for (block_config *block = transaction->frames->blocks; block != nullptr; block = block->next) {
        if (block->tag != nullptr) {
            strncpy(block->tag->fpData, value, fp_data_max_bytes);
        }
    }
}
