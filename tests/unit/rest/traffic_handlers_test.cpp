#include "handlers_fixture.h"

namespace {

class traffic_handlers : public handlers {
protected:
    static rest_request_row log_of(const char *uri) {
        rest_request_row row = requests[15];
        row.uri = uri;
        return row;
    }

    const rest_request_row &start_or_stop = requests[14];
    const rest_request_row &download = requests[16];
};

const std::string output_failed = "can_proprietary_rest_get_traffic_log|output json fail\n";
const std::string minus_5 = "get_http_status|error=-5, return 500 internal server error\n";
const std::string minus_8 = "get_http_status|error=-8, return 500 internal server error\n";
const std::string empty_line = "can_proprietary_rest_export_traffic_csv|\n";
constexpr const char *internal_error_5 = R"({"error":{"code":-5,"message":"Internal error"}})";

TEST_F(traffic_handlers, a_log_that_cannot_be_shown_says_so_twice) {
    for (const char *fault : {"init_object", "data.response"}) {
        json_fault::arm(fault);
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(requests[15]), 500); }),
                    ElementsAre(output_failed, output_failed, minus_5));
        EXPECT_TRUE(json_fault::disarm());
        EXPECT_EQ(answer(), internal_error_5);
    }
    json_fault::arm("data.action");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(requests[15]), 500); }),
                ElementsAre("can_proprietary_rest_get_traffic_log|set data.action fail\n",
                            output_failed,
                            minus_5));
}

TEST_F(traffic_handlers, a_recorder_that_gives_no_log_says_so_twice) {
    g_call_fault.no_log = true;
    const rest_request_row log = log_of("/CAN-proprietary/traffic/2");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(log), 500); }),
                ElementsAre(output_failed, output_failed, minus_5));
    EXPECT_EQ(answer(), internal_error_5);
}

TEST_F(traffic_handlers, a_log_shows_the_control_state_before_the_frames) {
    ASSERT_EQ(run(requests[15]), 200);
    EXPECT_THAT(
        answer(),
        ::testing::MatchesRegex(R"(\{"data":\{"action":1,"response":\[\{.*"canId":1,.*\}\]\}\})"));
}

TEST_F(traffic_handlers, a_start_without_its_time_leaves_the_recording_off) {
    ASSERT_EQ(can_proprietary_traffic_stop(0), 0);
    const std::string before = read(path("run/tmp/kt-can-proprietary/traffic-log0.csv"));
    g_call_fault.no_start_time = true;
    rest_request_row start = start_or_stop;
    start.body = R"({"option":1})";
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(start), 500); }),
                ElementsAre("can_proprietary_rest_post_traffic_log|set action fail\n", minus_8));
    EXPECT_EQ(answer(), R"({"error":{"code":-8,"message":"Fail to set"}})");
    EXPECT_EQ(can_proprietary_traffic_get_control_state(0), 0);
    EXPECT_EQ(read(path("run/tmp/kt-can-proprietary/traffic-log0.csv")), before);
}

TEST_F(traffic_handlers, a_download_without_a_time_has_none_in_its_name) {
    for (bool *fault : {&g_call_fault.no_time, &g_call_fault.no_timestamp}) {
        g_call_fault = {};
        *fault = true;
        const char *function = fault == &g_call_fault.no_time
                                   ? "can_proprietary_time_get_localtimeval"
                                   : "can_proprietary_time_get_timestamp";
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(download), 200); }),
                    ElementsAre(std::string(function) + "|get time fail\n", empty_line));
        EXPECT_EQ(g_fake_rest.download_name, "can_proprietary_traffic_log_.csv");
        EXPECT_EQ(g_fake_rest.download, read(path("run/tmp/kt-can-proprietary/traffic-log0.csv")));
    }
}

TEST_F(traffic_handlers, a_name_of_a_download_has_99_bytes_at_most) {
    const size_t around = strlen("can_proprietary_traffic_log_.csv");
    g_call_fault.timestamp = std::string(99 - around, '7');
    EXPECT_EQ(run(download), 200);
    EXPECT_EQ(g_fake_rest.download_name,
              "can_proprietary_traffic_log_" + g_call_fault.timestamp + ".csv");
    g_fake_rest = {};
    g_call_fault.timestamp += "7";
    EXPECT_THAT(
        messages_of([&] { EXPECT_EQ(run(download), 500); }),
        ElementsAre("can_proprietary_rest_export_traffic_csv|set file name fail.\n", minus_8));
    EXPECT_EQ(g_fake_rest.download_name, "");
    EXPECT_EQ(answer(), "");
}

TEST_F(traffic_handlers, an_export_that_fails_behind_its_name_adds_an_empty_line) {
    g_fake_rest.download_result = -2;
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(download), 500); }),
                ElementsAre("rest_export_file|write to handle fail\n", empty_line, minus_8));
    g_fake_rest = {};
    const std::string file = path("run/tmp/kt-can-proprietary/traffic-log0.csv");
    std::filesystem::remove(file);
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(download), 500); }),
                ElementsAre("rest_export_file|open " + file + " fail\n",
                            "Error: : No such file or directory\n",
                            empty_line,
                            minus_8));
    write(file, "");
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(run(download), 200); }), IsEmpty());
    EXPECT_EQ(g_fake_rest.download, "");
    EXPECT_THAT(g_fake_rest.download_name, ::testing::EndsWith(".csv"));
}

} // namespace
