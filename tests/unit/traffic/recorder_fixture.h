#ifndef KT_TESTS_RECORDER_FIXTURE_H
#define KT_TESTS_RECORDER_FIXTURE_H

#include "captured_log.h"
#include "core/log.h"
#include "fake_clock.h"
#include "fake_semaphore.h"
#include "json_fault.h"
#include "mutex_fault.h"
#include "platform/scratch_folder.h"
#include "traffic/recorder.h"

#include <gmock/gmock.h>
#include <linux/can.h>
#include <memory>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using messages = std::vector<std::string>;

constexpr const char *csv_header = "No.,Time,Direction,CAN-ID,RTR,Data length,Data\n";

/** A recorder of two ports whose times began at 0. */
class recorder_fixture : public scratch_root {
protected:
    recorder_fixture() {
        g_fake_timestamp_us = 0;
        g_fake_semaphore = {};
        EXPECT_EQ(can_proprietary_traffic_init(2), 0);
        for (const int port : {0, 1}) {
            EXPECT_EQ(can_proprietary_traffic_init_start_time(port), 0);
        }
    }
    ~recorder_fixture() override {
        can_proprietary_traffic_deinit();
        EXPECT_EQ(g_fake_semaphore.held, 0);
    }

    std::string csv_path(int port = 0) const { return file(port, ".csv"); }
    std::string json_path(int port = 0) const { return file(port, ".json"); }
    std::string csv(int port = 0) const { return read(csv_path(port)); }
    std::string json(int port = 0) const { return read(json_path(port)); }

    static int state(int port = 0) { return can_proprietary_traffic_get_control_state(port); }

    static void start(int port = 0) { ASSERT_EQ(can_proprietary_traffic_start(port), 0); }

    static int record(std::vector<uint8_t> data = {}, uint32_t id = 0x123, uint16_t port = 0) {
        return can_proprietary_traffic_record_log(
            data.data(), TRAFFIC_SEND, id, 0, static_cast<uint8_t>(data.size()), port);
    }

    static int record_on(uint16_t port) { return record({}, 0x123, port); }

private:
    std::string file(int port, const char *extension) const {
        return path("run/tmp/kt-can-proprietary/traffic-log") + std::to_string(port) + extension;
    }
};

#endif
