#include "rest/config_json.h"
#include "rest/frame_json_insert.h"
#include "rest_fixture.h"

namespace {

class config_json_parse : public rest_unit {
protected:
    config_json_parse() { set_transaction_defaults(&transaction); }
    ~config_json_parse() override { free(transaction.transactionName); }

    int parse(const std::string &members) {
        const json_ptr value =
            parsed(R"({"transactionEnable":true,"transactionName":"n",)" + members + "}");
        EXPECT_NE(value, nullptr) << members;
        return can_proprietary_parse_object_transaction_json(object_of(value), &transaction);
    }

    int parse_frame(const std::string &text) {
        return can_proprietary_parse_object_frame_json(object_of(parsed(text)), &frame);
    }

    transaction_config transaction{};
    frame_config frame{};
};

const std::string function = "can_proprietary_parse_object_transaction_json|";
const std::string frame_function = "can_proprietary_parse_object_frame_json|";

TEST_F(config_json_parse, defaults_of_a_fresh_transaction) {
    EXPECT_EQ(transaction.transactionId, 0);
    EXPECT_EQ(transaction.deviceId, 255);
    EXPECT_EQ(transaction.transactionEnable, 1);
    EXPECT_EQ(transaction.transactionName, nullptr);
    EXPECT_EQ(transaction.transactionType, 0);
    EXPECT_EQ(transaction.triggerMode, 0);
    EXPECT_EQ(transaction.cyclicInterval, 1000);
    EXPECT_EQ(transaction.consumeToutEnable, 0);
    EXPECT_EQ(transaction.consumeTimeout, 10000);
    EXPECT_EQ(transaction.timeoutRetry, 0);
    EXPECT_EQ(transaction.responseTimeout, 1000);
    EXPECT_EQ(transaction.triggerByRTR, 0);
    EXPECT_EQ(transaction.fpFunc, 0);
    EXPECT_EQ(transaction.fpTimeout, 60000);
}

TEST_F(config_json_parse, a_consumed_transaction_without_timeout) {
    EXPECT_EQ(parse(R"("transactionType":1,"consumeToutEnable":false,"consumeTimeout":"x")"), 0);
    EXPECT_EQ(transaction.transactionType, 1);
    EXPECT_EQ(transaction.consumeToutEnable, 0);
    EXPECT_EQ(transaction.consumeTimeout, 10000);
    EXPECT_STREQ(transaction.transactionName, "n");
}

TEST_F(config_json_parse, a_consumed_transaction_with_timeout) {
    EXPECT_EQ(parse(R"("transactionType":1,"consumeToutEnable":true,"consumeTimeout":65535)"), 0);
    EXPECT_EQ(transaction.consumeToutEnable, 1);
    EXPECT_EQ(transaction.consumeTimeout, 65535);
}

TEST_F(config_json_parse, a_sent_transaction) {
    EXPECT_EQ(parse(R"("transactionType":0,"trigger":0,"cyclicInterval":10,"fpFunc":2,)"
                    R"("fpTimeout":65535,"triggerByRTR":true,"responseTimeout":1)"),
              0);
    EXPECT_EQ(transaction.cyclicInterval, 10);
    EXPECT_EQ(transaction.fpFunc, 2);
    EXPECT_EQ(transaction.fpTimeout, 65535);
    EXPECT_EQ(transaction.triggerByRTR, 1);
    EXPECT_EQ(transaction.responseTimeout, 1000);
}

TEST_F(config_json_parse, a_request) {
    EXPECT_EQ(parse(R"("transactionType":2,"trigger":2,"cyclicInterval":9,"fpFunc":0,)"
                    R"("fpTimeout":99,"responseTimeout":65535,"timeoutRetry":5)"),
              0);
    EXPECT_EQ(transaction.triggerMode, 2);
    EXPECT_EQ(transaction.cyclicInterval, 1000);
    EXPECT_EQ(transaction.fpTimeout, 60000);
    EXPECT_EQ(transaction.responseTimeout, 65535);
    EXPECT_EQ(transaction.timeoutRetry, 5);
}

TEST_F(config_json_parse, the_first_failure_stops_with_its_code) {
    const struct {
        const char *members;
        int result;
        const char *member;
    } rows[] = {
        {R"("transactionType":3)", -1, "transactionType"},
        {R"("a":1)", -3, "transactionType"},
        {R"("transactionType":1)", -3, "consumeToutEnable"},
        {R"("transactionType":1,"consumeToutEnable":true)", -3, "consumeTimeout"},
        {R"("transactionType":1,"consumeToutEnable":true,"consumeTimeout":65536)",
         -1,
         "consumeTimeout"},
        {R"("transactionType":0,"fpFunc":9)", -3, "trigger"},
        {R"("transactionType":0,"trigger":3)", -1, "trigger"},
        {R"("transactionType":2,"trigger":0,"cyclicInterval":9)", -1, "cyclicInterval"},
        {R"("transactionType":0,"trigger":0)", -3, "cyclicInterval"},
        {R"("transactionType":0,"trigger":1)", -3, "fpFunc"},
        {R"("transactionType":0,"trigger":1,"fpFunc":1,"fpTimeout":99)", -1, "fpTimeout"},
        {R"("transactionType":0,"trigger":1,"fpFunc":0)", -3, "triggerByRTR"},
        {R"("transactionType":2,"trigger":1,"fpFunc":0)", -3, "responseTimeout"},
        {R"("transactionType":2,"trigger":1,"fpFunc":0,"responseTimeout":10)", -3, "timeoutRetry"},
        {R"("transactionType":2,"trigger":1,"fpFunc":0,"responseTimeout":10,"timeoutRetry":6)",
         -1,
         "timeoutRetry"},
    };
    for (const auto &row : rows) {
        const auto messages = messages_of([&] { EXPECT_EQ(parse(row.members), row.result); });
        ASSERT_EQ(messages.size(), 2U) << row.members;
        EXPECT_EQ(messages[1], function + "get " + row.member + " fail\n");
    }
}

TEST_F(config_json_parse, keys_are_never_read_from_a_body) {
    EXPECT_EQ(
        parse(R"("transactionType":1,"consumeToutEnable":false,"transactionId":5,"deviceId":6)"),
        0);
    EXPECT_EQ(transaction.transactionId, 0);
    EXPECT_EQ(transaction.deviceId, 255);
}

TEST_F(config_json_parse, a_frame_at_its_limits) {
    EXPECT_EQ(parse_frame(R"({"canId":536870911,"dataLength":8})"), 0);
    EXPECT_EQ(frame.canId, 0x1FFFFFFF);
    EXPECT_EQ(frame.dataLength, 8);
    EXPECT_EQ(parse_frame(R"({"canId":0,"dataLength":0})"), 0);
    EXPECT_EQ(frame.canId, 0);
}

TEST_F(config_json_parse, a_bad_identifier_has_the_getters_code_and_a_bad_length_minus_4) {
    const struct {
        const char *body;
        int result;
        const char *member;
    } rows[] = {{R"({"canId":536870912,"dataLength":8})", -1, "canId"},
                {R"({"canId":-1,"dataLength":8})", -1, "canId"},
                {R"({"dataLength":8})", -3, "canId"},
                {R"({"canId":"1","dataLength":8})", -3, "canId"},
                {R"({"canId":1,"dataLength":9})", -4, "dataLength"},
                {R"({"canId":1,"dataLength":-1})", -4, "dataLength"},
                {R"({"canId":1,"dataLength":"8"})", -4, "dataLength"},
                {R"({"canId":1})", -4, "dataLength"}};
    for (const auto &row : rows) {
        const auto messages = messages_of([&] { EXPECT_EQ(parse_frame(row.body), row.result); });
        ASSERT_EQ(messages.size(), 2U) << row.body;
        EXPECT_EQ(messages[1], frame_function + "set " + row.member + " fail\n");
    }
}

} // namespace
