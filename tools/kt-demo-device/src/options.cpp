#include "options.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>

namespace {

constexpr int64_t day_ms = 86400000;

constexpr const char *help_text =
    "Usage: kt-demo-device --port NAME [options]\n"
    "A CAN device for demonstrations and tests; its frames are described in the README.\n"
    "\n"
    "  --port NAME          CAN interface, e.g. can0\n"
    "  --node NAME          drive (default), sensor or legacy; may be given several times\n"
    "  --extended           29-bit identifiers\n"
    "  --interval MS        time between two frames of the sensor (default 250)\n"
    "  --silent-after MS    fall silent this long after the start\n"
    "  --late MS            send every frame this much later\n"
    "  --wrong-length       send every frame one byte short\n"
    "  --wrong-constant     invert the constant byte of every frame\n"
    "  --script FILE        lines of MS ACTION: send FRAME, silent on|off, late MS,\n"
    "                       wrong-length on|off, wrong-constant on|off, exit\n"
    "  --help, --version\n";

constexpr std::array long_options{
    option{"port", required_argument, nullptr, 'p'},
    option{"node", required_argument, nullptr, 'n'},
    option{"extended", no_argument, nullptr, 'e'},
    option{"interval", required_argument, nullptr, 'i'},
    option{"silent-after", required_argument, nullptr, 's'},
    option{"late", required_argument, nullptr, 'l'},
    option{"wrong-length", no_argument, nullptr, 'w'},
    option{"wrong-constant", no_argument, nullptr, 'c'},
    option{"script", required_argument, nullptr, 'f'},
    option{"help", no_argument, nullptr, 'h'},
    option{"version", no_argument, nullptr, 'v'},
    option{nullptr, 0, nullptr, 0},
};

bool read_milliseconds(const char *name, int64_t &value) {
    value = parse_milliseconds(optarg);
    if (value < 0) {
        (void)fprintf(stderr, "kt-demo-device: --%s: no time in ms: %s\n", name, optarg);
    }
    return value >= 0;
}

/** @retval -1 taken, else the exit status */
int apply(int letter, options &result) {
    switch (letter) {
    case 'p':
        result.port = optarg;
        return -1;
    case 'n':
        result.nodes.emplace_back(optarg);
        return -1;
    case 'e':
        result.extended = true;
        return -1;
    case 'i':
        return read_milliseconds("interval", result.interval_ms) ? -1 : 2;
    case 's':
        return read_milliseconds("silent-after", result.silent_after_ms) ? -1 : 2;
    case 'l':
        return read_milliseconds("late", result.initial_faults.late_ms) ? -1 : 2;
    case 'w':
        result.initial_faults.wrong_length = true;
        return -1;
    case 'c':
        result.initial_faults.wrong_constant = true;
        return -1;
    case 'f':
        result.script = optarg;
        return -1;
    case 'h':
        (void)fputs(help_text, stdout);
        return 0;
    case 'v':
        (void)puts("kt-demo-device " KT_VERSION);
        return 0;
    default: // getopt_long has said what is wrong
        return 2;
    }
}

} // namespace

int64_t parse_milliseconds(const char *text) {
    char *end = nullptr;
    const long long value = strtoll(text, &end, 10);
    const bool number = end != text && *end == '\0';
    return number && value >= 0 && value <= day_ms ? value : -1;
}

int parse_options(int argc, char *argv[], options &result) {
    int letter = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): before any thread
    while ((letter = getopt_long(argc, argv, "", long_options.data(), nullptr)) != -1) {
        const int status = apply(letter, result);
        if (status >= 0) {
            return status;
        }
    }
    if (optind < argc) {
        (void)fprintf(stderr, "kt-demo-device: unknown argument %s\n", argv[optind]);
        return 2;
    }
    if (result.port.empty()) {
        (void)fputs("kt-demo-device: --port is missing\n", stderr);
        return 2;
    }
    if (result.interval_ms == 0) {
        (void)fputs("kt-demo-device: --interval must be above 0\n", stderr);
        return 2;
    }
    if (result.nodes.empty()) {
        result.nodes.emplace_back("drive");
    }
    return -1;
}
