#include "settings.h"

#include "program/text.h"
#include "secret_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <netinet/in.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t line_max_bytes = 4096;
constexpr size_t prefix_max_bytes = 256;
constexpr size_t name_max_bytes = 128; // of client, group, node and broker

/** What a settings file says besides what has a place in bridge_settings. */
struct file_names {
    std::string username;
    std::string password;
    std::string rest_token;
};

struct reading {
    bridge_settings settings;
    file_names files;
    std::map<std::string_view, int> lines; // of the keys that were given
};

/** What is wrong and the way out; an empty text for nothing. */
struct problem_text {
    std::string_view key;
    std::string text;
};

/** @return what is wrong with a value and the way out, empty for nothing */
using take_value = std::string (*)(reading &, std::string_view);

std::string take_count(int &out, std::string_view text, int least, int most) {
    int number = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc() || end != text.data() + text.size() || number < least ||
        number > most) {
        return "must be a number from " + std::to_string(least) + " to " + std::to_string(most);
    }
    out = number;
    return {};
}

/** Seconds with up to three decimals, as milliseconds. */
std::string take_seconds(int &out_ms, std::string_view text, double least, double most) {
    double seconds = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (code != std::errc() || end != text.data() + text.size() ||
        !(seconds >= least && seconds <= most)) {
        return "must be seconds from 0.1 to 3600";
    }
    out_ms = static_cast<int>(seconds * 1000);
    return {};
}

std::string take_switch(bool &out, std::string_view text) {
    if (text != "on" && text != "off") {
        return "must be on or off";
    }
    out = text == "on";
    return {};
}

std::string take_path(std::string &out, std::string_view text) {
    if (text.front() != '/') {
        return "must be a path from the root, such as /etc/kt-dx-mqtt/password";
    }
    out = text;
    return {};
}

std::string take_name(std::string &out, std::string_view text) {
    if (text.size() > name_max_bytes) {
        return "must not have more than 128 bytes";
    }
    if (text.find(' ') != std::string_view::npos) {
        return "must not hold blanks";
    }
    out = text;
    return {};
}

std::string take_topic(std::string &out, std::string_view text) {
    if (text.size() > prefix_max_bytes) {
        return "must not have more than 256 bytes";
    }
    if (text.find_first_of("+#") != std::string_view::npos) {
        return "must not hold \"+\" or \"#\": it stands in topics that are published";
    }
    if (text.front() == '$' || text.front() == '/' || text.back() == '/') {
        return "must not begin with \"$\" or \"/\" nor end with \"/\"";
    }
    out = text;
    return {};
}

/** One level of a topic. */
std::string take_level(std::string &out, std::string_view text) {
    std::string problem = take_name(out, text);
    if (problem.empty() && text.find_first_of("+#/") != std::string_view::npos) {
        return "must not hold \"+\", \"#\" or \"/\": it is one level of a topic";
    }
    return problem;
}

std::string take_protocol(reading &in, std::string_view text) {
    if (text != "3.1.1" && text != "5") {
        return "must be 3.1.1 or 5";
    }
    in.settings.protocol = text == "5" ? mqtt_protocol::v5 : mqtt_protocol::v3_1_1;
    return {};
}

std::string take_discovery(reading &in, std::string_view text) {
    if (text != "off" && text != "homeassistant") {
        return "must be off or homeassistant";
    }
    in.settings.discovery = text != "off";
    return {};
}

std::string take_url(reading &in, std::string_view text) {
    const bool plain = text.substr(0, 7) == "http://" && text.size() > 7;
    const bool secure = text.substr(0, 8) == "https://" && text.size() > 8;
    if (!plain && !secure) {
        return "must be a URL such as http://127.0.0.1:8080/CAN-proprietary";
    }
    if (text.find('@') != std::string_view::npos) {
        return "must not hold a user or password: name a file with the token in rest_token_file";
    }
    text.remove_suffix(text.back() == '/' ? 1 : 0);
    in.settings.rest_url = text;
    return {};
}

struct key_row {
    std::string_view key;
    take_value take;
};

