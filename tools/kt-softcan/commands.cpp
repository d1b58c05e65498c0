#include "commands.h"

#include "program/text.h"
#include "world.h"
#include "worlds.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <span>

namespace softcan {
namespace {

using program::command_line;

// Path of the world meant by --world; empty after a complaint.
std::string find_world(const command_line &line) {
    std::string problem;
    std::string path = choose_world(value_or_none(line, "--world"), true, &problem);
    if (path.empty()) {
        (void)complain(status_failed, problem);
    }
    return path;
}

request named_request(operation op, const std::string &name) {
    request ask = make_request(op);
    name.copy(ask.name, sizeof(ask.name) - 1);
    return ask;
}

int send(const std::string &path, const std::string &port, const request &ask) {
    const long result = world_request(path.c_str(), ask);
    if (result >= 0) {
        return 0;
    }
    const char *hint = result == -ENODEV ? " (kt-softcan status lists the ports)" : "";
    return complain(status_failed, port + ": " + strerror(static_cast<int>(-result)) + hint);
}

std::vector<const port_record *> present_ports(const world_region &region) {
    std::vector<const port_record *> found;
    for (const port_record &port : region.ports) {
        if (port.ifindex.load(std::memory_order_acquire) != 0) {
            found.push_back(&port);
        }
    }
    return found;
}

std::uint64_t txfull_left_ms(const port_record &port) {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    const std::uint64_t now_ns = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
                                 static_cast<std::uint64_t>(now.tv_nsec);
    const std::uint64_t until = port.txfull_until_ns;
    return until > now_ns ? (until - now_ns + 999'999) / 1'000'000 : 0;
}

std::string json_array(const arguments &items) {
    std::string text;
    for (const std::string &item : items) {
        text += (text.empty() ? "[" : ",\n ") + item;
    }
    return (text.empty() ? "[" : text) + "]\n";
}

std::string json_port(const port_record &port) {
    char numbers[512]; // ten numbers of at most 20 digits
    (void)snprintf(numbers,
                   sizeof numbers,
                   ",\"bitrate\":%u,\"restart_ms\":%u,\"termination\":%u,"
                   "\"frames\":%" PRIu64 ",\"lost\":%" PRIu64 ",\"drops\":%" PRIu64
                   ",\"drop_next\":%u,\"drop_rate\":%.6f,\"txfull_ms\":%" PRIu64 "}",
                   port.bitrate.load(),
                   port.restart_ms.load(),
                   port.termination_ohm.load(),
                   port.frames.load(),
                   port.lost.load(),
                   port.overruns.load(),
                   port.drop_next.load(),
                   port.drop_ppm.load() / 1e6,
                   txfull_left_ms(port));
    return "{\"port\":" + program::json_string(port.name) +
           ",\"ifindex\":" + std::to_string(port.ifindex.load()) +
           ",\"up\":" + (port.up != 0 ? "true" : "false") + ",\"state\":\"" + state_name(port) +
           "\"" + numbers;
}

std::string port_line(const port_record &port) {
    char line[256]; // the name is at most 15 bytes long
    (void)snprintf(line,
                   sizeof line,
                   "%-15s %-5s %-13s %9u %10u %10" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n",
                   port.name,
                   port.up != 0 ? "up" : "down",
                   state_name(port),
                   port.bitrate.load(),
                   port.restart_ms.load(),
                   port.frames.load(),
                   port.lost.load(),
                   port.overruns.load());
    return line;
}

std::string status_text(const std::vector<const port_record *> &ports, bool json) {
    constexpr const char *head =
        "PORT            LINK  STATE           BITRATE RESTART-MS     FRAMES     LOST    DROPS\n";
    std::string table = head;
    arguments items;
    for (const port_record *port : ports) {
        table += port_line(*port);
        items.push_back(json_port(*port));
    }
    return json ? json_array(items) : table;
}

std::string world_text(const world_entry &entry, const world_region &region, bool json) {
    std::string ports;
    for (const port_record *port : present_ports(region)) {
        ports += (ports.empty() ? "" : ",") +
                 (json ? program::json_string(port->name) : std::string(port->name));
    }
    if (!json) {
        return entry.name + "\t" + ports + "\t" + entry.path + "\n";
    }
    return "{\"name\":" + program::json_string(entry.name) + ",\"ports\":[" + ports +
           "],\"path\":" + program::json_string(entry.path) + "}";
}

// Frames per million of "0.25" or "25%".
std::optional<std::uint32_t> parse_share(std::string text) {
    double scale = 1e6;
    if (text.ends_with('%')) {
        text.pop_back();
        scale = 1e4;
    }
    double share = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), share);
    if (error != std::errc() || end != text.data() + text.size() || !(share >= 0) ||
        share * scale > 1e6) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::lround(share * scale));
}

