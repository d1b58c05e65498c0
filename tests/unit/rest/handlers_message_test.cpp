#include "handlers_fixture.h"
#include "rest/response.h"

#include <algorithm>
#include <set>

namespace {

/* Every failure of a handler, with its messages, its answer and its status, whole. */

using lines = std::vector<std::string>;

/** Places in the list of requests. */
enum request_number : size_t {
    GET_INTERFACE = 0,
    PATCH_INTERFACE = 1,
    POST_ACTION = 2,
    GET_DEVICE = 3,
    POST_DEVICE = 4,
    POST_TRANSACTION = 5,
    PATCH_TRANSACTION = 6,
    PUT_FRAME = 7,
    PATCH_DEVICE = 8,
    GET_OVERVIEW = 9,
    DELETE_DEVICE = 10,
    DELETE_TRANSACTION = 11,
    GET_CONFIG_CHANGE = 12,
    GET_USED_IDS = 13,
    POST_TRAFFIC = 14,
    GET_TRAFFIC = 15,
    EXPORT_TRAFFIC = 16,
    GET_DIAGNOSE = 17,
};

const std::string transaction_object = "can_proprietary_get_transaction_config_to_json_object";
const std::string transaction_array = "can_proprietary_get_transaction_config_to_json_array";
const std::string frame_array = "can_proprietary_get_frame_config_to_json_array";
const std::string insert_transactions =
    "can_proprietary_parse_array_transaction_json_to_insert_config";
const std::string insert_frames = "can_proprietary_parse_array_frame_json_to_insert_config";
const std::string replace_frames = "can_proprietary_parse_array_frame_json_to_replace_config";
const std::string insert_blocks = "can_proprietary_parse_array_block_json_to_insert_config";

class handlers_message : public handlers {
protected:
    static std::string status_line(int code) {
        const std::string shown = std::to_string(code);
        if (code == -2 || code == -12 || code == 1) {
            return "CAN_PROPREITARY_REST_RET option(" + shown + ") has not been set\n";
        }
        return "get_http_status|error=" + shown +
               (code == -1 || code == -3 || code == -13 ? ", return 400 bad request\n"
                                                        : ", return 500 internal server error\n");
    }

    static std::string error_body(int code) {
        return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" +
               rest_ret_message(code) + "\"}}";
    }

    static std::string name_of(size_t request) { return requests[request].function; }

    /** A message of the handler itself. */
    static std::string own(size_t request, const std::string &message) {
        return name_of(request) + "|" + message;
    }

    static void expect_failure(const rest_request_row &row, lines expected, int code) {
        const int status = code == -1 || code == -3 ? 400 : 500;
        const auto logged = messages_of([&] { EXPECT_EQ(run(row), status) << row.function; });
        expected.push_back(status_line(code));
        EXPECT_EQ(logged, expected) << row.function;
        EXPECT_EQ(answer(), is_download(row) ? "" : error_body(code)) << row.function;
    }

    /** The nth call of the JSON library that bears this name fails. */
    static void expect_json_failure(
        size_t request, const std::string &call, int nth, const lines &expected, int code) {
        SCOPED_TRACE(name_of(request) + " " + call);
        json_fault::arm(call, nth);
        expect_failure(requests[request], expected, code);
        EXPECT_TRUE(json_fault::disarm());
    }

