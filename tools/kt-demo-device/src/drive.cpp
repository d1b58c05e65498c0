#include "device.h"
#include "report.h"
#include "transmit.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

constexpr uint32_t identify_request_id = 0x601;
constexpr uint32_t identify_response_id = 0x581;
constexpr uint8_t identify_request_constant = 0x40;
constexpr uint8_t identify_response_constant = 0x43;
constexpr uint32_t serial_number = 20260042;

constexpr uint32_t control_request_id = 0x201;
constexpr uint32_t control_response_id = 0x181;
constexpr uint8_t control_request_constant = 0xA5;
constexpr uint8_t control_response_constant = 0x5A;
constexpr size_t control_request_size = 4;

constexpr uint8_t command_run = 1;
constexpr double ramp_rpm_per_ms = 0.5;
constexpr double ripple_rpm = 4;
constexpr double pi = 3.14159265358979323846;

enum status_bit : uint8_t { status_running = 1, status_at_target = 2 };

void ramp(drive_state &drive, int64_t now_ms) {
    const double goal = drive.command == command_run ? drive.target_rpm : 0;
    const double elapsed_ms =
        drive.updated_ms < 0 ? 0 : static_cast<double>(now_ms - drive.updated_ms);
    const double step = ramp_rpm_per_ms * elapsed_ms;
    drive.speed_rpm += std::clamp(goal - drive.speed_rpm, -step, step);
    drive.updated_ms = now_ms;
}

int16_t shown_speed(const drive_state &drive, int64_t now_ms) {
    const double phase = static_cast<double>(now_ms % 4000) / 4000 * 2 * pi;
    const double ripple = drive.speed_rpm == 0 ? 0 : ripple_rpm * std::sin(phase);
    return static_cast<int16_t>(std::clamp(std::lround(drive.speed_rpm + ripple), -32768L, 32767L));
}

uint8_t status_of(const drive_state &drive) {
    const bool running = drive.command == command_run;
    const bool reached = running && drive.speed_rpm == drive.target_rpm;
    return static_cast<uint8_t>((running ? status_running : 0) | (reached ? status_at_target : 0));
}

void answer_identify(device &unit, int64_t now_ms) {
    std::array<uint8_t, 8> data{identify_response_constant, 0x01, 0x02, 0x07};
    put(std::span(data), 4, serial_number);
    transmit(unit, identify_response_id, data, 0, now_ms);
    report(unit, "drive", "identified", "drive identified itself");
}

void answer_control(device &unit, std::span<const uint8_t> request, int64_t now_ms) {
    drive_state &drive = unit.drive;
    ramp(drive, now_ms);
    drive.command = request[1];
    drive.target_rpm = take<int16_t>(request, 2);
    const auto load = static_cast<int16_t>(std::lround(std::abs(drive.speed_rpm) / 10));
    std::array<uint8_t, 8> data{
        control_response_constant, ++drive.counter, drive.command, status_of(drive)};
    put(std::span(data), 4, shown_speed(drive, now_ms));
    put(std::span(data), 6, load);
    transmit(unit, control_response_id, data, 0, now_ms);
}

void receive(device &unit, const can_frame &frame, uint32_t id, int64_t now_ms) {
    const std::span<const uint8_t> data(frame.data, frame.can_dlc);
    if ((frame.can_id & CAN_RTR_FLAG) != 0 || data.empty()) {
        return;
    }
    if (id == identify_request_id && data[0] == identify_request_constant) {
        answer_identify(unit, now_ms);
    }
    if (id == control_request_id && data.size() == control_request_size &&
        data[0] == control_request_constant) {
        answer_control(unit, data, now_ms);
    }
}

int64_t run(device &, int64_t) {
    return never_ms;
}

} // namespace

const node_kind drive_node{"drive", receive, run};
