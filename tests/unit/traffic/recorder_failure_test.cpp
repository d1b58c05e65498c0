#include "allocation_fault.h"
#include "full_disk.h"
#include "new_fault.h"
#include "recorder_fixture.h"

using ::testing::AnyOf;

namespace {

class recorder_failure : public recorder_fixture {
protected:
    static messages failing_record(int code) {
        return messages_of([code] { EXPECT_EQ(record(), code); });
    }

    static std::string message(const std::string &text) {
        return "can_proprietary_traffic_record_log|" + text + "\n";
    }

    /** The log, which has to fail and leave nullptr. */
    static messages failing_log(int code, int port = 0) {
        static JSON_Value *const marker = reinterpret_cast<JSON_Value *>(1);
        JSON_Value *log = marker;
        messages logged =
            messages_of([&] { EXPECT_EQ(can_proprietary_traffic_get_log(&log, port), code); });
        EXPECT_EQ(log, nullptr);
        return logged;
    }

    static void replace_by_folder(const std::string &file) {
        std::filesystem::remove(file);
        std::filesystem::create_directory(file);
    }
};

TEST_F(recorder_failure, only_the_start_of_the_service_needs_memory_for_texts) {
    if (!new_fault::available) {
        GTEST_SKIP() << "operator new cannot be replaced here";
    }
    const auto never = [](int result, int nth) { ADD_FAILURE() << result << " at " << nth; };
    EXPECT_EQ(new_fault::sweep([] { return can_proprietary_traffic_start(0); }, never), 0);
    g_fake_semaphore.taken.reserve(4);
    new_fault::arm(2); // the first is the name of the lock, which the fake semaphore notes
    EXPECT_EQ(record(), 0);
    EXPECT_FALSE(new_fault::disarm());
    new_fault::arm(2);
    JSON_Value *log = nullptr;
    EXPECT_EQ(can_proprietary_traffic_get_log(&log, 0), 0);
    EXPECT_FALSE(new_fault::disarm());
    json_value_free(log);
    const auto no_port = [](int result, int nth) {
        EXPECT_EQ(result, -2) << nth;
        EXPECT_EQ(state(0), -1) << nth;
    };
    can_proprietary_traffic_deinit();
    for (const std::string &text : messages_of([&] {
             EXPECT_GT(new_fault::sweep([] { return can_proprietary_traffic_init(2); }, no_port),
                       0);
         })) {
        EXPECT_THAT(text,
                    AnyOf("can_proprietary_traffic_init|malloc fail.\n",
                          "can_proprietary_traffic_get_control_state|port_idx(0) invalid.\n"));
    }
    start();
    EXPECT_EQ(record(), 0);
}

TEST_F(recorder_failure, port_at_or_above_the_count_is_refused_by_every_operation) {
    const uint8_t none = 0;
    for (const int port : {2, 255, 256}) {
        const std::string text = "port_idx(" + std::to_string(port) + ") invalid.\n";
        EXPECT_THAT(messages_of([&] {
                        EXPECT_EQ(can_proprietary_traffic_start(port), -1);
                        EXPECT_EQ(can_proprietary_traffic_stop(port), -1);
                        EXPECT_EQ(can_proprietary_traffic_get_control_state(port), -1);
                        EXPECT_EQ(can_proprietary_traffic_init_start_time(port), -1);
                        EXPECT_EQ(can_proprietary_traffic_record_log(
                                      &none, TRAFFIC_SEND, 1, 0, 0, static_cast<uint16_t>(port)),
                                  -1);
                    }),
                    ElementsAre("can_proprietary_traffic_start|" + text,
                                "can_proprietary_traffic_stop|" + text,
                                "can_proprietary_traffic_get_control_state|" + text,
                                "can_proprietary_traffic_init_start_time|" + text,
                                "can_proprietary_traffic_record_log|" + text));
        EXPECT_THAT(failing_log(-1, port), ElementsAre("can_proprietary_traffic_get_log|" + text));
    }
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(-1), -1); }),
                ElementsAre("can_proprietary_traffic_start|port_idx(-1) invalid.\n"));
}

TEST_F(recorder_failure, no_port_is_valid_after_the_end) {
    can_proprietary_traffic_deinit();
    EXPECT_THAT(messages_of([] { EXPECT_EQ(state(0), -1); }),
                ElementsAre("can_proprietary_traffic_get_control_state|port_idx(0) invalid.\n"));
    can_proprietary_traffic_deinit();
}

TEST_F(recorder_failure, want_of_memory_at_the_start_leaves_no_port) {
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(
                        allocation_fault::sweep([] { return can_proprietary_traffic_init(2); },
                                                [](int result, int) {
                                                    EXPECT_EQ(result, -2);
                                                    EXPECT_EQ(state(0), -1);
                                                }),
                        1);
                }),
                ElementsAre("can_proprietary_traffic_init|malloc fail.\n",
                            "can_proprietary_traffic_get_control_state|"
                            "port_idx(0) invalid.\n"));
    EXPECT_EQ(state(0), 0);
}

