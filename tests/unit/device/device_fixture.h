#ifndef KT_TESTS_DEVICE_FIXTURE_H
#define KT_TESTS_DEVICE_FIXTURE_H

#include "captured_log.h"
#include "device/diag.h"
#include "device/event.h"
#include "device/led.h"
#include "fake_clock.h"
#include "fake_event_agent.h"
#include "fake_led.h"

#include <kt/platform.h>

#include <gmock/gmock.h>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/** Fresh doubles, no records, no LED, no event handle. */
class device_fixture : public ::testing::Test {
protected:
    device_fixture() {
        g_fake_led = {};
        g_fake_event_agent = {};
        g_fake_clock_ms = 0;
    }
    ~device_fixture() override {
        can_proprietary_diag_release_infos();
        can_proprietary_led_release();
        can_proprietary_event_destroy();
    }
};

#endif
