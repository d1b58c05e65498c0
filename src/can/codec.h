#ifndef KT_CAN_CODEC_H
#define KT_CAN_CODEC_H

#include "can/runtime.h"

#include <cstdint>
#include <span>

/*
 * Between the data bytes of a frame and the values of its blocks.
 *
 * Blocks are cut to the buffer: no block reads or writes beyond it, whatever its offset and size.
 * Any thread; no state.
 */

/** Reorder bytes in place by a swap mode; modes outside 1 to 5 leave them alone. */
void codec_swap(std::span<uint8_t> bytes, uint8_t mode);

/**
 * Scale a received value in place, in its own type.
 * @return 1 when a value was rewritten, 0 otherwise
 */
int codec_scale(std::span<uint8_t> bytes, const tag_block_config *tag);

/** What a received block of that length goes through: block_decoding values, added up. */
uint8_t codec_decoding(const tag_block_config *tag, size_t length);

/** Do it in place, to the bytes of the block in a received frame. */
void codec_decode(const function_block_info *block, uint8_t *start);

/** Lay a constant into a frame's data buffer, least significant byte first. */
void codec_lay_constant(frame_buffer &buffer, const constant_block_config *constant);

/** True when the buffer holds the constant's bytes; bytes beyond the frame do not count. */
bool codec_match_constant(const frame_buffer &buffer, const constant_block_config *constant);

/** Fault protection text to bytes, two digits per byte in text order; missing digits are zero. */
void codec_fault_value(const char *fp_data, std::span<uint8_t> bytes);

#endif
