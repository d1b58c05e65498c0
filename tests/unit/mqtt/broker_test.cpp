#include "broker.h"
#include "fake_broker.h"

#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class broker_test : public ::testing::TestWithParam<mqtt_protocol>, public broker_events {
protected:
    broker_test() {
        settings_.broker_port = server_.port();
        settings_.client_id = "unit";
        settings_.protocol = GetParam();
        settings_.reconnect_min_ms = 1;
        settings_.reconnect_max_ms = 20;
        connection_ = broker_open(settings_, statistics_, *this);
    }

    void connected() override { ++connects_; }
    void disconnected() override { ++disconnects_; }
    void received(std::string_view topic, std::string_view payload, bool retained) override {
        received_.push_back(std::string(topic) + "=" + std::string(payload) +
                            (retained ? " retained" : ""));
    }
    void sent(uint64_t token) override { sent_.insert(token); }
    broker_message will() override { return {"will", "gone", 1, true, 0}; }

    bool run_until(const std::function<bool()> &condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition() && std::chrono::steady_clock::now() < end) {
            broker_run(*connection_, {}, 5);
        }
        return condition();
    }
    bool connect() {
        const int before = connects_;
        return run_until([&] { return connects_ > before; });
    }
    int publish(const std::string &topic, int qos, uint64_t token) {
        return broker_publish(*connection_, {topic, "text", qos, true, token});
    }

    fake_broker server_;
    bridge_settings settings_;
    bridge_statistics statistics_;
    broker_ptr connection_;
    int connects_ = 0;
    int disconnects_ = 0;
    std::vector<std::string> received_;
    std::set<uint64_t> sent_;
};

INSTANTIATE_TEST_SUITE_P(protocols,
                         broker_test,
                         ::testing::Values(mqtt_protocol::v3_1_1, mqtt_protocol::v5),
                         [](const auto &row) {
                             return row.param == mqtt_protocol::v5 ? "mqtt_5" : "mqtt_3_1_1";
                         });

} // namespace

TEST_P(broker_test, a_connection_carries_the_client_id_and_the_will) {
    EXPECT_FALSE(broker_connected(*connection_));
    ASSERT_TRUE(connect());
    EXPECT_TRUE(broker_ready(*connection_));
    EXPECT_EQ(server_.client_id(), "unit");
    EXPECT_EQ(server_.will().topic, "will");
    EXPECT_EQ(server_.will().payload, "gone");
    EXPECT_TRUE(server_.will().retain);
    EXPECT_EQ(statistics_.connects, 1U);
}

TEST_P(broker_test, every_message_that_was_sent_is_told_by_its_token) {
    ASSERT_TRUE(connect());
    EXPECT_EQ(publish("a", 0, 1), 0);
    EXPECT_EQ(publish("b", 1, 2), 0);
    EXPECT_TRUE(run_until([&] { return sent_.size() == 2; }));
    EXPECT_TRUE(run_until([&] { return server_.messages().size() == 2; }));
    const std::vector<seen_message> seen = server_.messages();
    EXPECT_EQ(seen[0].topic, "a");
    EXPECT_EQ(seen[1].payload, "text");
    EXPECT_TRUE(seen[1].retain);
}

TEST_P(broker_test, a_broker_that_does_not_acknowledge_fills_the_window) {
    server_.acknowledge = false;
    ASSERT_TRUE(connect());
    int sent = 0;
    while (broker_ready(*connection_) && sent < 1000) {
        ASSERT_EQ(publish("a", 1, 1), 0);
        ++sent;
    }
    EXPECT_EQ(sent, broker_window);
    server_.cut();
    EXPECT_TRUE(run_until([&] { return disconnects_ == 1; }));
    server_.acknowledge = true;
    ASSERT_TRUE(connect());
    EXPECT_TRUE(broker_ready(*connection_));
    EXPECT_TRUE(sent_.empty());
}

TEST_P(broker_test, nothing_is_sent_without_a_connection) {
    EXPECT_EQ(publish("a", 1, 1), -1);
    EXPECT_EQ(broker_subscribe(*connection_, {"a"}, 1), -1);
}

