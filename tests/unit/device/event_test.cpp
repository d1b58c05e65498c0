#include "device_fixture.h"

namespace {

class event : public device_fixture {};

TEST_F(event, error_passive) {
    can_proprietary_event_error_passive();
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("CAN Proprietary:CAN Error Passive|Host 192.0.2.7|"
                            "CAN Proprietary CAN Error Passive"));
}

TEST_F(event, bus_off) {
    can_proprietary_event_bus_off();
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("CAN Proprietary:CAN bus-off|Host 192.0.2.7|"
                            "CAN Proprietary CAN bus-off"));
}

TEST_F(event, transaction_outcomes_name_device_and_transaction) {
    can_proprietary_event_transaction_success("pump", "speed");
    can_proprietary_event_transaction_failed("pump", "speed");
    can_proprietary_event_transaction_timeout("pump", "speed");
    EXPECT_THAT(
        g_fake_event_agent.take(),
        ElementsAre(
            "CAN Proprietary:Transaction Success|Host 192.0.2.7|pump/speed transaction success",
            "CAN Proprietary:Transaction Failed|Host 192.0.2.7|pump/speed transaction failed",
            "CAN Proprietary:Transaction Timeout|Host 192.0.2.7|pump/speed transaction timeout"));
}

TEST_F(event, names_are_text_and_no_format) {
    can_proprietary_event_transaction_failed("%s%n", "%d");
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("CAN Proprietary:Transaction Failed|Host 192.0.2.7|"
                            "%s%n/%d transaction failed"));
}

TEST_F(event, message_is_cut_at_1023_bytes) {
    const std::string front =
        "CAN Proprietary:Transaction Success|Host 192.0.2.7|" + std::string(900, 'd') + "/";
    can_proprietary_event_transaction_success(std::string(900, 'd').c_str(),
                                              std::string(102, 't').c_str());
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre(front + std::string(102, 't') + " transaction success"));
    can_proprietary_event_transaction_success(std::string(900, 'd').c_str(),
                                              std::string(103, 't').c_str());
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre(front + std::string(103, 't') + " transaction succes"));
}

TEST_F(event, host_is_the_address_of_interface_0) {
    g_fake_event_agent.address = "255.255.255.255";
    can_proprietary_event_bus_off();
    EXPECT_EQ(g_fake_event_agent.address_asked_of, 0);
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("CAN Proprietary:CAN bus-off|Host 255.255.255.255|"
                            "CAN Proprietary CAN bus-off"));
}

TEST_F(event, gateway_without_an_address_still_reports) {
    g_fake_event_agent.address = nullptr;
    can_proprietary_event_bus_off();
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("CAN Proprietary:CAN bus-off|Host 0.0.0.0|"
                            "CAN Proprietary CAN bus-off"));
}

TEST_F(event, one_handle_serves_all_events) {
    can_proprietary_event_create();
    can_proprietary_event_create();
    can_proprietary_event_bus_off();
    can_proprietary_event_error_passive();
    EXPECT_EQ(g_fake_event_agent.created, 1);
    EXPECT_FALSE(g_fake_event_agent.callback);
    can_proprietary_event_destroy();
    EXPECT_EQ(g_fake_event_agent.destroyed, 1);
    can_proprietary_event_destroy();
    EXPECT_EQ(g_fake_event_agent.destroyed, 1);
}

TEST_F(event, sender_that_finds_no_handle_makes_one) {
    g_fake_event_agent.missing = true;
    can_proprietary_event_create();
    can_proprietary_event_bus_off();
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("no handle|CAN Proprietary:CAN bus-off|Host 192.0.2.7|"
                            "CAN Proprietary CAN bus-off"));
    g_fake_event_agent.missing = false;
    can_proprietary_event_bus_off();
    EXPECT_EQ(g_fake_event_agent.created, 1);
    EXPECT_THAT(g_fake_event_agent.take(),
                ElementsAre("CAN Proprietary:CAN bus-off|Host 192.0.2.7|"
                            "CAN Proprietary CAN bus-off"));
}

} // namespace
