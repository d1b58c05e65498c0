#include "allocation_fault.h"
#include "device_fixture.h"

#include <cmath>

namespace {

/** Records of two ports and a service LED that shows normal. */
class diag : public device_fixture {
protected:
    diag() {
        can_proprietary_led_init();
        can_proprietary_led_set(LED_NORMAL);
        (void)g_fake_led.take();
        EXPECT_EQ(can_proprietary_diag_create_infos(2), 0);
    }

    static diag_record *port(uint32_t index) { return can_proprietary_diag_get(index); }

    static uint32_t add(const char *name = "t", bool enabled = true) {
        return can_proprietary_diag_register(0, "d", name, enabled);
    }

    static std::vector<std::string> events_of(uint32_t slot, transaction_result result) {
        can_proprietary_diag_set_result(0, slot, result);
        return g_fake_event_agent.take();
    }

    static std::string event(const char *name, const char *outcome) {
        return std::string("CAN Proprietary:Transaction ") + name +
               "|Host 192.0.2.7|d/t transaction " + outcome;
    }
};

TEST_F(diag, bus_states_are_texts) {
    EXPECT_STREQ(canbus_state_str[CANBUS_NORMAL], "Normal");
    EXPECT_STREQ(canbus_state_str[CANBUS_ERROR_ACTIVE], "Error active");
    EXPECT_STREQ(canbus_state_str[CANBUS_ERROR_PASSIVE], "Error passive");
    EXPECT_STREQ(canbus_state_str[CANBUS_BUS_OFF], "Bus off");
}

TEST_F(diag, records_are_zero_at_first) {
    ASSERT_NE(port(1), nullptr);
    EXPECT_NE(port(0), port(1));
    EXPECT_EQ(port(2), nullptr);
    EXPECT_EQ(port(UINT32_MAX), nullptr);
    const diag_record &record = *port(1);
    EXPECT_EQ(record.state, nullptr);
    for (const auto *counter : {&record.txCount,
                                &record.rxCount,
                                &record.crcError,
                                &record.bitError,
                                &record.stuffError,
                                &record.busOffCount,
                                &record.bit_count}) {
        EXPECT_EQ(*counter, 0U);
    }
    EXPECT_EQ(record.transaction_count, 0U);
    EXPECT_EQ(record.bit_rate, 0U);
    EXPECT_EQ(record.busLoading, 0.0);
}

TEST_F(diag, new_pass_has_new_records) {
    (void)add();
    can_proprietary_diag_release_infos();
    EXPECT_EQ(port(0), nullptr);
    EXPECT_EQ(can_proprietary_diag_create_infos(1), 0);
    EXPECT_EQ(port(0)->transaction_count, 0U);
    EXPECT_EQ(port(1), nullptr);
}

TEST_F(diag, want_of_memory_is_logged_and_leaves_no_record) {
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(
                        allocation_fault::sweep([] { return can_proprietary_diag_create_infos(2); },
                                                [](int result, int) {
                                                    EXPECT_EQ(result, -2);
                                                    EXPECT_EQ(port(0), nullptr);
                                                }),
                        1);
                }),
                ElementsAre("can_proprietary_diag_create_infos|malloc fail.\n"));
}

TEST_F(diag, port_without_a_record_is_ignored) {
    EXPECT_EQ(can_proprietary_diag_register(2, "d", "t", true), 0U);
    can_proprietary_diag_set_result(2, 0, RESULT_FAILED);
    can_proprietary_diag_set_bus_state(2, CANBUS_BUS_OFF);
    can_proprietary_diag_set_bit_rate(2, 3);
    can_proprietary_diag_update_bus_loading(2, 125000);
    can_proprietary_diag_forget_transactions(2);
    EXPECT_THAT(g_fake_event_agent.take(), IsEmpty());
}

TEST_F(diag, state_and_bit_rate_are_those_of_one_port) {
    can_proprietary_diag_set_bus_state(1, CANBUS_ERROR_PASSIVE);
    can_proprietary_diag_set_bit_rate(1, 5);
    EXPECT_STREQ(port(1)->state, "Error passive");
    EXPECT_EQ(port(1)->bit_rate, 500000U);
    EXPECT_EQ(port(0)->state, nullptr);
    can_proprietary_diag_set_bit_rate(1, 8);
    EXPECT_EQ(port(1)->bit_rate, 125000U);
}

TEST_F(diag, transaction_gets_the_first_free_slot) {
    EXPECT_EQ(add("first"), 0U);
    EXPECT_EQ(add("second", false), 1U);
    EXPECT_EQ(can_proprietary_diag_register(1, "d", "other port", true), 0U);
    EXPECT_EQ(port(0)->transaction_count, 2U);
    const diag_slot &slot = port(0)->slots[1];
    EXPECT_STREQ(slot.device_name, "d");
    EXPECT_STREQ(slot.transaction_name, "second");
    EXPECT_FALSE(slot.enabled);
    EXPECT_EQ(slot.state, 255);
    EXPECT_EQ(slot.failure_count, 0U);
}

