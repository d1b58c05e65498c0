#include "program/command_line.h"

#include "program/output.h"
#include "program/text.h"

#include <algorithm>

namespace program {
namespace {

constexpr option_row common_rows[] = {
    {"--help", takes::nothing},
    {"--version", takes::nothing},
};

bool is_option(std::string_view argument) {
    constexpr std::string_view of_numbers = "0123456789.in";
    return argument.size() > 1 && argument[0] == '-' &&
           of_numbers.find(argument[1]) == std::string_view::npos;
}

const option_row *find_row(std::span<const option_row> rows, std::string_view name) {
    const auto row = std::find_if(
        rows.begin(), rows.end(), [name](const option_row &one) { return one.name == name; });
    return row == rows.end() ? nullptr : &*row;
}

/** Take the option at the front and its value out of what is left. @return the problem */
std::string
take_option(std::span<const option_row> rows, std::span<char *const> &left, command_line &line) {
    const std::string_view argument = left[0];
    const std::size_t assigned = std::min(argument.find('='), argument.size());
    const std::string_view name = argument == "-h" ? "--help" : argument.substr(0, assigned);
    const option_row *row = find_row(rows, name);
    row = row == nullptr ? find_row(common_rows, name) : row;
    left = left.subspan(1);
    if (row == nullptr) {
        return "unknown option " + std::string(name);
    }
    if (row->what == takes::value && line.has(name)) {
        return std::string(name) + " is given twice";
    }
    std::string value;
    if (assigned < argument.size()) {
        if (row->what == takes::nothing) {
            return std::string(name) + " takes no value";
        }
        value = argument.substr(assigned + 1);
    } else if (row->what != takes::nothing) {
        if (left.empty()) {
            return std::string(name) + " needs a value";
        }
        value = left[0];
        left = left.subspan(1);
    }
    line.options.emplace_back(row->name, std::move(value));
    return {};
}

bool lists(std::string_view names, std::string_view name) {
    return (" " + std::string(names) + " ").find(" " + std::string(name) + " ") !=
           std::string::npos;
}

} // namespace

bool command_line::has(std::string_view name) const {
    return value(name) != nullptr;
}

const std::string *command_line::value(std::string_view name) const {
    const auto found = std::find_if(
        options.begin(), options.end(), [name](const auto &one) { return one.first == name; });
    return found == options.end() ? nullptr : &found->second;
}

std::string parse(std::span<const option_row> rows,
                  std::span<char *const> arguments,
                  command_line &line,
                  const std::function<bool()> &words_end_options) {
    bool options_ended = false;
    while (!arguments.empty()) {
        const std::string_view argument = arguments[0];
        if (!options_ended && argument == "--") {
            options_ended = true;
        } else if (!options_ended && is_option(argument)) {
            std::string problem = take_option(rows, arguments, line);
            if (!problem.empty()) {
                return problem;
            }
            continue;
        } else {
            line.words.emplace_back(argument);
            options_ended = options_ended || (words_end_options && words_end_options());
        }
        arguments = arguments.subspan(1);
    }
    return {};
}

std::string check_command(const command_row &command, const command_line &line) {
    for (const auto &[name, value] : line.options) {
        if (!lists(command.options, name)) {
            return std::string(name) + " is no option of " + std::string(command.name);
        }
    }
    const std::size_t given = line.words.size() - 1;
    if (given < command.least_arguments) {
        return "too few arguments for " + std::string(command.name);
    }
    if (given > command.most_arguments) {
        return "too many arguments for " + std::string(command.name) + ": " +
               line.words[command.most_arguments + 1];
    }
    return {};
}

bool asks_about(const command_line &line) {
    return line.has("--help") || line.has("--version");
}

int answer_about(const identity &self, const command_line &line) {
    const std::string name = self.name;
    if (line.has("--help")) {
        (void)print(self.help);
    } else if (line.has("--json")) {
        (void)print("{\"name\":" + json_string(name) + ",\"version\":" + json_string(KT_VERSION) +
                    "}\n");
    } else {
        (void)print(name + " " + KT_VERSION + "\n");
    }
    return output_status();
}

} // namespace program
