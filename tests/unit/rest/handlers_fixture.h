#ifndef KT_TESTS_HANDLERS_FIXTURE_H
#define KT_TESTS_HANDLERS_FIXTURE_H

#include "allocation_fault.h"
#include "call_fault.h"
#include "config/config_fixture.h"
#include "device/diag.h"
#include "fake_rest.h"
#include "json_fault.h"
#include "rest/handlers.h"
#include "traffic/recorder.h"

/** A request to a handler, with what it answers when nothing fails. */
struct rest_request_row {
    const char *function;
    rest_callback handler;
    const char *uri;
    const char *body; /* nullptr for none */
    int status;
    bool writes; /* needs a body */
};

inline constexpr const char *tree_body =
    R"({"portId":1,"deviceName":"pump","transactionList":[{"transactionEnable":true,)"
    R"("transactionName":"poll","transactionType":2,"trigger":1,"fpFunc":0,"responseTimeout":10,)"
    R"("timeoutRetry":0,"frameList":[{"canId":1,"dataLength":8,"blockList":[{"blockType":0,)"
    R"("tagName":"t","tagType":6,"tagSize":2,"access":"ro","startOffset":0,"swap":0,"fpData":"00",)"
    R"("scalingFunc":0},{"blockType":1,"constantName":"c","constantSize":1,"startOffset":7,)"
    R"("constantValue":"5A"}]},{"canId":2,"dataLength":0,"blockList":[]}]}]})";

inline constexpr const char *transaction_body =
    R"({"deviceId":1,"transactionEnable":true,"transactionName":"new","transactionType":1,)"
    R"("consumeToutEnable":false,"frameList":[{"canId":1,"dataLength":8,"blockList":[{"blockType":1,)"
    R"("constantName":"c","constantSize":1,"startOffset":7,"constantValue":"5A"}]}]})";

inline constexpr const char *frames_body =
    R"({"frameList":[{"canId":1,"dataLength":8,"blockList":[{"blockType":0,"tagName":"t",)"
    R"("tagType":13,"tagSize":8,"access":"wo","startOffset":0,"swap":0,"scalingFunc":2,)"
    R"("pointSourceMin":0,"pointSourceMax":1,"pointTargetMin":2,"pointTargetMax":3}]}]})";

inline constexpr const char *port_body =
    R"({"frameFormat":0,"baudrate":1,"initialDelay":2,"busOffReset":true,"resistor":true})";

#define KT_HANDLER(name) "can_proprietary_rest_" #name, can_proprietary_rest_##name

/** One successful request per endpoint. */
inline const std::vector<rest_request_row> requests = {
    {KT_HANDLER(get_interface_config), "/CAN-proprietary/interface?portId=1", nullptr, 200, false},
    {KT_HANDLER(patch_interface_config), "/CAN-proprietary/interface/1", port_body, 200, true},
    {"can_proprietary_post_rest_action",
     can_proprietary_post_rest_action,
     "/CAN-proprietary/action",
     R"({"option":1})",
     201,
     true},
    {KT_HANDLER(get_device_config), "/CAN-proprietary/device?deviceId=1", nullptr, 200, false},
    {KT_HANDLER(post_device_config), "/CAN-proprietary/device", tree_body, 201, true},
    {KT_HANDLER(post_transaction_config),
     "/CAN-proprietary/transaction",
     transaction_body,
     201,
     true},
    {KT_HANDLER(patch_transaction_config),
     "/CAN-proprietary/transaction/1",
     transaction_body,
     200,
     true},
    {KT_HANDLER(put_frame_config), "/CAN-proprietary/frame/1", frames_body, 200, true},
    {KT_HANDLER(patch_device_name_config),
     "/CAN-proprietary/device/1",
     R"({"deviceName":"renamed"})",
     200,
     true},
    {KT_HANDLER(get_overview_config), "/CAN-proprietary/overview", nullptr, 200, false},
    {KT_HANDLER(delete_device_config), "/CAN-proprietary/device/1", nullptr, 204, false},
    {KT_HANDLER(delete_transaction_config), "/CAN-proprietary/transaction/1", nullptr, 204, false},
    {KT_HANDLER(get_config_change), "/CAN-proprietary/config-change", nullptr, 200, false},
    {KT_HANDLER(get_usedCANIds_config),
     "/CAN-proprietary/usedCANIds?portId=1",
     nullptr,
     200,
     false},
    {KT_HANDLER(post_traffic_log), "/CAN-proprietary/traffic/1", R"({"option":0})", 201, true},
    {KT_HANDLER(get_traffic_log), "/CAN-proprietary/traffic/1", nullptr, 200, false},
    {KT_HANDLER(export_traffic_csv), "/CAN-proprietary/traffic-export/1", nullptr, 200, false},
    {KT_HANDLER(get_diagnose), "/CAN-proprietary/diagnose?portId=1", nullptr, 200, false},
    {KT_HANDLER(post_config_file),
     "/CAN-proprietary/config-file",
     "--b\r\n\r\nversion: 1.0.0\r\n--b--\r\n",
     400,
     true},
    {KT_HANDLER(get_config_file), "/CAN-proprietary/config-file", nullptr, 200, false},
};

/** A started gateway with a device tree, diagnostic records and a recorded frame. */
class handlers : public started_gateway {
protected:
    handlers() {
        g_fake_rest = {};
        g_call_fault = {};
        fill();
        EXPECT_EQ(can_proprietary_diag_create_infos(2), 0);
        (void)can_proprietary_diag_register(0, "drive", "state", true);
        EXPECT_EQ(can_proprietary_traffic_init(2), 0);
        EXPECT_EQ(can_proprietary_traffic_start(0), 0);
        const uint8_t data[8] = {1};
        EXPECT_EQ(can_proprietary_traffic_record_log(data, TRAFFIC_SEND, 1, 0, 1, 0), 0);
    }
    ~handlers() override {
        (void)json_fault::disarm();
        (void)allocation_fault::disarm();
        g_call_fault = {};
        can_proprietary_traffic_deinit();
        can_proprietary_diag_forget_transactions(0);
        can_proprietary_diag_release_infos();
    }

    static void fill() {
        for (const std::string &path : {working_db_path(), persistent_db_path()}) {
            execute(path,
                    "PRAGMA synchronous = OFF; PRAGMA foreign_keys = ON; DELETE FROM device;"
                    "INSERT INTO device VALUES (1, 1, 'drive');"
                    "INSERT INTO transactions (transactionId, deviceId, transactionName, "
                    "transactionType) VALUES (1, 1, 'state', 1);"
                    "INSERT INTO frame VALUES (1, 1, 385, 8, 1);"
                    "INSERT INTO block (blockId, frameId, tagName) VALUES (1, 1, 'speed')");
        }
    }

    static std::string everything() {
        std::string all;
        for (const char *table :
             {"interface_setting", "device", "transactions", "frame", "block"}) {
            all += rows_of(working_db_path(), std::string("SELECT * FROM ") + table) + "\n";
        }
        return all;
    }

    /** The handler's status; the body it wrote last stands in answer(). */
    static int run(const rest_request_row &row) {
        g_fake_rest.written.clear();
        const size_t length = row.body == nullptr ? 0 : strlen(row.body);
        return row.handler(row.uri, row.body, length);
    }

    static std::string answer() {
        return g_fake_rest.written.empty() ? "" : g_fake_rest.written.back();
    }

    static bool is_download(const rest_request_row &row) {
        return row.handler == can_proprietary_rest_export_traffic_csv ||
               row.handler == can_proprietary_rest_get_config_file;
    }
};

#endif
