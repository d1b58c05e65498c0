#include "core/state.h"
#include "death_scene.h"
#include "rest/handlers.h"
#include "traffic/recorder.h"

#include <parson.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pthread.h>

/*
 * Both ports record while a client reads, and die, also with the recorder's lock held. The next
 * process reads what is there, records and reads again; each file holds whole lines.
 */

namespace {

constexpr int ports = 2;
constexpr const char *folder = "/run/tmp/kt-can-proprietary";

using value_ptr = std::unique_ptr<JSON_Value, decltype(&json_value_free)>;

std::string file_of(int port, const char *extension) {
    return rooted_path(folder) + "/traffic-log" + std::to_string(port) + "." + extension;
}

int record(int port, uint32_t number) {
    std::array<uint8_t, 8> data{};
    data.fill(static_cast<uint8_t>(number));
    const auto length = static_cast<uint8_t>(number % 9);
    return can_proprietary_traffic_record_log(
        data.data(), TRAFFIC_RECEIVE, 0x100 + port, 0, length, static_cast<uint16_t>(port));
}

/** @return lines of the log, -1 without one */
int lines_of(int port) {
    JSON_Value *log = nullptr;
    const int result = can_proprietary_traffic_get_log(&log, port);
    const value_ptr owner(log, json_value_free);
    expect(result == 0 || (result == -5 && !std::filesystem::exists(file_of(port, "json"))),
           "the traffic log cannot be read: " + std::to_string(result));
    return result == 0 ? static_cast<int>(json_array_get_count(json_value_get_array(log))) : -1;
}

void expect_whole_rows(int port) {
    std::ifstream file(file_of(port, "csv"), std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    expect(text.empty() || text.back() == '\n', "half a row ends the download");
}

void *read_on(void * /*argument*/) {
    for (;;) {
        for (int port = 0; port < ports; port++) {
            JSON_Value *log = nullptr;
            (void)can_proprietary_traffic_get_log(&log, port); // judged when this process is dead
            json_value_free(log);
        }
    }
}

class recorder_scene : public scene {
public:
    void prepare(dice & /*random*/) override { can_proprietary_traffic_deinit(); }

    int work(dice &random) override {
        pthread_t reader{};
        if (can_proprietary_traffic_init(ports) != 0 ||
            (random.one_of(4) && pthread_create(&reader, nullptr, read_on, nullptr) != 0)) {
            return 3;
        }
        for (uint32_t number = 0;; number++) {
            for (int port = 0; port < ports; port++) {
                if ((number % 500 == 0 && can_proprietary_traffic_start(port) != 0) ||
                    record(port, number) != 0) {
                    return 4;
                }
            }
        }
    }

    void start_again(dice & /*random*/) override {
        expect(can_proprietary_traffic_init(ports) == 0, "the recorder does not start");
        for (int port = 0; port < ports; port++) {
            (void)lines_of(port);
        }
    }

    void judge(dice & /*random*/) override {
        for (int port = 0; port < ports; port++) {
            expect_whole_rows(port);
            expect(can_proprietary_traffic_get_control_state(port) == 0, "it records unasked");
        }
        for (int port = 0; port < ports; port++) {
            expect(can_proprietary_traffic_start(port) == 0, "recording does not start");
            expect(record(port, 8) == 0, "a frame cannot be recorded");
            expect(lines_of(port) == 1, "the frame is not in the log");
        }
    }

    void reset() override { std::filesystem::remove_all(rooted_path(folder)); }
};

} // namespace

std::unique_ptr<scene> make_recorder_scene() {
    return std::make_unique<recorder_scene>();
}