TEST_P(broker_test, a_message_that_cannot_be_sent_does_not_end_the_connection) {
    ASSERT_TRUE(connect());
    EXPECT_EQ(publish("wild/+/card", 1, 1), -1);
    EXPECT_TRUE(broker_connected(*connection_));
    EXPECT_EQ(publish("good", 1, 2), 0);
    EXPECT_TRUE(run_until([&] { return sent_.count(2) == 1; }));
}

TEST_P(broker_test, messages_come_in_with_their_retain_flag) {
    ASSERT_TRUE(connect());
    ASSERT_EQ(broker_subscribe(*connection_, {"x/+/set", "y"}, 1), 0);
    ASSERT_TRUE(run_until([&] { return server_.filters().size() == 2; }));
    server_.send("x/1/set", "5", false);
    server_.send("y", "6", true);
    server_.send("y", "", false);
    ASSERT_TRUE(run_until([&] { return received_.size() == 3; }));
    EXPECT_EQ(received_, (std::vector<std::string>{"x/1/set=5", "y=6 retained", "y="}));
}

TEST_P(broker_test, a_lost_connection_is_made_again) {
    ASSERT_TRUE(connect());
    for (int i = 1; i <= 5; ++i) {
        server_.cut();
        ASSERT_TRUE(run_until([&] { return disconnects_ == i; }));
        ASSERT_TRUE(connect());
    }
    EXPECT_EQ(statistics_.disconnects, 5U);
    EXPECT_EQ(statistics_.connects, 6U);
}

TEST_P(broker_test, a_refused_connection_is_tried_again) {
    server_.connect_code = GetParam() == mqtt_protocol::v5 ? 0x87 : 5; // not authorised
    ASSERT_TRUE(run_until([&] { return statistics_.refused >= 2; }));
    EXPECT_EQ(connects_, 0);
    EXPECT_EQ(disconnects_, 0);
    server_.connect_code = 0;
    EXPECT_TRUE(connect());
}

TEST_P(broker_test, nobody_at_the_port_is_tried_again) {
    bridge_settings elsewhere = settings_;
    elsewhere.broker_port = 1; // of nobody
    const broker_ptr lonely = broker_open(elsewhere, statistics_, *this);
    while (statistics_.refused < 3) {
        broker_run(*lonely, {}, 5);
    }
    EXPECT_EQ(connects_, 0);
}

TEST_P(broker_test, a_wait_ends_when_another_descriptor_is_ready) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    ASSERT_TRUE(connect());
    pollfd other = {ends[0], POLLIN, 0};
    broker_run(*connection_, {&other, 1}, 30000);
    EXPECT_EQ(other.revents, POLLIN);
    (void)close(ends[0]);
    (void)close(ends[1]);
}

TEST_P(broker_test, an_orderly_end_sends_what_is_under_way_and_says_goodbye) {
    ASSERT_TRUE(connect());
    ASSERT_EQ(publish("last", 1, 7), 0);
    broker_finish(*connection_, 30000);
    EXPECT_EQ(sent_.count(7), 1U);
    EXPECT_FALSE(broker_connected(*connection_));
    EXPECT_TRUE(run_until([&] { return server_.said_goodbye.load(); }));
    EXPECT_EQ(connects_, 1);
}

TEST_P(broker_test, files_for_tls_that_are_not_there_are_a_refusal) {
    settings_.tls_ca = "/nowhere/ca.pem";
    ASSERT_TRUE(run_until([&] { return statistics_.refused >= 2; }));
    EXPECT_EQ(server_.connections, 0);
}

TEST(broker_delay, doubles_up_to_its_limit_and_never_falls_below_the_least) {
    EXPECT_EQ(broker_delay_ms(1000, 60000, 0, 255), 1000);
    EXPECT_EQ(broker_delay_ms(1000, 60000, 1, 255), 2000);
    EXPECT_EQ(broker_delay_ms(1000, 60000, 5, 255), 32000);
    EXPECT_EQ(broker_delay_ms(1000, 60000, 6, 255), 60000);
    EXPECT_EQ(broker_delay_ms(1000, 60000, 4000000000U, 255), 60000);
    EXPECT_EQ(broker_delay_ms(1000, 60000, 6, 0), 30000);
    EXPECT_EQ(broker_delay_ms(1000, 60000, 0, 0), 1000);
}
