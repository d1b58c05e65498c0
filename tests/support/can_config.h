#ifndef KT_TESTS_CAN_CONFIG_H
#define KT_TESTS_CAN_CONFIG_H

#include "config/model.h"

#include <cstdint>

/*
 * Configurations as the read operations hand them out. Each call appends to what it is given; the
 * fields without an argument hold the defaults below and may be changed. Release with
 * conf_free_device_list().
 */

device_config *can_add_device(device_config **list, const char *name);

/** Enabled; interval, timeouts 100 ms; no retries, no consume timeout, no fault protection. */
transaction_config *can_add_transaction(device_config *device,
                                        const char *name,
                                        transaction_type type,
                                        trigger_mode trigger);

frame_config *
can_add_frame(transaction_config *transaction, int32_t id, uint8_t length, frame_type type);

/** "ro" in frames that are received, "wo" in those that are sent; no swap, no scaling. */
tag_block_config *
can_add_tag(frame_config *frame, const char *name, tag_type type, uint8_t size, uint8_t offset);

constant_block_config *
can_add_constant(frame_config *frame, uint64_t value, uint8_t size, uint8_t offset);

/* Whole transactions with one tag "v" of one byte, an unsigned number, in frames of one byte. */

transaction_config *
can_add_produce(device_config *device, const char *name, trigger_mode trigger, int32_t id);
transaction_config *can_add_consume(device_config *device, const char *name, int32_t id);
transaction_config *can_add_request(
    device_config *device, const char *name, trigger_mode trigger, int32_t id, int32_t response_id);

/** Fault protection that gives every tag of the first frame that value. */
void can_protect(transaction_config *transaction, uint16_t timeout_ms, const char *value);

#endif
