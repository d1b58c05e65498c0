#include "handlers_fixture.h"
#include "rest/response.h"

namespace {

/* In which order a handler looks at things: the first that is wrong decides the answer. */

using lines = std::vector<std::string>;

/** A member of a body: its name, how it is read, a value and the line that tells of its failure. */
struct read_member {
    const char *name;
    const char *kind; /* the getter behind "json_obj_get_" */
    const char *value;
    std::string line;
};

class handlers_order : public handlers {
protected:
    static lines logged_by(size_t request, const std::string &uri, const std::string &body) {
        rest_request_row row = requests[request];
        row.uri = uri.empty() ? row.uri : uri.c_str();
        row.body = body.c_str();
        return messages_of([&] { EXPECT_GE(run(row), 400) << row.function << " " << body; });
    }

    /** The first two lines and the code of the answer, with each member missing from there on. */
    static void expect_reading(size_t request,
                               const std::string &before,
                               const std::vector<read_member> &members,
                               const std::string &after,
                               int code) {
        std::string body = before;
        for (const read_member &member : members) {
            const lines logged = logged_by(request, "", body + R"("x":0)" + after);
            ASSERT_GE(logged.size(), 3U) << body;
            EXPECT_EQ(logged[0],
                      std::string("json_obj_get_") + member.kind + "|Parameter " + member.name +
                          " does not exist\n");
            EXPECT_EQ(logged[1], member.line);
            EXPECT_THAT(answer(),
                        ::testing::StartsWith(R"({"error":{"code":)" + std::to_string(code) + ","));
            body += std::string("\"") + member.name + "\":" + member.value + ",";
        }
        rest_request_row row = requests[request];
        body += R"("x":0)" + after;
        row.body = body.c_str();
        EXPECT_LT(run(row), 300) << body;
        fill();
    }

