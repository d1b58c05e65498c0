#include "platform/dx_fixture.h"
#include "rest_client.h"

#include <kt/rest.h>

#include <cstdlib>
#include <gmock/gmock.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr char drive[] = R"({"data": {"deviceId": 1, "portId": 2, "deviceName": "dr/ive",
 "transactionList": [
  {"transactionEnable": true, "transactionName": "state", "transactionType": 1,
   "consumeToutEnable": true, "consumeTimeout": 500, "frameList": [{"blockList": [
     {"blockType": 0, "tagName": "speed"}, {"blockType": 1, "constantName": "kind"}]}]},
  {"transactionEnable": true, "transactionName": "quiet", "transactionType": 1,
   "consumeToutEnable": false, "consumeTimeout": 500, "frameList": [{"blockList": [
     {"blockType": 0, "tagName": "level"}]}]},
  {"transactionEnable": true, "transactionName": "control", "transactionType": 2, "trigger": 1,
   "cyclicInterval": 1000, "fpFunc": 2, "fpTimeout": 3000, "responseTimeout": 100,
   "timeoutRetry": 2, "frameList": [
     {"blockList": [{"blockType": 0, "tagName": "target", "fpData": "12F"}]},
     {"blockList": [{"blockType": 0, "tagName": "actual"}]}]},
  {"transactionEnable": true, "transactionName": "beat", "transactionType": 0, "trigger": 0,
   "cyclicInterval": 1000, "fpFunc": 1, "fpTimeout": 60, "frameList": [{"blockList": [
     {"blockType": 0, "tagName": "count", "fpData": "FF"}]}]},
  {"transactionEnable": false, "transactionName": "off", "transactionType": 1, "frameList": [
     {"blockList": [{"blockType": 0, "tagName": "x"}]}]}]}})";

} // namespace

TEST(device_tree, a_consumed_tag_has_the_age_of_its_transaction) {
    circumstances_map map;
    ASSERT_EQ(read_device_tree(drive, map), 0);
    EXPECT_EQ(map.size(), 5U);
    const tag_circumstances &speed = map.at("can_proprietary/dr/ive/state_speed");
    EXPECT_EQ(speed.max_age_ms, 600);
    EXPECT_EQ(speed.port, 2);
    EXPECT_FALSE(speed.is_request);
    EXPECT_EQ(map.at("can_proprietary/dr/ive/quiet_level").max_age_ms, 0);
}

TEST(device_tree, a_request_knows_its_response_and_how_long_that_takes) {
    circumstances_map map;
    ASSERT_EQ(read_device_tree(drive, map), 0);
    const tag_circumstances &target = map.at("can_proprietary/dr/ive/control_target");
    EXPECT_TRUE(target.is_request);
    EXPECT_TRUE(target.sent_on_change);
    EXPECT_EQ(target.answer_ms, 300);
    EXPECT_THAT(target.response_tags, ElementsAre("can_proprietary/dr/ive/control_actual"));
    EXPECT_FALSE(map.at("can_proprietary/dr/ive/control_actual").is_request);
}

TEST(device_tree, fault_values_are_read_as_the_service_reads_them) {
    circumstances_map map;
    ASSERT_EQ(read_device_tree(drive, map), 0);
    const tag_circumstances &target = map.at("can_proprietary/dr/ive/control_target");
    EXPECT_EQ(target.fault_after_ms, 3000);
    EXPECT_EQ(target.fault_value[0], 0x01);
    EXPECT_EQ(target.fault_value[1], 0x2F);
    const tag_circumstances &count = map.at("can_proprietary/dr/ive/beat_count");
    EXPECT_EQ(count.fault_after_ms, 60);
    EXPECT_EQ(count.fault_value[0], 0); // whatever fpData holds
    EXPECT_EQ(map.at("can_proprietary/dr/ive/control_actual").fault_after_ms, 0);
}

TEST(device_tree, what_is_no_device_is_refused) {
    circumstances_map map;
    for (const char *text : {"", "[]", "{}", R"({"data": 5})", R"({"data": {"deviceName": 1}})"}) {
        EXPECT_EQ(read_device_tree(text, map), -1) << text;
    }
    EXPECT_EQ(read_device_tree(R"({"data": {"deviceName": "a", "transactionList": 7}})", map), 0);
    EXPECT_EQ(
        read_device_tree(R"({"data": {"deviceName": "a", "transactionList": [1, null, {}]}})", map),
        0);
    EXPECT_THAT(map, IsEmpty());
}

TEST(diagnose, is_taken_apart) {
    std::string data;
    std::vector<transaction_state> states;
    ASSERT_EQ(read_diagnose(R"({"data": {"state": "Normal", "transactionList": [
        {"deviceName": "a", "transactionName": "b", "transactionState": -1, "failedCount": 7}]}})",
                            data,
                            states),
              0);
    ASSERT_EQ(states.size(), 1U);
    EXPECT_EQ(states[0].device, "a");
    EXPECT_EQ(states[0].state, 255);
    EXPECT_EQ(states[0].failed_count, 7U);
    EXPECT_EQ(data.substr(0, 17), R"({"state":"Normal")");
    EXPECT_EQ(read_diagnose("no", data, states), -1);
    EXPECT_EQ(read_diagnose(R"({"data": []})", data, states), -1);
}

