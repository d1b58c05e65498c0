#include "commands.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <net/if.h>

namespace softcan {
namespace {

using program::command_line;
using program::takes;

constexpr char help_text[] =
    R"(Usage: kt-softcan run [--ports LIST] [--world NAME] [--up] [--] COMMAND...
       kt-softcan join [--world NAME] [--] COMMAND...
       kt-softcan list [--json]
       kt-softcan status [--world NAME] [--json]
       kt-softcan port [--world NAME] add|remove PORT
       kt-softcan fault [--world NAME] --port PORT FAULT

Working AF_CAN raw sockets for COMMAND on a machine without CAN support: run it
in a new world of virtual CAN ports, or join one that runs.

  --ports LIST   ports of the new world; default can0,can1
  --up           set them up at the start, else `ip link set up PORT` does
  --world NAME   name or socket file; default: the world around the command,
                 else (for join always) the only one that runs
  --json         list, status: an array of objects, one for each world or port
  --port PORT    the port of the FAULT: drop N (lose the next N frames),
                 drop-rate P (0 to 1 or 0% to 100%), txfull MS|off (ENOBUFS),
                 error ID#DATA (an error frame, hexadecimal), clear
  --help         print this text
  --version      print the version

Exit status: 0 done, 1 failed, 2 wrong usage. run and join: that of COMMAND,
128 + n after signal n, 126 or 127 if it cannot be run, 125 for a failure of
their own.
Environment: KT_SOFTCAN_DIR, folder of the worlds (default /tmp/kt-softcan-UID).
Example: kt-softcan run --up -- candump any
)";

constexpr program::identity self = {"kt-softcan", help_text};

constexpr program::option_row option_rows[] = {
    {"--ports", takes::value},
    {"--up", takes::nothing},
    {"--world", takes::value},
    {"--port", takes::value},
    {"--json", takes::nothing},
};

struct command {
    program::command_row row;
    int (*run)(const command_line &line);
    bool launches; // what follows its name and options is COMMAND's own
};

constexpr std::size_t any_number = SIZE_MAX - 1;

constexpr command commands[] = {
    {{"run", 0, any_number, "--ports --world --up"}, command_run, true},
    {{"join", 0, any_number, "--world"}, command_join, true},
    {{"list", 0, 0, "--json"}, command_list, false},
    {{"status", 0, 0, "--world --json"}, command_status, false},
    {{"port", 0, any_number, "--world"}, command_port, false},
    {{"fault", 0, any_number, "--world --port"}, command_fault, false},
};

const command *find_command(const arguments &words) {
    const auto *found = std::find_if(std::begin(commands), std::end(commands), [&](const auto &c) {
        return !words.empty() && c.row.name == words[0];
    });
    return found == std::end(commands) ? nullptr : found;
}

int run_chosen(const command &chosen, const command_line &line) {
    const std::string problem = program::check_command(chosen.row, line);
    if (!problem.empty()) {
        return complain_of_usage(problem,
                                 chosen.launches ? status_launcher : program::status_usage);
    }
    try {
        return chosen.run(line);
    } catch (const std::exception &failure) {
        return complain(chosen.launches ? status_launcher : status_failed, failure.what());
    }
}

int run_command(std::span<char *const> all) {
    command_line line;
    const command *chosen = nullptr;
    const std::string problem = program::parse(option_rows, all, line, [&] {
        chosen = find_command(line.words);
        return chosen != nullptr && chosen->launches && line.words.size() > 1;
    });
    if (chosen == nullptr || !chosen->launches || program::asks_about(line)) {
        program::ignore_closed_pipes(); // COMMAND finds the signal as it was
    }
    if (program::asks_about(line)) {
        return program::answer_about(self, line);
    }
    if (!problem.empty()) {
        const bool launches = chosen != nullptr && chosen->launches;
        return complain_of_usage(problem, launches ? status_launcher : program::status_usage);
    }
    if (line.words.empty()) {
        return complain_of_usage("a command is missing");
    }
    return chosen == nullptr ? complain_of_usage("unknown command " + line.words[0])
                             : run_chosen(*chosen, line);
}

} // namespace

std::optional<std::uint32_t> parse_number(std::string_view text, std::uint32_t limit) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > limit) {
        return std::nullopt;
    }
    return value;
}

arguments split_ports(const std::string &list) {
    arguments names;
    for (std::size_t start = 0; start <= list.size();) {
        const std::size_t comma = std::min(list.find(',', start), list.size());
        const std::string name = list.substr(start, comma - start);
        const bool twice = std::find(names.begin(), names.end(), name) != names.end();
        if (name.empty() || name.size() >= IFNAMSIZ || twice ||
            name.find_first_of("/ \t\n") != std::string::npos) {
            return {};
        }
        names.push_back(name);
        start = comma + 1;
    }
    return names;
}

std::string value_or_none(const command_line &line, std::string_view name) {
    const std::string *value = line.value(name);
    return value == nullptr ? std::string() : *value;
}

const char *state_name(const port_record &port) {
    constexpr const char *names[] = {
        "ERROR-ACTIVE", "ERROR-WARNING", "ERROR-PASSIVE", "BUS-OFF", "STOPPED"};
    const std::uint32_t state = port.state.load(std::memory_order_relaxed);
    return state < std::size(names) ? names[state] : "UNKNOWN";
}

} // namespace softcan

int main(int argc, char **argv) {
    const char *slash = argc > 0 ? strrchr(argv[0], '/') : nullptr;
    const char *name = slash != nullptr ? slash + 1 : argv[0];
    try {
        if (name != nullptr && strcmp(name, "ip") == 0) {
            return softcan::ip_main(argc, argv);
        }
        program::begin(softcan::self.name);
        return softcan::run_command(
            std::span(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0));
    } catch (const std::exception &failure) {
        return program::complain(program::status_failed, failure.what());
    }
}
