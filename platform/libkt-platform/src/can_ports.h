#ifndef KT_PLATFORM_CAN_PORTS_H
#define KT_PLATFORM_CAN_PORTS_H

#include <string>
#include <string_view>
#include <vector>

/** Name of a network interface that is safe in a shell command and short enough for the kernel. */
bool valid_interface_name(std::string_view name);

/** Orders names by their text, runs of digits by their number: can2 before can10. */
bool natural_less(const std::string &left, const std::string &right);

/** The valid names in a comma-separated list, in its order; others are reported. */
std::vector<std::string> listed_interfaces(std::string_view list);

/**
 * Names of the CAN interfaces in a folder like /sys/class/net, in natural order.
 * @throw std::bad_alloc  memory or descriptors ran out
 */
std::vector<std::string> kernel_can_interfaces(const char *net_folder);

#endif
