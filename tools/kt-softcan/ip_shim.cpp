#include "commands.h"
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace softcan {
namespace {

constexpr int netlink_status = 2; // what ip ends with when the kernel refuses
constexpr int garbage_status = 255;

struct ip_call {
    arguments words; // after the global options
    show_style style;
    world_region *world = nullptr;
    const char *path = nullptr;
};

// Global options that change nothing about who answers.
bool take_global(const std::string &word, show_style &style) {
    struct row {
        std::string_view full;
        std::size_t least; // characters that must be given
        bool show_style::*flag;
    };
    constexpr row rows[] = {
        {"-details", 2, &show_style::details},
        {"-json", 2, &show_style::json},
        {"-oneline", 2, &show_style::one_line},
        {"-brief", 3, &show_style::brief},
        {"-pretty", 2, nullptr},
        {"-statistics", 2, nullptr},
        {"-color", 2, nullptr},
    };
    const std::string given = word.starts_with("--") ? word.substr(1) : word;
    for (const row &entry : rows) {
        if (given.size() >= entry.least && entry.full.starts_with(given)) {
            if (entry.flag != nullptr) {
                style.*entry.flag = true;
            }
            return true;
        }
    }
    return given == "-4" || given == "-6" || given == "-0";
}

// False when the call is none about links that could be ours.
bool parse_call(const arguments &all, ip_call &call) {
    std::size_t at = 0;
    for (; at < all.size() && all[at].starts_with("-"); ++at) {
        if (!take_global(all[at], call.style)) {
            return false;
        }
    }
    call.words.assign(all.begin() + static_cast<std::ptrdiff_t>(at), all.end());
    return !call.words.empty() && std::string_view("link").starts_with(call.words[0]);
}

std::string real_ip() {
    struct stat own {};
    (void)stat("/proc/self/exe", &own); // stays zero and equals nothing on failure
    const char *variable = getenv("PATH");
    const std::string path = std::string(variable == nullptr ? "" : variable) + ":/usr/sbin:/sbin";
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t colon = std::min(path.find(':', start), path.size());
        std::string file = path.substr(start, colon - start) + "/ip";
        struct stat info {};
        if (stat(file.c_str(), &info) == 0 && access(file.c_str(), X_OK) == 0 &&
            (info.st_ino != own.st_ino || info.st_dev != own.st_dev)) {
            return file;
        }
        start = colon + 1;
    }
    return {};
}

int exec_real(char **argv) {
    const std::string file = real_ip();
    if (!file.empty()) {
        (void)execv(file.c_str(), argv);
    }
    (void)fprintf(stderr, "ip: command not found\n");
    return 127;
}

// What the real ip prints for the same words; its exit status, 127 when it cannot run.
int run_real(char **argv, std::string *output) {
    int ends[2];
    if (pipe(ends) != 0) {
        return 127;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        (void)dup2(ends[1], STDOUT_FILENO);
        (void)close(ends[0]);
        (void)close(ends[1]);
        _exit(exec_real(argv));
    }
    (void)close(ends[1]);
    char chunk[4096];
    for (ssize_t got = 0; (got = read(ends[0], chunk, sizeof(chunk))) > 0;) {
        output->append(chunk, static_cast<std::size_t>(got));
    }
    (void)close(ends[0]);
    int state = 0;
    if (pid < 0 || waitpid(pid, &state, 0) != pid || !WIFEXITED(state)) {
        return 127;
    }
    return WEXITSTATUS(state);
}

int netlink_error(int error) {
    (void)fprintf(stderr, "RTNETLINK answers: %s\n", strerror(error));
    return netlink_status;
}

int garbage(const std::string &word) {
    (void)fprintf(stderr, "Error: \"%s\" is not understood for a kt-softcan port.\n", word.c_str());
    return garbage_status;
}

request port_request(operation op, const std::string &name) {
    request ask = make_request(op);
    name.copy(ask.name, sizeof(ask.name) - 1);
    return ask;
}

int send(const ip_call &call, const request &ask) {
    const long result = world_request(call.path, ask);
    return result < 0 ? netlink_error(static_cast<int>(-result)) : 0;
}

struct link_words {
    std::string device;
    request ask = make_request(operation::change_link);
    bool restart = false;
    int status = 0; // of wrong words
};

struct link_number {
    std::string_view word;
    link_change change;
    std::uint32_t link_settings::*field;
};

constexpr link_number link_numbers[] = {
    {"txqueuelen", link_txqueuelen, &link_settings::txqueuelen},
    {"txqlen", link_txqueuelen, &link_settings::txqueuelen},
    {"qlen", link_txqueuelen, &link_settings::txqueuelen},
};

constexpr link_number can_numbers[] = {
    {"bitrate", link_bitrate, &link_settings::bitrate},
    {"restart-ms", link_restart_ms, &link_settings::restart_ms},
    {"termination", link_termination, &link_settings::termination_ohm},
};

template <std::size_t Count>
bool take_number(const link_number (&rows)[Count],
                 const arguments &words,
                 std::size_t &at,
                 link_words &out) {
    for (const link_number &row : rows) {
        if (words[at] != row.word) {
            continue;
        }
        const auto value =
            at + 1 < words.size() ? parse_number(words[at + 1]) : std::optional<std::uint32_t>();
        if (!value) {
            out.status = garbage(words[at]);
            return true;
        }
        out.ask.detail |= row.change;
        out.ask.link.*row.field = *value;
        ++at;
        return true;
    }
    return false;
}

// Settings behind "type can". Those that would change what the bus does are refused, not ignored.
void parse_can(const arguments &words, std::size_t at, link_words &out) {
    for (; at < words.size() && out.status == 0; ++at) {
        if (take_number(can_numbers, words, at, out)) {
            continue;
        }
        const bool timing = words[at] == "sample-point" || words[at] == "sjw";
        const bool off = at + 1 < words.size() && words[at + 1] == "off";
        if (words[at] == "restart") {
            out.restart = true;
        } else if (timing || off) {
            ++at;
        } else {
            out.status = netlink_error(EOPNOTSUPP);
        }
    }
    const std::uint32_t ohm = out.ask.link.termination_ohm;
    if (out.status == 0 && ohm != 0 && ohm != 120) {
        out.status = netlink_error(EINVAL);
    }
}

void parse_link(const arguments &words, link_words &out) {
    for (std::size_t at = 0; at < words.size() && out.status == 0; ++at) {
        const bool more = at + 1 < words.size();
        if (words[at] == "up") {
            out.ask.detail |= link_up;
        } else if (words[at] == "down") {
            out.ask.detail |= link_down;
        } else if (words[at] == "dev" && more) {
            out.device = words[++at];
        } else if (words[at] == "mtu" && more && words[at + 1] == "16") {
            ++at;
        } else if (words[at] == "type" && more && words[at + 1] == "can") {
            parse_can(words, at + 2, out);
            return;
        } else if (take_number(link_numbers, words, at, out)) {
            continue;
        } else if (out.device.empty()) {
            out.device = words[at];
        } else {
            out.status = garbage(words[at]);
        }
    }
}

// The first of the words that names a softcan port, empty for none.
std::string named_port(const ip_call &call) {
    for (const std::string &word : call.words) {
        if (find_port(call.world, word) != nullptr) {
            return word;
        }
    }
    return {};
}

int set_link(const ip_call &call) {
    link_words link;
    parse_link({call.words.begin() + 2, call.words.end()}, link);
    if (link.status != 0) {
        return link.status;
    }
    link.device.copy(link.ask.name, sizeof(link.ask.name) - 1);
    const int status = send(call, link.ask);
    if (status == 0 && link.restart) {
        return send(call, port_request(operation::restart_port, link.device));
    }
    return status;
}

struct show_words {
    std::string device;
    std::string type;
    bool up_only = false;
    bool foreign = false; // a selection only the real ip can make
};

show_words parse_show(const arguments &words) {
    show_words out;
    for (std::size_t at = 2; at < words.size(); ++at) {
        const bool more = at + 1 < words.size();
        if (words[at] == "up") {
            out.up_only = true;
        } else if (words[at] == "dev" && more) {
            out.device = words[++at];
        } else if (words[at] == "type" && more) {
            out.type = words[++at];
        } else if (out.device.empty() && words[at] != "master" && words[at] != "group" &&
                   words[at] != "vrf" && words[at] != "nomaster") {
            out.device = words[at];
        } else {
            out.foreign = true;
        }
    }
    return out;
}

bool selected(const port_record &port, const show_words &show) {
    return port.ifindex.load(std::memory_order_acquire) != 0 &&
           (show.device.empty() || show.device == port.name) &&
           (show.type.empty() || show.type == "can") && (!show.up_only || port.up != 0);
}

// The real ip's JSON array with our objects at its end.
std::string extended_array(std::string array, const std::string &objects) {
    const std::size_t end = array.rfind(']');
    if (end == std::string::npos || objects.empty()) {
        return objects.empty() ? array : "[" + objects + "]\n";
    }
    const bool empty = array.find('{') == std::string::npos;
    return array.insert(end, (empty ? "" : ",") + objects);
}

int show_links(const ip_call &call, char **argv) {
    const show_words show = parse_show(call.words);
    if (show.foreign || (!show.device.empty() && find_port(call.world, show.device) == nullptr)) {
        return exec_real(argv);
    }
    std::string output;
    int status = 0;
    if (show.device.empty()) {
        status = run_real(argv, &output);
    }
    std::string ours;
    for (const port_record &port : call.world->ports) {
        if (selected(port, show)) {
            ours += (call.style.json && !ours.empty() ? "," : "") + show_port(port, call.style);
        }
    }
    output = call.style.json ? extended_array(output, ours) : output + ours;
    if (call.style.json && output.empty()) {
        output = "[]\n";
    }
    (void)fputs(output.c_str(), stdout);
    return status;
}

// "ip link add [dev] NAME type can|vcan" plugs a port in.
int add_link(const ip_call &call, char **argv) {
    const arguments &words = call.words;
    const std::size_t at = words.size() > 2 && words[2] == "dev" ? 3 : 2;
    const bool ours = words.size() == at + 3 && words[at + 1] == "type" &&
                      (words[at + 2] == "can" || words[at + 2] == "vcan") &&
                      split_ports(words[at]).size() == 1;
    return ours ? send(call, port_request(operation::add_port, words[at])) : exec_real(argv);
}

int delete_link(const ip_call &call, char **argv) {
    const std::string name = named_port(call);
    return name.empty() ? exec_real(argv) : send(call, port_request(operation::remove_port, name));
}

int dispatch(const ip_call &call, char **argv) {
    const std::string verb = call.words.size() > 1 ? call.words[1] : "show";
    if (verb == "set") {
        return named_port(call).empty() ? exec_real(argv) : set_link(call);
    }
    if (verb == "add") {
        return add_link(call, argv);
    }
    if (verb == "delete" || verb == "del") {
        return delete_link(call, argv);
    }
    if (verb == "show" || verb == "list" || verb == "ls" || verb == "lst" || verb == "sh") {
        return show_links(call, argv);
    }
    return exec_real(argv);
}

} // namespace

int ip_main(int argc, char **argv) {
    ip_call call;
    call.path = getenv("KT_SOFTCAN");
    if (call.path == nullptr || *call.path == '\0' || !parse_call({argv + 1, argv + argc}, call)) {
        return exec_real(argv);
    }
    int error = 0;
    call.world = world_map(call.path, &error);
    if (call.world == nullptr) {
        (void)fprintf(stderr, "kt-softcan: no world at %s: %s\n", call.path, strerror(error));
        return exec_real(argv);
    }
    return dispatch(call, argv);
}

} // namespace softcan
