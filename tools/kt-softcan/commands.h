#ifndef KT_SOFTCAN_COMMANDS_H
#define KT_SOFTCAN_COMMANDS_H

#include "program/command_line.h"
#include "program/output.h"
#include "protocol.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace softcan {

using program::complain;
using program::complain_of_usage;
using program::status_failed;

inline constexpr int status_launcher = 125; // of run and join, which end with COMMAND's status

using arguments = std::vector<std::string>;

// launcher.cpp
int command_run(const program::command_line &line);
int command_join(const program::command_line &line);

// commands.cpp
int command_list(const program::command_line &line);
int command_status(const program::command_line &line);
int command_port(const program::command_line &line);
int command_fault(const program::command_line &line);

// ip_shim.cpp

/** `ip` inside a world: softcan ports are answered here, everything else goes to the real one. */
int ip_main(int argc, char **argv);

// ip_show.cpp

struct show_style {
    bool details = false;
    bool json = false;
    bool one_line = false;
    bool brief = false;
};

/** A port in the form of `ip link show`: lines with their end, or one JSON object. */
std::string show_port(const port_record &port, const show_style &style);

// main.cpp

/** A decimal number, nothing for anything else or one above the limit. */
std::optional<std::uint32_t> parse_number(std::string_view text, std::uint32_t limit = 0xFFFFFFFF);

/** The value of an option, empty when it was not given. */
std::string value_or_none(const program::command_line &line, std::string_view name);

/** "can0,can1" as names; empty when a name is empty, too long or given twice. */
arguments split_ports(const std::string &list);

const char *state_name(const port_record &port);

} // namespace softcan

#endif
