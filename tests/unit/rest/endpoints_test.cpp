#include "rest/endpoints.h"
#include "rest/handlers.h"
#include "rest_fixture.h"

namespace {

class endpoints : public rest_unit {};

struct row {
    int method;
    const char *path;
    rest_callback handler;
    const char *logged;
};

#define NAMED(handler) handler, #handler

const row rows[] = {
    {2, "/interface", NAMED(can_proprietary_rest_get_interface_config)},
    {4,
     "/interface",
     can_proprietary_rest_patch_interface_config,
     "can_proprietary_rest_put_basic_setting_config"},
    {1, "/action", NAMED(can_proprietary_post_rest_action)},
    {2, "/device", NAMED(can_proprietary_rest_get_device_config)},
    {1, "/device", NAMED(can_proprietary_rest_post_device_config)},
    {1, "/transaction", NAMED(can_proprietary_rest_post_transaction_config)},
    {4, "/transaction", NAMED(can_proprietary_rest_patch_transaction_config)},
    {3, "/frame", NAMED(can_proprietary_rest_put_frame_config)},
    {4, "/device", NAMED(can_proprietary_rest_patch_device_name_config)},
    {2, "/overview", NAMED(can_proprietary_rest_get_overview_config)},
    {5, "/device", NAMED(can_proprietary_rest_delete_device_config)},
    {5, "/transaction", NAMED(can_proprietary_rest_delete_transaction_config)},
    {2, "/config-change", NAMED(can_proprietary_rest_get_config_change)},
    {2, "/usedCANIds", NAMED(can_proprietary_rest_get_usedCANIds_config)},
    {1, "/traffic", NAMED(can_proprietary_rest_post_traffic_log)},
    {2, "/traffic", NAMED(can_proprietary_rest_get_traffic_log)},
    {2, "/traffic-export", NAMED(can_proprietary_rest_export_traffic_csv)},
    {2, "/diagnose", NAMED(can_proprietary_rest_get_diagnose)},
    {1, "/config-file", NAMED(can_proprietary_rest_post_config_file)},
    {2, "/config-file", NAMED(can_proprietary_rest_get_config_file)},
};

int init() {
    void *handle = nullptr;
    return can_proprietary_rest_init("CAN-proprietary", &handle);
}

TEST_F(endpoints, all_twenty_are_registered_in_order) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(init(), 0); }), IsEmpty());
    EXPECT_EQ(g_fake_rest.service, "CAN-proprietary");
    ASSERT_EQ(g_fake_rest.registrations.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); i++) {
        const fake_rest_registration &made = g_fake_rest.registrations[i];
        EXPECT_EQ(made.handle, 7);
        EXPECT_EQ(made.path, rows[i].path) << i;
        EXPECT_EQ(made.method, rows[i].method) << i;
        EXPECT_EQ(made.callback, rows[i].handler) << i;
    }
}

TEST_F(endpoints, a_failing_row_ends_the_registration_with_its_message) {
    for (size_t i = 0; i < std::size(rows); i++) {
        g_fake_rest = {};
        g_fake_rest.failing_row = static_cast<int>(i) + 1;
        g_fake_rest.register_result = i % 2 == 0 ? -6 : 3;
        EXPECT_THAT(messages_of([] { EXPECT_EQ(init(), 1); }),
                    ElementsAre(std::string("can_proprietary_rest_init|register ") +
                                rows[i].logged + " rest callback fail (" +
                                (i % 2 == 0 ? "-6" : "3") + ").\n"));
        EXPECT_EQ(g_fake_rest.registrations.size(), i + 1);
    }
}

TEST_F(endpoints, a_library_that_does_not_start_registers_nothing) {
    g_fake_rest.init_result = -4;
    EXPECT_THAT(messages_of([] { EXPECT_EQ(init(), 1); }),
                ElementsAre("can_proprietary_rest_init|init rest fail (-4).\n"));
    EXPECT_THAT(g_fake_rest.registrations, IsEmpty());
}

TEST_F(endpoints, handle_0_is_one) {
    g_fake_rest.init_result = 0;
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(g_fake_rest.registrations.front().handle, 0);
}

TEST_F(endpoints, missing_arguments_are_logged) {
    const std::string line = "can_proprietary_rest_init|pointer is null\n";
    void *handle = nullptr;
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(can_proprietary_rest_init(nullptr, &handle), 1);
                    EXPECT_EQ(can_proprietary_rest_init("CAN-proprietary", nullptr), 1);
                }),
                ElementsAre(line, line));
    EXPECT_EQ(g_fake_rest.service, "");
}

} // namespace
