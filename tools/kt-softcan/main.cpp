#include "commands.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <new>

namespace softcan {
namespace {

constexpr const char *usage =
    R"(kt-softcan: working AF_CAN raw sockets on a machine without CAN support

  kt-softcan run [--ports LIST] [--world NAME] [--up] [--] COMMAND...
        start a world with the ports of LIST (default can0,can1), run COMMAND in it and end with
        its exit status. Ports are down until they are set up; --up sets all of them up.
  kt-softcan join [--world NAME|PATH] [--] COMMAND...
        run COMMAND in a running world
  kt-softcan list
        running worlds
  kt-softcan status [--world NAME|PATH] [--json]
        ports of a world: state, bit rate, frames, losses
  kt-softcan port [--world NAME|PATH] add|remove NAME
        plug in or take away a port
  kt-softcan fault [--world NAME|PATH] --port NAME FAULT
        drop N            lose the next N frames
        drop-rate P       lose that share of the frames, 0 to 1 or 0% to 100%
        txfull MS|off     sending fails with ENOBUFS for MS milliseconds
        error ID#DATA     an error frame from the bus, ID and DATA hexadecimal
        clear             none of these, error state back to active
  kt-softcan --help | --version

Without --world a command means the world it runs in, else the only one running; join means the
only one running. Inside a world `ip link` knows its ports.

Exit status: run and join end with COMMAND's (128 + n after signal n, 126 and 127 as a shell) or
with 125 for a failure of their own; the others with 0, 1 for a failure, 2 for wrong usage.
)";

struct command {
    std::string_view name;
    int (*run)(const arguments &words);
    int failure;
};

constexpr command commands[] = {
    {"run", command_run, status_launcher},
    {"join", command_join, status_launcher},
    {"list", command_list, status_failed},
    {"status", command_status, status_failed},
    {"port", command_port, status_failed},
    {"fault", command_fault, status_failed},
};

int run_command(const arguments &words) {
    if (words.empty() || words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        (void)fputs(usage, words.empty() ? stderr : stdout);
        return words.empty() ? status_usage : 0;
    }
    if (words[0] == "--version") {
        (void)puts("kt-softcan " KT_SOFTCAN_VERSION);
        return 0;
    }
    for (const command &row : commands) {
        if (row.name != words[0]) {
            continue;
        }
        if (words.size() > 1 && words[1] == "--help") {
            (void)fputs(usage, stdout);
            return 0;
        }
        try {
            return row.run({words.begin() + 1, words.end()});
        } catch (const std::exception &failure) {
            return complain(row.failure, failure.what());
        }
    }
    return complain(status_usage, "unknown command '" + words[0] + "', see kt-softcan --help");
}

} // namespace

int complain(int status, const std::string &text) {
    (void)fprintf(stderr, "kt-softcan: %s\n", text.c_str());
    return status;
}

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

bool take_option(arguments &words, std::string_view name, std::string *value) {
    const std::string assigned = std::string(name) + "=";
    for (auto word = words.begin(); word != words.end() && *word != "--"; ++word) {
        if (word->starts_with(assigned)) {
            *value = word->substr(assigned.size());
            words.erase(word);
            return true;
        }
        if (*word == name && word + 1 != words.end()) {
            *value = *(word + 1);
            words.erase(word, word + 2);
            return true;
        }
    }
    return false;
}

bool take_flag(arguments &words, std::string_view name) {
    const auto word = std::find(words.begin(), words.end(), name);
    if (word == words.end()) {
        return false;
    }
    words.erase(word);
    return true;
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
        return softcan::run_command({argv + 1, argv + argc});
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "kt-softcan: %s\n", failure.what());
        return softcan::status_failed;
    }
}
