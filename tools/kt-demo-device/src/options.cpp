#include "options.h"

#include "program/command_line.h"
#include "program/output.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace {

using program::command_line;
using program::takes;

constexpr int64_t day_ms = 86400000;

constexpr char help_text[] =
    R"(Usage: kt-demo-device --port NAME [--node NODE]... [OPTION]...

A CAN device for demonstrations and tests. It runs until SIGINT or SIGTERM.

  --port NAME         CAN interface, e.g. can0
  --node NODE         drive (default), sensor or legacy; each may be given
  --extended          29-bit identifiers
  --interval MS       time between two frames of the sensor (default 250)
  --silent-after MS   fall silent this long after the start
  --late MS           send every frame this much later
  --wrong-length      send every frame one byte short
  --wrong-constant    invert the constant byte of every frame
  --script FILE       lines of MS ACTION: send FRAME, silent on|off, late MS,
                      wrong-length on|off, wrong-constant on|off, exit
  --json              one JSON object per line of output
  --help              print this text
  --version           print the version

Exit status: 0 stopped or ended by its script; 1 no such port, or it has gone;
2 wrong usage, a script that cannot be read or has a wrong line included.
Environment: none of its own; on virtual ports start it with kt-softcan join.
Example: kt-demo-device --port can0 --node drive --node sensor
)";

constexpr program::identity self = {program_name, help_text};

constexpr program::option_row option_rows[] = {
    {"--port", takes::value},
    {"--node", takes::values},
    {"--extended", takes::nothing},
    {"--interval", takes::value},
    {"--silent-after", takes::value},
    {"--late", takes::value},
    {"--wrong-length", takes::nothing},
    {"--wrong-constant", takes::nothing},
    {"--script", takes::value},
    {"--json", takes::nothing},
};

struct time_option {
    std::string_view name;
    int64_t least_ms;
    int64_t &value;
};

/** @return the problem, empty for none */
std::string take_times(const command_line &line, options &result) {
    for (const time_option &row : {time_option{"--interval", 1, result.interval_ms},
                                   time_option{"--silent-after", 0, result.silent_after_ms},
                                   time_option{"--late", 0, result.initial_faults.late_ms}}) {
        const std::string *text = line.value(row.name);
        if (text == nullptr) {
            continue;
        }
        row.value = parse_milliseconds(text->c_str());
        if (row.value < row.least_ms) {
            return std::string(row.name) + " needs milliseconds, " + std::to_string(row.least_ms) +
                   " to " + std::to_string(day_ms) + ", not '" + *text + "'";
        }
    }
    return {};
}

/** @return the problem, empty for none */
std::string take_nodes(const command_line &line, options &result) {
    for (const auto &[name, value] : line.options) {
        if (name != "--node") {
            continue;
        }
        if (std::find(result.nodes.begin(), result.nodes.end(), value) != result.nodes.end()) {
            return "--node " + value + " is given twice";
        }
        result.nodes.push_back(value);
    }
    if (result.nodes.empty()) {
        result.nodes.emplace_back("drive");
    }
    return {};
}

/** @return the problem, empty for none */
std::string take_options(const command_line &line, options &result) {
    if (!line.words.empty()) {
        return "unknown argument " + line.words[0];
    }
    const std::string *port = line.value("--port");
    if (port == nullptr || port->empty()) {
        return "--port is missing";
    }
    result.port = *port;
    const std::string *script = line.value("--script");
    result.script = script == nullptr ? "" : *script;
    result.extended = line.has("--extended");
    result.json = line.has("--json");
    result.initial_faults.wrong_length = line.has("--wrong-length");
    result.initial_faults.wrong_constant = line.has("--wrong-constant");
    const std::string problem = take_times(line, result);
    return problem.empty() ? take_nodes(line, result) : problem;
}

} // namespace

int64_t parse_milliseconds(const char *text) {
    char *end = nullptr;
    const long long value = strtoll(text, &end, 10);
    const bool number = end != text && *end == '\0';
    return number && value >= 0 && value <= day_ms ? value : -1;
}

int parse_options(std::span<char *const> arguments, options &result) {
    command_line line;
    std::string problem = program::parse(option_rows, arguments, line);
    if (program::asks_about(line)) {
        return program::answer_about(self, line);
    }
    if (problem.empty()) {
        problem = take_options(line, result);
    }
    return problem.empty() ? -1 : program::complain_of_usage(problem);
}
