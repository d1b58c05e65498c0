#ifndef KT_DEMO_DEVICE_FRAME_TEXT_H
#define KT_DEMO_DEVICE_FRAME_TEXT_H

#include <linux/can.h>
#include <string_view>

/**
 * A frame in the notation of candump: three identifier digits for a standard or eight for an
 * extended frame, "#", then data bytes in hexadecimal, or "R" and a DLC digit for a remote frame.
 * @return false when the text is none; the frame is then undefined
 */
bool parse_frame(std::string_view text, can_frame &frame);

#endif