TEST_F(diag, transaction_256_has_a_slot_and_257_reports_into_the_first) {
    for (uint32_t i = 0; i < 256; i++) {
        EXPECT_EQ(add(), i);
    }
    EXPECT_EQ(add("one too many"), 0U);
    EXPECT_EQ(port(0)->transaction_count, 256U);
    EXPECT_STREQ(port(0)->slots[0].transaction_name, "t");
    (void)events_of(255, RESULT_FAILED);
    EXPECT_EQ(port(0)->slots[255].failure_count, 1U);
    EXPECT_THAT(events_of(256, RESULT_FAILED), IsEmpty());
}

TEST_F(diag, forgotten_slots_are_free_again) {
    (void)add();
    (void)events_of(0, RESULT_TIMEOUT);
    can_proprietary_diag_forget_transactions(0);
    EXPECT_EQ(port(0)->transaction_count, 0U);
    EXPECT_EQ(port(0)->slots[0].device_name, nullptr);
    EXPECT_THAT(events_of(0, RESULT_FAILED), IsEmpty());
    EXPECT_EQ(add("again"), 0U);
    EXPECT_EQ(port(0)->slots[0].state, 255);
    EXPECT_EQ(port(0)->slots[0].failure_count, 0U);
}

TEST_F(diag, changed_result_raises_its_event) {
    (void)add();
    EXPECT_THAT(events_of(0, RESULT_SUCCESS), ElementsAre(event("Success", "success")));
    EXPECT_THAT(events_of(0, RESULT_FAILED), ElementsAre(event("Failed", "failed")));
    EXPECT_THAT(events_of(0, RESULT_TIMEOUT), ElementsAre(event("Timeout", "timeout")));
    EXPECT_THAT(events_of(0, RESULT_SUCCESS), ElementsAre(event("Success", "success")));
    EXPECT_THAT(events_of(0, RESULT_SUCCESS), IsEmpty());
}

TEST_F(diag, ten_failures_in_a_row_are_one_event_and_a_count_of_10) {
    (void)add();
    EXPECT_THAT(events_of(0, RESULT_FAILED), ElementsAre(event("Failed", "failed")));
    for (int i = 1; i < 10; i++) {
        EXPECT_THAT(events_of(0, RESULT_FAILED), IsEmpty());
    }
    EXPECT_EQ(port(0)->slots[0].failure_count, 10U);
    EXPECT_EQ(events_of(0, RESULT_TIMEOUT).size(), 1U);
    EXPECT_EQ(port(0)->slots[0].failure_count, 11U);
    (void)events_of(0, RESULT_SUCCESS);
    EXPECT_EQ(port(0)->slots[0].failure_count, 11U);
}

TEST_F(diag, failure_and_timeout_set_the_led_and_success_updates_it) {
    (void)add();
    for (const transaction_result result : {RESULT_FAILED, RESULT_TIMEOUT}) {
        can_proprietary_diag_set_result(0, 0, result);
        EXPECT_THAT(g_fake_led.take(), ElementsAre("set 4 1 1000 0"));
        can_proprietary_diag_set_result(0, 0, RESULT_SUCCESS);
        EXPECT_THAT(g_fake_led.take(), ElementsAre("set 1 0 0 0"));
    }
}

TEST_F(diag, success_keeps_the_led_while_another_transaction_fails) {
    (void)add();
    (void)add("other");
    can_proprietary_diag_set_result(0, 0, RESULT_FAILED);
    can_proprietary_diag_set_result(0, 1, RESULT_FAILED);
    (void)g_fake_led.take();
    can_proprietary_diag_set_result(0, 1, RESULT_SUCCESS);
    EXPECT_THAT(g_fake_led.take(), IsEmpty());
    EXPECT_EQ(g_fake_led.state, LED_BLINK);
}

TEST_F(diag, error_passive_bus_keeps_its_led_when_a_transaction_fails) {
    (void)add();
    can_proprietary_diag_set_bus_state(0, CANBUS_ERROR_PASSIVE);
    can_proprietary_led_set(LED_ERROR_PASSIVE);
    (void)g_fake_led.take();
    can_proprietary_diag_set_result(0, 0, RESULT_FAILED);
    can_proprietary_diag_set_result(0, 0, RESULT_SUCCESS);
    EXPECT_THAT(g_fake_led.take(), IsEmpty());
}