    /** Everything that a request logs while one allocation after the other fails. */
    static std::set<lines> logged_without_memory(size_t request) {
        std::set<lines> found;
        for (int nth = 1;; nth++) {
            fill();
            bool has_failed = false;
            const lines logged = messages_of([&] {
                allocation_fault::arm(nth);
                (void)run(requests[request]);
                has_failed = allocation_fault::disarm();
            });
            if (!has_failed) {
                return found;
            }
            found.insert(logged);
        }
    }
};

struct member_row {
    size_t request;
    lines names;
    int code;
};

TEST_F(handlers_message, members_that_cannot_be_set) {
    const member_row rows[] = {
        {GET_INTERFACE,
         {"data.portId",
          "data.frameFormat",
          "data.baudrate",
          "data.initialDelay",
          "data.busOffReset",
          "data.resistor",
          "data.deviceList",
          "deviceId",
          "portId",
          "deviceName"},
         -6},
        {POST_ACTION, {"data.response"}, -6},
        {GET_DEVICE, {"data.deviceId", "data.portId", "data.deviceName"}, -6},
        {POST_DEVICE, {"data.deviceId", "data.portId", "data.deviceName"}, -6},
        {PATCH_DEVICE, {"data.deviceId", "data.portId", "data.deviceName"}, -6},
        {GET_OVERVIEW, {"portId", "deviceNum", "transactionNum"}, -6},
        {DELETE_TRANSACTION, {"data.response"}, -6},
        {GET_CONFIG_CHANGE, {"data.result"}, -6},
        {GET_USED_IDS, {"deviceId", "transactionId", "transactionType"}, -6},
        {POST_TRAFFIC, {"data.response"}, -5},
        {GET_DIAGNOSE,
         {"data.state",
          "data.rxCount",
          "data.txCount",
          "data.crcError",
          "data.bitError",
          "data.stuffError",
          "data.busOffCount",
          "data.busLoading",
          "data.transactionCount",
          "data.transactionList",
          "deviceName",
          "transactionName",
          "transactionState",
          "failedCount"},
         -6},
    };
    const std::string before = everything();
    for (const member_row &row : rows) {
        for (const std::string &name : row.names) {
            const lines logged = {own(row.request, "set " + name + " fail\n")};
            expect_json_failure(row.request, name, 1, logged, row.code);
        }
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers_message, outputs_that_cannot_be_created) {
    const std::string before = everything();
    for (const size_t request : {GET_INTERFACE,
                                 PATCH_INTERFACE,
                                 POST_ACTION,
                                 GET_DEVICE,
                                 POST_DEVICE,
                                 POST_TRANSACTION,
                                 PUT_FRAME,
                                 PATCH_DEVICE,
                                 GET_OVERVIEW,
                                 DELETE_TRANSACTION,
                                 GET_CONFIG_CHANGE,
                                 GET_USED_IDS,
                                 POST_TRAFFIC,
                                 GET_DIAGNOSE}) {
        const lines logged = {own(request, "init output_obj_val fail\n")};
        expect_json_failure(request, "init_object", 1, logged, -4);
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers_message, arrays_and_elements_that_cannot_be_made) {
    const struct {
        size_t request;
        const char *call;
        int nth;
        const char *message;
        int code;
    } rows[] = {
        {GET_INTERFACE, "init_array", 1, "init device_table_arr fail\n", -4},
        {GET_INTERFACE, "init_object", 2, "init table_inner fail\n", -6},
        {GET_INTERFACE, "append", 1, "append inner fail\n", -6},
        {PATCH_INTERFACE, "data", 1, "set data object fail\n", -6},
        {POST_TRANSACTION, "init_object", 4, "init output_obj_val fail\n", -4},
        {POST_TRANSACTION, "data", 1, "set data object fail\n", -6},
        {PATCH_TRANSACTION, "init_object", 1, "init transaction_obj_val fail\n", -4},
        {PATCH_TRANSACTION, "init_object", 2, "init output_obj_val fail\n", -4},
        {PATCH_TRANSACTION, "data", 1, "set data object fail\n", -6},
        {PUT_FRAME, "init_object", 4, "init output_obj_val fail\n", -4},
        {PUT_FRAME, "data", 1, "set data object fail\n", -6},
        // names the wrong member, kept
        {GET_OVERVIEW, "data.portNum", 1, "set data.deviceId fail\n", -6},
        {GET_OVERVIEW, "init_array", 1, "init transaction_table_arr fail\n", -4},
        {GET_OVERVIEW, "init_object", 2, "init transaction_val fail\n", -4},
        {GET_OVERVIEW, "append", 1, "append port_val fail\n", -6},
        {GET_OVERVIEW, "data.portList", 1, "set port list list fail\n", -6},
        {GET_USED_IDS, "init_array", 1, "init transaction_table_arr fail\n", -4},
        {GET_USED_IDS, "init_array", 2, "init can_id_arr fail\n", -4},
        {GET_USED_IDS, "init_object", 2, "init transaction_val fail\n", -4},
        {GET_USED_IDS, "append_number", 1, "set canIds to array fail\n", -6},
        {GET_USED_IDS, "canId", 1, "set canIds array to transaction_val fail\n", -6},
        {GET_USED_IDS, "append", 1, "append transaction_val fail\n", -6},
        {GET_USED_IDS, "data", 1, "set data object fail\n", -6},
        {GET_DIAGNOSE, "init_array", 1, "init transaction_table_arr fail\n", -6},
        {GET_DIAGNOSE, "init_object", 2, "init transaction_val fail\n", -6},
    };
    const std::string before = everything();
    for (const auto &row : rows) {
        const lines logged = {own(row.request, row.message)};
        expect_json_failure(row.request, row.call, row.nth, logged, row.code);
    }
    expect_json_failure(GET_DIAGNOSE, "append", 1, {}, -6);
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers_message, trees_that_cannot_be_shown) {
    const std::string before = everything();
    const std::string no_object = transaction_object + " fail\n";
    const std::string no_member = transaction_object + "|set transactionId fail\n";
    for (const size_t request : {GET_DEVICE, POST_DEVICE}) {
        expect_json_failure(request,
                            "init_array",
                            1,
                            {transaction_array + "|init transaction_table_arr fail\n",
                             own(request, transaction_array + " fail\n")},
                            -6);
    }
    for (const size_t request : {POST_TRANSACTION, PATCH_TRANSACTION}) {
        expect_json_failure(request, "transactionId", 1, {no_member, own(request, no_object)}, -6);
    }
    const std::string no_array = frame_array + "|frmae_table_arr fail\n";
    const std::string no_frames = frame_array + " fail\n";
    expect_json_failure(
        POST_TRANSACTION, "init_array", 1, {no_array, own(POST_TRANSACTION, no_frames)}, -7);
    expect_json_failure(PUT_FRAME, "init_array", 1, {no_array, own(PUT_FRAME, no_frames)}, -6);
    EXPECT_EQ(everything(), before);
}

TEST_F(handlers_message, a_deleted_device_stays_deleted_when_the_answer_fails) {
    const struct {
        const char *call;
        const char *message;
        int code;
    } rows[] = {{"init_object", "init output_obj_val fail\n", -4},
                {"data.response", "set data.response fail\n", -6}};
    for (const auto &row : rows) {
        fill();
        expect_json_failure(
            DELETE_DEVICE, row.call, 1, {own(DELETE_DEVICE, row.message)}, row.code);
        EXPECT_EQ(rows_of(working_db_path(), "SELECT COUNT(*) FROM device"), "0");
        EXPECT_EQ(rows_of(working_db_path(), "SELECT COUNT(*) FROM block"), "0");
    }
}

TEST_F(handlers_message, records_without_memory_are_minus_2) {
    const struct {
        size_t request;
        const char *message;
    } rows[] = {{GET_DEVICE, "Memory allocation failed for device\n"},
                {POST_DEVICE, "Memory allocation failed for device\n"},
                {PATCH_DEVICE, "Memory allocation failed for device\n"},
                {GET_USED_IDS, "Memory allocation failed for device\n"},
                {POST_TRANSACTION, "Memory allocation failed for transaction\n"},
                {PATCH_TRANSACTION, "Memory allocation failed for transaction\n"},
                {PUT_FRAME, "Memory allocation failed for transaction_config\n"}};
    for (const auto &row : rows) {
        const lines expected = {own(row.request, row.message), status_line(-2)};
        EXPECT_THAT(logged_without_memory(row.request), ::testing::Contains(expected))
            << name_of(row.request);
    }
}

TEST_F(handlers_message, elements_without_memory_are_minus_2) {
    const std::string list_failed = own(POST_DEVICE, insert_transactions + " fail \n");
    const std::string frames_failed = insert_transactions + "|" + insert_frames + " fail\n";
    const std::string blocks_failed = "|" + insert_blocks + " fail\n";
    const std::string no_block = insert_blocks + "|malloc fail\n";
    const std::set<lines> device = logged_without_memory(POST_DEVICE);
    EXPECT_THAT(
        device,
        ::testing::IsSupersetOf({
            lines{insert_transactions + "|malloc fail\n", list_failed, status_line(-2)},
            lines{insert_frames + "|malloc fail\n", frames_failed, list_failed, status_line(-2)},
            lines{no_block,
                  insert_frames + blocks_failed,
                  frames_failed,
                  list_failed,
                  status_line(-2)},
        }));
    EXPECT_THAT(logged_without_memory(PUT_FRAME),
                ::testing::IsSupersetOf({
                    lines{replace_frames + "|malloc fail\n",
                          own(PUT_FRAME, replace_frames + " fail\n"),
                          status_line(-2)},
                    lines{no_block,
                          replace_frames + blocks_failed,
                          own(PUT_FRAME, replace_frames + " fail\n"),
                          status_line(-2)},
                }));
}

TEST_F(handlers_message, a_text_without_memory_counts_as_missing) {
    EXPECT_THAT(
        logged_without_memory(PATCH_DEVICE),
        ::testing::Contains(lines{"json_obj_get_string|Parameter deviceName does not exist\n",
                                  own(PATCH_DEVICE, "get portId fail\n"), // kept
                                  status_line(-3)}));
}

TEST_F(handlers_message, an_export_without_memory) {
    EXPECT_THAT(logged_without_memory(EXPORT_TRAFFIC),
                ::testing::Contains(lines{"rest_export_file|malloc response_body fail\n",
                                          own(EXPORT_TRAFFIC, "\n"),
                                          status_line(-8)}));
}

TEST_F(handlers_message, a_working_copy_that_cannot_be_opened) {
    std::filesystem::remove(working_db_path());
    const std::string not_open =
        "open_db|Can't open database: unable to open database file. " + working_db_path() + "\n";
    for (const size_t request : {GET_DEVICE,
                                 POST_DEVICE,
                                 POST_TRANSACTION,
                                 PATCH_TRANSACTION,
                                 PUT_FRAME,
                                 PATCH_DEVICE,
                                 DELETE_DEVICE,
                                 DELETE_TRANSACTION,
                                 PATCH_INTERFACE}) {
        expect_failure(requests[request], {not_open, own(request, "param fail\n")}, -1);
    }
    const std::string no_param = "|param fail\n";
    expect_failure(requests[GET_INTERFACE],
                   {not_open,
                    "can_proprietary_conf_get_interface_config" + no_param,
                    own(GET_INTERFACE, "get config fail\n")},
                   -7);
    expect_failure(requests[GET_OVERVIEW],
                   {not_open,
                    "can_proprietary_conf_get_overview_port_num" + no_param,
                    own(GET_OVERVIEW, "get config fail\n")},
                   -7);
    expect_failure(requests[GET_USED_IDS],
                   {not_open,
                    "can_proprietary_conf_get_port_config" + no_param,
                    own(GET_USED_IDS, "get config fail\n")},
                   -7);
    expect_failure(requests[GET_CONFIG_CHANGE],
                   {"get_ram_modified_time|Fail to get time, Error : No such file or directory\n",
                    "can_proprietary_db_get_ram_modified|update fail\n",
                    own(GET_CONFIG_CHANGE, "can_proprietary_conf_changed fail\n")},
                   -8);
    EXPECT_FALSE(exists(working_db_path()));
}

TEST_F(handlers_message, device_lists_that_cannot_be_read) {
    execute(working_db_path(), "DROP TABLE device");
    const auto logged = messages_of([&] { EXPECT_EQ(run(requests[GET_INTERFACE]), 500); });
    ASSERT_GE(logged.size(), 2U);
    EXPECT_EQ(logged[logged.size() - 2], own(GET_INTERFACE, "get_interface_device_config fail\n"));
    EXPECT_EQ(answer(), error_body(-7));
    const auto counted = messages_of([&] { EXPECT_EQ(run(requests[GET_OVERVIEW]), 500); });
    ASSERT_GE(counted.size(), 2U);
    EXPECT_EQ(counted[counted.size() - 2], own(GET_OVERVIEW, "get config fail\n"));
    EXPECT_EQ(answer(), error_body(-7));
}

TEST_F(handlers_message, rows_that_cannot_be_inserted) {
    const std::string before = everything();
    rest_request_row device = requests[POST_DEVICE];
    device.body = R"({"portId":1,"deviceName":"a'"})";
    expect_failure(
        device,
        {"can_proprietary_conf_insert_device_config|sqlite exec near \"'\": syntax error\n",
         own(POST_DEVICE, "can_proprietary_conf_insert_device_config fail \n")},
        -8);
    rest_request_row frames = requests[PUT_FRAME];
    frames.body =
        R"({"frameList":[{"canId":1,"dataLength":8,"blockList":[{"blockType":1,)"
        R"("constantName":"a'","constantSize":1,"startOffset":7,"constantValue":"5A"}]}]})";
    const std::string failed = own(PUT_FRAME, replace_frames + " fail\n");
    expect_failure(frames,
                   {"can_proprietary_conf_insert_constant_block_config|sqlite exec near \"'\": "
                    "syntax error\n",
                    insert_blocks + "|can_proprietary_conf_insert_constant_block_config fail\n",
                    replace_frames + "|" + insert_blocks + " fail\n",
                    failed},
                   -8);
    EXPECT_EQ(everything(), before);
    execute(working_db_path(), "INSERT INTO frame VALUES (65535, 1, 900, 8, 1)");
    expect_failure(
        requests[POST_TRANSACTION],
        {"can_proprietary_conf_insert_frame_config|sqlite exec CHECK constraint failed: frameId\n",
         insert_frames + "|can_proprietary_conf_insert_frame_config fail\n",
         own(POST_TRANSACTION, insert_frames + " fail\n")},
        -8);
}

TEST_F(handlers_message, bus_states_show_as_their_texts) {
    diag_record *record = can_proprietary_diag_get(0);
    for (const char *state : {"Normal", "Error active", "Error passive", "Bus off"}) {
        const auto *known = std::find_if(canbus_state_str.begin(),
                                         canbus_state_str.end(),
                                         [&](const char *text) { return !strcmp(text, state); });
        ASSERT_NE(known, canbus_state_str.end()) << state;
        record->state = *known;
        ASSERT_EQ(run(requests[GET_DIAGNOSE]), 200);
        EXPECT_THAT(answer(),
                    ::testing::StartsWith(std::string(R"({"data":{"state":")") + state + "\","));
    }
}

TEST_F(handlers_message, the_bus_load_is_computed_when_it_is_asked_for) {
    diag_record *record = can_proprietary_diag_get(0);
    record->bit_rate = 125000;
    record->bit_count = 1000000000; // more than a second of the bus, however slow this runs
    ASSERT_EQ(run(requests[GET_DIAGNOSE]), 200);
    EXPECT_EQ(record->bit_count, 0U);
    const json_ptr value = parse_body(answer().c_str());
    const JSON_Object *object = json_value_get_object(value.get());
    EXPECT_EQ(json_object_dotget_number(object, "data.busLoading"), record->busLoading);
    EXPECT_EQ(can_proprietary_diag_get(1)->busLoading, 0.0);
}

} // namespace
