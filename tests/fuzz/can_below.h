#ifndef KT_TESTS_CAN_BELOW_H
#define KT_TESTS_CAN_BELOW_H

#include <cstdint>
#include <linux/can.h>
#include <string>
#include <string_view>
#include <vector>

/*
 * What lies below a port: its socket, the tag store, events and LED. The doubles keep what they are
 * given and answer as the originals do. Calls of the system reach them by the linker's --wrap.
 */

void can_below_reset();

/** Let the socket have that many bytes to read, however many a frame takes. */
void can_below_receive(std::string_view bytes);

/** Frames that the port has sent since the last call. */
std::vector<can_frame> can_below_sent();

/** Have the socket refuse what is sent, as a full queue does. */
void can_below_refuse(bool refuse);

/** Value of a provided tag, nullptr when there is none of that name. */
const std::vector<uint8_t> *can_below_tag(const std::string &name);

/** Write a tag as another application. @return false when nobody but the provider writes it */
bool can_below_write(const std::string &name, std::string_view value);

#endif
