#include "recorder_fixture.h"

namespace {

class recorder : public recorder_fixture {
protected:
    /** The JSON line of a sent data frame with id 0x123 and no data, at second 0. */
    static constexpr const char *plain_line =
        "{\"time\":\"0.000\",\"direction\":0,\"canId\":291,\"RTR\":0,\"dataLength\":0,"
        "\"data\":\"\"}\n";

    /** Fill a file to that size; its last byte ends a line. */
    static void fill(const std::string &file, size_t size, char with = ' ') {
        std::string text(size, with);
        text.back() = '\n';
        write(file, text);
    }

    std::string texts_of(int port) const {
        JSON_Value *log = nullptr;
        EXPECT_EQ(can_proprietary_traffic_get_log(&log, port), 0);
        char *text = json_serialize_to_string(log);
        const std::string found = text == nullptr ? "" : text;
        json_free_serialized_string(text);
        json_value_free(log);
        return found;
    }
};

TEST_F(recorder, is_off_at_first) {
    EXPECT_EQ(state(0), 0);
    EXPECT_EQ(state(1), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("run/tmp/kt-can-proprietary")));
    EXPECT_TRUE(std::filesystem::is_empty(path("run/tmp/kt-can-proprietary")));
}

TEST_F(recorder, start_writes_the_header_and_empties_the_lines) {
    start();
    write(json_path(), "old");
    write(csv_path(), "old");
    start();
    EXPECT_EQ(csv(), csv_header);
    EXPECT_EQ(csv().size(), 47U);
    EXPECT_EQ(json(), "");
    EXPECT_EQ(state(0), 1);
    EXPECT_EQ(state(1), 0);
    EXPECT_FALSE(std::filesystem::exists(csv_path(1)));
}

TEST_F(recorder, frame_is_not_recorded_while_off) {
    start();
    EXPECT_EQ(can_proprietary_traffic_stop(0), 0);
    EXPECT_EQ(record({1}), 0);
    EXPECT_EQ(record(std::vector<uint8_t>(9)), 0);
    EXPECT_EQ(csv(), csv_header);
    EXPECT_EQ(json(), "");
    EXPECT_THAT(g_fake_semaphore.taken, IsEmpty());
}

TEST_F(recorder, sent_standard_data_frame_byte_by_byte) {
    start();
    g_fake_timestamp_us = 512345;
    EXPECT_EQ(record({0x01, 0xA0}), 0);
    EXPECT_EQ(csv(), std::string(csv_header) + "1,0.512,Send,\"0x\"123,Data frame,2,\"01 A0\"\n");
    EXPECT_EQ(json(),
              "{\"time\":\"0.512\",\"direction\":0,\"canId\":291,\"RTR\":0,\"dataLength\":2,"
              "\"data\":\"01 A0\"}\n");
}

TEST_F(recorder, received_extended_remote_frame_byte_by_byte) {
    start();
    const uint8_t none = 0;
    EXPECT_EQ(can_proprietary_traffic_record_log(
                  &none, TRAFFIC_RECEIVE, 0x1ABCDEF0U | CAN_EFF_FLAG | CAN_RTR_FLAG, 1, 0, 0),
              0);
    EXPECT_EQ(csv(),
              std::string(csv_header) + "1,0.000,Receive,\"0x\"1ABCDEF0,Remote Frame,0,\"\"\n");
    EXPECT_EQ(json(),
              "{\"time\":\"0.000\",\"direction\":1,\"canId\":448585456,\"RTR\":1,"
              "\"dataLength\":0,\"data\":\"\"}\n");
}

TEST_F(recorder, identifiers_have_3_or_8_digits_and_lose_their_flags) {
    start();
    const struct {
        uint32_t id;
        const char *shown;
    } identifiers[] = {{0, "000"},
                       {0x7FF, "7FF"},
                       {0x1ABCDEF0, "6F0"},
                       {0x12 | CAN_RTR_FLAG | CAN_ERR_FLAG, "012"},
                       {CAN_EFF_FLAG, "00000000"},
                       {0xFFFFFFFF, "1FFFFFFF"}};
    std::string expected = csv_header;
    int number = 1;
    for (const auto &identifier : identifiers) {
        EXPECT_EQ(record({}, identifier.id), 0);
        expected += std::to_string(number++) + ",0.000,Send,\"0x\"" + identifier.shown +
                    ",Data frame,0,\"\"\n";
    }
    EXPECT_EQ(csv(), expected);
}

TEST_F(recorder, rtr_argument_other_than_1_is_a_data_frame) {
    start();
    const uint8_t none = 0;
    for (const int rtr : {0, 2, -1}) {
        EXPECT_EQ(can_proprietary_traffic_record_log(&none, TRAFFIC_SEND, 1, rtr, 0, 0), 0);
        EXPECT_NE(json().find("\"RTR\":" + std::to_string(rtr) + ","), std::string::npos);
    }
    EXPECT_EQ(csv().find("Remote Frame"), std::string::npos);
}

