#ifndef KT_DEMO_DEVICE_DEVICE_H
#define KT_DEMO_DEVICE_DEVICE_H

#include "options.h"

#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <linux/can.h>
#include <string>

constexpr int64_t never_ms = std::numeric_limits<int64_t>::max();

struct waiting_frame {
    int64_t due_ms;
    can_frame frame;
};

struct drive_state {
    uint8_t counter = 0;
    uint8_t command = 0;
    int16_t target_rpm = 0;
    double speed_rpm = 0;
    int64_t updated_ms = -1;
};

struct sensor_state {
    int64_t next_fast_ms = 0;
    int64_t next_slow_ms = 0;
    uint32_t samples = 0;
};

struct legacy_state {
    int64_t next_request_ms = 0;
    uint8_t answers = 0;
    uint8_t commands = 0;
    uint16_t last_command = 0;
};

/** All times are milliseconds since the start. One thread. */
struct device {
    std::string port;
    int fd = -1;
    bool extended = false;
    bool json = false; // how it reports
    int64_t interval_ms = 250;
    faults fault;
    std::deque<waiting_frame> outbox;
    drive_state drive;
    sensor_state sensor;
    legacy_state legacy;
};

/** A kind of node: what it does with a received frame and when its time has come. */
struct node_kind {
    const char *name;
    void (*receive)(device &unit, const can_frame &frame, uint32_t id, int64_t now_ms);
    int64_t (*run)(device &unit, int64_t now_ms); // returns when it wants to run next
};

extern const node_kind drive_node;
extern const node_kind sensor_node;
extern const node_kind legacy_node;

#endif