constexpr key_row keys[] = {
    {"broker_host",
     [](reading &in, std::string_view text) { return take_name(in.settings.broker_host, text); }},
    {"broker_port",
     [](reading &in, std::string_view text) {
         return take_count(in.settings.broker_port, text, 1, 65535);
     }},
    {"client_id",
     [](reading &in, std::string_view text) { return take_name(in.settings.client_id, text); }},
    {"prefix",
     [](reading &in, std::string_view text) { return take_topic(in.settings.prefix, text); }},
    {"keepalive",
     [](reading &in, std::string_view text) {
         return take_count(in.settings.keepalive_s, text, 5, 3600);
     }},
    {"protocol", take_protocol},
    {"qos",
     [](reading &in, std::string_view text) { return take_count(in.settings.qos, text, 0, 2); }},
    {"username_file",
     [](reading &in, std::string_view text) { return take_path(in.files.username, text); }},
    {"password_file",
     [](reading &in, std::string_view text) { return take_path(in.files.password, text); }},
    {"tls_ca",
     [](reading &in, std::string_view text) { return take_path(in.settings.tls_ca, text); }},
    {"tls_cert",
     [](reading &in, std::string_view text) { return take_path(in.settings.tls_cert, text); }},
    {"tls_key",
     [](reading &in, std::string_view text) { return take_path(in.settings.tls_key, text); }},
    {"tls_insecure",
     [](reading &in, std::string_view text) {
         return take_switch(in.settings.tls_insecure, text);
     }},
    {"rest_url", take_url},
    {"rest_token_file",
     [](reading &in, std::string_view text) { return take_path(in.files.rest_token, text); }},
    {"diagnostics_period",
     [](reading &in, std::string_view text) {
         return take_count(in.settings.diagnostics_period_s, text, 0, 86400);
     }},
    {"discovery", take_discovery},
    {"discovery_prefix",
     [](reading &in, std::string_view text) {
         return take_topic(in.settings.discovery_prefix, text);
     }},
    {"sparkplug",
     [](reading &in, std::string_view text) { return take_switch(in.settings.sparkplug, text); }},
    {"sparkplug_group",
     [](reading &in, std::string_view text) {
         return take_level(in.settings.sparkplug_group, text);
     }},
    {"sparkplug_node",
     [](reading &in, std::string_view text) {
         return take_level(in.settings.sparkplug_node, text);
     }},
    {"write_queue",
     [](reading &in, std::string_view text) {
         return take_count(in.settings.write_queue_length, text, 1, 65536);
     }},
    {"event_queue",
     [](reading &in, std::string_view text) {
         return take_count(in.settings.event_queue_length, text, 1, 65536);
     }},
    {"reconnect_min",
     [](reading &in, std::string_view text) {
         return take_seconds(in.settings.reconnect_min_ms, text, 0.1, 3600);
     }},
    {"reconnect_max",
     [](reading &in, std::string_view text) {
         return take_seconds(in.settings.reconnect_max_ms, text, 0.1, 3600);
     }},
};

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/** Passwords are no settings: whoever writes one here is told before the text shows anywhere. */
bool is_secret_key(std::string_view key) {
    return key == "username" || key == "password" || key == "rest_token";
}

std::string unknown_key(std::string_view key) {
    if (is_secret_key(key)) {
        return std::string(key) + ": no secret belongs into this file: put it into a file of its " +
               "own and name that in " + std::string(key) + "_file";
    }
    std::string text =
        program::printable(key.substr(0, name_max_bytes)) + ": no such key; there are ";
    for (const key_row &row : keys) {
        text += row.key;
        text += &row == std::end(keys) - 1 ? "" : ", ";
    }
    return text;
}

bool is_plain_text(std::string_view text) {
    return program::printable(text) == text;
}

/** @return what is wrong with one line, empty for nothing */
std::string take_line(reading &in, int number, std::string_view line) {
    if (line.size() > line_max_bytes) {
        return "the line has more than 4096 bytes";
    }
    line = trimmed(line);
    if (line.empty() || line.front() == '#') {
        return {};
    }
    const size_t equal = line.find('=');
    if (equal == std::string_view::npos) {
        return "a line is \"key = value\" or begins with \"#\"";
    }
    const std::string_view key = trimmed(line.substr(0, equal));
    const std::string_view value = trimmed(line.substr(equal + 1));
    const auto *row = std::find_if(
        std::begin(keys), std::end(keys), [key](const key_row &it) { return it.key == key; });
    if (row == std::end(keys)) {
        return unknown_key(key);
    }
    std::string problem;
    if (!in.lines.emplace(row->key, number).second) {
        problem = "stands there twice: take one of the lines away";
    } else if (value.empty()) {
        problem = "has no value: give one or take the line away";
    } else if (!is_plain_text(value)) {
        problem = "holds control characters or bytes that are no UTF-8";
    } else {
        problem = row->take(in, value);
    }
    return problem.empty() ? problem : std::string(row->key) + ": " + problem;
}

bool is_loopback(const std::string &host) {
    in_addr v4{};
    in6_addr v6{};
    if (host == "localhost") {
        return true;
    }
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return ntohl(v4.s_addr) >> 24 == 127;
    }
    return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string host_name() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "gateway";
    }
    std::string text = name;
    for (char &c : text) {
        c = strchr("+#/$ ", c) || !is_plain_text({&c, 1}) ? '-' : c;
    }
    return text;
}

