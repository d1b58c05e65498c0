#ifndef KT_DEMO_DEVICE_OPTIONS_H
#define KT_DEMO_DEVICE_OPTIONS_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

inline constexpr char program_name[] = "kt-demo-device";

/** What the device does wrong on purpose; a script may change it while the device runs. */
struct faults {
    bool silent = false;         // neither answers nor sends
    bool wrong_length = false;   // every frame one byte short
    bool wrong_constant = false; // the constant byte of every frame inverted
    int64_t late_ms = 0;         // every frame waits this long before it is sent
};

struct options {
    std::string port;
    std::vector<std::string> nodes; // "drive" when none was named
    std::string script;             // path, empty for none
    faults initial_faults;
    int64_t silent_after_ms = -1; // from the start, -1 for never
    int64_t interval_ms = 250;    // between two frames of the sensor
    bool extended = false;        // 29-bit identifiers
    bool json = false;
};

/**
 * Read the command line. Prints help, version and what is wrong.
 * @retval -1  options are complete, go on
 * @return the exit status otherwise
 */
int parse_options(std::span<char *const> arguments, options &result);

/** A decimal number of milliseconds, 0 to one day. @return -1 when it is none */
int64_t parse_milliseconds(const char *text);

#endif
