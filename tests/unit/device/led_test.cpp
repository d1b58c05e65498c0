#include "device_fixture.h"

namespace {

constexpr int light_of[] = {LED_GREEN, LED_RED, LED_BLINK, LED_BLINK};
constexpr const char *order_of[] = {
    "set 1 0 0 0", "set 3 0 0 0", "set 4 2 50 1000", "set 4 1 1000 0"};

class led_of_service : public device_fixture {
protected:
    led_of_service() {
        can_proprietary_led_init();
        (void)g_fake_led.take();
        EXPECT_EQ(can_proprietary_diag_create_infos(1), 0);
        record = can_proprietary_diag_get(0);
    }

    static std::vector<std::string> set(int state) {
        can_proprietary_led_set(state);
        return g_fake_led.take();
    }

    /** Forget what was set and let the platform show a state. */
    static void begin_with(int remembered, int shown) {
        can_proprietary_led_init();
        if (remembered >= 0) {
            can_proprietary_led_set(remembered);
        }
        g_fake_led.state = shown;
        (void)g_fake_led.take();
    }

    void add(bool enabled, transaction_result result) const {
        const uint32_t slot = can_proprietary_diag_register(0, "device", "name", enabled);
        record->slots[slot].state = result;
    }

    std::vector<std::string> update() const {
        EXPECT_THAT(messages_of([this] { can_proprietary_led_update(record); }), IsEmpty());
        return g_fake_led.take();
    }

    diag_record *record = nullptr;
};

TEST_F(led_of_service, is_led_3_and_off_at_first) {
    can_proprietary_led_init();
    EXPECT_THAT(g_fake_led.take(), ElementsAre("get 3", "set 0 0 0 0"));
}

TEST_F(led_of_service, is_off_and_given_back_at_the_end) {
    can_proprietary_led_release();
    EXPECT_THAT(g_fake_led.take(), ElementsAre("set 0 0 0 0", "free"));
    EXPECT_THAT(set(LED_BUS_OFF), IsEmpty());
}

TEST_F(led_of_service, each_state_gives_its_order) {
    for (const int state : {LED_NORMAL, LED_BUS_OFF, LED_ERROR_PASSIVE, LED_TRANSACTION_PROBLEM}) {
        begin_with(-1, LED_OFF);
        EXPECT_THAT(set(state), ElementsAre(order_of[state])) << state;
    }
}

TEST_F(led_of_service, every_state_after_every_other) {
    // Rows: remembered; columns: set next. 1: ordered, 0: nothing to do.
    constexpr int ordered[4][4] = {{0, 1, 1, 1}, {1, 0, 1, 0}, {1, 1, 0, 0}, {1, 1, 1, 0}};
    for (int before = 0; before < 4; before++) {
        for (int next = 0; next < 4; next++) {
            begin_with(before, light_of[before]);
            const auto expected = ordered[before][next] == 1
                                      ? std::vector<std::string>{order_of[next]}
                                      : std::vector<std::string>{};
            EXPECT_EQ(set(next), expected) << before << " then " << next;
        }
    }
}

TEST_F(led_of_service, state_that_the_light_already_shows_is_remembered) {
    begin_with(-1, LED_GREEN);
    EXPECT_THAT(set(LED_NORMAL), IsEmpty());
    begin_with(LED_NORMAL, LED_RED);
    EXPECT_THAT(set(LED_BUS_OFF), IsEmpty());
    EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), IsEmpty()); // outranked: bus off is remembered
    begin_with(LED_NORMAL, LED_BLINK);
    EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), IsEmpty());
    g_fake_led.state = LED_GREEN;
    EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), IsEmpty()); // remembered
}

TEST_F(led_of_service, normal_and_bus_off_look_at_the_light_not_at_what_is_remembered) {
    begin_with(LED_NORMAL, LED_OFF);
    EXPECT_THAT(set(LED_NORMAL), ElementsAre(order_of[LED_NORMAL]));
    begin_with(LED_BUS_OFF, LED_OFF);
    EXPECT_THAT(set(LED_BUS_OFF), ElementsAre(order_of[LED_BUS_OFF]));
}

TEST_F(led_of_service, error_passive_looks_at_what_is_remembered_not_at_the_light) {
    begin_with(LED_ERROR_PASSIVE, LED_OFF);
    EXPECT_THAT(set(LED_ERROR_PASSIVE), IsEmpty());
    begin_with(LED_TRANSACTION_PROBLEM, LED_BLINK);
    EXPECT_THAT(set(LED_ERROR_PASSIVE), ElementsAre(order_of[LED_ERROR_PASSIVE]));
}

