#include "commands.h"
#include "program/command_line.h"
#include "program/output.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

namespace {

using program::command_line;
using program::takes;

constexpr char help_text[] =
    R"(Usage: kt-tag list [PATTERN] [--json]
       kt-tag get NAME [--json]
       kt-tag set NAME VALUE
       kt-tag watch [PATTERN] [--initial] [--count N] [--timeout S] [--json]

Show, read, write and follow the tags that the programs of this gateway share.

  PATTERN        shell pattern for names (quote it); '*' also matches '/'
  VALUE          integer, decimal or 0x; float; raw bytes as hexadecimal digits
  --json         one JSON object per line: name, type, size, mode, value, age_ms
  --initial      watch: print what is there first, then the changes
  --count N      watch: end after N lines
  --timeout S    watch: end after S seconds
  --help         print this text
  --version      print the version
  --             what follows is no option

Exit status: 0 done; 1 failed: unknown or read-only tag, value that does not
fit, no tag store, --timeout before --count; 2 wrong usage.
Environment: KT_ROOT, a prefix for /run/kt-dx/tags.
Example: kt-tag watch 'can_proprietary/*' --json --count 10
)";

constexpr program::identity self = {"kt-tag", help_text};

constexpr program::option_row option_rows[] = {
    {"--json", takes::nothing},
    {"--initial", takes::nothing},
    {"--count", takes::value},
    {"--timeout", takes::value},
};

struct command {
    program::command_row row;
    int (*run)(const tag_options &);
};

constexpr command commands[] = {
    {{"list", 0, 1, "--json"}, list_tags},
    {{"get", 1, 1, "--json"}, get_tag},
    {{"set", 2, 2, "--json"}, set_tag},
    {{"watch", 0, 1, "--json --initial --count --timeout"}, watch_tags},
};

template <typename T>
bool parse_number(std::string_view text, T &number) {
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    return code == std::errc() && end == text.data() + text.size();
}

/** @return the problem, empty for none */
std::string take_limits(const command_line &line, tag_options &options) {
    constexpr double longest_s = 1e9;
    const std::string *text = line.value("--count");
    if (text != nullptr && !(parse_number(*text, options.count) && options.count > 0)) {
        return "--count needs a number above 0, not '" + *text + "'";
    }
    text = line.value("--timeout");
    double seconds = 0;
    if (text != nullptr &&
        !(parse_number(*text, seconds) && seconds >= 0 && seconds <= longest_s)) {
        return "--timeout needs seconds, 0 to 1000000000, not '" + *text + "'";
    }
    options.timeout_ms = text == nullptr ? -1 : static_cast<int64_t>(seconds * 1000);
    return {};
}

int run_command(const command &chosen, const command_line &line) {
    tag_options options;
    std::string problem = program::check_command(chosen.row, line);
    if (problem.empty()) {
        problem = take_limits(line, options);
    }
    if (!problem.empty()) {
        return program::complain_of_usage(problem);
    }
    const auto argument = [&line](size_t i) {
        return i < line.words.size() ? line.words[i].c_str() : nullptr;
    };
    options.json = line.has("--json");
    options.initial = line.has("--initial");
    options.pattern = argument(1);
    options.name = argument(1);
    options.value = argument(2);
    return chosen.run(options);
}

int run(std::span<char *const> arguments) {
    command_line line;
    const std::string problem = program::parse(option_rows, arguments, line);
    if (program::asks_about(line)) {
        return program::answer_about(self, line);
    }
    if (!problem.empty()) {
        return program::complain_of_usage(problem);
    }
    if (line.words.empty()) {
        return program::complain_of_usage("a command is missing");
    }
    const auto *chosen =
        std::find_if(std::begin(commands), std::end(commands), [&](const command &c) {
            return c.row.name == line.words[0];
        });
    if (chosen == std::end(commands)) {
        return program::complain_of_usage("unknown command " + line.words[0]);
    }
    return run_command(*chosen, line);
}

} // namespace

int main(int argc, char **argv) {
    program::begin(self.name);
    program::ignore_closed_pipes();
    try {
        return run(std::span(argv, static_cast<size_t>(argc)).subspan(argc > 0 ? 1 : 0));
    } catch (const std::exception &problem) {
        return program::complain(program::status_failed, problem.what());
    }
}
