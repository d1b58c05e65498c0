#include "commands.h"

#include "world.h"
#include "worlds.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace softcan {
namespace {

// Path of the world meant by --world; empty after a complaint.
std::string take_world(arguments &words) {
    std::string wanted;
    std::string problem;
    (void)take_option(words, "--world", &wanted); // there need not be one
    std::string path = choose_world(wanted, true, &problem);
    if (path.empty()) {
        (void)complain(0, problem);
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
    return complain(status_failed, port + ": " + strerror(static_cast<int>(-result)));
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

void print_json(const std::vector<const port_record *> &ports) {
    const char *separator = "[";
    for (const port_record *port : ports) {
        (void)printf("%s{\"port\":\"%s\",\"ifindex\":%u,\"up\":%s,\"state\":\"%s\","
                     "\"bitrate\":%u,\"restart_ms\":%u,\"termination\":%u,"
                     "\"frames\":%" PRIu64 ",\"lost\":%" PRIu64 ",\"drops\":%" PRIu64
                     ",\"drop_next\":%u,\"drop_rate\":%.6f,\"txfull_ms\":%" PRIu64 "}",
                     separator,
                     port->name,
                     port->ifindex.load(),
                     port->up != 0 ? "true" : "false",
                     state_name(*port),
                     port->bitrate.load(),
                     port->restart_ms.load(),
                     port->termination_ohm.load(),
                     port->frames.load(),
                     port->lost.load(),
                     port->overruns.load(),
                     port->drop_next.load(),
                     port->drop_ppm.load() / 1e6,
                     txfull_left_ms(*port));
        separator = ",\n ";
    }
    (void)printf("%s]\n", ports.empty() ? "[" : "");
}

void print_table(const std::vector<const port_record *> &ports) {
    (void)printf("%-15s %-5s %-13s %9s %10s %10s %8s %8s\n",
                 "PORT",
                 "LINK",
                 "STATE",
                 "BITRATE",
                 "RESTART-MS",
                 "FRAMES",
                 "LOST",
                 "DROPS");
    for (const port_record *port : ports) {
        (void)printf("%-15s %-5s %-13s %9u %10u %10" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n",
                     port->name,
                     port->up != 0 ? "up" : "down",
                     state_name(*port),
                     port->bitrate.load(),
                     port->restart_ms.load(),
                     port->frames.load(),
                     port->lost.load(),
                     port->overruns.load());
    }
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
    fault_kind kind;
};

constexpr fault_word fault_words[] = {
    {"drop", fault_kind::drop_next},
    {"drop-rate", fault_kind::drop_rate},
    {"txfull", fault_kind::tx_full},
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

// False when the words are no fault.
bool parse_fault(const arguments &words, request &ask) {
    if (words.size() == 1 && words[0] == "clear") {
        ask.detail = static_cast<std::uint32_t>(fault_kind::clear);
        return true;
    }
    if (words.size() != 2) {
        return false;
    }
    if (words[0] == "error") {
        ask.op = operation::inject_error;
        return parse_error_frame(words[1], ask.error_frame);
    }
    for (const fault_word &row : fault_words) {
        const auto value = parse_fault_value(row.kind, words[1]);
        if (row.name == words[0] && value) {
            ask.detail = static_cast<std::uint32_t>(row.kind);
            ask.value = *value;
            return true;
        }
    }
    return false;
}

} // namespace

int command_list(const arguments &words) {
    if (!words.empty()) {
        return complain(status_usage, "list takes no arguments");
    }
    for (const world_entry &entry : running_worlds()) {
        int error = 0;
        const world_region *region = world_map(entry.path.c_str(), &error);
        if (region == nullptr) {
            continue; // it has just ended
        }
        std::string ports;
        for (const port_record *port : present_ports(*region)) {
            ports += (ports.empty() ? "" : ",") + std::string(port->name);
        }
        (void)printf("%s\t%s\t%s\n", entry.name.c_str(), ports.c_str(), entry.path.c_str());
    }
    return 0;
}

int command_status(const arguments &words) {
    arguments rest = words;
    const bool json = take_flag(rest, "--json");
    const std::string path = take_world(rest);
    if (path.empty()) {
        return status_failed;
    }
    if (!rest.empty()) {
        return complain(status_usage, "unknown argument '" + rest[0] + "'");
    }
    int error = 0;
    const world_region *region = world_map(path.c_str(), &error);
    if (region == nullptr ||
        world_request(path.c_str(), make_request(operation::synchronise)) < 0) {
        return complain(status_failed, path + ": " + strerror(error != 0 ? error : ECONNRESET));
    }
    (json ? print_json : print_table)(present_ports(*region));
    return 0;
}

int command_port(const arguments &words) {
    arguments rest = words;
    const std::string path = take_world(rest);
    if (path.empty()) {
        return status_failed;
    }
    if (rest.size() != 2 || (rest[0] != "add" && rest[0] != "remove") ||
        split_ports(rest[1]).size() != 1) {
        return complain(status_usage, "port wants add NAME or remove NAME");
    }
    const operation op = rest[0] == "add" ? operation::add_port : operation::remove_port;
    return send(path, rest[1], named_request(op, rest[1]));
}

int command_fault(const arguments &words) {
    arguments rest = words;
    std::string port;
    const bool named = take_option(rest, "--port", &port);
    const std::string path = take_world(rest);
    if (path.empty()) {
        return status_failed;
    }
    if (!named) {
        return complain(status_usage, "fault wants --port NAME");
    }
    request ask = named_request(operation::inject_fault, port);
    if (!parse_fault(rest, ask)) {
        return complain(status_usage,
                        "fault wants drop N, drop-rate P, txfull MS|off, error ID#DATA or clear");
    }
    return send(path, port, ask);
}

} // namespace softcan