TEST_F(recorder_failure, csv_file_that_cannot_be_made_keeps_the_state) {
    replace_by_folder(csv_path());
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(0), -5); }),
                ElementsAre("can_proprietary_traffic_start|open file " + csv_path() + " fail.\n"));
    EXPECT_EQ(state(), 0);
    EXPECT_FALSE(std::filesystem::exists(json_path()));
}

TEST_F(recorder_failure, json_file_that_cannot_be_made_leaves_the_header_and_keeps_the_state) {
    replace_by_folder(json_path());
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(0), -5); }),
                ElementsAre("can_proprietary_traffic_start|open file " + json_path() + " fail.\n"));
    EXPECT_EQ(csv(), csv_header);
    EXPECT_EQ(state(), 0);
}

TEST_F(recorder_failure, link_in_the_place_of_a_file_is_not_followed) {
    write(path("victim"), "untouched");
    for (const std::string &file : {csv_path(), json_path()}) {
        start();
        std::filesystem::remove(file);
        std::filesystem::create_symlink(path("victim"), file);
        (void)failing_record(-5);
        (void)messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(0), -5); });
        EXPECT_EQ(read(path("victim")), "untouched");
        std::filesystem::remove(file);
    }
}

TEST_F(recorder_failure, link_in_the_place_of_the_log_is_not_shown) {
    write(path("victim"), "{}\n");
    start();
    std::filesystem::remove(json_path());
    std::filesystem::create_symlink(path("victim"), json_path());
    EXPECT_THAT(failing_log(-5), IsEmpty());
}

TEST_F(recorder_failure, folder_that_cannot_be_made_shows_at_the_start_of_a_recording) {
    std::filesystem::remove_all(path("run"));
    write(path("run"), "a file where the folder should be");
    EXPECT_EQ(can_proprietary_traffic_init(1), 0);
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(0), -5); }),
                ElementsAre("can_proprietary_traffic_start|open file " + csv_path() + " fail.\n"));
}

TEST_F(recorder_failure, failed_start_of_a_running_port_leaves_it_running) {
    start();
    std::filesystem::remove_all(path("run"));
    EXPECT_EQ(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(0), -5); }).size(), 1U);
    EXPECT_EQ(state(), 1);
}

TEST_F(recorder_failure, failed_start_renumbers_the_rows_and_one_of_an_invalid_port_does_not) {
    const auto last_number = [this] {
        EXPECT_EQ(record(), 0);
        const std::string rows = csv();
        const size_t row = rows.rfind('\n', rows.size() - 2) + 1;
        return rows.substr(row, rows.find(',', row) - row);
    };
    start();
    EXPECT_EQ(last_number(), "1");
    EXPECT_EQ(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(2), -1); }).size(), 1U);
    EXPECT_EQ(last_number(), "2");
    std::filesystem::create_directory(csv_path(1));
    EXPECT_EQ(messages_of([] { EXPECT_EQ(can_proprietary_traffic_start(1), -5); }).size(), 1U);
    EXPECT_EQ(last_number(), "1");
}

TEST_F(recorder_failure, lock_that_cannot_be_taken_is_logged) {
    start();
    g_fake_semaphore.fails = true;
    EXPECT_THAT(failing_record(-8), ElementsAre(message("traffic log semaphoreDown fail(-8)")));
    EXPECT_EQ(json() + csv(), csv_header);
    EXPECT_THAT(failing_log(-8),
                ElementsAre("can_proprietary_traffic_get_log|"
                            "get traffic log semaphoreDown fail(-8)\n"));
    g_fake_semaphore.fails = false;
    EXPECT_EQ(record(), 0);
}

TEST_F(recorder_failure, json_file_that_cannot_be_opened_is_logged) {
    start();
    replace_by_folder(json_path());
    EXPECT_THAT(failing_record(-5), ElementsAre(message("open file fail")));
    EXPECT_EQ(csv(), csv_header);
    EXPECT_EQ(state(), 1);
    EXPECT_EQ(g_fake_semaphore.held, 0);
}

TEST_F(recorder_failure, csv_file_that_cannot_be_opened_leaves_the_json_line) {
    start();
    replace_by_folder(csv_path());
    EXPECT_THAT(failing_record(-5), IsEmpty());
    EXPECT_NE(json(), "");
    EXPECT_EQ(g_fake_semaphore.held, 0);
}

TEST_F(recorder_failure, full_disk_leaves_no_half_json_line) {
    start();
    EXPECT_EQ(record(), 0);
    const std::string before = json();
    {
        const full_disk disk(before.size() + 30);
        EXPECT_EQ(record(), -5);
    }
    EXPECT_EQ(json(), before);
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(json(), before + before);
    JSON_Value *log = nullptr;
    EXPECT_EQ(can_proprietary_traffic_get_log(&log, 0), 0);
    EXPECT_EQ(json_array_get_count(json_value_get_array(log)), 2U);
    json_value_free(log);
}

