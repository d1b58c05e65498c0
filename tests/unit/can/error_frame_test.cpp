#include "can/error_frame.h"
#include "can_device_fake.h"
#include "can_journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/can/error.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class error_frame : public ::testing::Test {
protected:
    error_frame() {
        can_device_reset();
        module.port_index = 2;
    }
    ~error_frame() override { can_device_reset(); }

    can_lines notify(uint32_t classes, std::initializer_list<uint8_t> data = {}) {
        can_frame frame{};
        frame.can_id = CAN_ERR_FLAG | classes;
        frame.len = CAN_ERR_DLC;
        std::copy(data.begin(), data.end(), frame.data);
        can_error_notification(&module, &record, frame);
        return can_take_lines();
    }

    can_module module{};
    diag_record &record = can_device_record();
};

TEST_F(error_frame, bit_0_and_bit_1_errors_count_once_each_frame) {
    EXPECT_THAT(notify(CAN_ERR_PROT, {0, 0, 0x08}), IsEmpty());
    EXPECT_EQ(record.bitError, 1U);
    (void)notify(CAN_ERR_PROT, {0, 0, 0x10});
    EXPECT_EQ(record.bitError, 2U);
    (void)notify(CAN_ERR_PROT, {0, 0, 0x18});
    EXPECT_EQ(record.bitError, 3U);
    EXPECT_EQ(record.stuffError, 0U);
    EXPECT_EQ(record.crcError, 0U);
}

TEST_F(error_frame, stuff_errors_count) {
    (void)notify(CAN_ERR_PROT, {0, 0, 0x04});
    EXPECT_EQ(record.stuffError, 1U);
    EXPECT_EQ(record.bitError, 0U);
}

TEST_F(error_frame, errors_in_the_crc_sequence_count) {
    (void)notify(CAN_ERR_PROT, {0, 0, 0, 0x08});
    EXPECT_EQ(record.crcError, 1U);
    (void)notify(CAN_ERR_PROT, {0, 0, 0, 0x18}); // the CRC delimiter
    (void)notify(CAN_ERR_PROT, {0, 0, 0, 0x0a});
    EXPECT_EQ(record.crcError, 1U);
}

TEST_F(error_frame, one_frame_may_count_as_all_three) {
    (void)notify(CAN_ERR_PROT, {0, 0, 0x1c, 0x08});
    EXPECT_EQ(record.bitError, 1U);
    EXPECT_EQ(record.stuffError, 1U);
    EXPECT_EQ(record.crcError, 1U);
}

TEST_F(error_frame, other_protocol_errors_count_as_nothing) {
    (void)notify(CAN_ERR_PROT, {0, 0, 0xe3, 0x19});
    EXPECT_EQ(record.bitError, 0U);
    EXPECT_EQ(record.stuffError, 0U);
    EXPECT_EQ(record.crcError, 0U);
}

TEST_F(error_frame, without_the_protocol_class_nothing_is_counted) {
    (void)notify(CAN_ERR_CRTL, {0, 0x40, 0x1c, 0x08});
    EXPECT_EQ(record.bitError, 0U);
    EXPECT_EQ(record.stuffError, 0U);
    EXPECT_EQ(record.crcError, 0U);
}

TEST_F(error_frame, protocol_errors_are_counted_beside_the_other_classes) {
    EXPECT_THAT(notify(CAN_ERR_PROT | CAN_ERR_BUSOFF, {0, 0, 0x04}),
                ElementsAre("bus 2 Bus off", "event bus off", "led 1"));
    EXPECT_EQ(record.stuffError, 1U);
    EXPECT_EQ(record.busOffCount, 1U);
}

TEST_F(error_frame, bus_off_sets_the_state_the_event_and_the_led) {
    EXPECT_THAT(notify(CAN_ERR_BUSOFF), ElementsAre("bus 2 Bus off", "event bus off", "led 1"));
    EXPECT_EQ(record.busOffCount, 1U);
}

TEST_F(error_frame, bus_off_goes_before_restarted_and_controller) {
    EXPECT_THAT(notify(CAN_ERR_BUSOFF | CAN_ERR_RESTARTED | CAN_ERR_CRTL, {0, 0x40}),
                ElementsAre("bus 2 Bus off", "event bus off", "led 1"));
}

TEST_F(error_frame, restarted_is_normal_again) {
    EXPECT_THAT(notify(CAN_ERR_RESTARTED), ElementsAre("bus 2 Normal", "led 0"));
    EXPECT_THAT(notify(CAN_ERR_RESTARTED | CAN_ERR_CRTL, {0, 0x30}),
                ElementsAre("bus 2 Normal", "led 0"));
    EXPECT_EQ(record.busOffCount, 0U);
}

TEST_F(error_frame, back_to_error_active_is_normal_with_the_led_of_the_transactions) {
    EXPECT_THAT(notify(CAN_ERR_CRTL, {0, 0x40}), ElementsAre("bus 2 Normal", "led update"));
    EXPECT_THAT(notify(CAN_ERR_CRTL, {0, 0x7c}), ElementsAre("bus 2 Normal", "led update"));
}

TEST_F(error_frame, a_warning_is_error_active_with_the_led_of_the_transactions) {
    for (const uint8_t status : {uint8_t{0x04}, uint8_t{0x08}, uint8_t{0x0c}, uint8_t{0x3c}}) {
        EXPECT_THAT(notify(CAN_ERR_CRTL, {0, status}),
                    ElementsAre("bus 2 Error active", "led update"));
    }
}

TEST_F(error_frame, error_passive_sets_the_state_the_event_and_the_led) {
    for (const uint8_t status : {uint8_t{0x10}, uint8_t{0x20}, uint8_t{0x30}}) {
        EXPECT_THAT(notify(CAN_ERR_CRTL, {0, status}),
                    ElementsAre("bus 2 Error passive", "event error passive", "led 2"));
    }
}

TEST_F(error_frame, other_controller_states_mean_nothing) {
    for (const uint8_t status : {uint8_t{0}, uint8_t{0x01}, uint8_t{0x02}, uint8_t{0x83}}) {
        EXPECT_THAT(notify(CAN_ERR_CRTL, {0, status}), IsEmpty());
    }
}

TEST_F(error_frame, other_classes_mean_nothing) {
    EXPECT_THAT(
        notify(CAN_ERR_TX_TIMEOUT | CAN_ERR_LOSTARB | CAN_ERR_TRX | CAN_ERR_ACK | CAN_ERR_BUSERROR,
               {0, 0x40, 0x1c, 0x08}),
        IsEmpty());
    EXPECT_EQ(record.bitError, 0U);
    EXPECT_EQ(record.busOffCount, 0U);
}

} // namespace
