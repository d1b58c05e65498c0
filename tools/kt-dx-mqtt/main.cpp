#include "bridge.h"
#include "settings.h"

#include <cstdlib>
#include <exception>
#include <program/command_line.h>
#include <program/output.h>
#include <span>
#include <string>

namespace {

constexpr char help_text[] =
    R"(Usage: kt-dx-mqtt [--config FILE] [--check]

Publishes the tags of this machine to an MQTT broker, each with its quality, and
writes the tags that clients set. Runs until SIGTERM, SIGINT or SIGQUIT.

  --config FILE  settings; by default /etc/kt-dx-mqtt.conf
  --check        read the settings, say what is wrong with them, and end
  --json         with --version: an object with name and version
  --help         print this text
  --version      print the version

Environment: KT_ROOT, a prefix for the default settings and the gateway's files.
Exit status: 0 done or stopped by a signal, 1 failed or wrong settings, 2 wrong
             usage.
Example: kt-dx-mqtt --check --config /etc/kt-dx-mqtt.conf
)";

constexpr program::identity self = {"kt-dx-mqtt", help_text};

constexpr program::option_row options[] = {
    {"--config", program::takes::value},
    {"--check", program::takes::nothing},
    {"--json", program::takes::nothing},
};

int run(std::span<char *const> arguments) {
    program::command_line line;
    const std::string problem = program::parse(options, arguments, line);
    if (program::asks_about(line)) {
        return program::answer_about(self, line);
    }
    if (!problem.empty()) {
        return program::complain_of_usage(problem);
    }
    if (!line.words.empty()) {
        return program::complain_of_usage("unexpected argument " + line.words.front());
    }
    const std::string *named = line.value("--config");
    const char *root = getenv("KT_ROOT");
    const std::string file =
        named != nullptr ? *named : std::string(root != nullptr ? root : "") + settings_file;
    bridge_settings settings;
    std::string error;
    if (read_settings(file.c_str(), settings, error) != 0) {
        return program::complain(program::status_failed, error);
    }
    return line.has("--check") ? program::status_done : run_bridge(settings);
}

} // namespace

int main(int argc, char **argv) {
    program::begin(self.name);
    program::ignore_closed_pipes(); // of the broker's socket, too
    try {
        return run(std::span(argv, static_cast<size_t>(argc)).subspan(1));
    } catch (const std::exception &problem) {
        return program::complain(program::status_failed, problem.what());
    }
}
