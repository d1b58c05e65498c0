#ifndef KT_DEMO_DEVICE_REPORT_H
#define KT_DEMO_DEVICE_REPORT_H

#include "device.h"

#include <string>
#include <vector>

/*
 * What the device tells on standard output, a line each: text, or one JSON object with --json. A
 * line that cannot be written shows in program::output_status().
 */

/** It listens: "ready PORT NODE..." */
void report_ready(const device &unit, const std::vector<std::string> &nodes);

/** "PORT: TEXT", or an object with port, node and event. */
void report(const device &unit, const char *node, const char *event, const std::string &text);

/** "PORT: EVENT VALUE", or an object with port, node, event and value. */
void report_value(const device &unit, const char *node, const char *event, unsigned value);

#endif
