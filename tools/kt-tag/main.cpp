#include "commands.h"

#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <string_view>
#include <system_error>

namespace {

constexpr int usage_status = 2;

constexpr char help_text[] =
    "Usage: kt-tag list [PATTERN]\n"
    "       kt-tag get NAME\n"
    "       kt-tag set NAME VALUE\n"
    "       kt-tag watch [PATTERN] [--initial] [--count N] [--timeout S]\n"
    "\n"
    "Show, read and write the tags that the programs of this gateway share.\n"
    "\n"
    "  list            print every tag with its value, sorted by name\n"
    "  get             print the value of one tag\n"
    "  set             write a tag: integers decimal or 0x, floats decimal,\n"
    "                  raw tags as hexadecimal text, two digits for each byte\n"
    "  watch           print a tag each time it is written, until Ctrl-C\n"
    "\n"
    "PATTERN is a shell pattern for names (quote it); '*' also matches '/'.\n"
    "\n"
    "  --json          one JSON object per line: name, type, size, mode, value, age_ms\n"
    "  --initial       watch: print what is there first, then the changes\n"
    "  --count N       watch: end after N lines\n"
    "  --timeout S     watch: end after S seconds; exit status 1 when --count lines\n"
    "                  have not come by then\n"
    "  --help          print this text\n"
    "  --version       print the version\n"
    "  --              what follows is no option\n"
    "\n"
    "Exit status: 0 done, 1 failed (unknown tag, read-only tag, value that does not\n"
    "fit), 2 wrong use. KT_ROOT is a prefix for /run/kt-dx/tags.\n";

struct command {
    const char *name;
    int (*run)(const tag_options &);
    int least_arguments;
    int most_arguments;
    bool takes_watch_options;
};

constexpr command commands[] = {
    {"list", list_tags, 0, 1, false},
    {"get", get_tag, 1, 1, false},
    {"set", set_tag, 2, 2, false},
    {"watch", watch_tags, 0, 1, true},
};

int usage_error(const char *problem, const char *argument) {
    (void)fprintf(stderr, "kt-tag: %s%s\nTry 'kt-tag --help'.\n", problem, argument);
    return usage_status;
}

template <typename T>
bool parse_number(std::string_view text, T &number) {
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    return code == std::errc() && end == text.data() + text.size();
}

/** A value may be negative: "-5" is no option. */
bool is_option(const char *argument) {
    return argument[0] == '-' && argument[1] != '\0' &&
           strchr("0123456789.in", argument[1]) == nullptr;
}

struct command_line {
    tag_options options;
    const char *arguments[3] = {}; // command, then its arguments
    int argument_count = 0;
    bool watch_option_given = false;
    bool help = false;
    bool version = false;
};

bool set_limit(command_line &line, std::string_view option, const char *text) {
    constexpr double longest_s = 1e9;
    line.watch_option_given = true;
    if (option == "--count") {
        return parse_number(text, line.options.count) && line.options.count > 0;
    }
    double seconds = 0;
    if (!parse_number(text, seconds) || !(seconds >= 0 && seconds <= longest_s)) {
        return false;
    }
    line.options.timeout_ms = static_cast<int64_t>(seconds * 1000);
    return true;
}

bool set_flag(command_line &line, std::string_view option) {
    if (option == "--json") {
        line.options.json = true;
    } else if (option == "--initial") {
        line.options.initial = line.watch_option_given = true;
    } else if (option == "--help" || option == "-h") {
        line.help = true;
    } else if (option == "--version") {
        line.version = true;
    } else {
        return false;
    }
    return true;
}

/** @return 0 or the exit status */
int parse_arguments(int count, char **arguments, command_line &line) {
    bool options_ended = false;
    for (int i = 1; i < count; ++i) {
        const std::string_view argument = arguments[i];
        if (!options_ended && argument == "--") {
            options_ended = true;
        } else if (options_ended || !is_option(arguments[i])) {
            if (line.argument_count == static_cast<int>(std::size(line.arguments))) {
                return usage_error("too many arguments: ", arguments[i]);
            }
            line.arguments[line.argument_count++] = arguments[i];
        } else if (argument == "--count" || argument == "--timeout") {
            if (i + 1 == count || !set_limit(line, argument, arguments[i + 1])) {
                return usage_error(arguments[i], " needs a positive number");
            }
            ++i;
        } else if (!set_flag(line, argument)) {
            return usage_error("unknown option ", arguments[i]);
        }
    }
    return 0;
}

int run_command(const command &chosen, command_line &line) {
    const int given = line.argument_count - 1;
    if (given < chosen.least_arguments) {
        return usage_error("too few arguments for ", chosen.name);
    }
    if (given > chosen.most_arguments) {
        return usage_error("too many arguments for ", chosen.name);
    }
    if (line.watch_option_given && !chosen.takes_watch_options) {
        return usage_error("--initial, --count and --timeout belong to watch, not to ",
                           chosen.name);
    }
    if (chosen.least_arguments == 0) {
        line.options.pattern = line.arguments[1];
    } else {
        line.options.name = line.arguments[1];
        line.options.value = line.arguments[2];
    }
    return chosen.run(line.options);
}

int run(int count, char **arguments) {
    command_line line;
    if (const int status = parse_arguments(count, arguments, line)) {
        return status;
    }
    if (line.help || line.version) {
        const int printed = line.help ? printf("%s", help_text) : printf("kt-tag %s\n", KT_VERSION);
        return printed < 0 || fflush(stdout) != 0 ? 1 : 0;
    }
    if (line.argument_count == 0) {
        return usage_error("a command is missing", "");
    }
    for (const command &known : commands) {
        if (strcmp(known.name, line.arguments[0]) == 0) {
            return run_command(known, line);
        }
    }
    return usage_error("unknown command ", line.arguments[0]);
}

} // namespace

int main(int argc, char **argv) {
    (void)signal(SIGPIPE, SIG_IGN); // a closed pipe shows as a failed write
    try {
        return run(argc, argv);
    } catch (const std::exception &problem) {
        (void)fprintf(stderr, "kt-tag: %s\n", problem.what());
        return 1;
    }
}
