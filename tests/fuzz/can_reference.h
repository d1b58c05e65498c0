#ifndef KT_TESTS_CAN_REFERENCE_H
#define KT_TESTS_CAN_REFERENCE_H

#include "config/model.h"

#include <array>
#include <cstdint>
#include <linux/can.h>
#include <string>
#include <vector>

/*
 * What a frame means by the configuration alone, worked out anew for every frame without the
 * runtime's records: slow, simple and with nothing in common with the code under test.
 */

struct expected_value {
    std::string tag; /* its full name */
    std::vector<uint8_t> bytes;
    bool is_float;  /* any NaN is as good as another */
    bool is_double; /* likewise */
};

struct expectation {
    std::string status_tag;             /* of the device that is communicating; empty for none */
    bool is_good = false;               /* length and constants are right */
    std::vector<expected_value> values; /* in the order of the blocks */
};

/** @param awaiting  the request whose response is awaited, nullptr for none */
expectation expect_received(const device_config *devices,
                            const interface_config &settings,
                            const transaction_config *awaiting,
                            const can_frame &frame);

using reference_buffer = std::array<uint8_t, 16>;

/** A frame's data before any tag was written: its constants. */
reference_buffer reference_start(const frame_config *frame);

/** Put a written value where its block lies. */
void reference_write(reference_buffer &data,
                     const tag_block_config *tag,
                     const std::vector<uint8_t> &value);

/** The data bytes that go on the bus. */
std::vector<uint8_t> reference_sent(const reference_buffer &data, const frame_config *frame);

std::string reference_tag_name(const device_config *device,
                               const transaction_config *transaction,
                               const tag_block_config *tag);

bool same_value(const expected_value &expected, const std::vector<uint8_t> &bytes);

#endif
