#include "config/model.h"

#include <cstdlib>

namespace {

void free_block(block_config *block) {
    if (block->constant != nullptr) {
        free(block->constant->constantName);
        free(block->constant);
    }
    if (block->tag != nullptr) {
        free(block->tag->tagName);
        free(block->tag);
    }
    free(block);
}

} // namespace

void conf_free_block_list(block_config *blocks) {
    while (blocks != nullptr) {
        block_config *next = blocks->next;
        free_block(blocks);
        blocks = next;
    }
}

void conf_free_frame_list(frame_config *frames) {
    while (frames != nullptr) {
        frame_config *next = frames->next;
        conf_free_block_list(frames->blocks);
        free(frames);
        frames = next;
    }
}

void conf_free_transaction(transaction_config *transaction) {
    if (transaction == nullptr) {
        return;
    }
    free(transaction->transactionName);
    conf_free_frame_list(transaction->frames);
    free(transaction);
}

void conf_free_device(device_config *device) {
    if (device == nullptr) {
        return;
    }
    free(device->deviceName);
    while (device->transactions != nullptr) {
        transaction_config *next = device->transactions->next;
        conf_free_transaction(device->transactions);
        device->transactions = next;
    }
    free(device);
}

void conf_free_device_list(device_config *devices) {
    while (devices != nullptr) {
        device_config *next = devices->next;
        conf_free_device(devices);
        devices = next;
    }
}