TEST_F(recorder, data_of_0_to_8_bytes_is_shown) {
    start();
    std::string expected;
    std::vector<uint8_t> data;
    for (uint8_t length = 0; length <= 8; length++) {
        EXPECT_EQ(record(data), 0);
        EXPECT_NE(csv().find(std::to_string(length) + ",\"" + expected + "\"\n"),
                  std::string::npos);
        expected += length == 0 ? "" : " ";
        expected += "F" + std::to_string(length);
        data.push_back(static_cast<uint8_t>(0xF0 + length));
    }
}

TEST_F(recorder, data_of_9_bytes_is_refused_and_logged) {
    start();
    EXPECT_THAT(messages_of([] { EXPECT_EQ(record(std::vector<uint8_t>(9)), -1); }),
                ElementsAre("can_proprietary_traffic_record_log|data length(9) invalid.\n"));
    EXPECT_EQ(csv(), csv_header);
    EXPECT_EQ(json(), "");
}

TEST_F(recorder, time_counts_from_the_start_time_of_the_port) {
    g_fake_timestamp_us = 5000000;
    EXPECT_EQ(can_proprietary_traffic_init_start_time(0), 0);
    start(0);
    start(1);
    g_fake_timestamp_us = 6234500;
    EXPECT_EQ(record_on(0), 0);
    EXPECT_EQ(record_on(1), 0);
    EXPECT_NE(csv(0).find("1,1.234,"), std::string::npos); // half to even, as printf rounds
    EXPECT_NE(csv(1).find("2,6.234,"), std::string::npos);
    g_fake_timestamp_us = 5000000 + 100LL * 86400 * 1000000;
    EXPECT_EQ(record_on(0), 0);
    EXPECT_NE(csv(0).find("3,8640000.000,"), std::string::npos);
}

TEST_F(recorder, start_does_not_touch_the_start_time) {
    start();
    g_fake_timestamp_us = 7000000;
    start();
    EXPECT_EQ(record(), 0);
    EXPECT_NE(csv().find("1,7.000,"), std::string::npos);
}

TEST_F(recorder, two_ports_share_one_sequence_of_numbers) {
    start(0);
    start(1);
    for (const uint16_t port : std::initializer_list<uint16_t>{0, 1, 0, 1, 1}) {
        EXPECT_EQ(record_on(port), 0);
    }
    const std::string rest = ",0.000,Send,\"0x\"123,Data frame,0,\"\"\n";
    EXPECT_EQ(csv(0), csv_header + ("1" + rest) + ("3" + rest));
    EXPECT_EQ(csv(1), csv_header + ("2" + rest) + ("4" + rest) + ("5" + rest));
}

TEST_F(recorder, start_of_one_port_renumbers_the_rows_of_all) {
    start(0);
    EXPECT_EQ(record_on(0), 0);
    EXPECT_EQ(record_on(0), 0);
    start(1);
    EXPECT_EQ(record_on(0), 0);
    EXPECT_EQ(record_on(1), 0);
    const std::string rest = ",0.000,Send,\"0x\"123,Data frame,0,\"\"\n";
    EXPECT_EQ(csv(0), csv_header + ("1" + rest) + ("2" + rest) + ("1" + rest));
    EXPECT_EQ(csv(1).substr(47, 2), "2,");
}

TEST_F(recorder, stop_does_not_touch_the_row_numbers) {
    start(0);
    start(1);
    EXPECT_EQ(record_on(0), 0);
    EXPECT_EQ(can_proprietary_traffic_stop(0), 0);
    EXPECT_EQ(record_on(1), 0);
    EXPECT_EQ(csv(1).substr(47, 2), "2,");
}

TEST_F(recorder, files_removed_in_the_midst_begin_anew_without_a_header) {
    start();
    std::filesystem::remove(csv_path());
    std::filesystem::remove(json_path());
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(json(), plain_line);
    EXPECT_EQ(csv(), "1,0.000,Send,\"0x\"123,Data frame,0,\"\"\n");
}

TEST_F(recorder, files_survive_a_stop_and_can_be_read) {
    start();
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(can_proprietary_traffic_stop(0), 0);
    EXPECT_EQ(json(), plain_line);
    EXPECT_EQ(texts_of(0), "[" + std::string(plain_line, strlen(plain_line) - 1) + "]");
}

TEST_F(recorder, lines_that_just_fit_are_written_to_both_files) {
    start();
    const size_t length = strlen(plain_line) - 1;
    fill(json_path(), 384000 - length);
    fill(csv_path(), 384000 - length);
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(state(), 1);
    EXPECT_EQ(json().size(), 384001U);
    EXPECT_GT(csv().size(), 384000 - length);
}

