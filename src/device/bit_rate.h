#ifndef KT_DEVICE_BIT_RATE_H
#define KT_DEVICE_BIT_RATE_H

#include <cstdint>

/** Bit rate in bit/s of a baudrate code, 125000 for a code outside the table. */
uint32_t can_bit_rate(int32_t baudrate);

#endif
