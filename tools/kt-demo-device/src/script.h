#ifndef KT_DEMO_DEVICE_SCRIPT_H
#define KT_DEMO_DEVICE_SCRIPT_H

#include <cstdint>
#include <linux/can.h>
#include <string>
#include <vector>

enum class script_action { send, silent, late, wrong_length, wrong_constant, exit };

struct script_step {
    int64_t at_ms = 0; // from the start
    script_action action = script_action::exit;
    int64_t value = 0; // late: ms; switches: 0 or 1
    can_frame frame{}; // send
};

/**
 * Read a script: one "MS ACTION [ARGUMENT]" per line, empty lines and lines that begin with "#" are
 * skipped. What is wrong goes to standard error with file and line.
 *
 * @param[out] steps  in the order of their times; untouched on failure
 * @retval  0 read
 * @retval -1 the file cannot be read or a line is wrong
 */
int read_script(const std::string &path, std::vector<script_step> &steps);

#endif