namespace {

std::atomic<int> config_changed{0};
std::atomic<int> failed_count{0};

int answer(const std::string &text) {
    return rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
}
int answer_overview(const char *, const char *, size_t) {
    return answer(R"({"data": {"portNum": 1}})");
}
int answer_interface(const char *, const char *, size_t) {
    return answer(R"({"data": {"deviceList": [{"deviceId": 1}]}})");
}
int answer_device(const char *, const char *, size_t) {
    return answer(drive);
}
int answer_config_change(const char *, const char *, size_t) {
    return answer(R"({"data": {"result": )" + std::to_string(config_changed) + "}}");
}
int answer_diagnose(const char *, const char *, size_t) {
    return answer(R"({"data": {"state": "Normal", "transactionList": [{"deviceName": "dr/ive",
        "transactionName": "control", "transactionState": 2, "failedCount": )" +
                  std::to_string(failed_count) + "}]}}");
}

/** The bridge's side of a service, which is there from start_service() on. */
class rest_client_test : public scratch_root {
protected:
    rest_client_test() {
        config_changed = failed_count = 0;
        (void)setenv("KT_REST_LISTEN", "127.0.0.1:0", 1);
        settings_.diagnostics_period_s = 1;
        start_service();
        client_.emplace(settings_, std::vector<tag_table *>{&table_}, [this](auto diagnostics) {
            const std::lock_guard lock(mutex_);
            diagnostics_.push_back(std::move(diagnostics));
        });
    }
    ~rest_client_test() override {
        client_.reset();
        rest_cleanup();
        (void)unsetenv("KT_REST_LISTEN");
    }
    void start_service() {
        ::testing::internal::CaptureStderr();
        const int handle = rest_init("unit", nullptr);
        (void)::testing::internal::GetCapturedStderr();
        const std::string address = read(path("run/kt-rest/unit.address"));
        settings_.rest_url = "http://127.0.0.1:" +
                             std::to_string(std::stoi(address.substr(address.rfind(':') + 1))) +
                             "/unit";
        const std::pair<const char *, rest_callback> handlers[] = {
            {"/overview", answer_overview},
            {"/interface", answer_interface},
            {"/device", answer_device},
            {"/config-change", answer_config_change},
            {"/diagnose", answer_diagnose},
        };
        for (const auto &[name, handler] : handlers) {
            EXPECT_EQ(rest_cb_register(handle, name, REST_GET, handler), REST_OK);
        }
    }
    bool target_known() const {
        return table_.circumstances("can_proprietary/dr/ive/control_target").has_value();
    }
    size_t diagnostics() const {
        const std::lock_guard lock(mutex_);
        return diagnostics_.size();
    }

    bridge_settings settings_;
    tag_table table_;
    mutable std::mutex mutex_; // guards diagnostics_
    std::vector<port_diagnostics> diagnostics_;
    std::optional<rest_client> client_;
};

} // namespace

TEST_F(rest_client_test, learns_what_tags_belong_to_and_publishes_diagnostics) {
    client_->start();
    ASSERT_TRUE(eventually([&] { return target_known() && diagnostics() > 0; }));
    EXPECT_TRUE(client_->reachable());
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(diagnostics_[0].port, 1);
    EXPECT_EQ(diagnostics_[0].json.substr(0, 17), R"({"state":"Normal")");
}

TEST_F(rest_client_test, a_configuration_that_is_not_applied_says_nothing) {
    config_changed = 1;
    client_->start();
    EXPECT_TRUE(eventually([&] { return client_->reachable(); }));
    EXPECT_FALSE(target_known());
}

TEST_F(rest_client_test, a_fresh_report_is_fetched_when_it_is_asked_for) {
    client_->start();
    ASSERT_TRUE(eventually([&] { return target_known(); }));
    const tag_circumstances known = *table_.circumstances("can_proprietary/dr/ive/control_target");
    failed_count = 5;
    EXPECT_TRUE(eventually([&] { return client_->report(known, true).failed_count == 5; }));
    EXPECT_EQ(client_->report(known, false).state, 2);
}

TEST_F(rest_client_test, without_an_address_nothing_is_asked) {
    settings_.rest_url.clear();
    client_->start();
    EXPECT_FALSE(client_->report({}, true).known);
    client_->stop();
    EXPECT_FALSE(client_->reachable());
}

TEST_F(rest_client_test, stops_while_nobody_answers) {
    rest_cleanup();
    ::testing::internal::CaptureStderr();
    client_->start();
    client_->stop();
    (void)::testing::internal::GetCapturedStderr(); // whether it came to ask is left to chance
    EXPECT_FALSE(client_->reachable());
}
