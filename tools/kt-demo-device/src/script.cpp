#include "script.h"

#include "frame_text.h"
#include "options.h"
#include "program/output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string_view>

namespace {

enum class argument { none, frame, milliseconds, on_off };

struct action_row {
    std::string_view name;
    script_action action;
    argument takes;
};

constexpr std::array action_table{
    action_row{"send", script_action::send, argument::frame},
    action_row{"silent", script_action::silent, argument::on_off},
    action_row{"late", script_action::late, argument::milliseconds},
    action_row{"wrong-length", script_action::wrong_length, argument::on_off},
    action_row{"wrong-constant", script_action::wrong_constant, argument::on_off},
    action_row{"exit", script_action::exit, argument::none},
};

bool parse_argument(argument takes, const std::string &text, script_step &step) {
    switch (takes) {
    case argument::none:
        return text.empty();
    case argument::frame:
        return parse_frame(text, step.frame);
    case argument::milliseconds:
        step.value = parse_milliseconds(text.c_str());
        return step.value >= 0;
    case argument::on_off:
        step.value = text == "on" ? 1 : 0;
        return text == "on" || text == "off";
    }
    return false;
}

bool parse_line(const std::string &line, script_step &step) {
    std::istringstream words(line);
    std::string time;
    std::string name;
    std::string text;
    std::string surplus;
    words >> time >> name >> text >> surplus;
    step.at_ms = parse_milliseconds(time.c_str());
    const auto *row = std::find_if(
        action_table.begin(), action_table.end(), [&](const auto &r) { return r.name == name; });
    if (step.at_ms < 0 || row == action_table.end() || !surplus.empty()) {
        return false;
    }
    step.action = row->action;
    return parse_argument(row->takes, text, step);
}

bool is_blank(const std::string &line) {
    const size_t first = line.find_first_not_of(" \t\r");
    return first == std::string::npos || line[first] == '#';
}

int refuse(std::initializer_list<std::string_view> problem) {
    std::string text;
    for (const std::string_view part : problem) {
        text += part;
    }
    (void)program::complain(program::status_usage, text);
    return -1;
}

} // namespace

int read_script(const std::string &path, std::vector<script_step> &steps) {
    errno = 0;
    std::ifstream file(path);
    std::vector<script_step> read;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        script_step step;
        if (is_blank(line)) {
            continue;
        }
        if (!parse_line(line, step)) {
            return refuse({path, ":", std::to_string(number), ": no script line: ", line});
        }
        read.push_back(step);
    }
    if (!file.eof()) { // a folder opens, but does not read
        return refuse({"cannot read ", path, ": ", strerror(errno)});
    }
    std::stable_sort(
        read.begin(), read.end(), [](const auto &a, const auto &b) { return a.at_ms < b.at_ms; });
    steps = std::move(read);
    return 0;
}
