#include "outbox.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

class outbox_test : public ::testing::Test {
protected:
    static broker_message message(const std::string &topic, const std::string &payload = "") {
        return {topic, payload, 1, false, 0};
    }
    std::vector<std::string> take_all() {
        std::vector<std::string> topics;
        while (const auto next = box_.take()) {
            topics.push_back(next->topic + next->payload);
            tokens_.push_back(next->token);
        }
        return topics;
    }
    using texts = std::vector<std::string>;

    bridge_statistics statistics_;
    outbox box_{3, 2, statistics_};
    std::vector<uint64_t> tokens_;
};

} // namespace

TEST_F(outbox_test, results_go_before_states_and_states_before_events) {
    box_.add_event(message("event"));
    box_.set_state(message("state"));
    box_.add_result(message("result"));
    EXPECT_EQ(take_all(), (texts{"result", "state", "event"}));
    EXPECT_EQ(take_all(), texts{});
}

TEST_F(outbox_test, what_is_acknowledged_is_forgotten) {
    box_.add_event(message("event"));
    box_.set_state(message("state"));
    box_.add_result(message("result"));
    (void)take_all();
    for (const uint64_t token : tokens_) {
        box_.sent(token);
    }
    box_.nothing_sent();
    EXPECT_EQ(box_.size(), 0U);
}

TEST_F(outbox_test, what_is_not_acknowledged_is_sent_again_in_its_order) {
    for (const char *topic : {"a", "b", "c"}) {
        box_.add_result(message(topic));
    }
    (void)take_all();
    box_.sent(tokens_[1]);
    box_.nothing_sent();
    EXPECT_EQ(take_all(), (texts{"a", "c"}));
}

TEST_F(outbox_test, a_full_queue_drops_its_oldest_and_counts) {
    for (const char *topic : {"a", "b", "c", "d", "e"}) {
        box_.add_result(message(topic));
        box_.add_event(message(topic));
    }
    EXPECT_EQ(take_all(), (texts{"c", "d", "e", "d", "e"}));
    EXPECT_EQ(statistics_.results_dropped, 2U);
    EXPECT_EQ(statistics_.events_dropped, 3U);
}

TEST_F(outbox_test, what_is_under_way_costs_the_newest_no_place) {
    box_.add_event(message("a"));
    box_.add_event(message("b"));
    (void)take_all();
    for (const char *topic : {"c", "d", "e"}) {
        box_.add_event(message(topic));
    }
    EXPECT_EQ(take_all(), (texts{"d", "e"}));
    EXPECT_EQ(statistics_.events_dropped, 1U);
}

TEST_F(outbox_test, the_latest_state_of_a_topic_counts) {
    box_.set_state(message("state", "1"));
    box_.set_state(message("state", "2"));
    EXPECT_EQ(take_all(), texts{"state2"});
    box_.set_state(message("state", "3"));
    box_.sent(tokens_[0]); // of the second
    EXPECT_EQ(take_all(), texts{"state3"});
}

TEST_F(outbox_test, a_message_that_no_connection_can_send_is_given_up) {
    box_.add_result(message("bad"));
    (void)take_all();
    box_.not_sent(tokens_[0], true);
    box_.nothing_sent();
    EXPECT_EQ(take_all(), texts{});
}

TEST_F(outbox_test, a_message_that_met_the_end_of_the_connection_is_kept) {
    box_.add_result(message("good"));
    (void)take_all();
    box_.not_sent(tokens_[0], false);
    EXPECT_EQ(take_all(), texts{"good"});
}