TEST_F(recorder_failure, full_disk_leaves_no_half_row) {
    start();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(record(), 0);
    }
    const std::string before = csv();
    write(json_path(), "");
    {
        const full_disk disk(before.size() + 20);
        EXPECT_EQ(record(), -5);
    }
    EXPECT_EQ(csv(), before);
    EXPECT_EQ(record(), 0);
    EXPECT_EQ(csv().substr(before.size(), 2), "4,"); // the lost row took no number
}

TEST_F(recorder_failure, header_that_cannot_be_written_keeps_the_state) {
    const full_disk disk(20);
    EXPECT_EQ(can_proprietary_traffic_start(0), -5);
    EXPECT_EQ(state(), 0);
}

TEST_F(recorder_failure, log_without_an_output_is_refused) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(can_proprietary_traffic_get_log(nullptr, 0), -1); }),
                IsEmpty());
}

TEST_F(recorder_failure, log_of_a_port_that_never_recorded_fails) {
    EXPECT_THAT(failing_log(-5), IsEmpty());
    EXPECT_EQ(g_fake_semaphore.held, 0);
}

TEST_F(recorder_failure, log_without_memory_fails) {
    start();
    json_fault::arm("init_array");
    EXPECT_THAT(failing_log(-7), IsEmpty());
    EXPECT_EQ(record(), 0);
    json_fault::arm("append");
    EXPECT_THAT(failing_log(-6), IsEmpty());
}

TEST_F(recorder_failure, log_with_a_line_that_is_no_json_fails) {
    start();
    EXPECT_EQ(record(), 0);
    const std::string line = json();
    for (const char *bad : {"{\"time\":\n", "\n", "nonsense\n", "{} {}\n", "{\"half"}) {
        write(json_path(), line + bad);
        EXPECT_THAT(failing_log(-6), IsEmpty()) << bad;
    }
    EXPECT_EQ(g_fake_semaphore.held, 0);
}

TEST_F(recorder_failure, half_a_line_of_a_killed_process_goes_with_the_next_start) {
    start();
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(record(), 0);
    }
    const std::string lines = json();
    const std::string rows = csv();
    const auto start_again = [] {
        can_proprietary_traffic_deinit();
        EXPECT_EQ(can_proprietary_traffic_init(2), 0);
    };
    start_again();
    EXPECT_EQ(json(), lines);
    EXPECT_EQ(csv(), rows);
    for (size_t length : {1, 20, 40}) {
        write(json_path(), lines + lines.substr(0, length));
        write(csv_path(), rows + "3,0." + std::string(length, '1'));
        start_again();
        EXPECT_EQ(json(), lines);
        EXPECT_EQ(csv(), rows);
    }
    JSON_Value *log = nullptr;
    EXPECT_EQ(can_proprietary_traffic_get_log(&log, 0), 0);
    EXPECT_EQ(json_array_get_count(json_value_get_array(log)), 2U);
    json_value_free(log);
}

TEST_F(recorder_failure, half_a_first_line_leaves_an_empty_file) {
    start();
    write(json_path(), "{\"time");
    write(csv_path(), "No.,");
    can_proprietary_traffic_deinit();
    EXPECT_EQ(can_proprietary_traffic_init(2), 0);
    EXPECT_EQ(json(), "");
    EXPECT_EQ(csv(), "");
}

TEST_F(recorder_failure, a_file_whose_last_line_is_none_of_the_recorders_stays) {
    const std::string foreign(5000, 'x');
    write(json_path(), "{}\n" + foreign);
    write(csv_path(), "");
    can_proprietary_traffic_deinit();
    EXPECT_EQ(can_proprietary_traffic_init(2), 0);
    EXPECT_EQ(json(), "{}\n" + foreign);
    EXPECT_EQ(csv(), "");
}

TEST_F(recorder_failure, mutexes_that_fail_are_told_on_standard_output_and_ignored) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports the unlock that follows a lock that failed";
#endif
    const auto printed = [](int (*call)(int), int result) {
        ::testing::internal::CaptureStdout();
        const int got = call(0);
        (void)fflush(stdout);
        g_mutex_fault = {};
        EXPECT_EQ(got, result);
        return ::testing::internal::GetCapturedStdout();
    };
    const struct {
        int (*call)(int);
        int result;
    } operations[] = {{can_proprietary_traffic_start, 0},
                      {can_proprietary_traffic_get_control_state, 1},
                      {can_proprietary_traffic_stop, 0}};
    for (const auto &operation : operations) {
        g_mutex_fault.lock_result = 22;
        EXPECT_EQ(printed(operation.call, operation.result),
                  "Err, pthread_mutex_lock() return 22\n");
        g_mutex_fault.unlock_result = 1;
        EXPECT_EQ(printed(operation.call, operation.result),
                  "Err, pthread_mutex_unlock() return 1\n");
    }
    EXPECT_EQ(state(), 0);
}

} // namespace