/** What keys say about each other. */
problem_text check_together(const reading &in) {
    const bridge_settings &settings = in.settings;
    const bool tls = !settings.tls_ca.empty();
    const bool cert = !settings.tls_cert.empty();
    const bool key = !settings.tls_key.empty();
    struct rule {
        bool broken;
        std::string_view key;
        const char *text;
    };
    const rule rules[] = {
        {cert && !key, "tls_cert", "needs tls_key: give both or none"},
        {key && !cert, "tls_key", "needs tls_cert: give both or none"},
        {cert && !tls,
         "tls_cert",
         "does nothing without tls_ca: name the file with the certificate of the authority that "
         "signed the broker's"},
        {settings.tls_insecure && !tls, "tls_insecure", "does nothing without tls_ca"},
        {settings.tls_insecure && !is_loopback(settings.broker_host),
         "tls_insecure",
         "only for a broker on this machine: let broker_host be the name in the broker's "
         "certificate"},
        {!in.files.password.empty() && in.files.username.empty(),
         "password_file",
         "does nothing without username_file: give both"},
        {!in.files.rest_token.empty() && settings.rest_url.empty(),
         "rest_token_file",
         "does nothing without rest_url: give both"},
        {settings.reconnect_min_ms > settings.reconnect_max_ms,
         in.lines.count("reconnect_min") != 0 ? "reconnect_min" : "reconnect_max",
         "reconnect_min must not be above reconnect_max"},
        {settings.sparkplug && settings.sparkplug_group.empty(),
         "sparkplug",
         "needs sparkplug_group: the name under which the plant's nodes stand"},
        {settings.prefix == "spBv1.0" || settings.prefix.substr(0, 8) == "spBv1.0/",
         "prefix",
         "must not begin with \"spBv1.0\", where the topics of Sparkplug B are"},
    };
    for (const rule &row : rules) {
        if (row.broken) {
            return {row.key, row.text};
        }
    }
    return {};
}

void fill_defaults(bridge_settings &settings) {
    const std::string host = host_name();
    if (settings.prefix.empty()) {
        settings.prefix = "kt/" + host;
    }
    if (settings.client_id.empty()) {
        settings.client_id = "kt-dx-mqtt-" + host;
    }
    if (settings.sparkplug_node.empty()) {
        settings.sparkplug_node = host;
    }
    if (settings.broker_port == 0) {
        settings.broker_port = settings.tls_ca.empty() ? 1883 : 8883;
    }
}

problem_text read_files(reading &in) {
    struct file_row {
        std::string_view key;
        const std::string &file;
        std::string *secret; // what is read from it; nullptr where the library reads it
    };
    bridge_settings &settings = in.settings;
    const file_row rows[] = {{"username_file", in.files.username, &settings.username},
                             {"password_file", in.files.password, &settings.password},
                             {"rest_token_file", in.files.rest_token, &settings.rest_token},
                             {"tls_key", settings.tls_key, nullptr}};
    std::string problem;
    for (const file_row &row : rows) {
        if (!row.file.empty() && (row.secret ? read_secret(row.file, *row.secret, problem)
                                             : check_secret(row.file, problem)) != 0) {
            return {row.key, problem};
        }
    }
    const file_row certificates[] = {{"tls_ca", settings.tls_ca, nullptr},
                                     {"tls_cert", settings.tls_cert, nullptr}};
    for (const file_row &row : certificates) {
        if (!row.file.empty() && access(row.file.c_str(), R_OK) != 0) {
            return {row.key, row.file + " cannot be read: " + strerror(errno)};
        }
    }
    return {};
}

} // namespace

int read_settings(const char *file, bridge_settings &settings, std::string &error) {
    std::ifstream in(file);
    const std::string name = program::printable(file);
    if (!in) {
        error = name + ": cannot be read: " + strerror(errno);
        return -1;
    }
    const auto refuse = [&error, &name](int line, const std::string &problem) {
        error = name + ":" + std::to_string(line) + ": " + problem;
        return -1;
    };
    reading found;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string problem = take_line(found, number, line);
        if (!problem.empty()) {
            return refuse(number, problem);
        }
    }
    if (in.bad()) {
        error = name + ": cannot be read: " + strerror(errno);
        return -1;
    }
    problem_text problem = check_together(found);
    problem = problem.text.empty() ? read_files(found) : problem;
    if (!problem.text.empty()) {
        return refuse(found.lines[problem.key], std::string(problem.key) + ": " + problem.text);
    }
    fill_defaults(found.settings);
    settings = std::move(found.settings);
    return 0;
}