    static std::vector<read_member> with_lines(const std::string &function,
                                               std::vector<read_member> members) {
        for (read_member &member : members) {
            if (member.line.empty()) {
                member.line = function + "|get " + member.name + " fail\n";
            }
        }
        return members;
    }
};

const std::string parse_transaction = "can_proprietary_parse_object_transaction_json";
const std::string insert_blocks = "can_proprietary_parse_array_block_json_to_insert_config";

std::string set_failed(const std::string &name) {
    return insert_blocks + "|set " + name + " fail\n";
}

std::string get_failed(const std::string &name) {
    return insert_blocks + "|get " + name + " fail\n";
}

TEST_F(handlers_order, members_of_a_port) {
    expect_reading(1,
                   "{",
                   with_lines("can_proprietary_rest_patch_interface_config",
                              {{"frameFormat", "number", "1", ""},
                               {"baudrate", "number", "3", ""},
                               {"initialDelay", "number", "0", ""},
                               {"busOffReset", "boolean", "false", ""},
                               {"resistor", "boolean", "false", ""}}),
                   "}",
                   -3);
    execute(working_db_path(), "UPDATE interface_setting SET frameFormat = 0");
}

TEST_F(handlers_order, members_of_a_device) {
    expect_reading(
        4,
        "{",
        with_lines("can_proprietary_rest_post_device_config",
                   {{"portId", "number", "1", ""}, {"deviceName", "string", "\"n\"", ""}}),
        "}",
        -3);
}

TEST_F(handlers_order, members_of_each_type_of_transaction) {
    const std::vector<read_member> start = {{"transactionEnable", "boolean", "true", ""},
                                            {"transactionName", "string", "\"n\"", ""}};
    const std::vector<read_member> rest[] = {
        {{"transactionType", "number", "0", ""},
         {"trigger", "number", "0", ""},
         {"cyclicInterval", "number", "10", ""},
         {"fpFunc", "number", "1", ""},
         {"fpTimeout", "number", "100", ""},
         {"triggerByRTR", "boolean", "true", ""}},
        {{"transactionType", "number", "1", ""},
         {"consumeToutEnable", "boolean", "true", ""},
         {"consumeTimeout", "number", "0", ""}},
        {{"transactionType", "number", "2", ""},
         {"trigger", "number", "0", ""},
         {"cyclicInterval", "number", "10", ""},
         {"fpFunc", "number", "2", ""},
         {"fpTimeout", "number", "100", ""},
         {"responseTimeout", "number", "10", ""},
         {"timeoutRetry", "number", "5", ""}},
    };
    for (const std::vector<read_member> &members : rest) {
        std::vector<read_member> all = start;
        all.insert(all.end(), members.begin(), members.end());
        all = with_lines(parse_transaction, all);
        expect_reading(6, "{", all, "}", 1);
        // A device's own transactions answer with the parser's code.
        expect_reading(4,
                       R"({"portId":1,"deviceName":"d","transactionList":[{"frameList":[],)",
                       all,
                       "}]}",
                       -3);
    }
}

TEST_F(handlers_order, the_device_of_a_transaction_before_the_rest) {
    EXPECT_EQ(logged_by(5, "", R"({"transactionType":9})")[1],
              "can_proprietary_rest_post_transaction_config|get deviceId fail\n");
}

TEST_F(handlers_order, members_of_a_frame) {
    const std::string frame = "can_proprietary_parse_object_frame_json|set ";
    const std::string before = R"({"frameList":[{"blockList":[],)";
    const lines both = logged_by(7, "", before + R"("x":0}]})");
    EXPECT_EQ(both[0], "json_obj_get_number|Parameter canId does not exist\n");
    EXPECT_EQ(both[1], frame + "canId fail\n");
    const lines second = logged_by(7, "", before + R"("canId":1}]})");
    EXPECT_EQ(second[0], "json_obj_get_number|Parameter dataLength does not exist\n");
    EXPECT_EQ(second[1], frame + "dataLength fail\n");
}

const std::string block_before = R"({"frameList":[{"canId":1,"dataLength":8,"blockList":[{)";

TEST_F(handlers_order, members_of_a_constant) {
    expect_reading(7,
                   block_before,
                   {{"blockType", "number", "1", set_failed("blockType")},
                    {"constantName", "string", "\"c\"", get_failed("constantName")},
                    {"constantSize", "number", "1", set_failed("constantSize")},
                    {"startOffset", "number", "7", set_failed("startOffset")},
                    {"constantValue", "string", "\"5A\"", set_failed("constantValue")}},
                   "}]}]}",
                   -3);
}

TEST_F(handlers_order, members_of_a_tag_of_each_scaling) {
    const std::vector<read_member> start = {
        {"blockType", "number", "0", set_failed("blockType")},
        {"tagName", "string", "\"t\"", get_failed("tagName")},
        {"tagType", "number", "6", set_failed("tagType")},
        {"tagSize", "number", "2", set_failed("tagType")}, // names the wrong member, kept
        {"access", "string_safe", "\"ro\"", get_failed("access")},
        {"startOffset", "number", "0", set_failed("startOffset")},
        {"swap", "number", "0", set_failed("swap")},
    };
    const auto number = [](const char *name, const char *value = "1") {
        return read_member{name, "number", value, set_failed(name)};
    };
    const std::vector<read_member> rest[] = {
        {number("scalingFunc", "0")},
        {number("scalingFunc", "1"), number("interceptSlope"), number("interceptOffset")},
        {number("scalingFunc", "2"),
         number("pointSourceMin"),
         number("pointSourceMax"),
         number("pointTargetMin"),
         number("pointTargetMax")},
    };
    for (const std::vector<read_member> &members : rest) {
        std::vector<read_member> all = start;
        all.insert(all.end(), members.begin(), members.end());
        expect_reading(7, block_before, all, "}]}]}", -3);
    }
}

TEST_F(handlers_order, fault_data_between_swap_and_scaling) {
    const std::string tag = block_before +
                            R"("blockType":0,"tagName":"t","tagType":6,"tagSize":2,"access":"ro",)"
                            R"("startOffset":0,"fpData":1)";
    EXPECT_EQ(logged_by(7, "", tag + "}]}]}")[1], set_failed("swap"));
    EXPECT_EQ(logged_by(7, "", tag + R"(,"swap":0}]}]})")[1], set_failed("fpData"));
}

TEST_F(handlers_order, rows_are_inserted_before_what_hangs_on_them_is_looked_at) {
    const std::string before = everything();
    const lines device = logged_by(4, "", R"({"portId":1,"deviceName":"'","transactionList":0})");
    EXPECT_EQ(device[1],
              "can_proprietary_rest_post_device_config|"
              "can_proprietary_conf_insert_device_config fail \n");
    const lines transaction =
        logged_by(5,
                  "",
                  R"({"deviceId":1,"transactionEnable":true,"transactionName":"state",)"
                  R"("transactionType":1,"consumeToutEnable":false,"frameList":0})");
    EXPECT_EQ(transaction[0],
              "can_proprietary_rest_post_transaction_config|"
              "can_proprietary_conf_insert_transaction_config fail\n");
    EXPECT_EQ(everything(), before);
    execute(working_db_path(), "INSERT INTO frame VALUES (65535, 1, 900, 8, 1)");
    const lines frame =
        logged_by(7, "", R"({"frameList":[{"canId":1,"dataLength":8,"blockList":0}]})");
    EXPECT_EQ(frame[0], insert_blocks + "|blockList fail\n"); // its own frames went first
}

TEST_F(handlers_order, frames_are_deleted_before_the_new_ones_are_looked_at) {
    const lines unknown = logged_by(7, "/CAN-proprietary/frame/99", "{}");
    EXPECT_EQ(unknown[0], "can_proprietary_conf_delete_frame_config|transaction_id not found\n");
    EXPECT_THAT(answer(), ::testing::HasSubstr(R"("code":-3,)"));
    const lines known = logged_by(7, "/CAN-proprietary/frame/1", "{}");
    EXPECT_EQ(known[0],
              "can_proprietary_parse_array_frame_json_to_replace_config|frameList fail\n");
}

TEST_F(handlers_order, members_before_the_row_that_they_are_for) {
    EXPECT_EQ(logged_by(6, "/CAN-proprietary/transaction/99", "{}")[0],
              "json_obj_get_boolean|Parameter transactionEnable does not exist\n");
    EXPECT_EQ(logged_by(8, "/CAN-proprietary/device/99", "{}")[0],
              "json_obj_get_string|Parameter deviceName does not exist\n");
    EXPECT_EQ(logged_by(1, "/CAN-proprietary/interface/9", R"({"frameFormat":0})")[0],
              "json_obj_get_number|Parameter baudrate does not exist\n");
}

TEST_F(handlers_order, the_working_copy_before_path_and_body) {
    std::filesystem::remove(working_db_path());
    const struct {
        size_t request;
        const char *uri;
    } rows[] = {{1, "/CAN-proprietary/interface"},
                {4, "/CAN-proprietary/device"},
                {5, "/CAN-proprietary/transaction"},
                {6, "/CAN-proprietary/transaction"},
                {7, "/CAN-proprietary/frame"},
                {8, "/CAN-proprietary/device"},
                {10, "/CAN-proprietary/device"},
                {11, "/CAN-proprietary/transaction"}};
    for (const auto &row : rows) {
        const lines logged = logged_by(row.request, row.uri, "{");
        ASSERT_EQ(logged.size(), 3U) << requests[row.request].function;
        EXPECT_EQ(logged[1], std::string(requests[row.request].function) + "|param fail\n");
        rest_request_row without_body = requests[row.request];
        without_body.body = nullptr;
        if (without_body.writes) {
            EXPECT_EQ(messages_of([&] { EXPECT_EQ(run(without_body), 400); })[0],
                      std::string(without_body.function) + "|invalid input_data\n");
        }
    }
    EXPECT_EQ(logged_by(3, "/CAN-proprietary/device", "")[0],
              "can_proprietary_rest_get_device_config|rest_find_uri_query_val fail (-8).\n");
}

} // namespace