TEST_F(recorder, json_file_that_would_exceed_its_limit_ends_the_recording) {
    start();
    const size_t length = strlen(plain_line) - 1;
    fill(json_path(), 384000 - length + 1);
    EXPECT_THAT(messages_of([] { EXPECT_EQ(record(), 0); }), IsEmpty());
    EXPECT_EQ(state(), 0);
    EXPECT_EQ(json().size(), 384000 - length + 1);
    EXPECT_EQ(csv(), csv_header);
}

TEST_F(recorder, json_file_of_383990_bytes_takes_no_line_of_more_than_10) {
    start();
    fill(json_path(), 383990);
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(json().size(), 383990U);
    EXPECT_EQ(csv(), csv_header);
    EXPECT_EQ(state(), 0);
}

TEST_F(recorder, csv_file_is_tested_with_the_length_of_the_json_text) {
    start();
    const size_t length = strlen(plain_line) - 1;
    fill(csv_path(), 384000 - length + 1);
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(state(), 0);
    EXPECT_EQ(json(), plain_line);
    EXPECT_EQ(csv().size(), 384000 - length + 1);
}

TEST_F(recorder, full_file_of_one_port_does_not_stop_the_other) {
    start(0);
    start(1);
    fill(json_path(0), 384000);
    EXPECT_EQ(record_on(0), 0);
    EXPECT_EQ(record_on(1), 0);
    EXPECT_EQ(state(0), 0);
    EXPECT_EQ(state(1), 1);
    EXPECT_EQ(csv(1).substr(47, 2), "1,"); // a row that is not written takes no number
}

TEST_F(recorder, log_is_the_array_of_the_lines) {
    start(0);
    EXPECT_EQ(texts_of(0), "[]");
    EXPECT_EQ(record({0xFF}), 0);
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(texts_of(0),
              "[{\"time\":\"0.000\",\"direction\":0,\"canId\":291,\"RTR\":0,\"dataLength\":1,"
              "\"data\":\"FF\"}," +
                  std::string(plain_line, strlen(plain_line) - 1) + "]");
}

TEST_F(recorder, line_of_2047_bytes_is_the_longest_that_can_be_read) {
    start();
    write(json_path(), "\"" + std::string(2044, 'x') + "\"\n"); // 2046 characters and the end
    EXPECT_EQ(texts_of(0), "[\"" + std::string(2044, 'x') + "\"]");
    write(json_path(), "\"" + std::string(2046, 'x') + "\"\n");
    JSON_Value *log = nullptr;
    EXPECT_EQ(can_proprietary_traffic_get_log(&log, 0), -6);
    EXPECT_EQ(log, nullptr);
}

TEST_F(recorder, lines_of_every_length_are_read_wherever_they_lie_in_the_file) {
    start();
    for (size_t length = 3; length < 2048; length += 146) { // 2047 is the last
        std::string lines;
        std::string expected;
        while (lines.size() < 60000) {
            const std::string text = "\"" + std::string(length - 3, 'x') + "\"";
            lines += text + "\n";
            expected += (expected.empty() ? "[" : ",") + text;
        }
        write(json_path(), lines);
        EXPECT_TRUE(texts_of(0) == expected + "]") << length;
    }
}

TEST_F(recorder, last_line_needs_no_end_and_a_zero_ends_a_line) {
    write(json_path(), std::string("1\n2\0 nonsense\n3", 16));
    EXPECT_EQ(texts_of(0), "[1,2,3]");
}

TEST_F(recorder, line_that_is_too_long_is_read_in_parts) {
    write(json_path(), std::string(2046, ' ') + "12\n");
    EXPECT_EQ(texts_of(0), "[1,2]");
}

TEST_F(recorder, file_lock_is_that_of_the_json_file_and_held_while_writing) {
    start();
    std::string seen = "nothing";
    g_fake_semaphore.while_held = [&] { seen = json() + csv(); };
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(seen, csv_header); // nothing was written before
    g_fake_semaphore.while_held = nullptr;
    EXPECT_EQ(texts_of(0).empty(), false);
    EXPECT_THAT(g_fake_semaphore.taken, ElementsAre(json_path(0), json_path(0)));
}

TEST_F(recorder, new_pass_is_off_and_keeps_the_files) {
    start();
    EXPECT_EQ(record(), 0);
    can_proprietary_traffic_deinit();
    EXPECT_EQ(can_proprietary_traffic_init(2), 0);
    EXPECT_EQ(state(), 0);
    EXPECT_EQ(json(), plain_line);
}

TEST_F(recorder, port_255_has_its_files) {
    can_proprietary_traffic_deinit();
    EXPECT_EQ(can_proprietary_traffic_init(255), 0);
    start(254);
    EXPECT_EQ(csv(254), csv_header);
}

} // namespace