std::optional<std::uint32_t> parse_hex(std::string_view text) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// "40#00" as an error frame; error frames always have eight data bytes.
bool parse_error_frame(const std::string &text, std::uint8_t (&out)[CAN_MTU]) {
    const std::size_t hash = text.find('#');
    const std::optional<std::uint32_t> id = parse_hex(text.substr(0, hash));
    const std::string data = hash == std::string::npos ? "" : text.substr(hash + 1);
    if (!id || *id > (CAN_ERR_FLAG | CAN_ERR_MASK) || data.size() % 2 != 0 ||
        data.size() / 2 > CAN_MAX_DLEN) {
        return false;
    }
    can_frame frame{};
    frame.can_id = *id | CAN_ERR_FLAG;
    frame.len = CAN_MAX_DLEN;
    for (std::size_t i = 0; i < data.size() / 2; ++i) {
        const std::optional<std::uint32_t> byte = parse_hex(data.substr(i * 2, 2));
        if (!byte) {
            return false;
        }
        frame.data[i] = static_cast<std::uint8_t>(*byte);
    }
    memcpy(out, &frame, sizeof(out));
    return true;
}

struct fault_word {
    std::string_view name;
    operation op;
    fault_kind kind;
    const char *wants; // the value, nullptr for none
};

constexpr fault_word fault_words[] = {
    {"drop", operation::inject_fault, fault_kind::drop_next, "drop N, N from 0 to 4294967295"},
    {"drop-rate",
     operation::inject_fault,
     fault_kind::drop_rate,
     "drop-rate P, P from 0 to 1 or 0% to 100%"},
    {"txfull",
     operation::inject_fault,
     fault_kind::tx_full,
     "txfull MS|off, MS from 0 to 4294967295"},
    {"error",
     operation::inject_error,
     fault_kind::clear,
     "error ID#DATA, hexadecimal, ID up to 3FFFFFFF, up to 8 bytes"},
    {"clear", operation::inject_fault, fault_kind::clear, nullptr},
};

std::optional<std::uint32_t> parse_fault_value(fault_kind kind, const std::string &text) {
    if (kind == fault_kind::drop_rate) {
        return parse_share(text);
    }
    if (kind == fault_kind::tx_full && text == "off") {
        return 0;
    }
    return parse_number(text);
}

// The problem, empty for none.
std::string parse_fault(std::span<const std::string> words, request &ask) {
    const auto *row =
        std::find_if(std::begin(fault_words), std::end(fault_words), [&](const auto &one) {
            return !words.empty() && one.name == words[0];
        });
    if (row == std::end(fault_words) || words.size() != (row->wants == nullptr ? 1 : 2)) {
        return "fault wants drop N, drop-rate P, txfull MS|off, error ID#DATA or clear";
    }
    ask.op = row->op;
    ask.detail = static_cast<std::uint32_t>(row->kind);
    if (row->wants == nullptr) {
        return {};
    }
    bool good = false;
    if (row->op == operation::inject_error) {
        good = parse_error_frame(words[1], ask.error_frame);
    } else {
        const auto value = parse_fault_value(row->kind, words[1]);
        good = value.has_value();
        ask.value = value.value_or(0);
    }
    return good ? std::string()
                : std::string("fault wants ") + row->wants + ", not '" + words[1] + "'";
}

} // namespace

int command_list(const command_line &line) {
    const bool json = line.has("--json");
    arguments worlds;
    for (const world_entry &entry : running_worlds()) {
        int error = 0;
        const world_region *region = world_map(entry.path.c_str(), &error);
        if (region != nullptr) { // else it has just ended
            worlds.push_back(world_text(entry, *region, json));
        }
    }
    std::string text;
    for (const std::string &world : worlds) {
        text += world;
    }
    (void)program::print(json ? json_array(worlds) : text);
    return program::output_status();
}

int command_status(const command_line &line) {
    const std::string path = find_world(line);
    if (path.empty()) {
        return status_failed;
    }
    int error = 0;
    const world_region *region = world_map(path.c_str(), &error);
    if (region == nullptr ||
        world_request(path.c_str(), make_request(operation::synchronise)) < 0) {
        return complain(status_failed, path + ": " + strerror(error != 0 ? error : ECONNRESET));
    }
    (void)program::print(status_text(present_ports(*region), line.has("--json")));
    return program::output_status();
}

int command_port(const command_line &line) {
    const std::span words = std::span(line.words).subspan(1);
    if (words.size() != 2 || (words[0] != "add" && words[0] != "remove")) {
        return complain_of_usage("port wants add PORT or remove PORT");
    }
    if (split_ports(words[1]).size() != 1) {
        return complain_of_usage("'" + words[1] + "' cannot be the name of a port");
    }
    const std::string path = find_world(line);
    const operation op = words[0] == "add" ? operation::add_port : operation::remove_port;
    return path.empty() ? status_failed : send(path, words[1], named_request(op, words[1]));
}

int command_fault(const command_line &line) {
    const std::string *port = line.value("--port");
    if (port == nullptr) {
        return complain_of_usage("fault wants --port PORT");
    }
    if (split_ports(*port).size() != 1) {
        return complain_of_usage("'" + *port + "' cannot be the name of a port");
    }
    request ask = named_request(operation::inject_fault, *port);
    const std::string problem = parse_fault(std::span(line.words).subspan(1), ask);
    if (!problem.empty()) {
        return complain_of_usage(problem);
    }
    const std::string path = find_world(line);
    return path.empty() ? status_failed : send(path, *port, ask);
}

} // namespace softcan