TEST_F(diag, ports_share_the_led) {
    (void)add();
    (void)can_proprietary_diag_register(1, "d", "other port", true);
    can_proprietary_diag_set_bus_state(0, CANBUS_BUS_OFF);
    can_proprietary_led_set(LED_BUS_OFF);
    (void)g_fake_led.take();
    can_proprietary_diag_set_result(1, 0, RESULT_FAILED);
    EXPECT_THAT(g_fake_led.take(), IsEmpty()); // outranked, whichever port it is of
    can_proprietary_diag_set_result(1, 0, RESULT_SUCCESS);
    EXPECT_THAT(g_fake_led.take(), ElementsAre("set 1 0 0 0")); // port 1 has no problem
}

TEST_F(diag, transactions_without_a_slot_report_as_the_first) {
    for (uint32_t i = 0; i < 256; i++) {
        (void)can_proprietary_diag_register(0, "d", i == 0 ? "first" : "t", true);
    }
    const uint32_t slot = add("one too many");
    EXPECT_THAT(events_of(slot, RESULT_TIMEOUT),
                ElementsAre("CAN Proprietary:Transaction Timeout|Host 192.0.2.7|"
                            "d/first transaction timeout"));
    EXPECT_THAT(events_of(0, RESULT_TIMEOUT), IsEmpty());
    EXPECT_EQ(port(0)->slots[0].failure_count, 2U);
}

TEST_F(diag, counters_count) {
    diag_count(port(0)->rxCount);
    diag_count(port(0)->rxCount);
    EXPECT_EQ(port(0)->rxCount, 2U);
    port(0)->txCount = UINT32_MAX;
    diag_count(port(0)->txCount);
    EXPECT_EQ(port(0)->txCount, UINT64_C(0x100000000));
}

TEST_F(diag, frame_has_67_bits_and_8_for_each_byte) {
    diag_count_bits(port(0), 0);
    EXPECT_EQ(port(0)->bit_count, 67U);
    diag_count_bits(port(0), 8);
    EXPECT_EQ(port(0)->bit_count, 67U + 131U);
}

class bus_load : public diag {
protected:
    static double load(uint64_t bits, uint32_t elapsed_ms, uint32_t bit_rate) {
        port(0)->bit_count = bits;
        g_fake_clock_ms += elapsed_ms;
        can_proprietary_diag_update_bus_loading(0, bit_rate);
        EXPECT_EQ(port(0)->bit_count, 0U);
        return port(0)->busLoading;
    }
};

TEST_F(bus_load, is_percent_with_three_decimals) {
    EXPECT_DOUBLE_EQ(load(12500, 1000, 125000), 10.0);
    EXPECT_DOUBLE_EQ(load(1, 1000, 1000000), 0.0);
    EXPECT_DOUBLE_EQ(load(12345, 1000, 1000000), 1.234); // cut, not rounded
    EXPECT_DOUBLE_EQ(load(0, 1000, 125000), 0.0);
}

TEST_F(bus_load, first_computation_counts_from_clock_value_0) {
    EXPECT_DOUBLE_EQ(load(12500, 4000, 125000), 2.5);
    EXPECT_DOUBLE_EQ(load(12500, 1000, 125000), 10.0);
}

TEST_F(bus_load, time_is_right_across_the_wrap_of_the_clock) {
    g_fake_clock_ms = UINT32_MAX - 499;
    (void)load(0, 0, 125000);
    EXPECT_DOUBLE_EQ(load(12500, 1000, 125000), 10.0);
    EXPECT_EQ(g_fake_clock_ms, 500U);
}

TEST_F(bus_load, wraps_at_65_536_percent) {
    EXPECT_DOUBLE_EQ(load(65535, 1000, 100000), 65.535);
    EXPECT_DOUBLE_EQ(load(65536, 1000, 100000), 0.0);
    EXPECT_DOUBLE_EQ(load(100000, 1000, 100000), 34.464);
    EXPECT_DOUBLE_EQ(load(131072 + 1000, 1000, 100000), 1.0);
}

TEST_F(bus_load, zero_time_or_bit_rate_gives_a_number) {
    EXPECT_EQ(load(0, 0, 125000), 0.0);
    EXPECT_EQ(load(100, 0, 125000), 65.535);
    EXPECT_EQ(load(100, 1000, 0), 65.535);
    EXPECT_EQ(load(UINT64_MAX, 1, 1), 65.535);
    EXPECT_DOUBLE_EQ(load(12500, 1000, 125000), 10.0);
}

TEST_F(bus_load, ports_are_computed_apart) {
    port(1)->bit_count = 7;
    (void)load(12500, 1000, 125000);
    EXPECT_EQ(port(1)->bit_count, 7U);
    EXPECT_EQ(port(1)->busLoading, 0.0);
}

} // namespace
