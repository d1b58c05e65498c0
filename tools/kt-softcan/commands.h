#ifndef KT_SOFTCAN_COMMANDS_H
#define KT_SOFTCAN_COMMANDS_H

#include "protocol.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace softcan {

inline constexpr int status_failed = 1;
inline constexpr int status_usage = 2;
inline constexpr int status_launcher = 125; // of run and join, which end with COMMAND's status

using arguments = std::vector<std::string>;

// launcher.cpp
int command_run(const arguments &words);
int command_join(const arguments &words);

// commands.cpp
int command_list(const arguments &words);
int command_status(const arguments &words);
int command_port(const arguments &words);
int command_fault(const arguments &words);

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

/** Print "kt-softcan: text" to standard error and return the status. */
int complain(int status, const std::string &text);

/** A decimal number, nothing for anything else or one above the limit. */
std::optional<std::uint32_t> parse_number(std::string_view text, std::uint32_t limit = 0xFFFFFFFF);

/** "can0,can1" as names; empty when a name is empty, too long or given twice. */
arguments split_ports(const std::string &list);

/** Take "--name VALUE" or "--name=VALUE" out of words; the last one counts, empty for none. */
bool take_option(arguments &words, std::string_view name, std::string *value);

/** Take "--name" out of words; true if it was there. */
bool take_flag(arguments &words, std::string_view name);

const char *state_name(const port_record &port);

} // namespace softcan

#endif