TEST_F(led_of_service, bus_problem_outranks_a_transaction_problem_until_it_is_over) {
    begin_with(LED_ERROR_PASSIVE, LED_BLINK);
    EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), IsEmpty());
    EXPECT_THAT(set(LED_NORMAL), ElementsAre(order_of[LED_NORMAL]));
    EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), ElementsAre(order_of[LED_TRANSACTION_PROBLEM]));
}

TEST_F(led_of_service, unknown_state_is_logged) {
    for (const int state : {4, -1, 100}) {
        EXPECT_THAT(messages_of([state] { can_proprietary_led_set(state); }),
                    ElementsAre("can_proprietary_led_set|unknown led_state " +
                                std::to_string(state) + "\n"));
    }
    EXPECT_THAT(g_fake_led.take(), IsEmpty());
}

TEST_F(led_of_service, without_an_led_nothing_is_set) {
    can_proprietary_led_release();
    g_fake_led.missing = true;
    can_proprietary_led_init();
    (void)g_fake_led.take();
    EXPECT_THAT(messages_of([] {
                    for (int state = -1; state < 6; state++) {
                        can_proprietary_led_set(state);
                    }
                }),
                IsEmpty());
    EXPECT_THAT(messages_of([this] { can_proprietary_led_update(record); }),
                ElementsAre("can_proprietary_led_update|can_proprietary_led is NULL\n"));
    EXPECT_THAT(g_fake_led.take(), IsEmpty());
}

TEST_F(led_of_service, update_without_a_record_logs_an_empty_line) {
    EXPECT_THAT(messages_of([] { can_proprietary_led_update(nullptr); }),
                ElementsAre("can_proprietary_led_update|\n"));
    EXPECT_THAT(g_fake_led.take(), IsEmpty());
}

TEST_F(led_of_service, update_blinks_for_a_failed_or_timed_out_transaction) {
    for (const transaction_result result : {RESULT_FAILED, RESULT_TIMEOUT}) {
        can_proprietary_diag_forget_transactions(0);
        begin_with(LED_NORMAL, LED_GREEN);
        add(true, RESULT_SUCCESS);
        add(true, result);
        EXPECT_THAT(update(), ElementsAre("set 4 1 1000 0"));
        EXPECT_THAT(update(), IsEmpty());
        g_fake_led.state = LED_GREEN;
        EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), IsEmpty()); // 3 is remembered
    }
}

TEST_F(led_of_service, update_shows_normal_when_nothing_failed) {
    begin_with(LED_TRANSACTION_PROBLEM, LED_BLINK);
    add(true, RESULT_SUCCESS);
    add(true, RESULT_NONE);
    add(false, RESULT_FAILED);
    add(false, RESULT_TIMEOUT);
    EXPECT_THAT(update(), ElementsAre("set 1 0 0 0"));
    EXPECT_THAT(update(), IsEmpty());
    EXPECT_THAT(set(LED_TRANSACTION_PROBLEM), ElementsAre("set 4 1 1000 0")); // 0 is remembered
}

TEST_F(led_of_service, update_without_any_transaction_shows_normal) {
    EXPECT_THAT(update(), ElementsAre("set 1 0 0 0"));
}

TEST_F(led_of_service, update_sees_the_last_of_256_transactions) {
    g_fake_led.state = LED_GREEN;
    for (int i = 0; i < 255; i++) {
        add(true, RESULT_SUCCESS);
    }
    EXPECT_THAT(update(), IsEmpty());
    add(true, RESULT_FAILED);
    EXPECT_THAT(update(), ElementsAre("set 4 1 1000 0"));
}

TEST_F(led_of_service, update_does_nothing_while_the_bus_has_a_problem) {
    add(true, RESULT_FAILED);
    const struct {
        canbus_state state;
        bool problem;
    } states[] = {{CANBUS_NORMAL, false},
                  {CANBUS_ERROR_ACTIVE, false},
                  {CANBUS_ERROR_PASSIVE, true},
                  {CANBUS_BUS_OFF, true}};
    for (const auto &state : states) {
        begin_with(LED_NORMAL, LED_GREEN);
        can_proprietary_diag_set_bus_state(0, state.state);
        EXPECT_EQ(update().empty(), state.problem) << state.state;
    }
}

} // namespace
