#include "fake_broker.h"
#include "sparkplug_b.pb-c.h"
#include "sparkplug_session.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace {

bool eventually_true(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

/** A command that sets one metric. */
std::string command(const char *name, bool is_boolean, uint32_t number) {
    Kt__SparkplugB__Payload__Metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
    std::string text = name;
    metric.has_name = 1;
    metric.name = {text.size(), reinterpret_cast<uint8_t *>(text.data())};
    metric.has_datatype = 1;
    metric.datatype = is_boolean ? 11 : 7; // Boolean, UInt32
    metric.value_case = is_boolean ? KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE
                                   : KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_INT_VALUE;
    if (is_boolean) {
        metric.boolean_value = number != 0;
    } else {
        metric.int_value = number;
    }
    Kt__SparkplugB__Payload__Metric *metrics[] = {&metric};
    Kt__SparkplugB__Payload payload = KT__SPARKPLUG_B__PAYLOAD__INIT;
    payload.n_metrics = 1;
    payload.metrics = metrics;
    std::string bytes(kt__sparkplug_b__payload__get_packed_size(&payload), '\0');
    (void)kt__sparkplug_b__payload__pack(&payload, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

class sparkplug_session_test : public ::testing::Test {
protected:
    sparkplug_session_test() {
        settings_.broker_port = server_.port();
        settings_.client_id = "unit";
        settings_.sparkplug = true;
        settings_.sparkplug_group = "plant";
        settings_.sparkplug_node = "gw";
        settings_.reconnect_min_ms = 1;
        session_.emplace(
            settings_, statistics_, [this](const std::string &tag, const std::string &value) {
                const std::lock_guard lock(mutex_);
                writes_.push_back(tag + "=" + value);
            });
        write_tag(1);
    }

    void write_tag(uint32_t value) {
        dx_tag_info info{};
        const std::string name = "can_proprietary/pump/set_target";
        memcpy(info.name, name.data(), name.size());
        info.type = 7;
        info.size = 4;
        info.mode = DX_WRITE_ONLY;
        info.version = 1;
        dx_sample sample{};
        memcpy(sample.value, &value, sizeof value);
        sample.sequence = ++sequence_;
        session_->table().update(info, sample, read_clocks());
        session_->wake();
    }

    size_t seen(const std::string &topic) const {
        const std::vector<seen_message> all = server_.messages();
        return static_cast<size_t>(std::ranges::count(all, topic, &seen_message::topic));
    }
    bool comes(const std::string &topic, size_t times = 1) const {
        return eventually_true([&] { return seen(topic) >= times; });
    }
    std::vector<std::string> writes() const {
        const std::lock_guard lock(mutex_);
        return writes_;
    }

    fake_broker server_;
    bridge_settings settings_;
    bridge_statistics statistics_;
    mutable std::mutex mutex_; // guards writes_
    std::vector<std::string> writes_;
    std::optional<sparkplug_session> session_;
    uint32_t sequence_ = 1;
};

constexpr char node_birth[] = "spBv1.0/plant/NBIRTH/gw";
constexpr char node_death[] = "spBv1.0/plant/NDEATH/gw";
constexpr char node_command[] = "spBv1.0/plant/NCMD/gw";
constexpr char device_birth[] = "spBv1.0/plant/DBIRTH/gw/pump";
constexpr char device_data[] = "spBv1.0/plant/DDATA/gw/pump";
constexpr char device_command[] = "spBv1.0/plant/DCMD/gw/pump";

} // namespace

TEST_F(sparkplug_session_test, births_come_first_and_data_after_them) {
    session_->start();
    ASSERT_TRUE(comes(device_birth));
    EXPECT_EQ(server_.client_id(), "unit-sparkplug");
    EXPECT_EQ(server_.will().topic, node_death);
    EXPECT_EQ(server_.messages().front().topic, node_birth);
    EXPECT_EQ(seen(device_data), 0U);
    write_tag(2);
    EXPECT_TRUE(comes(device_data));
}

TEST_F(sparkplug_session_test, a_lost_connection_brings_births_anew) {
    session_->start();
    ASSERT_TRUE(comes(device_birth));
    server_.cut();
    EXPECT_TRUE(comes(node_birth, 2));
    EXPECT_TRUE(comes(device_birth, 2));
}

TEST_F(sparkplug_session_test, commands_write_tags_and_ask_for_births) {
    session_->start();
    ASSERT_TRUE(comes(device_birth));
    server_.send(device_command, command("set_target", false, 7), true); // kept by the broker
    server_.send(device_command, command("set_target", false, 8), false);
    EXPECT_TRUE(eventually_true([&] { return !writes().empty(); }));
    EXPECT_EQ(writes(), std::vector<std::string>{"can_proprietary/pump/set_target=8"});
    server_.send(node_command, command("Node Control/Rebirth", true, 1), false);
    EXPECT_TRUE(comes(node_birth, 2));
    EXPECT_TRUE(comes(device_birth, 2));
}

TEST_F(sparkplug_session_test, an_orderly_end_is_a_death) {
    session_->start();
    ASSERT_TRUE(comes(device_birth));
    session_->stop();
    EXPECT_TRUE(comes(node_death));
}
