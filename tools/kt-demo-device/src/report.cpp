#include "report.h"

#include "program/output.h"
#include "program/text.h"

using program::json_string;

namespace {

std::string json_event(const device &unit, const char *node, const char *event) {
    return "{\"port\":" + json_string(unit.port) + ",\"node\":" + json_string(node) +
           ",\"event\":" + json_string(event);
}

} // namespace

void report_ready(const device &unit, const std::vector<std::string> &nodes) {
    std::string text = "ready " + unit.port;
    std::string names;
    for (const std::string &name : nodes) {
        text += " " + name;
        names += (names.empty() ? "" : ",") + json_string(name);
    }
    (void)program::print(unit.json ? "{\"port\":" + json_string(unit.port) + ",\"nodes\":[" +
                                         names + "],\"event\":\"ready\"}\n"
                                   : text + "\n");
}

void report(const device &unit, const char *node, const char *event, const std::string &text) {
    (void)program::print(unit.json ? json_event(unit, node, event) + "}\n"
                                   : unit.port + ": " + text + "\n");
}

void report_value(const device &unit, const char *node, const char *event, unsigned value) {
    const std::string number = std::to_string(value);
    (void)program::print(unit.json ? json_event(unit, node, event) + ",\"value\":" + number + "}\n"
                                   : unit.port + ": " + event + " " + number + "\n");
}
